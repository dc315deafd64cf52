// Messages cut out of received bytes: a datagram, or what a connection has brought so far.
#pragma once

#include <cstdint>
#include <string_view>

namespace sip {

inline constexpr uint32_t max_header = 4098;
inline constexpr uint32_t max_body = 64 * 1024;

enum class cut_t : uint8_t {
    more,     ///< nothing whole has come yet
    skipped,  ///< `used` bytes are no message: an interleaved frame, or line ends between messages
    message,  ///< `head`, blank line included, and `body`
    broken,   ///< a bound is passed: a connection cannot go on
};

struct piece_t {
    cut_t what = cut_t::more;
    uint32_t used = 0;
    std::string_view head = {};
    std::string_view body = {};
    bool has_length = false;  ///< it brought a Content-Length
    bool short_body = false;  ///< of a datagram: Content-Length tells of more bytes than came
    bool bad_length = false;  ///< Content-Length is no number, or given twice with different values
};

/// @param datagram  the bytes are all there is: a body without Content-Length goes to their end (RFC 3261, 18.3)
piece_t cut(std::string_view bytes, bool datagram) noexcept;

}  // namespace sip
