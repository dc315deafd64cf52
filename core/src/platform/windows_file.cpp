#include "system.h"
#include "windows_path.h"

#include <aclapi.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <io.h>
#include <iterator>
#include <memory>
#include <string_view>
#include <windows.h>

namespace core::platform {

const char* const path_separators = "\\/";
const size_t root_length = 3;

namespace {

struct handle_closer {
    void operator()(void* handle) const noexcept { CloseHandle(handle); }
};
using owned_handle = std::unique_ptr<void, handle_closer>;

owned_handle own(HANDLE handle) noexcept { return owned_handle(handle == INVALID_HANDLE_VALUE ? nullptr : handle); }

struct local_deleter {
    void operator()(void* block) const noexcept { LocalFree(block); }
};

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
    const std::unique_ptr<void, local_deleter> held(rights);
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
    return wide_from.get() && wide_to.get() &&
           MoveFileExW(wide_from.get(), wide_to.get(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
}

// rename_file() has waited for it.
void sync_entry(const char*) noexcept {}

bool make_directory(const char* path) noexcept {
    const wide_path wide(path);
    if (!wide.get()) return false;
    if (CreateDirectoryW(wide.get(), nullptr)) return true;
    if (GetLastError() != ERROR_ALREADY_EXISTS) return false;
    const DWORD attributes = GetFileAttributesW(wide.get());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool remove_directory(const char* path) noexcept {
    const wide_path wide(path);
    return wide.get() && RemoveDirectoryW(wide.get());
}

}  // namespace core::platform
