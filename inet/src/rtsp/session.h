// What the rooms of the RTSP session share.
#pragma once

#include "core/log.h"
#include "inet/net_http_header.h"
#include "inet/rtsp_protocol.h"

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

/// A reply being put together. Out of memory makes it incomplete, and an incomplete one is not sent.
class reply {
public:
    /// @param cseq  of the request; "" when it had none
    reply(unsigned status, const char* reason, const char* cseq) noexcept;
    ~reply() { http_header_free(header_); }
    reply(const reply&) = delete;
    reply& operator=(const reply&) = delete;

    /// Adds a field; an empty text is left out, a null one makes the reply incomplete.
    void put(const char* name, const char* value) noexcept;
    void put_number(const char* name, uint32_t value) noexcept;
    void put_date() noexcept;

    /// The header, or null when it is incomplete.
    net::http::header_s* header() const noexcept { return complete_ ? header_ : nullptr; }

private:
    net::http::header_s* header_;
    bool complete_;
};

}  // namespace rtsp3
