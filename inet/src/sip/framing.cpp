#include "sip/framing.h"

#include "scan.h"

#include "inet/net_http_header.h"

#include <charconv>
#include <optional>

namespace sip {

namespace {

constexpr std::string_view blanks = " \t";
constexpr uint32_t smallest = 5;

struct length_t {
    std::optional<uint32_t> value;
    bool bad = false;
};

/// A field with its continuation lines (RFC 3261, 7.3.1).
std::string_view take_field(std::string_view& head) noexcept {
    const std::string_view whole = head;
    do
        scan::take(head, '\n');
    while (!head.empty() && blanks.find(head.front()) != std::string_view::npos);
    return whole.substr(0, whole.size() - head.size());
}

/// Content-Length, also in its compact form (RFC 3261, 20.14).
length_t read_length(std::string_view head) noexcept {
    length_t found;
    while (!head.empty()) {
        const scan::pair field = scan::split(take_field(head), ':');
        const std::string_view name = scan::trim(field.key, blanks);
        if (!field.has_value || (!scan::same_name(name, "Content-Length") && !scan::same_name(name, "l"))) continue;
        const std::string_view text = scan::trim(field.value, " \t\r\n");
        uint32_t value = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        const bool good = error == std::errc() && end == text.data() + text.size();
        if (!good || (found.value && *found.value != value)) found.bad = true;
        if (good && !found.value) found.value = value;
    }
    return found;
}

piece_t cut_interleaved(std::string_view bytes) noexcept {
    const auto high = static_cast<uint8_t>(bytes[2]);
    const auto low = static_cast<uint8_t>(bytes[3]);
    const uint32_t size = (uint32_t{high} << 8 | low) + 4;
    if (bytes.size() < size) return {};
    return {.what = cut_t::skipped, .used = size};
}

}  // namespace

piece_t cut(std::string_view bytes, bool datagram) noexcept {
    if (bytes.empty()) return {};
    // Keep-alives (RFC 5626, 4.4.1) and what peers put between messages.
    const size_t blank = std::min(bytes.find_first_not_of("\r\n"), bytes.size());
    if (blank > 0) return {.what = cut_t::skipped, .used = static_cast<uint32_t>(blank)};
    if (bytes.size() < smallest) return {};
    if (bytes[0] == '$') return cut_interleaved(bytes);

    const int found = http_find_header(bytes.data(), static_cast<unsigned>(bytes.size()));
    if (found < 0 || static_cast<uint32_t>(found) > max_header) return {.what = cut_t::broken};
    if (found == 0) return {};
    piece_t piece{.what = cut_t::message, .head = bytes.substr(0, static_cast<size_t>(found))};
    const length_t length = read_length(piece.head);
    const size_t rest = bytes.size() - piece.head.size();
    size_t wanted = length.value.value_or(datagram ? static_cast<uint32_t>(rest) : 0);
    // What begins with no message has no body either: it is left out, and the next one may follow.
    const bool none = piece.head.substr(0, piece.head.find('\n')).find(' ') == std::string_view::npos;
    if (length.bad || none) wanted = 0;
    piece.has_length = length.value.has_value();
    piece.bad_length = length.bad;
    if (wanted > rest && datagram) {
        piece.short_body = true;
        wanted = rest;
    }
    if (wanted > max_body) return {.what = cut_t::broken};
    if (wanted > rest) return {};
    piece.body = bytes.substr(piece.head.size(), wanted);
    piece.used = static_cast<uint32_t>(piece.head.size() + wanted);
    return piece;
}

}  // namespace sip
