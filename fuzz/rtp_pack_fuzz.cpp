// Frames of any bytes in every format, packed for one stream and cut once for all: no packet breaks the limits, every
// header is whole, and both ways give the same packets. So does the legacy sender for what it takes.
#include "fuzz.h"
#include "support/frames.h"

#include "avc/fcc.h"
#include "inet/net_rtp_sender.h"
#include "inet/net_socket.h"
#include "inet/rtp_packets.h"
#include "inet/rtp_protocol.h"

namespace {

uint32_t be16(const uint8_t* at) { return uint32_t{at[0]} << 8 | at[1]; }
uint32_t be32(const uint8_t* at) { return be16(at) << 16 | be16(at + 2); }

struct stream_t : rtp::IRtp {
    /// `pack` packs a frame.
    template <class Pack>
    stream_t(uint32_t fcc, uint32_t source, Pack pack) : ssrc(source) {
        object.set_handler(this);
        object.set_all_formats(true);
        rtp::trak_t* const track = object.add_trak(26, fcc);
        require(track || fuzz::starved);
        if (!track) return;
        track->active = 1;
        track->ssrc = ssrc;
        track->clock_rate = 90000;
        pack(object);
        require((last_marked && reports == 1) || packets == 0 || fuzz::starved);
        require(track->packets == packets && track->octets == octets);
    }

    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept override {
        if (event != rtp::event_t::packets) return take(rtp->packet.data, rtp->packet.length, *rtp->current, event);
        const sockaddr_in to{};
        const datagram_t* const datagrams = rtp->cut->datagrams(to);
        for (uint32_t i = 0; i < rtp->cut->count(); ++i)
            take(datagrams[i].data, datagrams[i].size, *rtp->current, rtp::event_t::packet);
    }

    void take(const uint8_t* data, uint32_t length, const rtp::trak_t& track, rtp::event_t::enum_t event) {
        sent.insert(sent.end(), data, data + length);
        reports += event == rtp::event_t::rtcp;
        if (reports > 0) return require(length == 28 && be16(data) == 0x80C8 && be32(data + 20) == packets);
        require(length > 12 && length <= rtp::packet_size);
        require((data[0] & 0xEF) == 0x80 && (data[1] & 0x7F) == track.pt && be16(data + 2) == packets);
        require(be32(data + 4) == track.rtp_time && be32(data + 8) == ssrc);
        ++packets;
        octets += length;
        last_marked = data[1] & 0x80;
    }

    rtp::Rtp object{CORE_HERE};
    std::vector<uint8_t> sent;
    uint32_t ssrc, packets = 0, octets = 0, reports = 0;
    bool last_marked = true;
};

/// The packets of the legacy sender, with the payload type that the others have.
struct legacy_t : net::rtp::IRtp {
    explicit legacy_t(const av::frame_t& from) : frame(from.data, from.data + from.size) {
        object.seq = 0;
        object.ssrc = 0x01020304;
        object.set_handler(this);
        object.pack(from.fcc, {frame.data(), from.size}, from.time);
        const net::rtp::Rtp copy(object);
        require(copy.octets == object.octets && (!copy.header.data || copy.header.data != object.header.data));
    }

    void on_rtp_event(net::rtp::Rtp* rtp, net::rtp::rtp_event_e event) noexcept override {
        uint8_t* const header = rtp->header.data;
        const auto [payload, size] = rtp->payload;
        if (event == net::rtp::event_rtcp) return require(rtp->seq == 0 && rtp->header.size == 28 && !payload);
        require((header[1] & 0x7F) == 97 && be16(header + 2) + 1 == rtp->seq);
        require(payload >= frame.data() && payload + size <= frame.data() + frame.size());
        header[1] ^= 97 ^ 26;
        sent.insert(sent.end(), header, header + rtp->header.size);
        sent.insert(sent.end(), payload, payload + size);
    }

    net::rtp::Rtp object{CORE_HERE};
    std::vector<uint8_t> frame, sent;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    constexpr uint32_t formats[] = {av::fcc_h264, av::fcc_jpeg, av::fcc_pcmu, av::fcc_univ,
                                    av::fcc_meta, av::fcc_pcma, av::fcc_mp4a};
    if (input.empty()) return;
    const av::frame_t frame =
        test::borrowed(formats[input[0] % std::size(formats)], input.subspan(1), 1448466450042000);
    rtp::Packets packets(CORE_HERE);
    packets.set_all_formats(true);
    packets.cut(&frame);
    const uint32_t before = packets.count();
    packets.cut(&frame);  // what was cut before is gone
    require(packets.count() == before || (fuzz::starved && (before == 0 || packets.count() == 0)));
    packets.set_channel(2);
    const stream_t other(frame.fcc, 0x05060708, [&](rtp::Rtp& rtp) { rtp.pack(packets); });
    const stream_t cut(frame.fcc, 0x01020304, [&](rtp::Rtp& rtp) { rtp.pack(packets); });
    const stream_t own(frame.fcc, 0x01020304, [&](rtp::Rtp& rtp) { rtp.pack(&frame); });
    const bool same = packets.count() == own.packets && cut.sent == own.sent;
    require(same || (fuzz::starved && (cut.packets == 0 || own.packets == 0)));
    const legacy_t legacy(frame);
    if (frame.fcc != av::fcc_h264) return require(legacy.sent.empty());
    const auto rtp_end = own.sent.end() - 28 * static_cast<std::ptrdiff_t>(own.reports);
    require(std::equal(own.sent.begin(), rtp_end, legacy.sent.begin(), legacy.sent.end()) || fuzz::starved);
}
