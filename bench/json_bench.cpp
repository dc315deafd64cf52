// Reading JSON, beside a copy and a sum over the same bytes.
#include "text_floors.h"

#include "core/json.h"

#include <benchmark/benchmark.h>
#include <string>

namespace {

/// What a camera's analytics say about one picture with so many objects.
std::string report(int64_t objects) {
    std::string text = R"({"time":1448466450123,"source":"Camera 1","width":1920,"height":1080,"objects":[)";
    for (int64_t i = 0; i < objects; ++i) {
        const auto n = std::to_string(i);
        text += i > 0 ? R"(,{"id":)" : R"({"id":)";
        text += n;
        text += R"(,"type":"vehicle","label":"Lkw \"Nord\" – Tor )";
        text += n;
        text += R"(","confidence":0.87312,"box":{"x":0.4375,"y":0.29861111,"w":0.125,"h":0.0625},)"
                R"("track":[[812,340],[815,338],[819,335]],"plate":null,"parked":false})";
    }
    return text + "]}";
}

void parse(benchmark::State& state) {
    bench::over_text(state, report(state.range(0)), [&state](const std::string& text) {
        json_t* root = yajl_tree_parse(text.c_str(), nullptr, 0);
        if (!root) state.SkipWithError("refused");
        benchmark::DoNotOptimize(root);
        yajl_tree_free(root);
    });
}

void floor_memcpy(benchmark::State& state) { bench::copy_text(state, report(state.range(0))); }
void floor_sum(benchmark::State& state) { bench::sum_text(state, report(state.range(0))); }

constexpr int64_t sizes[] = {5, 500};  // about 1 and 110 KB
BENCHMARK(parse)->Arg(sizes[0])->Arg(sizes[1]);
BENCHMARK(floor_memcpy)->Arg(sizes[0])->Arg(sizes[1]);
BENCHMARK(floor_sum)->Arg(sizes[0])->Arg(sizes[1]);

}  // namespace
