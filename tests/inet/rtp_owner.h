// An owner of an rtp::Rtp that keeps what it is handed, and writers and readers of bytes that share nothing with it.
#pragma once

#include "support/frames.h"

#include "avc/fcc.h"
#include "inet/rtp_protocol.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using bytes = std::vector<uint8_t>;

constexpr uint64_t some_time = 1448466450042000;  // 2015-11-25 15:47:30.042
constexpr uint8_t any_pt = 96;

inline uint32_t be16(const bytes& from, size_t at) { return uint32_t{from.at(at)} << 8 | from.at(at + 1); }

// Bytes that hold neither zeros nor ones, thus no start code, and no 0xFF, thus no JPEG marker.
inline bytes noise(size_t size, uint32_t seed = 1) {
    bytes out(size);
    for (uint8_t& byte : out) {
        seed = seed * 1664525 + 1013904223;
        byte = static_cast<uint8_t>(2 + (seed >> 24) % 250);
    }
    return out;
}

inline bytes join(const std::vector<bytes>& parts) {
    bytes out;
    for (const bytes& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

// A borrowed av::frame_t or av::meta_t.
template <class Record = av::frame_t>
Record record_of(uint32_t fcc, const bytes& data, uint64_t time = some_time) {
    return test::borrowed<Record>(fcc, data, time);
}

inline bytes packet(uint32_t seq, const bytes& payload, bool marked = true, uint32_t time = 0, uint8_t first = 0x80) {
    const auto byte = [](uint32_t of, int shift) { return static_cast<uint8_t>(of >> shift); };
    return join({{first, uint8_t(marked ? 0x80 | any_pt : any_pt), byte(seq, 8), byte(seq, 0)},
                 {byte(time, 24), byte(time, 16), byte(time, 8), byte(time, 0), 0x0A, 0x0B, 0x0C, 0x0D},
                 payload});
}

struct rtp_owner : rtp::IRtp {
    explicit rtp_owner(uint32_t fcc, double clock_rate = 90000, uint8_t pt = any_pt) : track(object.add_trak(pt, fcc)) {
        object.set_handler(this);
        track->active = 1;
        track->ssrc = 0x01020304;
        track->clock_rate = clock_rate;
    }

    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept override {
        const bool frame = event == rtp::event_t::frame, report = event == rtp::event_t::rtcp;
        const buf_t& data = frame ? rtp->current->frame : rtp->packet;
        order += frame ? 'F' : report ? 'R' : 'P';
        (frame ? media : report ? reports : packets).emplace_back(data.data, data.data + data.length);
    }

    void send(const bytes& data, uint64_t time = some_time) {
        const auto frame = test::borrowed(track->fcc, data, time);
        object.pack(&frame);
    }
    void take(const std::vector<bytes>& received) {
        for (bytes one : received)
            object.unpack_rtp({one.data(), static_cast<uint32_t>(one.size())});
    }

    rtp::Rtp object{CORE_HERE};
    rtp::trak_t* track;
    std::vector<bytes> packets, reports, media;
    std::string order;  // of packets, reports and frames: their first letters
};
