/// Ordered key/value texts. A list is a `value_t**` that ends with a null entry. An empty list is null. A call that
/// adds may move the list, so callers keep what it returns: `fields = core_value_put(fields, ...)`. One thread at a
/// time.
#pragma once

#include "core/api.h"

#include <cstdint>

struct value_t {
    char* key;
    char* value;  ///< null when the pair was made without one
};

/// Appends a pair; keys may repeat. @return the list, unchanged when `key` is null or memory is out.
INET_API value_t** core_value_put(value_t** list, const char* key, const char* value, const char* file,
                                  int line) noexcept;

/// The same for a caller that knows how many pairs the list holds: they are not counted.
INET_API value_t** core_value_put_at(value_t** list, uint32_t count, const char* key, const char* value,
                                     const char* file, int line) noexcept;

/// Replaces the value of the first pair with exactly that key, or appends one. @return as core_value_put().
INET_API value_t** core_value_set(value_t** list, const char* key, const char* value, const char* file,
                                  int line) noexcept;

/// Builds a list from text such as "a=1; b=2": pairs end at any character of `separator`, keys at the first character
/// of `pair_separator`. Blanks around keys and values are dropped. Empty pieces are skipped. A pair without a separator
/// has a null value. @return the list, null when there is none or memory is out.
INET_API value_t** core_value_split(const char* text, const char* separator, const char* pair_separator,
                                    const char* file, int line) noexcept;

/// Value of the first pair whose key matches exactly (`value_geti`: without case), or null. A null list is empty.
INET_API const char* value_get(value_t* const* list, const char* key) noexcept;
INET_API const char* value_geti(value_t* const* list, const char* key) noexcept;

/// The same as a decimal number; 0 when the key is missing, no number starts the value, or it does not fit.
INET_API uint32_t value_get_uint32(value_t* const* list, const char* key) noexcept;
INET_API uint32_t value_geti_uint32(value_t* const* list, const char* key) noexcept;
INET_API uint64_t value_geti_uint64(value_t* const* list, const char* key) noexcept;

/// Pairs in the list.
INET_API uint32_t value_count(value_t* const* list) noexcept;

/// Releases every pair and the list; null is ignored. The caller forgets its pointer.
INET_API void core_value_free(value_t** list) noexcept;
