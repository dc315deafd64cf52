// Serving segments of a live context (4 Mbit/s: about 1 MB each) by share, beside a copy of their bytes and what a
// range does, which reads them from their file; and making a manifest.
#include "net_dash/segments.h"

#include "avc/fcc.h"
#include "avc/frame.h"
#include "core/memory.h"
#include "core/profile.h"
#include "core/value.h"
#include "inet/inet.h"
#include "inet/net_dash.h"
#include "inet/net_tab.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr uint64_t base = 1'700'000'000'000'000;
constexpr uint64_t seconds = 60;

std::string picture(bool key) {
    using namespace std::string_literals;
    const std::string sets =
        "\0\0\1\x67\x42\xc0\x0d\xd9\1\x41\xfb\1\x10\0\0\3\0\x10\0\0\3\3\x20\xf1\x42\xa4\x80\0\0\1\x68\xcb\x83\xcb\x20"s;
    std::string made = (key ? sets + "\0\0\1\x65"s : "\0\0\1\x41"s);
    uint32_t seed = 1;
    for (size_t left = key ? 120'000 : 18'000; left > 0; --left) {
        seed = seed * 1664525 + 1013904223;
        made += static_cast<char>(seed >> 24 | 4);  // no start code
    }
    return made;
}

/// A context that has packed a minute.
struct packed {
    packed() {
        net_init();
        dash_init();
        value_t** row = core_value_put(nullptr, "id", "bench", CORE_HERE);
        for (const char* key : {"key1", "key2", "key3", "key4"})
            row = core_value_put(row, key, key, CORE_HERE);
        tab_put(tab_tracks, "bench", row, CORE_HERE);
        core_value_free(row);
        context = net_dash_open("bench", 0, 0, CORE_HERE);
        profile_ctx* track = profile_open("key1_key2_key3_key4");
        const std::string pictures[] = {picture(true), picture(false)};
        for (uint64_t i = 0; i < seconds * 25; ++i) {
            const std::string& data = pictures[i % 50 ? 1 : 0];
            av::frame_t* frame = avc_frame_create(av::fcc_h264, base + i * 40'000, data.data(),
                                                  static_cast<uint32_t>(data.size()), CORE_HERE);
            const param_t list[] = {{"frame", static_cast<const void*>(frame)}, {}};
            core_profile_put(track, list);
            avc_frame_need(frame);
        }
        profile_close(track);
        core_mfree(net_dash_manifest(context, CORE_HERE));  // what it lists can be asked for
        for (const net::dash_timeline* pair = net_dash_times(context); pair && pair->d; ++pair)
            names.push_back(std::to_string(pair->t) + ".m4s");
    }
    ~packed() {
        net_dash_close(context);
        dash_free();
        net_free();
    }
    packed(const packed&) = delete;
    packed& operator=(const packed&) = delete;

    net::dash_ctx* context;
    std::vector<std::string> names;
};

void count(benchmark::State& state, uint64_t bytes) {
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

void segment_by_share(benchmark::State& state) {
    const packed of;
    uint64_t bytes = 0;
    size_t next = 0;
    while (state.KeepRunning()) {
        net::dash_share share;
        if (!net_dash_share(of.context, of.names[next++ % of.names.size()].c_str(), &share)) return;
        benchmark::DoNotOptimize(share.info.data);
        bytes += share.info.size;
        net_dash_share_release(share.owner);
    }
    count(state, bytes);
}
BENCHMARK(segment_by_share);

void segment_by_copy(benchmark::State& state) {
    const packed of;
    uint64_t bytes = 0;
    size_t next = 0;
    std::vector<uint8_t> to(4 << 20);
    while (state.KeepRunning()) {
        net::dash_share share;
        if (!net_dash_share(of.context, of.names[next++ % of.names.size()].c_str(), &share)) return;
        std::memcpy(to.data(), share.info.data, share.info.size);
        benchmark::ClobberMemory();
        bytes += share.info.size;
        net_dash_share_release(share.owner);
    }
    count(state, bytes);
}
BENCHMARK(segment_by_copy);

/// As of a range: from a list that keeps its bytes in files.
void segment_from_file(benchmark::State& state) {
    const packed of;
    uint64_t bytes = 0;
    net::dash::segment_list list("./temp/bench-0-0", true);
    net::dash_share share;
    if (!net_dash_share(of.context, of.names[0].c_str(), &share)) return;
    net::dash::block_hold block(core::create<net::dash::block>(CORE_HERE));
    core_buf_read(&block->bytes, share.info.data, share.info.size);
    net_dash_share_release(share.owner);
    list.append({.t = 1, .d = 2000, .sequence = 1, .base = base}, block);
    while (state.KeepRunning()) {
        if (!list.share("1.m4s", share)) return;
        benchmark::DoNotOptimize(share.info.data);
        bytes += share.info.size;
        net_dash_share_release(share.owner);
    }
    list.remove_files();
    count(state, bytes);
}
BENCHMARK(segment_from_file);

void manifest(benchmark::State& state) {
    const packed of;
    while (state.KeepRunning()) {
        char* const text = net_dash_manifest(of.context, CORE_HERE);
        benchmark::DoNotOptimize(text);
        core_mfree(text);
    }
    count(state, 0);
}
BENCHMARK(manifest);

}  // namespace
