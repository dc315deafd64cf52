/// Logs by name. The library prints to named logs; the host program decides where lines go by setting sinks. A line
/// that no sink wants costs one atomic load and formats nothing. Any thread.
///
/// The console is the exception. Its lines are those of core_con_printf(), among them every error of the library, which
/// prints each twice: with core_log_err(), and to the console in red. While no sink wants "console" they go to the
/// standard error stream, as core_log_sink_console() writes them, so a program sees errors without setting anything.
/// - To take them over, add a sink that wants "console" (or "*").
/// - To turn them off, add one that does nothing with them.
/// - To have them in a file and on the screen, add that file's sink and core_log_sink_console("console").
/// They go there again when the last such sink is removed.
#pragma once

#include "core/api.h"

#include <cstdarg>
#include <cstdint>

struct log_ctx;

/// One line as a sink sees it. All texts live only for the call.
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

/// 1 when some sink wants this log: for callers that would first have to prepare what they print. One atomic load.
INET_API int core_log_wanted(const log_ctx* log) noexcept;

INET_API void core_log_free(log_ctx*& log) noexcept;

/// Prints to the log named "error".
INET_PRINTF(1, 2) INET_API void core_log_err(const char* format, ...) noexcept;

/// Prints a console message: to the sinks that want "console", without one to the standard error stream. A terminal
/// shows it in the colour. Colour codes: 0 none, 1 red, 2 green, 3 yellow, 4 blue.
INET_PRINTF(2, 3) INET_API void core_con_printf(int color, const char* format, ...) noexcept;

/// Adds a sink: `write(arg, line)` is called for every line of the logs it wants, on the printing thread, one line at a
/// time for each sink. It may print to logs itself; those lines follow when it has returned and are not handed back to
/// it. It may remove itself and any other sink, but not one whose `write` is just removing it. No sink is set at the
/// start; 32 can be set at once.
/// @param logs  names of logs separated by ',', or "*" for all
/// @return a number for core_log_sink_rem(), 0 when memory is out or no place is left
INET_API uint32_t core_log_sink_add(const char* logs, void (*write)(void* arg, const log_line_t* line),
                                    void* arg) noexcept;

/// Adds a sink that appends "time [log] text" lines to a file. Control characters and bytes that are not UTF-8 show as
/// \xHH and further lines of a text are indented: a line may hold what a peer has sent, which may not pass for another
/// line. @return as core_log_sink_add(); 0 when it cannot be opened.
INET_API uint32_t core_log_sink_file(const char* logs, const char* path) noexcept;

/// Adds a sink that writes the same to the standard error stream, in colour when that is a terminal.
INET_API uint32_t core_log_sink_console(const char* logs) noexcept;

/// 1 when a standard stream (1 output, 2 error) is a terminal, where a line may be written over; else 0.
INET_API int core_con_is_terminal(int stream) noexcept;

/// Takes a sink away and closes its file. When the call returns its `write` is not running on another thread and will
/// not be called again.
INET_API void core_log_sink_rem(uint32_t sink) noexcept;
