// Frames of any bytes in every format: no packet breaks the limits and every header is whole.
#include "fuzz.h"

#include "avc/fcc.h"
#include "inet/rtp_protocol.h"

#include <iterator>

namespace {

using fuzz::require;

uint32_t be16(const uint8_t* at) { return uint32_t{at[0]} << 8 | at[1]; }
uint32_t be32(const uint8_t* at) { return be16(at) << 16 | be16(at + 2); }

class checker : public rtp::IRtp {
public:
    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept override {
        const buf_t& packet = rtp->packet;
        require(packet.length <= rtp::packet_size);
        if (event == rtp::event_t::rtcp) {
            require(packet.length == 28 && be16(packet.data) == 0x80C8 && be32(packet.data + 20) == packets);
            ++reports;
            return;
        }
        ++packets;
        octets += packet.length;
        require(packet.length > 12);
        require((packet.data[0] & 0xEF) == 0x80);
        require((packet.data[1] & 0x7F) == rtp->current->pt);
        require(be16(packet.data + 2) == static_cast<uint16_t>(packets - 1));
        require(be32(packet.data + 4) == rtp->current->rtp_time);
        require(be32(packet.data + 8) == 0x01020304);
        last_marked = packet.data[1] & 0x80;
    }

    uint32_t packets = 0, octets = 0, reports = 0;
    bool last_marked = true;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    constexpr uint32_t formats[] = {av::fcc_h264, av::fcc_jpeg, av::fcc_pcmu, av::fcc_univ, av::fcc_meta};
    if (input.empty()) return;
    const uint32_t fcc = formats[input[0] % std::size(formats)];
    checker owner;
    rtp::Rtp object(CORE_HERE);
    object.set_handler(&owner);
    rtp::trak_t* const track = object.add_trak(26, fcc);
    if (!track) return require(fuzz::starved);
    track->active = 1;
    track->ssrc = 0x01020304;
    track->clock_rate = 90000;
    av::frame_t frame{};
    frame.fcc = fcc;
    frame.time = 1448466450042000;
    frame.data = input.data() + 1;
    frame.size = static_cast<uint32_t>(input.size() - 1);
    object.pack(&frame);
    require((owner.last_marked && owner.reports == 1) || fuzz::starved);
    require(track->packets == owner.packets && track->octets == owner.octets);
}
