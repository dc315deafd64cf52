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

namespace {

// A library and what it needs in turn come from its own folder, the program's or the system's: never from the current
// folder or from PATH, where somebody else may have put one of that name.
constexpr DWORD own_folder = LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR;
constexpr DWORD safe_folders = LOAD_LIBRARY_SEARCH_DEFAULT_DIRS;

/// The full path of a file, with the dot that keeps the system from adding ".dll" to a name without one.
class full_path {
public:
    explicit full_path(const wchar_t* path) noexcept {
        const DWORD length = GetFullPathNameW(path, room, text_, &name_);
        if (length == 0 || length >= room || !name_) {
            text_[0] = L'\0';
        } else if (!std::wcschr(name_, L'.')) {
            text_[length] = L'.';
            text_[length + 1] = L'\0';
        }
    }
    const wchar_t* get() const noexcept { return text_; }

private:
    static constexpr DWORD room = 4096;

    wchar_t text_[room + 1];
    wchar_t* name_ = nullptr;
};

}  // namespace

void* open_library(const char* path) noexcept {
    const wide_path wide(path);
    if (!wide.get()) return nullptr;
    const bool bare = !std::wcspbrk(wide.get(), L"\\/");
    DWORD old_mode = 0;
    SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &old_mode);  // no message box
    const HMODULE library = bare ? LoadLibraryExW(wide.get(), nullptr, safe_folders)
                                 : LoadLibraryExW(full_path(wide.get()).get(), nullptr, own_folder | safe_folders);
    SetThreadErrorMode(old_mode, nullptr);
    return library;
}

void* find_symbol(void* library, const char* name) noexcept {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}

void close_library(void* library) noexcept { FreeLibrary(static_cast<HMODULE>(library)); }

}  // namespace core::platform
