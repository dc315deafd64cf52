#include "system.h"

#include "core/owned.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <io.h>
#include <iterator>
#include <windows.h>
// clang-format off: it builds on the types of the one before
#include <shellapi.h>
// clang-format on

namespace apps::platform {
namespace {

/// A console belongs to everybody who uses it: it is left as it was found.
struct console_state {
    HANDLE stream = INVALID_HANDLE_VALUE;
    DWORD mode = 0;
};
console_state outputs[2];
UINT code_page = 0;

// The last one first: both are mostly the same console, and what was found there is the mode of the first.
void restore_console() {
    std::for_each(std::rbegin(outputs), std::rend(outputs), [](const console_state& each) {
        if (each.stream != INVALID_HANDLE_VALUE) SetConsoleMode(each.stream, each.mode);
    });
    SetConsoleOutputCP(code_page);
}

std::atomic<std::atomic<bool>*> noted = nullptr;

/// Runs on a thread of its own.
BOOL WINAPI on_control(DWORD event) {
    std::atomic<bool>* const flag = noted.exchange(nullptr);
    if (!flag) return FALSE;
    *flag = true;
    // When the console goes away, the user logs off or the system stops, the program is ended with the return from
    // here: main() ends it before, or the system does after some seconds.
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(INFINITE);
    return TRUE;
}

/// A lone surrogate becomes U+FFFD.
std::string utf8(const wchar_t* text) {
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string result(size > 0 ? static_cast<size_t>(size) : 1, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, result.data(), size, nullptr, nullptr);
    result.pop_back();  // the NUL
    return result;
}

}  // namespace

std::vector<std::string> arguments(int argc, const char* const* argv) {
    int count = 0;
    // What main() gets has gone through the code page of the system.
    const core::owned<wchar_t*, LocalFree> wide(CommandLineToArgvW(GetCommandLineW(), &count));
    if (!wide) return {argv, argv + argc};
    std::vector<std::string> result(static_cast<size_t>(count));
    std::transform(wide.get(), wide.get() + count, result.begin(), utf8);
    return result;
}

void ask_for_short_ticks() {
    // From the system's folder alone: one of that name beside the program is not the system's.
    const HMODULE library = LoadLibraryExW(L"winmm.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    using begin_period = UINT(WINAPI*)(UINT milliseconds);
    const auto begin =
        library ? reinterpret_cast<begin_period>(reinterpret_cast<void*>(GetProcAddress(library, "timeBeginPeriod")))
                : nullptr;
    if (begin) begin(1);
}

void prepare_console() {
    code_page = GetConsoleOutputCP();
    if (!code_page) return;  // none is there
    constexpr DWORD streams[] = {STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
    for (size_t i = 0; i < std::size(streams); ++i) {
        const HANDLE stream = GetStdHandle(streams[i]);
        DWORD mode = 0;
        if (!GetConsoleMode(stream, &mode)) continue;
        outputs[i] = {stream, mode};
        SetConsoleMode(stream, mode | ENABLE_PROCESSED_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    }
    SetConsoleOutputCP(CP_UTF8);
    std::atexit(restore_console);
}

void prepare_output() { _setmode(_fileno(stdout), _O_BINARY); }

void note_interrupts(std::atomic<bool>& flag) {
    noted = &flag;
    SetConsoleCtrlHandler(on_control, TRUE);
}

// A pipe cannot be waited for: it is asked how much is there. What cannot be asked is read as it is, a file or a pipe
// of another system.
int read_input(std::span<uint8_t> room, int milliseconds) {
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    constexpr int step = 2;
    DWORD there = 0;
    bool asked = PeekNamedPipe(input, nullptr, 0, nullptr, &there, nullptr);
    for (; asked && there == 0 && milliseconds > 0; milliseconds -= step) {
        Sleep(step);
        asked = PeekNamedPipe(input, nullptr, 0, nullptr, &there, nullptr);
    }
    if (asked && there == 0) return 0;
    if (!asked && GetLastError() == ERROR_BROKEN_PIPE) return -1;
    const auto most = static_cast<DWORD>(room.size());
    DWORD count = 0;
    const bool read = ReadFile(input, room.data(), asked ? std::min(there, most) : most, &count, nullptr);
    return read && count > 0 ? static_cast<int>(count) : -1;
}

}  // namespace apps::platform
