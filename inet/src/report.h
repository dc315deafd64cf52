// Errors of the library go twice: to the error log and, in red, to the console.
#pragma once

#include "platform/socket_api.h"

#include "core/log.h"

#include <cstdarg>
#include <cstdio>

namespace net {

/// The caller's socket error survives it.
INET_PRINTF(1, 2) inline void report(const char* format, ...) noexcept {
    const int error = platform::last_error();
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    core_log_err("%s", text);
    core_con_printf(1, "%s", text);
    platform::set_last_error(error);
}

}  // namespace net
