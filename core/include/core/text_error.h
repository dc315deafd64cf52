/// Writes where and why a reader refused a text.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <string_view>

namespace core {

/// Writes a reason, cut to `size`. A null `out` is ignored.
inline void write_error(char* out, size_t size, const char* reason) noexcept {
    if (out && size > 0) std::snprintf(out, size, "%s", reason);
}

/// Writes "line:column: reason" for the byte at `offset`, cut to `size`. Lines and columns count from 1. Columns are
/// characters of UTF-8. A null `out` is ignored.
inline void write_text_error(char* out, size_t size, std::string_view text, size_t offset,
                             const char* reason) noexcept {
    if (!out || size == 0) return;
    const std::string_view before = text.substr(0, offset);
    const auto line = std::ranges::count(before, '\n') + 1;
    const std::string_view on_line = before.substr(before.rfind('\n') + 1);
    const auto column = std::ranges::count_if(on_line, [](char c) { return (c & 0xc0) != 0x80; }) + 1;
    std::snprintf(out, size, "%td:%td: %s", line, column, reason);
}

}  // namespace core
