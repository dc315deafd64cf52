// Splitting an Annex B stream, beside a copy of the same bytes and the C library's search for a single byte.
#include "common/h264.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <random>
#include <vector>

namespace {

/// A picture of `size` bytes in four slices, as random as an entropy coder leaves it: no 00 00 0x inside.
std::vector<uint8_t> picture(size_t size) {
    std::mt19937 random(1);
    std::vector<uint8_t> out(size);
    for (size_t i = 0; i < size; ++i) {
        out[i] = static_cast<uint8_t>(random());
        if (i >= 2 && out[i - 1] == 0 && out[i - 2] == 0) out[i] |= 4;
    }
    constexpr uint8_t slice[] = {0, 0, 0, 1, 0x65};
    for (size_t part = 0; part < 4; ++part)
        std::memcpy(out.data() + part * size / 4, slice, sizeof slice);
    return out;
}

template <class Work>
void over_picture(benchmark::State& state, Work work) {
    const auto stream = picture(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
        work(stream);
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void split(benchmark::State& state) {
    over_picture(state, [](std::span<const uint8_t> stream) {
        for (auto nal = h264_next_nal(stream); !nal.empty(); nal = h264_next_nal(stream)) {
            benchmark::DoNotOptimize(nal.data());
        }
    });
}

void floor_memcpy(benchmark::State& state) {
    std::vector<uint8_t> copy(static_cast<size_t>(state.range(0)));
    over_picture(state, [&copy](std::span<const uint8_t> stream) {
        std::memcpy(copy.data(), stream.data(), stream.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    });
}

void floor_memchr(benchmark::State& state) {
    over_picture(state, [](std::span<const uint8_t> stream) {
        const uint8_t* at = stream.data();
        const uint8_t* end = at + stream.size();
        while (at < end && (at = static_cast<const uint8_t*>(std::memchr(at, 1, static_cast<size_t>(end - at))))) {
            benchmark::DoNotOptimize(at++);
        }
    });
}

void parse_sps(benchmark::State& state) {
    constexpr uint8_t sps[] = {0x67, 0x64, 0x00, 0x28, 0xac, 0xd9, 0x40, 0x78, 0x02, 0x27, 0xe5, 0xc0, 0x44, 0x00,
                               0x00, 0x03, 0x00, 0x04, 0x00, 0x00, 0x03, 0x00, 0xc8, 0x3c, 0x60, 0xc6, 0x58};
    h264_info_t info;
    for (auto _ : state)
        benchmark::DoNotOptimize(h264_parse_sps(sps, &info));
}

constexpr int64_t sizes[] = {8 << 10, 64 << 10, 1 << 20};
BENCHMARK(split)->Arg(sizes[0])->Arg(sizes[1])->Arg(sizes[2]);
BENCHMARK(floor_memcpy)->Arg(sizes[0])->Arg(sizes[1])->Arg(sizes[2]);
BENCHMARK(floor_memchr)->Arg(sizes[0])->Arg(sizes[1])->Arg(sizes[2]);
BENCHMARK(parse_sps);

}  // namespace
