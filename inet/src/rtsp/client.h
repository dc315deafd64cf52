// What the rooms of the client role share.
#pragma once

#include "rtsp/session.h"
#include "rtsp/transport.h"

#include <string_view>

namespace rtsp3 {

/// A request of ours.
struct Rtsp::asked_t {
    const char* name;
    int (Rtsp::*ask)(trak_t*) noexcept;
    void (Rtsp::*take)(net::http::header_s*) noexcept;  ///< its answer with status 200; null when that says nothing

    static const asked_t options, describe, setup, play, pause, get_parameter, set_parameter, teardown, get;
};

/// Whether a text can stand as the target of a request line.
inline bool is_request_uri(std::string_view text) noexcept {
    return is_printable(text) && text.find(' ') == std::string_view::npos;
}

}  // namespace rtsp3
