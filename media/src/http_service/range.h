// The Range of a request (RFC 9110, 14).
#pragma once

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string_view>

namespace media::web {

enum class range_t : uint8_t { none, part, outside };

/// Reads one range of bytes. Several, and what cannot be read, are none: the whole is then the answer.
/// @param first, last  receive what is asked for of `size` bytes, `last` not included
inline range_t read_range(std::string_view text, uint64_t size, uint64_t& first, uint64_t& last) noexcept {
    constexpr std::string_view unit = "bytes=";
    if (!text.starts_with(unit)) return range_t::none;
    text.remove_prefix(unit.size());
    const size_t dash = text.find('-');
    if (dash == std::string_view::npos) return range_t::none;
    const auto number = [](std::string_view digits, uint64_t& out) {
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), out);
        return error == std::errc() && end == digits.data() + digits.size();
    };
    uint64_t from = 0;
    uint64_t to = 0;
    const bool has_from = number(text.substr(0, dash), from);
    const bool has_to = number(text.substr(dash + 1), to);
    if ((!has_from && dash != 0) || (!has_to && dash + 1 != text.size()) || (!has_from && !has_to))
        return range_t::none;
    if (has_from && has_to && to < from) return range_t::none;
    if (has_from ? from >= size : to == 0 || size == 0) return range_t::outside;
    first = has_from ? from : size - std::min(size, to);
    last = has_from && has_to ? std::min(size - 1, to) + 1 : size;
    return range_t::part;
}

}  // namespace media::web
