// The target of a request: where it leads.
#pragma once

#include "core/owned.h"

#include <string_view>

namespace media::web {

struct target_t {
    core::string path;   ///< decoded, with its '/'
    core::string query;  ///< as it came
};

/// Reads a target in origin or absolute form (RFC 9112, 3.2).
/// @return false for what leads nowhere, or when memory is out
bool read_target(std::string_view text, target_t& out) noexcept;

}  // namespace media::web
