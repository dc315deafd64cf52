// Unpacking the packets of a second of video (one 120 KB key picture, 24 pictures of 20 KB: about 4.8 Mbit/s) beside
// its floor, a copy of their payloads to the places where the frames are put together. Both walk the same packets, and
// one run measures both, so that their ratio means something.
#include "avc/fcc.h"
#include "inet/rtp_protocol.h"
#include "inet/rtp_reorder.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstring>
#include <vector>

namespace {

using bytes_t = std::vector<uint8_t>;

// Packs, and keeps the packets one behind the other as they lie in a receive buffer.
class recorder : public rtp::IRtp {
public:
    explicit recorder(uint32_t fcc) {
        object.set_handler(this);
        track = object.add_trak(96, fcc);
        track->active = 1;
        track->seq = 1;
        track->clock_rate = 90000;
        track->next_rtcp = UINT64_MAX;
        picture(120000, 0x65, 0);
        for (uint64_t i = 1; i < 25; ++i)
            picture(20000, 0x41, i * 40000);
    }

    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t) noexcept override {
        sizes.push_back(rtp->packet.length);
        bytes.insert(bytes.end(), rtp->packet.data, rtp->packet.data + rtp->packet.length);
    }

    template <class Take>
    void for_each(Take take) {
        uint8_t* at = bytes.data();
        for (const uint32_t size : sizes) {
            take(buffer_t{at, size});
            at += size;
        }
    }

    // Has the numbers go on from pass to pass, as a stream's do.
    void renumber() {
        for_each([&](buffer_t packet) {
            const uint16_t seq = next_++;
            packet.data[2] = static_cast<uint8_t>(seq >> 8);
            packet.data[3] = static_cast<uint8_t>(seq);
        });
    }

    std::vector<uint32_t> sizes;
    bytes_t bytes;

private:
    void picture(size_t size, uint8_t header, uint64_t time) {
        bytes_t data{0, 0, 0, 1, header};
        data.resize(size, 0x55);
        av::frame_t frame{};
        frame.fcc = track->fcc;
        frame.time = 1448466450042000 + time;
        frame.data = data.data();
        frame.size = static_cast<uint32_t>(size);
        object.pack(&frame);
    }

    rtp::Rtp object{CORE_HERE};
    rtp::trak_t* track;
    uint16_t next_ = 1;
};

class sink : public rtp::IRtp {
public:
    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t) noexcept override {
        benchmark::DoNotOptimize(rtp->current->frame.data);
        benchmark::ClobberMemory();
    }
};

template <class Begin, class Take>
void pass_over(benchmark::State& state, recorder& stream, Begin begin, Take take) {
    while (state.KeepRunning()) {
        begin();
        stream.for_each(take);
    }
    state.SetBytesProcessed(static_cast<int64_t>(stream.bytes.size()) * state.iterations());
    state.SetItemsProcessed(static_cast<int64_t>(stream.sizes.size()) * state.iterations());
}

void floor_copy(benchmark::State& state) {
    recorder stream(av::fcc_h264);
    bytes_t frame(size_t{256} * 1024);
    size_t at = 0;
    pass_over(
        state, stream, [] {},
        [&](buffer_t packet) {
            constexpr uint32_t headers = 14;
            std::memcpy(frame.data() + at, packet.data + headers, packet.size - headers);
            at += packet.size - headers;
            if (packet.data[1] & 0x80) at = 0;
            benchmark::ClobberMemory();
        });
}

void unpack_format(benchmark::State& state, uint32_t fcc, uint64_t arrival) {
    recorder stream(fcc);
    sink owner;
    rtp::Rtp object(CORE_HERE);
    object.set_handler(&owner);
    rtp::trak_t* const track = object.add_trak(96, fcc);
    track->clock_rate = 90000;
    const auto begin = [track] { track->seq = 0; };  // the numbers start again
    pass_over(state, stream, begin, [&](buffer_t packet) {
        if (arrival) object.set_arrival(arrival += 1000);
        object.unpack_rtp(packet);
    });
    if (track->lost + track->late + track->discarded > 0) state.SkipWithError("packets were lost");
}

void unpack_h264(benchmark::State& state) { unpack_format(state, av::fcc_h264, 0); }
void unpack_h264_jitter(benchmark::State& state) { unpack_format(state, av::fcc_h264, 1000000000); }

// Renumbering is part of it.
void unpack_h264_reorder(benchmark::State& state) {
    recorder stream(av::fcc_h264);
    sink owner;
    rtp::Rtp object(CORE_HERE);
    object.set_handler(&owner);
    object.add_trak(96, av::fcc_h264)->clock_rate = 90000;
    rtp::Reorder* const order = rtp::Reorder::create(
        {}, [](void* to, buffer_t packet) { static_cast<rtp::Rtp*>(to)->unpack_rtp(packet); }, &object, CORE_HERE);
    pass_over(
        state, stream, [&] { stream.renumber(); }, [&](buffer_t packet) { order->push(packet, 1); });
    rtp::Reorder::destroy(order);
}

BENCHMARK(floor_copy);
BENCHMARK(unpack_h264);
BENCHMARK(unpack_h264_jitter);
BENCHMARK(unpack_h264_reorder);

}  // namespace
