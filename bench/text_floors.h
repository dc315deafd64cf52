// What readers of text are measured beside: a copy and a sum over the same bytes.
#pragma once

#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstring>
#include <string>

namespace bench {

/// Runs `work` on a text and tells the bytes a second.
template <class Work>
void over_text(benchmark::State& state, const std::string& text, Work work) {
    for (auto _ : state)
        work(text);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

inline void copy_text(benchmark::State& state, const std::string& text) {
    std::string copy(text.size(), '\0');
    over_text(state, text, [&copy](const std::string& from) {
        std::memcpy(copy.data(), from.data(), from.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    });
}

/// A step a byte that the next one waits for, as in any reader that looks at each.
inline void sum_text(benchmark::State& state, const std::string& text) {
    over_text(state, text, [](const std::string& from) {
        unsigned sum = 0;
        for (const char c : from) {
            sum += static_cast<unsigned char>(c);
            benchmark::DoNotOptimize(sum);
        }
    });
}

}  // namespace bench
