/// Named parameters. Lists of them fill templates (core/template.h), travel over the profile bus (core/profile.h) and
/// are given to plug-ins.
#pragma once

#include "core/api.h"

#include <cstddef>
#include <cstdint>

enum param_type_t : uint32_t {
    param_end = 0,      ///< ends a list
    param_text = 2,     ///< `text`
    param_integer = 4,  ///< `integer`
    param_data = 8,     ///< `data`: what is no text, such as a media frame
};

/// One named parameter. A list is an array whose last entry has type 0. The record owns nothing.
struct param_t {
    uint32_t type = param_end;
    const char* key = nullptr;
    union {
        const char* text;
        int64_t integer = 0;
        const void* data;
    };

    constexpr param_t() noexcept = default;  ///< the end of a list
    constexpr param_t(const char* name, const char* value) noexcept : type(param_text), key(name), text(value) {}
    constexpr param_t(const char* name, int64_t value) noexcept : type(param_integer), key(name), integer(value) {}
    constexpr param_t(const char* name, const void* value) noexcept : type(param_data), key(name), data(value) {}
};

/// First entry named `key` (exact), or null. A null list is empty. Any thread.
INET_API const param_t* param_find(const param_t* params, const char* key) noexcept;

/// Text of the entry named `key`; null when it is missing or not a text.
INET_API const char* param_get_text(const param_t* params, const char* key) noexcept;

/// Integer of the entry named `key`; `missing` when it is not there or not an integer.
INET_API int64_t param_get_integer(const param_t* params, const char* key, int64_t missing) noexcept;
