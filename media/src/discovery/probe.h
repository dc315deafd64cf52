// What a Probe asks for.
#pragma once

#include "core/owned.h"

#include <string_view>

namespace media::discovery {

inline constexpr size_t longest_probe = 8192;

/// Reads a datagram. @param scopes  of the device, with blanks between them
/// @param message_id  receives that of a Probe that asks for such a device, cut to 1023 bytes
/// @return false for what is not to be answered. Throws std::bad_alloc.
bool read_probe(const char* text, std::string_view scopes, core::string& message_id);

}  // namespace media::discovery
