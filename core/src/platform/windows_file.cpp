#include "system.h"
#include "windows_path.h"

#include "core/owned.h"

#include <aclapi.h>
#include <cerrno>
#include <cstring>
#include <cwchar>
#include <fcntl.h>
#include <io.h>
#include <iterator>
#include <string_view>
#include <windows.h>

namespace core::platform {

const char* const path_separators = "\\/";
const size_t root_length = 3;

namespace {

using owned_handle = owned<void, CloseHandle>;

owned_handle own(HANDLE handle) noexcept { return owned_handle(handle == INVALID_HANDLE_VALUE ? nullptr : handle); }

HANDLE handle_of(std::FILE* file) noexcept {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): so the C library hands out handles
    return reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
}

/// What the letters of a mode mean to the system, and to the C library that is given the handle.
struct open_mode {
    const char* letters;
    DWORD access;
    DWORD disposition;
    int flags;
    const char* stream;
};

constexpr DWORD share_all = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr DWORD append_access = FILE_APPEND_DATA | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE;

constexpr open_mode open_modes[] = {
    {"r", GENERIC_READ, OPEN_EXISTING, _O_RDONLY, "rb"},
    {"r+", GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING, _O_RDWR, "r+b"},
    {"w", GENERIC_WRITE, CREATE_ALWAYS, _O_WRONLY, "wb"},
    {"w+", GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS, _O_RDWR, "w+b"},
    {"wx", GENERIC_WRITE, CREATE_NEW, _O_WRONLY, "wb"},
    {"w+x", GENERIC_READ | GENERIC_WRITE, CREATE_NEW, _O_RDWR, "w+b"},
    {"a", append_access, OPEN_ALWAYS, _O_WRONLY | _O_APPEND, "ab"},
    {"a+", GENERIC_READ | append_access, OPEN_ALWAYS, _O_RDWR | _O_APPEND, "a+b"},
};

const open_mode* find_mode(std::string_view mode) noexcept {
    char letters[4] = {};
    size_t length = 0;
    for (const char letter : mode) {
        if (letter == 'b') continue;
        if (length + 1 == sizeof letters) return nullptr;
        letters[length++] = letter;
    }
    for (const open_mode& known : open_modes) {
        if (std::strcmp(known.letters, letters) == 0) return &known;
    }
    return nullptr;
}

bool is_directory(const wchar_t* path) noexcept {
    const DWORD attributes = GetFileAttributesW(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

// FILE_RENAME_INFO and its class as of Windows 10 1709: MinGW-w64's headers declare them for later systems alone.
struct rename_request {
    static constexpr auto information = static_cast<FILE_INFO_BY_HANDLE_CLASS>(22);  // FileRenameInfoEx
    static constexpr DWORD replace_if_exists = 1;
    static constexpr DWORD posix_semantics = 2;

    DWORD flags;
    HANDLE root;
    DWORD bytes;
    wchar_t name[wide_path::room];
};

/// Replaces a file that others have open: they keep what they had, under no name. Older systems, and file systems that
/// cannot do so, refuse with ERROR_INVALID_PARAMETER and the like.
bool replace_in_use(const wchar_t* from, const wchar_t* to) noexcept {
    constexpr DWORD flags = FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_WRITE_THROUGH;
    const owned_handle file =
        own(CreateFileW(from, DELETE | SYNCHRONIZE, share_all, nullptr, OPEN_EXISTING, flags, nullptr));
    rename_request request{.flags = rename_request::replace_if_exists | rename_request::posix_semantics,
                           .root = nullptr,
                           .bytes = static_cast<DWORD>(std::wcslen(to) * sizeof(wchar_t)),
                           .name = {}};
    std::wcscpy(request.name, to);
    return file && SetFileInformationByHandle(file.get(), rename_request::information, &request, sizeof request);
}

bool move_file(const wchar_t* from, const wchar_t* to) noexcept {
    return MoveFileExW(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
}

/// The same in two steps, where there is no better way: a file that others have open can be moved aside. A crash
/// between the two leaves it under that name.
bool replace_moved_aside(const wchar_t* from, const wchar_t* to) noexcept {
    wchar_t aside[wide_path::room + 16];
    std::swprintf(aside, std::size(aside), L"%ls.%08lx", to, GetTickCount());
    if (!move_file(to, aside)) return false;
    const bool moved = move_file(from, to);
    if (moved)
        DeleteFileW(aside);
    else
        move_file(aside, to);
    return moved;
}

bool may_pass(DWORD error) noexcept {
    return error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION || error == ERROR_ACCESS_DENIED;
}

int errno_of(DWORD error) noexcept {
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? ENOENT : EACCES;
}

}  // namespace

// By the system's call rather than _wfopen(), which keeps everybody else from renaming and removing an open file.
std::FILE* open_file(const char* path, const char* mode) noexcept {
    const wide_path wide(path);
    const open_mode* how = find_mode(mode);
    errno = EINVAL;
    if (!wide.get() || !how) return nullptr;
    owned_handle handle =
        own(CreateFileW(wide.get(), how->access, share_all, nullptr, how->disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!handle) {
        errno = errno_of(GetLastError());
        return nullptr;
    }
    const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(handle.get()), how->flags | _O_BINARY | _O_NOINHERIT);
    if (fd < 0) return nullptr;
    static_cast<void>(handle.release());  // it is the descriptor's by now
    std::FILE* const file = _fdopen(fd, how->stream);
    if (!file) _close(fd);
    return file;
}

bool seek_file(std::FILE* file, int64_t position, int whence) noexcept {
    return _fseeki64(file, position, whence) == 0;
}

int64_t tell_file(std::FILE* file) noexcept { return _ftelli64(file); }

bool sync_file(std::FILE* file) noexcept { return _commit(_fileno(file)) == 0; }

void adopt_rights(std::FILE* file, const char* path) noexcept {
    const wide_path wide(path);
    PSECURITY_DESCRIPTOR rights = nullptr;
    if (!wide.get() || GetNamedSecurityInfoW(wide.get(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                             nullptr, nullptr, &rights) != ERROR_SUCCESS)
        return;
    const owned<void, LocalFree> held(rights);
    // Without the right to do so the file keeps the rights that its directory hands down.
    const owned_handle owner = own(ReOpenFile(handle_of(file), READ_CONTROL | WRITE_DAC, share_all, 0));
    // As it stands: a call that minds inheritance would add what the directory hands down.
    if (owner) SetKernelObjectSecurity(owner.get(), DACL_SECURITY_INFORMATION, rights);
}

bool is_terminal(std::FILE* file) noexcept {
    const HANDLE console = handle_of(file);
    DWORD mode = 0;
    if (!GetConsoleMode(console, &mode)) return false;
    SetConsoleOutputCP(CP_UTF8);
    return SetConsoleMode(console, mode | ENABLE_PROCESSED_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

bool remove_file(const char* path) noexcept {
    const wide_path wide(path);
    return wide.get() && DeleteFileW(wide.get());
}

bool rename_file(const char* from, const char* to) noexcept {
    const wide_path wide_from(from);
    const wide_path wide_to(to);
    if (!wide_from.get() || !wide_to.get()) return false;
    // Who opened the target without sharing it, such as a scanner, is done with it soon.
    constexpr int tries = 20;
    constexpr DWORD pause = 10;  // milliseconds
    for (int tried = 1;; ++tried) {
        if (replace_in_use(wide_from.get(), wide_to.get())) return true;
        const bool known = may_pass(GetLastError());
        if (move_file(wide_from.get(), wide_to.get())) return true;
        if (!may_pass(GetLastError()) || is_directory(wide_to.get())) return false;
        if (!known && replace_moved_aside(wide_from.get(), wide_to.get())) return true;
        if (tried == tries) return false;
        Sleep(pause);
    }
}

bool follow_links(const char* path, char* out, size_t size) noexcept {
    const size_t length = std::strlen(path);
    if (length >= size) return false;
    std::memcpy(out, path, length + 1);
    const wide_path wide(path);
    const DWORD attributes = wide.get() ? GetFileAttributesW(wide.get()) : INVALID_FILE_ATTRIBUTES;
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) return true;
    const owned_handle target =
        own(CreateFileW(wide.get(), 0, share_all, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    wchar_t full[4096];
    const auto room = static_cast<DWORD>(std::size(full));
    if (!target) return false;
    const DWORD written = GetFinalPathNameByHandleW(target.get(), full, room, FILE_NAME_NORMALIZED);
    return written != 0 && written < room &&
           WideCharToMultiByte(CP_UTF8, 0, full, -1, out, static_cast<int>(size), nullptr, nullptr) > 0;
}

// rename_file() has waited for it.
void sync_entry(const char*) noexcept {}

bool make_directory(const char* path) noexcept {
    const wide_path wide(path);
    if (!wide.get()) return false;
    if (CreateDirectoryW(wide.get(), nullptr)) return true;
    if (GetLastError() != ERROR_ALREADY_EXISTS) return false;
    return is_directory(wide.get());
}

bool remove_directory(const char* path) noexcept {
    const wide_path wide(path);
    return wide.get() && RemoveDirectoryW(wide.get());
}

}  // namespace core::platform
