// The URL of an RTMP stream: SCHEME "://" HOST [":" PORT] ["/" PATH].
#pragma once

#include "core/owned.h"

#include <cstdint>
#include <string_view>

namespace net::rtmp {

/// Application and play path point into what was read.
struct place_t {
    std::string_view application;
    std::string_view prefix;  ///< in front of the play path: "mp4:", "mp3:" or nothing
    std::string_view play_path;
};

struct url_t {
    int protocol = 0;
    std::string_view host;
    uint16_t port = 0;  ///< 0 for none
    std::string_view path;
};

/// The longest host.
inline constexpr size_t longest_host = 255;

/// The scheme of a protocol number.
const char* scheme_of(int protocol) noexcept;
/// @return false when it is not of the form
bool read_url(std::string_view text, url_t& out) noexcept;
/// @param path  of the URL, with its query, without its first '/'
place_t split_path(std::string_view path) noexcept;

/// The two with their end. Null when memory is out.
core::owned_text joined(std::string_view front, std::string_view back, const char* file, int line) noexcept;

}  // namespace net::rtmp
