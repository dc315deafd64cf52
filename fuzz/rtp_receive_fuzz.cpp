// RTP and RTCP packets of any bytes into tracks of all formats, straight and through a reorder window. The input is a
// row of packets, each behind a byte that says how it comes and two of its length: nothing holds more than promised, no
// packet is handed over out of order, and the counters add up.
#include "fuzz.h"

#include "avc/fcc.h"
#include "inet/rtp_protocol.h"
#include "inet/rtp_reorder.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace {

using fuzz::require;

struct format_t {
    uint8_t pt;
    uint32_t fcc;
    double rate;
};

constexpr format_t formats[] = {{0, av::fcc_pcmu, 8000},    {2, av::fcc_g726, 8000},    {8, av::fcc_pcma, 8000},
                                {26, av::fcc_jpeg, 90000},  {96, av::fcc_h264, 90000},  {97, av::fcc_mp4a, 44100},
                                {107, av::fcc_meta, 90000}, {108, av::fcc_univ, 90000}, {109, av::fcc_h264, 0}};

class checker : public rtp::IRtp {
public:
    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept override {
        require(event == rtp::event_t::rtcp || event == rtp::event_t::frame);
        if (event == rtp::event_t::rtcp) {
            require(rtp->packet.length == 32 && rtp->packet.data[1] == 201);
            return;
        }
        const rtp::trak_t& track = *rtp->current;
        require(track.frame.length > 0 && track.frame.length <= rtp::max_frame);
        const int header = track.nal_nri << 5 | track.nal_type;
        require(track.fcc != av::fcc_h264 || header == (track.frame.data[0] & 0x7F));
        for (uint32_t i = 0; i < track.frame.length; ++i)
            seen = static_cast<uint8_t>(seen + track.frame.data[i]);
    }

    volatile uint8_t seen = 0;
};

struct stream_t {
    rtp::Rtp rtp{CORE_HERE};
    const rtp::Reorder* order = nullptr;
    uint32_t delivered = 0;
    uint32_t restarts = 0;
    uint16_t last = 0;
};

void deliver(void* arg, buffer_t packet) {
    auto& to = *static_cast<stream_t*>(arg);
    const auto seq = static_cast<uint16_t>(packet.data[2] << 8 | packet.data[3]);
    const bool restarted = to.restarts != to.order->counts().restarts;
    const auto step = static_cast<int16_t>(seq - to.last);
    require(to.delivered == 0 || restarted || step > 0);
    to.restarts = to.order->counts().restarts;
    to.last = seq;
    ++to.delivered;
    to.rtp.unpack_rtp(packet);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    checker owner;
    stream_t stream;
    stream.rtp.set_handler(&owner);
    for (const auto& [pt, fcc, rate] : formats) {
        rtp::trak_t* const track = stream.rtp.add_trak(pt, fcc);
        if (!track) return require(fuzz::starved);
        track->clock_rate = rate;
    }
    const std::unique_ptr<rtp::Reorder, void (*)(rtp::Reorder*)> order(
        rtp::Reorder::create({4, 100}, deliver, &stream, CORE_HERE), rtp::Reorder::destroy);
    stream.order = order.get();
    if (!order) return require(fuzz::starved);

    uint32_t packets = 0;
    uint64_t now = 1;
    while (input.size() >= 3) {
        const uint8_t how = input[0];
        const size_t length = std::min<size_t>(size_t{input[1]} << 8 | input[2], input.size() - 3);
        // A block of its own for each packet, so that the first byte read behind it is seen.
        const auto bytes = input.subspan(3, length);
        std::vector<uint8_t> packet(bytes.begin(), bytes.end());
        const buffer_t one{packet.data(), static_cast<uint32_t>(length)};
        input = input.subspan(3 + length);
        ++packets;
        now += how >> 2;
        stream.rtp.set_arrival(how & 0x80 ? now * 1000 : 0);
        switch (how & 3) {
            case 0:
                stream.rtp.unpack_rtp(one);
                break;
            case 1:
                stream.rtp.unpack_rtc(one);
                break;
            case 2:
                order->push(one, now);
                break;
            default:
                order->expire(now);
                break;
        }
    }
    order->flush();
    require(order->due() == 0);
    for (const auto& format : formats) {
        const rtp::trak_t& track = *stream.rtp.get_trak_pt(format.pt);
        require(track.frame.size <= rtp::max_frame && track.fua.size <= rtp::max_frame);
        require(track.received + track.late <= packets);
    }
}
