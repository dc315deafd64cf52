// What the control values of a description ask for (RFC 2326, C.1.1).
#pragma once

#include "core/owned.h"

#include <string_view>

namespace rtsp3 {

/// Whether it begins with a scheme and "://".
bool is_absolute(std::string_view uri) noexcept;

// Null when memory is out.

/// An absolute URI without user and password.
core::owned_text without_login(std::string_view uri, const char* file, int line) noexcept;

/// The control behind the base, as servers mean it, which often leave out the last '/' of the base. One is put between
/// them unless it stands there, or the control begins a path or a query.
core::owned_text append_control(std::string_view base, std::string_view control, const char* file, int line) noexcept;

/// A reference resolved against an absolute base (RFC 3986, 5.2).
core::owned_text resolve(std::string_view base, std::string_view reference, const char* file, int line) noexcept;

}  // namespace rtsp3
