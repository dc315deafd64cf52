// Trees of values as text, and bytes as hexadecimal text.
#pragma once

#include "common/iobuffer.h"
#include "common/variant.h"
#include "core/time.h"

#include <sstream>
#include <string>

namespace test {

inline std::string hex(std::string_view bytes) {
    constexpr auto digits = "0123456789ABCDEF";
    std::string text;
    for (const char c : bytes) {
        text += digits[static_cast<unsigned char>(c) >> 4];
        text += digits[c & 15];
    }
    return text;
}

inline std::string hex(const IOBuffer& buffer) {
    return hex(std::string_view(reinterpret_cast<const char*>(buffer.Data()), buffer.Size()));
}

/// Blanks are left out.
inline std::string unhex(std::string_view text) {
    std::string bytes;
    std::string pair;
    for (const char c : text) {
        if (c != ' ') pair += c;
        if (pair.size() < 2) continue;
        bytes += static_cast<char>(std::stoi(pair, nullptr, 16));
        pair.clear();
    }
    return bytes;
}

/// Maps as {key:value}, arrays as [key:value], a class name before it, indexes as #7, times as @seconds.
inline std::string tree(const Variant& value) {
    std::ostringstream out;
    const tm time = static_cast<tm>(value);
    if (value.IsMap()) {
        out << value.GetTypeName() << (value.IsArray() ? '[' : '{');
        const char* separator = "";
        for (const auto& entry : value) {
            out << separator;
            if (entry.IsIndex())
                out << '#' << entry.Index();
            else
                out << entry.Key();
            out << ':' << tree(entry.value);
            separator = ",";
        }
        out << (value.IsArray() ? ']' : '}');
        return out.str();
    }
    switch (value.Type()) {
        case variant_null:
            return "null";
        case variant_undefined:
            return "undefined";
        case variant_bool:
            return static_cast<bool>(value) ? "true" : "false";
        case variant_timestamp:
            out << '@' << core_timegm(&time);
            return out.str();
        case variant_string:
            return '\'' + static_cast<std::string>(value) + '\'';
        case variant_byte_array:
            return '<' + hex(static_cast<std::string_view>(value)) + '>';
        default:
            break;
    }
    if (!value.IsNumber()) return "lost";
    out << static_cast<double>(value);
    return out.str();
}

}  // namespace test
