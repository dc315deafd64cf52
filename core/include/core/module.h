/// Dynamic libraries by name.
#pragma once

#include "core/api.h"

struct dll_ctx;

/// One entry point to look up: `function` is null when the library does not have it.
struct dll_entry_t {
    const char* name;
    void* function;
};

/// Loads a library and looks entry points up. `name` is a path, which is taken as it is, or a bare name ("reader"). A
/// bare name is completed as the system does ("libreader.so", "reader.dll"), unless it is complete ("libm.so.6"). It is
/// sought in the folder "inet-modules" beside this library, then beside it, then where the system looks.
/// @param entries  ends with a null name; may be null
/// @return the handle; null when memory is out, when the library cannot be loaded, or when it lacks an entry. A missing
/// entry is then null, and the other entries may not be called. Close with core_dll_close().
INET_API dll_ctx* core_dll_open(const char* name, dll_entry_t* entries, const char* file, int line) noexcept;

/// Unloads the library and nulls the handle. No thread may be running in the library.
INET_API void core_dll_close(dll_ctx*& dll) noexcept;
