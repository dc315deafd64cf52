/// Command queue: calls posted by any thread, run by the thread that owns the queue.
#pragma once

#include "core/api.h"

#include <cstdint>

struct cmd_ctx;

/// Opens a queue. @param owner is handed to every posted function. @return null when memory is out.
INET_API cmd_ctx* core_cmd_open(void* owner, const char* file, int line) noexcept;

/// Posts `function(owner, arg)`. Any thread. @return 1, or 0 for a null queue or function, or when memory is out.
INET_API int core_cmd_exec(cmd_ctx* cmd, void (*function)(void* owner, void* arg), void* arg) noexcept;

/// Runs the calls posted so far, in order, on the calling thread. Calls that they post themselves wait for the next
/// core_cmd_process(). @return the number of calls run.
INET_API uint32_t core_cmd_process(cmd_ctx* cmd) noexcept;

/// Drops the calls not yet run, releases the queue and nulls the handle. Not from within a posted call.
INET_API void core_cmd_close(cmd_ctx*& cmd) noexcept;
