#include "terminal.h"

#include "core/log.h"

#include <cstdarg>
#include <cstdio>

namespace apps {

status_line::status_line(bool shows) : terminal_(shows && core_con_is_terminal(1) != 0) {}

status_line::~status_line() {
    if (shown_) std::fputs("\n", stdout);
}

void status_line::show(const char* format, ...) {
    if (!terminal_) return;
    shown_ = true;
    va_list args;
    va_start(args, format);
    std::fputs("\r\x1b[K\x1b[?7l", stdout);  // cut at the edge: a second line would stay behind
    std::vprintf(format, args);
    std::fputs("\x1b[?7h", stdout);
    std::fflush(stdout);
    va_end(args);
}

}  // namespace apps
