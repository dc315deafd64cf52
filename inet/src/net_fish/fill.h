// Fills a node document with a caller's values.
#pragma once

#include "inet/net_fish.h"

#include <cstdint>
#include <initializer_list>
#include <variant>

namespace fish {

/// A value for the places of that name in a document. Texts are escaped for the quotes that stand there. A list becomes
/// the items of an array; numbers and truth values stand for themselves.
struct field {
    using list = const char* const*;

    field(const char* name, const char* text) noexcept : key(name), value(text) {}
    field(const char* name, int64_t number) noexcept : key(name), value(number) {}
    field(const char* name, int number) noexcept : key(name), value(int64_t{number}) {}
    field(const char* name, bool truth) noexcept : key(name), value(truth) {}
    field(const char* name, double number) noexcept : key(name), value(number) {}
    field(const char* name, list items) noexcept : key(name), value(items) {}

    const char* key;
    std::variant<const char*, int64_t, bool, double, list> value;
};

/// Who a node is: what "common" says, and its tracks.
struct identity {
    net::cinfo_t__ node{};
    const char* settings_class = "profiles";

    identity(const net::cinfo_t__* of, const char* settings = "profiles") noexcept
        : node(of ? *of : net::cinfo_t__{}), settings_class(settings) {}
    /// A server of the host's.
    explicit identity(const char* key2, const char* key3) noexcept
        : node{"host", key2, key3, nullptr, nullptr}, settings_class("servers") {}
};

/// @return a new text for core_mfree(), or null when memory is out
char* fill(const char* document, const identity& who, std::initializer_list<field> fields, const char* file,
           int line) noexcept;

/// Node of Graph::add_rtpserver(), which has no call of its own in the interface.
char* rtp_server(const net::cinfo_t__* node, const char* ip, int port, const char* file, int line) noexcept;

}  // namespace fish
