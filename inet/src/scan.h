// Cutting and reading of borrowed text, shared by the text protocols.
#pragma once

#include "core/text.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <system_error>

namespace scan {

/// What sscanf() and atoi() skip before a number.
inline constexpr std::string_view spaces = " \t\n\v\f\r";

/// A text of which null is nothing.
inline std::string_view text(const char* text) noexcept { return text ? std::string_view(text) : std::string_view(""); }

/// What is left is a part of `text` also when it is empty, so that it can be told from nothing.
inline std::string_view skip(std::string_view text, std::string_view characters) noexcept {
    return text.substr(std::min(text.find_first_not_of(characters), text.size()));
}

/// Without the characters at both ends.
inline std::string_view trim(std::string_view text, std::string_view characters) noexcept {
    text = skip(text, characters);
    return text.substr(0, text.find_last_not_of(characters) + 1);
}

/// Whether two names are the same without regard to the case of A-Z.
inline bool same_name(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() && core_strncasecmp(a.data(), b.data(), a.size()) == 0;
}

/// Compares in a time that depends on the lengths alone.
inline bool same_secret(std::string_view a, std::string_view b) noexcept {
    if (a.size() != b.size()) return false;
    unsigned difference = 0;
    for (size_t i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned>(static_cast<unsigned char>(a[i] ^ b[i]));
    return difference == 0;
}

/// Takes the text before the first `end` off the front of `rest`, and the `end` itself; all of it when there is none.
inline std::string_view take(std::string_view& rest, char end) noexcept {
    const size_t at = rest.find(end);
    const std::string_view taken = rest.substr(0, at);
    rest.remove_prefix(at == std::string_view::npos ? rest.size() : at + 1);
    return taken;
}

/// A text split at the first `at`.
struct pair {
    std::string_view key;
    std::string_view value;
    bool has_value;
};

inline pair split(std::string_view text, char at) noexcept {
    const size_t end = text.find(at);
    if (end == std::string_view::npos) return {text, {}, false};
    return {text.substr(0, end), text.substr(end + 1), true};
}

/// Calls `use` with each element of a list; blanks behind a separator are skipped, an empty element ends the list.
template <class Use>
void for_each_element(std::string_view list, char separator, Use use) {
    while (!list.empty()) {
        const std::string_view element = take(list, separator);
        if (element.empty()) return;
        use(element);
        list = skip(list, " ");
    }
}

/// The number at the start of a text, behind spaces and a '+'; what follows it does not matter. A number that does not
/// fit is 0, so that no peer gets a chosen value out of an overflow.
inline std::optional<uint32_t> number(std::string_view text, int base = 10) noexcept {
    text = skip(text, spaces);
    if (text.starts_with('+')) text.remove_prefix(1);
    if (base == 16 && (text.starts_with("0x") || text.starts_with("0X"))) text.remove_prefix(2);
    uint32_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (result.ec == std::errc::invalid_argument) return std::nullopt;
    return result.ec == std::errc() ? value : 0;
}

inline uint32_t decimal(std::string_view text) noexcept { return number(text).value_or(0); }
inline uint32_t hexadecimal(std::string_view text) noexcept { return number(text, 16).value_or(0); }

/// Value of a hexadecimal digit, -1 for any other character.
inline int hex_digit(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace scan
