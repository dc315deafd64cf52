#include "system.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <type_traits>
#include <windows.h>

namespace core::platform {

namespace {

using set_description = HRESULT(WINAPI*)(HANDLE thread, const wchar_t* name);

/// Not in every Windows 10.
set_description find_set_description() noexcept {
    const HMODULE library = GetModuleHandleW(L"kernelbase.dll");
    return library ? reinterpret_cast<set_description>(
                         reinterpret_cast<void*>(GetProcAddress(library, "SetThreadDescription")))
                   : nullptr;
}

void name_handle(HANDLE thread, const char* name) noexcept {
    static const set_description describe = find_set_description();
    wchar_t wide[256];
    const auto bytes = static_cast<int>(std::min(std::strlen(name), std::size(wide) - 1));
    wide[MultiByteToWideChar(CP_UTF8, 0, name, bytes, wide, bytes)] = L'\0';
    if (describe) describe(thread, wide);
}

/// What the standard library calls a thread is the system's handle, or a number of MinGW-w64's that leads to it.
template <class Native>
HANDLE handle_of(Native thread) noexcept {
    if constexpr (std::is_pointer_v<Native>)
        return thread;
    else
        return pthread_gethandle(thread);
}

}  // namespace

void name_thread(std::thread::native_handle_type thread, const char* name) noexcept {
    name_handle(handle_of(thread), name);
}

void name_this_thread(const char* name) noexcept { name_handle(GetCurrentThread(), name); }

// Not std::thread: with MinGW-w64's, one thread in some hundreds never runs when it is detached at once.
bool start_detached(invocation* call) noexcept {
    const auto body = [](void* arg) -> DWORD {
        carry_out(static_cast<invocation*>(arg));
        return 0;
    };
    const HANDLE thread = CreateThread(nullptr, 0, body, call, 0, nullptr);
    if (thread) CloseHandle(thread);
    return thread != nullptr;
}

}  // namespace core::platform
