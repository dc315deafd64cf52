// The live line on a terminal.
#pragma once

#include "core/api.h"

namespace apps {

/// One line at the bottom of the terminal, written over itself; nothing when the output is no terminal.
class status_line {
public:
    /// @param shows  false has it print nothing
    explicit status_line(bool shows = true);
    ~status_line();
    status_line(const status_line&) = delete;
    status_line& operator=(const status_line&) = delete;

    INET_PRINTF(2, 3) void show(const char* format, ...);

private:
    bool terminal_;
    bool shown_ = false;
};

}  // namespace apps
