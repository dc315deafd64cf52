// Reading XML, beside a copy and a sum over the same bytes.
#include "common/xml.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

namespace {

/// A device management request with its security header.
std::string request() {
    std::ifstream file(INET_TEST_DATA "/xml/get_stream_uri.xml");
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The answer of a recorder that has many profiles.
std::string answer(int64_t profiles) {
    std::string text =
        R"(<s:Envelope xmlns:s="http://www.w3.org/2003/05/soap-envelope")"
        R"( xmlns:trt="http://www.onvif.org/ver10/media/wsdl" xmlns:tt="http://www.onvif.org/ver10/schema">)"
        "<s:Body><trt:GetProfilesResponse>";
    for (int64_t i = 0; i < profiles; ++i) {
        const auto n = std::to_string(i);
        text += R"(<trt:Profiles fixed="true" token="profile_)" + n + R"("><tt:Name>Einfahrt Süd &amp; Tor )" + n +
                R"(</tt:Name><tt:VideoSourceConfiguration token="source"><tt:UseCount>2</tt:UseCount>)" +
                R"(<tt:Bounds x="0" y="0" width="1920" height="1080"/></tt:VideoSourceConfiguration>)" +
                R"(<tt:VideoEncoderConfiguration token="encoder"><tt:Encoding>H264</tt:Encoding><tt:Resolution>)" +
                R"(<tt:Width>1920</tt:Width><tt:Height>1080</tt:Height></tt:Resolution><tt:Quality>4</tt:Quality>)" +
                "</tt:VideoEncoderConfiguration></trt:Profiles>\n";
    }
    return text + "</trt:GetProfilesResponse></s:Body></s:Envelope>";
}

template <class Work>
void over_text(benchmark::State& state, Work work) {
    const std::string text = state.range(0) > 0 ? answer(state.range(0)) : request();
    for (auto _ : state)
        work(text);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

void parse(benchmark::State& state) {
    over_text(state, [&state](const std::string& text) {
        node* document = roxml_load(text.data(), static_cast<unsigned>(text.size()), nullptr, 0);
        if (!document) state.SkipWithError("refused");
        benchmark::DoNotOptimize(document);
        roxml_close(document);
    });
}

void floor_memcpy(benchmark::State& state) {
    std::string copy;
    over_text(state, [&copy](const std::string& text) {
        copy.resize(text.size());
        std::memcpy(copy.data(), text.data(), text.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    });
}

/// A step a byte that the next one waits for, as in any reader that looks at each.
void floor_sum(benchmark::State& state) {
    over_text(state, [](const std::string& text) {
        unsigned sum = 0;
        for (const char c : text) {
            sum += static_cast<unsigned char>(c);
            benchmark::DoNotOptimize(sum);
        }
    });
}

constexpr int64_t profiles[] = {0, 190};  // the request of 2 KB, an answer of about 100 KB
BENCHMARK(parse)->Arg(profiles[0])->Arg(profiles[1]);
BENCHMARK(floor_memcpy)->Arg(profiles[0])->Arg(profiles[1]);
BENCHMARK(floor_sum)->Arg(profiles[0])->Arg(profiles[1]);

}  // namespace
