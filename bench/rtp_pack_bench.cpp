// Packing a second of video (one 120 KB key picture, 24 pictures of 20 KB: about 4.8 Mbit/s) beside its floor, a copy
// of the same bytes in pieces of a packet with one indirect call for each. Both walk the same pictures in memory.
#include "avc/fcc.h"
#include "inet/rtp_protocol.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstring>
#include <vector>

namespace {

using picture_t = std::vector<uint8_t>;

// Coded pictures look random and hold no start code: their encoder sets a 3 behind two zeros.
void append_nal(picture_t& to, uint8_t header, size_t size, uint32_t& seed) {
    to.insert(to.end(), {0, 0, 0, 1, header});
    for (size_t zeros = 0; size > 1; --size) {
        seed = seed * 1664525 + 1013904223;
        auto byte = static_cast<uint8_t>(seed >> 24);
        if (zeros >= 2 && byte <= 3) byte = 3;
        zeros = byte == 0 ? zeros + 1 : 0;
        to.push_back(byte);
    }
    to.back() |= 0x80;
}

const std::vector<picture_t>& second_of_video() {
    static const std::vector<picture_t> pictures = [] {
        std::vector<picture_t> made(25);
        uint32_t seed = 1;
        append_nal(made[0], 0x67, 24, seed);
        append_nal(made[0], 0x68, 6, seed);
        append_nal(made[0], 0x65, 120000, seed);
        for (size_t i = 1; i < made.size(); ++i)
            append_nal(made[i], 0x41, 20000, seed);
        return made;
    }();
    return pictures;
}

void count_bytes(benchmark::State& state) {
    size_t size = 0;
    for (const picture_t& picture : second_of_video())
        size += picture.size();
    state.SetBytesProcessed(static_cast<int64_t>(size) * state.iterations());
}

class sink : public rtp::IRtp {
public:
    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t) noexcept override {
        benchmark::DoNotOptimize(rtp->packet.data);
        benchmark::ClobberMemory();
    }
};

void floor_copy_and_call(benchmark::State& state) {
    sink owner;
    rtp::IRtp* handler = &owner;
    benchmark::DoNotOptimize(handler);  // the call stays indirect
    rtp::Rtp object(CORE_HERE);
    constexpr size_t piece_size = rtp::packet_size - 14;
    while (state.KeepRunning()) {
        for (const picture_t& picture : second_of_video()) {
            for (size_t at = 0; at < picture.size(); at += piece_size) {
                std::memcpy(object.packet.data + 14, picture.data() + at, std::min(piece_size, picture.size() - at));
                handler->on_rtp_event(&object, rtp::event_t::packet);
            }
        }
    }
    count_bytes(state);
}

void pack_format(benchmark::State& state, uint32_t fcc) {
    sink owner;
    rtp::Rtp object(CORE_HERE);
    object.set_handler(&owner);
    rtp::trak_t* track = object.add_trak(96, fcc);
    track->active = 1;
    track->clock_rate = 90000;
    uint64_t time = 1448466450042000;
    while (state.KeepRunning()) {
        for (const picture_t& picture : second_of_video()) {
            av::frame_t frame{};
            frame.fcc = fcc;
            frame.time = time;
            frame.data = picture.data();
            frame.size = static_cast<uint32_t>(picture.size());
            object.pack(&frame);
            time += 40000;
        }
    }
    count_bytes(state);
}

void pack_h264(benchmark::State& state) { pack_format(state, av::fcc_h264); }
void pack_univ(benchmark::State& state) { pack_format(state, av::fcc_univ); }

BENCHMARK(floor_copy_and_call);
BENCHMARK(pack_h264);
BENCHMARK(pack_univ);

}  // namespace
