// Reading JSON, beside a copy and a sum over the same bytes.
#include "core/json.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <string>

namespace {

/// What a camera's analytics say about one picture with so many objects.
std::string report(int64_t objects) {
    std::string text = R"({"time":1448466450123,"source":"Camera 1","width":1920,"height":1080,"objects":[)";
    for (int64_t i = 0; i < objects; ++i) {
        const auto n = std::to_string(i);
        text += i > 0 ? "," : "";
        text += R"({"id":)" + n + R"(,"type":"vehicle","label":"Lkw \"Nord\" – Tor )" + n +
                R"(","confidence":0.87312,"box":{"x":0.4375,"y":0.29861111,"w":0.125,"h":0.0625},)" +
                R"("track":[[812,340],[815,338],[819,335]],"plate":null,"parked":false})";
    }
    return text + "]}";
}

template <class Work>
void over_report(benchmark::State& state, Work work) {
    const std::string text = report(state.range(0));
    for (auto _ : state)
        work(text);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

void parse(benchmark::State& state) {
    over_report(state, [&state](const std::string& text) {
        json_t* root = yajl_tree_parse(text.c_str(), nullptr, 0);
        if (!root) state.SkipWithError("refused");
        benchmark::DoNotOptimize(root);
        yajl_tree_free(root);
    });
}

void floor_memcpy(benchmark::State& state) {
    std::string copy;
    over_report(state, [&copy](const std::string& text) {
        copy.resize(text.size());
        std::memcpy(copy.data(), text.data(), text.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    });
}

/// A step a byte that the next one waits for, as in any reader that looks at each.
void floor_sum(benchmark::State& state) {
    over_report(state, [](const std::string& text) {
        unsigned sum = 0;
        for (const char c : text) {
            sum += static_cast<unsigned char>(c);
            benchmark::DoNotOptimize(sum);
        }
    });
}

constexpr int64_t sizes[] = {5, 500};  // about 1 and 110 KB
BENCHMARK(parse)->Arg(sizes[0])->Arg(sizes[1]);
BENCHMARK(floor_memcpy)->Arg(sizes[0])->Arg(sizes[1]);
BENCHMARK(floor_sum)->Arg(sizes[0])->Arg(sizes[1]);

}  // namespace
