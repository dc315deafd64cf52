// What a line costs that nobody reads, beside the one atomic load it consists of; and one that a sink takes.
#include "core/cmd.h"
#include "core/log.h"
#include "core/memory.h"
#include "core/time.h"

#include <atomic>
#include <benchmark/benchmark.h>

namespace {

std::atomic<uint32_t> word = 0;

/// The floor: a call with the same arguments that loads a word and returns.
[[gnu::noinline]] void load(std::atomic<uint32_t>* from, const char*, ...) {
    benchmark::DoNotOptimize(from->load(std::memory_order_relaxed));
}

void relaxed_load(benchmark::State& state) {
    int sequence = 0;
    for (auto _ : state) {
        load(&word, "packet %d of %s, %d bytes", sequence++, "track", 1400);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(relaxed_load);

void unwanted_line(benchmark::State& state) {
    log_ctx* log = core_log_create(CORE_HERE, "quiet");
    int sequence = 0;
    for (auto _ : state) {
        core_log_print(log, "packet %d of %s, %d bytes", sequence++, "track", 1400);
        benchmark::ClobberMemory();
    }
    core_log_free(log);
}
BENCHMARK(unwanted_line);

void wanted_line(benchmark::State& state) {
    log_ctx* log = core_log_create(CORE_HERE, "loud");
    const uint32_t sink = core_log_sink_add(
        "loud", [](void*, const log_line_t* line) { benchmark::DoNotOptimize(line->text[0]); }, nullptr);
    int sequence = 0;
    for (auto _ : state)
        core_log_print(log, "packet %d of %s, %d bytes", sequence++, "track", 1400);
    core_log_sink_rem(sink);
    core_log_free(log);
}
BENCHMARK(wanted_line);

void format_time(benchmark::State& state) {
    char text[40];
    uint64_t time = time_now();
    for (auto _ : state)
        benchmark::DoNotOptimize(time_format(time += 40'000, "%Y-%m-%dT%H:%M:%S.%sZ", text, sizeof text));
}
BENCHMARK(format_time);

/// strftime() for the same, which leaves the milliseconds out.
void format_time_by_strftime(benchmark::State& state) {
    char text[40];
    uint64_t time = time_now();
    for (auto _ : state) {
        const auto seconds = static_cast<time_t>((time += 40'000) / 1'000'000);
        tm fields{};
        gmtime_r(&seconds, &fields);
        benchmark::DoNotOptimize(std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &fields));
    }
}
BENCHMARK(format_time_by_strftime);

void post_and_process_a_call(benchmark::State& state) {
    cmd_ctx* cmd = core_cmd_open(nullptr, CORE_HERE);
    for (auto _ : state) {
        core_cmd_exec(
            cmd, [](void*, void*) {}, nullptr);
        core_cmd_process(cmd);
    }
    core_cmd_close(cmd);
}
BENCHMARK(post_and_process_a_call);

}  // namespace
