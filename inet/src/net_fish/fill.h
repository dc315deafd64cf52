// Makes a node document of a section and the caller's values.
#pragma once

#include "inet/net_fish.h"

#include <cstdint>
#include <initializer_list>
#include <variant>

namespace fish {

/// A piece of a section with one place, of the field's name, for a text.
struct part {
    const char* piece;
    const char* text;
};

/// A value for the places of that name in a section. Texts are escaped for the quotes that stand there. A list becomes
/// the items of an array; numbers and truth values stand for themselves.
struct field {
    using list = const char* const*;

    field(const char* name, const char* text) noexcept : key(name), value(text) {}
    field(const char* name, int64_t number) noexcept : key(name), value(number) {}
    field(const char* name, int number) noexcept : key(name), value(int64_t{number}) {}
    field(const char* name, bool truth) noexcept : key(name), value(truth) {}
    field(const char* name, double number) noexcept : key(name), value(number) {}
    field(const char* name, list items) noexcept : key(name), value(items) {}
    field(const char* name, part of) noexcept : key(name), value(of) {}

    const char* key;
    std::variant<const char*, int64_t, bool, double, list, part> value;
};

/// Who a node is: what "common" says, and its tracks.
struct identity {
    net::cinfo_t__ node{};
    const char* settings_class = "profiles";  ///< null for no member "common"

    identity(const net::cinfo_t__* of, const char* settings = "profiles") noexcept
        : node(of ? *of : net::cinfo_t__{}), settings_class(settings) {}
    /// Of a section that stands alone.
    static identity alone(const net::cinfo_t__* of) noexcept { return {of, nullptr}; }
    /// A server of the host's.
    explicit identity(const char* key2, const char* key3) noexcept
        : node{"host", key2, key3, nullptr, nullptr}, settings_class("servers") {}
};

/// @param section  the member behind "common"; "" for none
/// @return a new text for core_mfree(), or null when memory is out
char* fill(const char* section, const identity& who, std::initializer_list<field> fields, const char* file,
           int line) noexcept;

/// Node of Graph::add_rtpserver(), which has no call of its own in the interface.
char* rtp_server(const net::cinfo_t__* node, const char* ip, int port, const char* file, int line) noexcept;

}  // namespace fish
