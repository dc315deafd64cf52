// User and password of an RTMP server ("authmod=adobe"): it refuses the connection twice, first with the way in which
// it asks, then with a challenge. The answers travel in the name of the application.
#pragma once

#include "core/owned.h"

#include <string_view>

namespace media::fetch {

/// What stands behind the application's name in the next connect.
/// @param said  by the server, with its refusal
/// @return null when there is no answer to it: it asks for nothing, or in another way, or has refused the answer
core::owned_text rtmp_login(std::string_view said, const char* user, const char* password) noexcept;

}  // namespace media::fetch
