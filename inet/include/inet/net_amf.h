/// Flat reader of AMF0: the first value of a range of bytes. Any thread. Nested values are followed to 64 levels.
#pragma once

#include "core/api.h"

#include <cstdint>

namespace net {

/// A value. Released by net_amf_free().
struct amf_val {
    char* name;    ///< null for a value without a name
    int32_t type;  ///< 2 a string, 3 an object
    void* value;   ///< 2: the text, NUL-terminated. 3: a null-terminated array of amf_val pointers
};

/// Reads the first value. `file` and `line` name what is allocated.
/// @param out  receives a record for a string; else it stays as it was
/// @return bytes consumed:
///   - a string: 3 and its length; 0 when the bytes are cut short or memory is out,
///   - an object: all up to and with its end; 0 when that is not there. Behind a property that cannot be read (an
///     unknown type, one cut short, nesting above 64 levels) the end is the next one that is found byte by byte,
///   - any other marker: 1,
///   - null or no bytes: 0.
INET_API int net_amf_read(const uint8_t* data, uint64_t length, amf_val*& out, const char* file, int line) noexcept;

/// Releases a record and its children; null is ignored. The value of a type other than 2 and 3 is left alone.
INET_API void net_amf_free(amf_val* value) noexcept;

}  // namespace net
