// The live line on a terminal.
#pragma once

namespace apps {

/// One line at the bottom of the terminal, written over itself; nothing when the output is no terminal.
class status_line {
public:
    status_line();
    ~status_line();
    status_line(const status_line&) = delete;
    status_line& operator=(const status_line&) = delete;

    [[gnu::format(printf, 2, 3)]] void show(const char* format, ...);

private:
    bool terminal_;
    bool shown_ = false;
};

}  // namespace apps
