// RTP and RTCP packets of any bytes into tracks of all formats, straight and through a reorder window. The input is a
// row of packets, each behind a byte that says how it comes and two of its length: nothing holds more than promised, no
// packet is handed over out of order, and the counters add up.
#include "fuzz.h"

#include "avc/fcc.h"
#include "inet/rtp_protocol.h"
#include "inet/rtp_reorder.h"

#include <tuple>
#include <utility>

namespace {

constexpr std::tuple<uint8_t, uint32_t, double> formats[] = {
    {0, av::fcc_pcmu, 8000},    {2, av::fcc_g726, 8000},   {8, av::fcc_pcma, 8000},   {26, av::fcc_jpeg, 90000},
    {96, av::fcc_h264, 90000},  {97, av::fcc_mp4a, 44100}, {98, av::fcc_mp4a, 48000}, {107, av::fcc_meta, 90000},
    {108, av::fcc_univ, 90000}, {109, av::fcc_h264, 0}};

struct stream_t : rtp::IRtp {
    void on_rtp_event(rtp::Rtp* from, rtp::event_t::enum_t event) noexcept override {
        if (event == rtp::event_t::rtcp) return require(from->packet.length == 32 && from->packet.data[1] == 201);
        const rtp::trak_t& track = *from->current;
        const buf_t& frame = track.frame;
        require(event == rtp::event_t::frame && frame.length > 0 &&
                frame.length <= std::min(frame.size, rtp::max_frame));
        require(track.fcc != av::fcc_h264 || (track.nal_nri << 5 | track.nal_type) == (frame.data[0] & 0x7F));
    }

    static void deliver(void* arg, buffer_t packet) {
        auto& self = *static_cast<stream_t*>(arg);
        const auto seq = static_cast<uint16_t>(packet.data[2] << 8 | packet.data[3]);
        const bool restarted =
            self.order->counts().restarts != std::exchange(self.restarts, self.order->counts().restarts);
        require(self.last < 0 || restarted || static_cast<int16_t>(seq - self.last) > 0);
        self.last = seq;
        self.rtp.unpack_rtp(packet);
    }

    rtp::Rtp rtp{CORE_HERE};
    const core::owned<rtp::Reorder, rtp::Reorder::destroy> order{
        rtp::Reorder::create({4, 100}, deliver, this, CORE_HERE)};
    uint32_t restarts = 0;
    int last = -1;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    stream_t stream;
    stream.rtp.set_handler(&stream);
    for (const auto& [pt, fcc, rate] : formats) {
        rtp::trak_t* const track = stream.rtp.add_trak(pt, fcc);
        if (!track || !stream.order) return require(fuzz::starved);
        track->clock_rate = rate;
        if (pt != 98) continue;
        track->au_size_bits = 13;
        track->au_index_bits = track->au_delta_bits = 3;
    }
    uint32_t packets = 0;
    uint64_t now = 1;
    for (; input.size() >= 3; ++packets) {
        const uint8_t how = input[0];
        const size_t length = std::min<size_t>(size_t{input[1]} << 8 | input[2], input.size() - 3);
        // A block of its own for each packet, so that the first byte read behind it is seen.
        std::vector<uint8_t> packet(input.data() + 3, input.data() + 3 + length);
        const buffer_t one{packet.data(), static_cast<uint32_t>(length)};
        input = input.subspan(3 + length);
        now += how >> 2;
        stream.rtp.set_arrival(how & 0x80 ? now * 1000 : 0);
        if ((how & 3) == 0) stream.rtp.unpack_rtp(one);
        if ((how & 3) == 1) stream.rtp.unpack_rtc(one);
        if ((how & 3) == 2) stream.order->push(one, now);
        if ((how & 3) == 3) stream.order->expire(now);
    }
    stream.order->flush();
    require(stream.order->due() == 0);
    for (const auto& [pt, fcc, rate] : formats) {
        const rtp::trak_t& track = *stream.rtp.get_trak_pt(pt);
        require(track.frame.size <= rtp::max_frame && track.fua.size <= rtp::max_frame);
        require(track.received + track.late <= packets);
    }
}
