/// Dynamic libraries by name.
#pragma once

#include "core/api.h"

struct dll_ctx;

/// One entry point to look up: `function` is null when the library does not have it.
struct dll_entry_t {
    const char* name;
    void* function;
};

/// Loads a library and looks entry points up. A bare name ("reader") is completed as the system does ("libreader.so",
/// "reader.dll") unless it is complete ("libm.so.6"), and sought beside this library first, then where the system looks.
/// A path is taken as it is.
/// @param entries  ends with a null name; may be null
/// @return the handle, or null when memory is out, the library cannot be loaded or lacks an entry; what it lacks is
/// then null, and the other entries may not be called. Close with core_dll_close().
INET_API dll_ctx* core_dll_open(const char* name, dll_entry_t* entries, const char* file, int line) noexcept;

/// Unloads the library and nulls the handle. Nobody may run in it any more.
INET_API void core_dll_close(dll_ctx*& dll) noexcept;
