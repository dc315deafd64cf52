// Characters and names (XML 1.0, sections 2.2 and 2.3).
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace common::xml {

/// Where an ASCII character stands for itself, and what it may be part of. A line end of one LF is plain, others are
/// changed first; in an attribute's value even tab and LF are (section 3.3.3).
enum trait : uint8_t {
    plain_in_text = 1,
    plain_in_value = 2,
    plain_in_cdata = 4,
    plain_in_comment = 8,
    plain_in_instruction = 16,
    starts_name = 32,
    in_name = 64,
    blank = 128,
};

namespace detail {

constexpr uint8_t plain_traits(char c) noexcept {
    if (static_cast<uint8_t>(c) >= 0x80 || (c < ' ' && c != '\t' && c != '\n')) return 0;
    uint8_t traits = plain_in_text | plain_in_value | plain_in_cdata | plain_in_comment | plain_in_instruction;
    switch (c) {
        case '<':
        case '&':
            traits &= static_cast<uint8_t>(~(plain_in_text | plain_in_value));
            break;
        case ']':
            traits &= static_cast<uint8_t>(~(plain_in_text | plain_in_cdata));
            break;
        case '-':
            traits &= static_cast<uint8_t>(~plain_in_comment);
            break;
        case '?':
            traits &= static_cast<uint8_t>(~plain_in_instruction);
            break;
        case '"':
        case '\'':
        case '\t':
        case '\n':
            traits &= static_cast<uint8_t>(~plain_in_value);
            break;
        default:
            break;
    }
    return traits;
}

constexpr uint8_t name_traits(char c) noexcept {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_') return starts_name | in_name;
    return (c >= '0' && c <= '9') || c == '-' || c == '.' ? in_name : 0;
}

constexpr auto traits = [] {
    std::array<uint8_t, 256> table{};
    for (size_t i = 0; i < table.size(); ++i) {
        const char c = static_cast<char>(i);
        const bool is_blank = c == ' ' || c == '\t' || c == '\r' || c == '\n';
        table[i] = static_cast<uint8_t>(plain_traits(c) | name_traits(c) | (is_blank ? blank : 0));
    }
    return table;
}();

struct range {
    uint32_t first, last;
};

constexpr range name_starts[] = {
    {0xc0, 0xd6},     {0xd8, 0xf6},     {0xf8, 0x2ff},    {0x370, 0x37d},   {0x37f, 0x1fff},  {0x200c, 0x200d},
    {0x2070, 0x218f}, {0x2c00, 0x2fef}, {0x3001, 0xd7ff}, {0xf900, 0xfdcf}, {0xfdf0, 0xfffd}, {0x10000, 0xeffff},
};
constexpr range name_others[] = {{0xb7, 0xb7}, {0x300, 0x36f}, {0x203f, 0x2040}};

constexpr bool is_within(const auto& ranges, uint32_t code) noexcept {
    return std::ranges::any_of(ranges, [code](const range& r) { return code >= r.first && code <= r.last; });
}

}  // namespace detail

inline bool has_trait(char c, uint8_t trait) noexcept { return detail::traits[static_cast<uint8_t>(c)] & trait; }

/// Whether a character above ASCII may start a name or stand in it.
inline bool is_name_character(uint32_t code, uint8_t trait) noexcept {
    return detail::is_within(detail::name_starts, code) ||
           (trait == in_name && detail::is_within(detail::name_others, code));
}

/// Whether a code point is a character of XML at all.
constexpr bool is_character(uint32_t code) noexcept {
    if (code < 0x20) return code == '\t' || code == '\n' || code == '\r';
    return code <= 0x10ffff && (code < 0xd800 || code > 0xdfff) && code != 0xfffe && code != 0xffff;
}

}  // namespace common::xml
