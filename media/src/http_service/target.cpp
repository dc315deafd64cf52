#include "http_service/target.h"

#include "core/text.h"

#include <algorithm>
#include <new>

namespace media::web {

namespace {

int hex_digit(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool is_utf8(std::string_view text) noexcept {
    for (size_t at = 0; at < text.size();) {
        uint32_t code = 0;
        const size_t size = utf8_decode(text.data() + at, text.size() - at, &code);
        if (size == 0) return false;
        at += size;
    }
    return true;
}

/// @return false for a '%' without its two digits, and for a control character or separator that is hidden in a code
bool decode(std::string_view text, core::string& out) {
    if (std::ranges::all_of(text, [](char c) { return c >= ' ' && c < 0x7f && c != '%'; })) {
        out.assign(text);
        return true;
    }
    out.clear();
    for (size_t at = 0; at < text.size(); ++at) {
        char c = text[at];
        if (c == '%') {
            const int high = at + 1 < text.size() ? hex_digit(text[at + 1]) : -1;
            const int low = at + 2 < text.size() ? hex_digit(text[at + 2]) : -1;
            if (high < 0 || low < 0) return false;
            c = static_cast<char>(high << 4 | low);
            if (c == '/' || c == '\\') return false;
            at += 2;
        }
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
        out.push_back(c);
    }
    return is_utf8(out);
}

/// Where the host stands in a target of the absolute form; 0 for a target of no form that is known.
size_t host_begin(std::string_view text) noexcept {
    for (const std::string_view scheme : {"http://", "https://"})
        if (core_strncasecmp(text.data(), scheme.data(), std::min(text.size(), scheme.size())) == 0)
            return text.size() > scheme.size() ? scheme.size() : 0;
    return 0;
}

}  // namespace

bool read_target(std::string_view text, target_t& out) noexcept {
    try {
        const bool absolute = !text.starts_with('/') && text != "*";
        if (absolute) {
            const size_t host = host_begin(text);
            if (host == 0) return false;
            text.remove_prefix(std::min(text.find_first_of("/?", host), text.size()));
        }
        const size_t end = std::min(text.find('?'), text.size());
        out.query.assign(text.substr(std::min(end + 1, text.size())));
        return decode(absolute && end == 0 ? "/" : text.substr(0, end), out.path);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace media::web
