// An owner of an rtp::Rtp that keeps what it is handed, and readers of the bytes that share nothing with the sender.
#pragma once

#include "support/log_lines.h"

#include "avc/fcc.h"
#include "inet/net_socket.h"
#include "inet/rtp_packets.h"
#include "inet/rtp_protocol.h"
#include "inet/sockaddr.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using bytes = std::vector<uint8_t>;

inline uint32_t be16(const bytes& from, size_t at) { return uint32_t{from.at(at)} << 8 | from.at(at + 1); }
inline uint32_t be32(const bytes& from, size_t at) { return be16(from, at) << 16 | be16(from, at + 2); }

// Bytes that hold neither zeros nor ones, thus no start code, and no 0xFF, thus no JPEG marker.
inline bytes noise(size_t size, uint32_t seed = 1) {
    bytes out(size);
    for (uint8_t& byte : out) {
        seed = seed * 1664525 + 1013904223;
        byte = static_cast<uint8_t>(2 + (seed >> 24) % 250);
    }
    return out;
}

inline void append(bytes& to, const bytes& more) { to.insert(to.end(), more.begin(), more.end()); }

// A borrowed av::frame_t or av::meta_t.
template <class Record>
Record record_of(uint32_t fcc, const bytes& data, uint64_t time) {
    Record record{};
    record.fcc = fcc;
    record.time = time;
    record.data = data.data();
    record.size = static_cast<uint32_t>(data.size());
    return record;
}

inline av::frame_t frame_of(uint32_t fcc, const bytes& data, uint64_t time) {
    return record_of<av::frame_t>(fcc, data, time);
}

class capture : public rtp::IRtp {
public:
    explicit capture(uint32_t fcc, unsigned char pt = 96, double clock_rate = 90000) {
        object.set_handler(this);
        object.id = 7;
        track = object.add_trak(pt, fcc);
        track->active = 1;
        track->ssrc = 0x01020304;
        track->seq = 65534;
        track->clock_rate = clock_rate;
    }

    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept override {
        if (event == rtp::event_t::packets) return take_cut(*rtp->cut);
        const bytes data(rtp->packet.data, rtp->packet.data + rtp->packet.length);
        order.push_back(event);
        (event == rtp::event_t::packet ? packets : reports).push_back(data);
    }

    // Packs, and checks what holds for every packet of a frame.
    void send(const bytes& data, uint64_t time) {
        packets.clear();
        const uint16_t first = track->seq;
        const uint32_t octets = track->octets;
        const av::frame_t frame = frame_of(track->fcc, data, time);
        object.pack(&frame);
        uint32_t total = 0;
        for (size_t i = 0; i < packets.size(); ++i) {
            ASSERT_GT(packets[i].size(), 12U);
            ASSERT_LE(packets[i].size(), 1400U);
            EXPECT_EQ(packets[i][0] & 0xEF, 0x80);
            EXPECT_EQ(packets[i][1] & 0x7F, track->pt);
            EXPECT_EQ(be16(packets[i], 2), static_cast<uint16_t>(first + i));
            EXPECT_EQ(be32(packets[i], 4), track->rtp_time);
            EXPECT_EQ(be32(packets[i], 8), 0x01020304U);
            total += static_cast<uint32_t>(packets[i].size());
        }
        EXPECT_EQ(track->seq, static_cast<uint16_t>(first + packets.size()));
        EXPECT_EQ(track->octets - octets, total);
    }

    // One letter a packet: M with the marker bit, else a dot.
    std::string marks() const {
        std::string out;
        for (const bytes& packet : packets)
            out += packet[1] & 0x80 ? 'M' : '.';
        return out;
    }

    // Bytes behind `header` bytes of every packet.
    bytes payload(size_t header = 12) const {
        bytes out;
        for (const bytes& packet : packets)
            out.insert(out.end(), packet.begin() + static_cast<ptrdiff_t>(header), packet.end());
        return out;
    }

    // As if they had been built one by one.
    void take_cut(rtp::Packets& cut) {
        const sockaddr_in to{};
        const datagram_t* const datagrams = cut.datagrams(to);
        for (uint32_t i = 0; i < cut.count(); ++i) {
            packets.emplace_back(datagrams[i].data, datagrams[i].data + datagrams[i].size);
            order.push_back(rtp::event_t::packet);
        }
    }

    rtp::Rtp object{CORE_HERE};
    rtp::trak_t* track;
    std::vector<bytes> packets, reports;
    std::vector<int> order;
};
