// What players are told of a context.
#pragma once

#include "net_dash/contexts.h"

namespace net::dash {

/// @return the MPD; null when there is none yet, or memory is out. May throw std::bad_alloc.
char* make_manifest(dash_ctx& ctx, const char* file, int line);

dash_property_t describe(const dash_ctx& ctx) noexcept;

}  // namespace net::dash
