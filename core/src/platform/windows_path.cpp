#include "windows_path.h"

#include <cwchar>
#include <iterator>
#include <windows.h>

namespace core::platform {

namespace {

constexpr size_t short_path = 248;  // a directory must leave room for a name of 8.3 within the 260 characters
constexpr wchar_t unbounded[] = L"\\\\?\\";
constexpr wchar_t unbounded_share[] = L"\\\\?\\UNC\\";

bool is_share(const wchar_t* path) noexcept { return path[0] == L'\\' && path[1] == L'\\'; }
bool is_device(const wchar_t* path) noexcept { return is_share(path) && (path[2] == L'?' || path[2] == L'.'); }

/// The full path, with its prefix, over `path` when the calls' bound is in its way; `path` is emptied when there is no
/// room for that.
void remove_bound(wchar_t* path, size_t room) noexcept {
    wchar_t full[wide_path::room];
    // Of a relative path the current directory counts, too.
    const DWORD length = GetFullPathNameW(path, static_cast<DWORD>(std::size(full)), full, nullptr);
    if (length != 0 && length < short_path) return;
    path[0] = L'\0';
    if (length == 0 || length >= std::size(full)) return;
    const wchar_t* prefix = is_device(full) ? L"" : is_share(full) ? unbounded_share : unbounded;
    const wchar_t* rest = is_share(full) && !is_device(full) ? full + 2 : full;
    if (std::wcslen(prefix) + std::wcslen(rest) >= room) return;
    std::wcscpy(path, prefix);
    std::wcscat(path, rest);
}

}  // namespace

wide_path::wide_path(const char* path) noexcept {
    const int length = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path, -1, text_, room);
    if (length > 0)
        remove_bound(text_, room);
    else
        text_[0] = L'\0';
}

}  // namespace core::platform
