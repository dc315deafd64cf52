/// Logs by name. The library prints to named logs. The program sets sinks, which decide where the lines go. A line that
/// no sink wants costs one atomic load and is not formatted. Any thread.
///
/// The log "console" is the exception: core_con_printf() prints to it. While no sink wants "console", its lines go to
/// the standard error stream, in the form of core_log_sink_console(). The library prints each error twice: with
/// core_log_err(), and to the console in red. So a program sees errors without setting a sink.
/// - To take the lines over, add a sink that wants "console" (or "*").
/// - To turn them off, add one that does nothing with them.
/// - To have them in a file and on the screen, add that file's sink and core_log_sink_console("console").
/// When the last such sink is removed, the lines go to the standard error stream again.
#pragma once

#include "core/api.h"

#include <cstdarg>
#include <cstdint>

struct log_ctx;

/// One line as a sink sees it. All texts are valid until the sink returns.
struct log_line_t {
    uint64_t time;     ///< microseconds since 1970-01-01 UTC
    const char* log;   ///< name of the log; "error" for core_log_err(), "console" for core_con_printf()
    const char* text;  ///< the formatted line without a line end, at most 16 KiB
    int color;         ///< console colour code, 0 when there is none
};

/// Opens the log of that name; logs of the same name are one. @return null when memory is out. Release with
/// core_log_free().
INET_API log_ctx* core_log_create(const char* file, int line, const char* name) noexcept;

/// Formats as printf does and hands the line to every sink that wants this log. A null log prints nothing.
INET_PRINTF(2, 3) INET_API void core_log_print(log_ctx* log, const char* format, ...) noexcept;

/// 1 when a sink wants this log, else 0. For callers whose lines are costly to prepare. Costs one atomic load.
INET_API int core_log_wanted(const log_ctx* log) noexcept;

INET_API void core_log_free(log_ctx*& log) noexcept;

/// Prints to the log named "error".
INET_PRINTF(1, 2) INET_API void core_log_err(const char* format, ...) noexcept;

/// Prints a console message to the sinks that want "console". Without such a sink it goes to the standard error stream.
/// A terminal shows it in the colour. Colour codes: 0 none, 1 red, 2 green, 3 yellow, 4 blue.
INET_PRINTF(2, 3) INET_API void core_con_printf(int color, const char* format, ...) noexcept;

/// Adds a sink: `write(arg, line)` is called for every line of the logs it wants, on the printing thread, one line at a
/// time for each sink. No sink is set at the start. At most 32 can be set at once. Inside `write`:
///   - It may print to logs. Those lines are handed out after it has returned, on the same thread, and not to a sink
///     whose line caused them: no line causes itself.
///   - It may remove itself and other sinks. It then waits for a `write` of the other sink that runs on another thread:
///     two sinks that remove each other at the same time wait for ever.
/// @param logs  names of logs separated by ',' without blanks, or "*" for all, also those that are created later
/// @return a number for core_log_sink_rem(), 0 when memory is out or no place is left
INET_API uint32_t core_log_sink_add(const char* logs, void (*write)(void* arg, const log_line_t* line),
                                    void* arg) noexcept;

/// Adds a sink that appends "time [log] text" lines to a file. Control characters and bytes that are not UTF-8 show as
/// \xHH and further lines of a text are indented. So text that a peer has sent cannot pass for another line. @return as
/// core_log_sink_add(); 0 when it cannot be opened.
INET_API uint32_t core_log_sink_file(const char* logs, const char* path) noexcept;

/// Adds a sink that writes lines of the same form to the standard error stream. A terminal shows them in colour.
INET_API uint32_t core_log_sink_console(const char* logs) noexcept;

/// 1 when a standard stream (1 output, 2 error) is a terminal, else 0. On a terminal a line may be overwritten.
INET_API int core_con_is_terminal(int stream) noexcept;

/// Removes a sink and closes its file. After the call `write` is not running on another thread, and is not called
/// again.
INET_API void core_log_sink_rem(uint32_t sink) noexcept;
