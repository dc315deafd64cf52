// Reading XML into a tree, beside a copy and a sum over the same bytes, and beside expat, which only calls back.
#include "text_floors.h"

#include "common/xml.h"

#include <benchmark/benchmark.h>
#include <expat.h>
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
        text += R"(<trt:Profiles fixed="true" token="profile_)";
        text += n;
        text += R"("><tt:Name>Einfahrt Süd &amp; Tor )";
        text += n;
        text += R"(</tt:Name><tt:VideoSourceConfiguration token="source"><tt:UseCount>2</tt:UseCount>)"
                R"(<tt:Bounds x="0" y="0" width="1920" height="1080"/></tt:VideoSourceConfiguration>)"
                R"(<tt:VideoEncoderConfiguration token="encoder"><tt:Encoding>H264</tt:Encoding><tt:Resolution>)"
                R"(<tt:Width>1920</tt:Width><tt:Height>1080</tt:Height></tt:Resolution><tt:Quality>4</tt:Quality>)"
                "</tt:VideoEncoderConfiguration></trt:Profiles>\n";
    }
    return text + "</trt:GetProfilesResponse></s:Body></s:Envelope>";
}

std::string text_of(int64_t profiles) { return profiles > 0 ? answer(profiles) : request(); }

void parse(benchmark::State& state) {
    bench::over_text(state, text_of(state.range(0)), [&state](const std::string& text) {
        node* document = roxml_load(text.data(), static_cast<unsigned>(text.size()), nullptr, 0);
        if (!document) state.SkipWithError("refused");
        benchmark::DoNotOptimize(document);
        roxml_close(document);
    });
}

/// With namespaces. What it finds is counted and not kept.
void expat(benchmark::State& state) {
    bench::over_text(state, text_of(state.range(0)), [&state](const std::string& text) {
        int64_t found = 0;
        XML_Parser parser = XML_ParserCreateNS(nullptr, '\n');
        XML_SetUserData(parser, &found);
        XML_SetElementHandler(
            parser, [](void* to, const char*, const char**) { ++*static_cast<int64_t*>(to); },
            [](void*, const char*) {});
        XML_SetCharacterDataHandler(parser,
                                    [](void* to, const char*, int size) { *static_cast<int64_t*>(to) += size; });
        if (XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1) != XML_STATUS_OK)
            state.SkipWithError("refused");
        benchmark::DoNotOptimize(found);
        XML_ParserFree(parser);
    });
}

void floor_memcpy(benchmark::State& state) { bench::copy_text(state, text_of(state.range(0))); }
void floor_sum(benchmark::State& state) { bench::sum_text(state, text_of(state.range(0))); }

constexpr int64_t profiles[] = {0, 190};  // the request of 2 KB, an answer of about 100 KB
BENCHMARK(parse)->Arg(profiles[0])->Arg(profiles[1]);
BENCHMARK(expat)->Arg(profiles[0])->Arg(profiles[1]);
BENCHMARK(floor_memcpy)->Arg(profiles[0])->Arg(profiles[1]);
BENCHMARK(floor_sum)->Arg(profiles[0])->Arg(profiles[1]);

}  // namespace
