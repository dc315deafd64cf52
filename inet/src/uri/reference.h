// Absolute URIs, and references to them (RFC 3986, 5).
#pragma once

#include "core/owned.h"

#include <string_view>

namespace net::uri {

/// Whether it begins with a scheme and "://".
bool is_absolute(std::string_view uri) noexcept;

// Null when memory is out.

/// An absolute URI without user and password.
core::owned_text without_login(std::string_view uri, const char* file, int line) noexcept;

/// A reference resolved against an absolute base (5.2).
core::owned_text resolve(std::string_view base, std::string_view reference, const char* file, int line) noexcept;

}  // namespace net::uri
