/// Null-terminated arrays of pointers. An empty array is null. A call that changes an array may move it, so callers
/// keep what it returns: `items = core_array_add(items, item, CORE_HERE)`. The array owns itself, not its items. One
/// thread at a time.
#pragma once

#include "core/api.h"

#include <cstdint>

/// Appends an item. @return the array; unchanged when `item` is null or memory is out.
INET_API void** core_array_add(void** array, void* item, const char* file, int line) noexcept;

/// The same for a caller that knows the length of the array: it is not counted.
INET_API void** core_array_add_at(void** array, uint32_t length, void* item, const char* file, int line) noexcept;

/// Removes the first entry equal to `item`, keeping the order of the others. @return the array; null when it became
/// empty.
INET_API void** core_array_rem(void** array, void* item, const char* file, int line) noexcept;

/// Entries before the closing null; 0 for null.
INET_API uint32_t core_array_length(void* const* array) noexcept;

/// Releases the array, not its items; null is ignored.
INET_API void core_array_free(void** array) noexcept;

/// Joins an array of texts with nothing between them (core_array_to_sstring: with `separator`). @return a new text for
/// the caller to release with core_mfree(); null for an empty array or when memory is out.
INET_API char* core_array_to_string(char* const* array, const char* file, int line) noexcept;
INET_API char* core_array_to_sstring(char* const* array, const char* separator, const char* file, int line) noexcept;
