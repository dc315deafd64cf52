#include "system.h"
#include "windows_path.h"

#include <cwchar>
#include <iterator>
#include <windows.h>

namespace core::platform {

const char* const library_prefix = "";
const char* const library_suffix = ".dll";

bool this_library(char* out, size_t size) noexcept {
    static const char here = 0;
    HMODULE module = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<const wchar_t*>(&here), &module))
        return false;
    wchar_t path[4096];
    const DWORD length = GetModuleFileNameW(module, path, static_cast<DWORD>(std::size(path)));
    if (length == 0 || length >= std::size(path)) return false;
    return WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, path, -1, out, static_cast<int>(size), nullptr, nullptr) >
           0;
}

// A library and what it needs in turn come from its own folder, the program's or the system's: never from the current
// folder or from PATH, where somebody else may have put one of that name.
void* open_library(const char* path) noexcept {
    const wide_path wide(path);
    if (!wide.get()) return nullptr;
    DWORD old_mode = 0;
    SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &old_mode);  // no message box
    HMODULE library = nullptr;
    if (std::wcspbrk(wide.get(), L"\\/")) {
        wchar_t full[4096];
        const DWORD length = GetFullPathNameW(wide.get(), static_cast<DWORD>(std::size(full)), full, nullptr);
        if (length > 0 && length < std::size(full))
            library =
                LoadLibraryExW(full, nullptr, LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);
    } else {
        library = LoadLibraryExW(wide.get(), nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);
    }
    SetThreadErrorMode(old_mode, nullptr);
    return library;
}

void* find_symbol(void* library, const char* name) noexcept {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}

void close_library(void* library) noexcept { FreeLibrary(static_cast<HMODULE>(library)); }

}  // namespace core::platform
