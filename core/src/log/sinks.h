// The two sinks the library brings along. What a line says may come from a peer, so control characters and bytes that
// are not UTF-8 show as \xHH, and further lines of a text are indented: none passes for a line of its own, and nothing
// commands the terminal that a file is later shown on.
#pragma once

#include "core/log.h"

#include <cstdio>

namespace core::log {

/// Appends "time [log] text" to the FILE that `arg` is.
void write_file(void* arg, const log_line_t* line) noexcept;

/// The same for a person's screen: `arg` is a terminal_t.
struct terminal_t {
    std::FILE* out;
    bool colour;
};
void write_terminal(void* arg, const log_line_t* line) noexcept;

}  // namespace core::log
