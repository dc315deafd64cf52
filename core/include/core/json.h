/// JSON reader (RFC 8259). A text becomes a tree. A text must be UTF-8, with or without a byte order mark. A \u escape
/// of half a surrogate pair is refused. Reading takes time linear in the text. A tree is read-only: any thread may use
/// it.
///
/// Bounds (a text above one is refused):
///     nesting    128 levels
///     text       64 MiB
///     tree       64 MiB beside its root: at most 32 times the bytes of its text
#pragma once

#include "core/api.h"

#include <cstddef>
#include <cstdint>

enum json_type_t : uint8_t { json_null, json_false, json_true, json_number, json_string, json_array, json_object };

struct json_member_t;

/// One value. Members and items keep the order of the text. Repeated names are kept; json_get() finds the first.
struct json_t {
    json_type_t type;
    bool is_integer;   ///< the number had no fraction or exponent and fits 64 bits: `integer` holds it exactly
    uint32_t count;    ///< items of an array, members of an object
    int64_t integer;   ///< number cut to an integer, within the range of 64 bits
    double number;     ///< the nearest double; a number that is too large becomes the largest of its sign
    const char* text;  ///< string, unescaped and NUL-terminated; \u0000 inside is kept and counted in `length`
    size_t length;
    const json_t* items;
    const json_member_t* members;
};

struct json_member_t {
    const char* name;  ///< as `text`; a \u0000 inside ends it
    json_t value;
};

/// Reads a text. A refused text puts "line:column: reason" or "out of memory" into `error`, cut to `error_size`.
/// `error` may be null.
/// @return the root, or null. Release the root with yajl_tree_free().
INET_API json_t* yajl_tree_parse(const char* text, char* error, size_t error_size) noexcept;
INET_API void yajl_tree_free(json_t* root) noexcept;

/// Member of an object by exact name; null when it is missing, when `value` is null, or when `value` is no object.
INET_API const json_t* json_get(const json_t* value, const char* name) noexcept;

/// json_text() gives a string's text, and null for anything else. json_integer() gives a number as an integer, and
/// `missing` for anything else.
INET_API const char* json_text(const json_t* value) noexcept;
INET_API int64_t json_integer(const json_t* value, int64_t missing) noexcept;

/// Escapes a text for use between the quotes of a JSON string. Bytes that are not UTF-8 become U+FFFD. @return a new
/// text for core_mfree(), or null.
INET_API char* core_json_encode(const char* text, const char* file, int line) noexcept;
