// Tagged allocation beside plain malloc() and free() of the same sizes: one allocation and one release an iteration, of
// a block that stayed for a while, as a queue of packets does it.
#include "core/memory.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>

namespace {

// The floor that is measured against.
// NOLINTBEGIN(cppcoreguidelines-no-malloc)
struct plain_t {
    static void* get(size_t size) { return std::malloc(size); }
    static void put(void* block) { std::free(block); }
};
// NOLINTEND(cppcoreguidelines-no-malloc)

struct tagged_t {
    static void* get(size_t size) { return core_malloc(size, CORE_HERE); }
    static void put(void* block) { core_mfree(block); }
};

constexpr size_t held_blocks = 64;
constexpr std::array<size_t, 8> mix = {24, 1400, 64, 300, 16, 4000, 128, 1400};

/// The first word is written, as whoever asks for memory does.
template <class Allocator>
void cycle(benchmark::State& state, const std::array<size_t, 8>& sizes) {
    std::array<void*, held_blocks> held{};
    size_t turn = 0;
    for (auto _ : state) {
        void*& place = held[turn % held_blocks];
        Allocator::put(place);
        place = Allocator::get(sizes[turn % sizes.size()]);
        std::memset(place, 1, sizeof(void*));
        benchmark::DoNotOptimize(place);
        ++turn;
    }
    for (void* block : held)
        Allocator::put(block);
    state.SetItemsProcessed(state.iterations());
}

template <class Allocator>
void small(benchmark::State& state) {
    cycle<Allocator>(state, {64, 64, 64, 64, 64, 64, 64, 64});
}

template <class Allocator>
void medium(benchmark::State& state) {
    cycle<Allocator>(state, {1400, 1400, 1400, 1400, 1400, 1400, 1400, 1400});
}

template <class Allocator>
void mixed(benchmark::State& state) {
    cycle<Allocator>(state, mix);
}

}  // namespace

BENCHMARK(small<plain_t>)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(small<tagged_t>)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(medium<plain_t>)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(medium<tagged_t>)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(mixed<plain_t>)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(mixed<tagged_t>)->ThreadRange(1, 2)->UseRealTime();
