// What the rooms of the RTSP session share.
#pragma once

#include "rtp/packet.h"

#include "core/log.h"
#include "inet/net_http_header.h"
#include "inet/rtsp_protocol.h"

#include <algorithm>
#include <cstdint>
#include <string_view>

namespace rtsp3 {

/// A payload format as SDP announces it (RFC 3551, section 6).
struct format_t {
    uint32_t fcc;
    const char* media;
    uint8_t pt;          ///< 0: the next dynamic one
    const char* rtpmap;  ///< null when the payload type is static
    uint32_t clock_rate;
};

/// The format of a track; null when it cannot be announced.
const format_t* find_format(uint32_t fcc) noexcept;

inline constexpr uint8_t first_dynamic_pt = 96;

inline constexpr char auth_realm[] = "inet";

using rtp::interleaved_header;
inline constexpr uint32_t max_replies_waiting = 64 * 1024;
inline constexpr uint32_t max_waiting = interleaved_header + 65535;  // the longest of what may be awaited
inline constexpr uint32_t max_port = 65534;                          // the next one is for RTCP
inline constexpr uint32_t max_channel = 254;

/// Value of a field, whatever the case of its name; null when it is missing.
inline const char* field(const net::http::header_s* header, const char* name) noexcept {
    return value_geti(header->fields, name);
}

/// Whether a text of the peer's may stand in a header of ours.
inline bool is_printable(std::string_view text) noexcept {
    return std::none_of(text.begin(), text.end(),
                        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; });
}

/// Whether a URI, absolute or relative, ends with a control value: the whole of its last segments. Players put a query
/// of the session's URI before the control or behind it.
bool names_control(std::string_view uri, std::string_view control) noexcept;

/// While it lives, a call into the session is running: what close() asks for waits for the last of them.
class Rtsp::running {
public:
    explicit running(Rtsp& session) noexcept : session_(session) { ++session_.running_; }
    ~running() {
        if (--session_.running_ == 0 && session_.release_) session_.release();
    }
    running(const running&) = delete;
    running& operator=(const running&) = delete;

private:
    Rtsp& session_;
};

/// A message being put together. Out of memory makes it incomplete, and an incomplete one is not sent.
class message {
public:
    /// @param header  becomes the message's own
    explicit message(net::http::header_s* header) noexcept : header_(header), complete_(header != nullptr) {}
    ~message() { http_header_free(header_); }
    message(const message&) = delete;
    message& operator=(const message&) = delete;

    /// Adds a field; an empty text is left out, a null one makes the message incomplete.
    void put(const char* name, const char* value) noexcept;
    void put_number(const char* name, uint32_t value) noexcept;
    void put_date() noexcept;

    /// The header, or null when it is incomplete.
    net::http::header_s* header() const noexcept { return complete_ ? header_ : nullptr; }

private:
    net::http::header_s* header_;
    bool complete_;
};

class reply : public message {
public:
    /// @param cseq  of the request; "" when it had none
    reply(unsigned status, const char* reason, const char* cseq) noexcept;
};

class request : public message {
public:
    /// @param uri  null when it is written as it is, see Rtsp::send_header()
    request(const char* method, const char* uri, const char* protocol, uint32_t cseq) noexcept;
};

/// The frame of a received track while it is put together.
struct trak_t::gathered_t {
    bool tried;  ///< SETUP was asked for, or left out for want of a port

    buf_t frame;
    uint32_t rtp_time;
    uint64_t time;
    bool picture;   ///< holds a slice, or data of another format
    bool key;       ///< holds an IDR slice
    bool broken;    ///< packets are missing in it
    bool torn;      ///< packets are missing in front of what comes next
    bool left_out;  ///< it passed the limit, or memory was out
    bool orphaned;  ///< the one before it was left out

    bool sets_changed;  ///< parameter sets came since they last went into a frame
    bool marked;        ///< the last data ended with the marker bit,
    bool marks_units;   ///< which this server sets not only at the end of a picture
    uint32_t lost;      ///< the packetizer's counters when data last came
    uint32_t discarded;
    uint32_t restarts;
    uint32_t received;
    uint32_t late;  ///< when the last packet was taken

    uint32_t before_play;  ///< packets taken when PLAY was asked for
    bool started;          ///< `last_rtp_time` is known
    uint32_t last_rtp_time;
    int64_t ticks;  ///< RTP time since the start, not folded

    bool reported;  ///< a sender report came: these two are one moment
    uint32_t report_rtp_time;
    uint64_t report_time;

    ~gathered_t() { core_buf_free(&frame); }
};

}  // namespace rtsp3
