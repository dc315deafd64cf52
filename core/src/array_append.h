/// Growth of the runtime's null-terminated arrays of pointers.
#pragma once

#include <cstddef>

namespace core {

/// Puts an item behind the first `length` of an array, null while empty, and closes it again. Room grows geometrically.
/// @return false, with the array as it was, when memory is out.
bool array_append(void**& array, size_t length, void* item, const char* file, int line) noexcept;

}  // namespace core
