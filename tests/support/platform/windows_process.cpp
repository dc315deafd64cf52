#include "support/process.h"

#include <iterator>
#include <windows.h>

namespace test {

const size_t longest_thread_name = 255;

std::string thread_name() {
    using get_description = HRESULT(WINAPI*)(HANDLE thread, wchar_t * *name);
    const auto get = reinterpret_cast<get_description>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernelbase.dll"), "GetThreadDescription")));
    wchar_t* wide = nullptr;
    if (!get || FAILED(get(GetCurrentThread(), &wide))) return "";
    std::string name = std::filesystem::path(wide).string();
    LocalFree(wide);
    return name;
}

std::filesystem::path program_path() {
    wchar_t path[4096];
    return {path, path + GetModuleFileNameW(nullptr, path, static_cast<DWORD>(std::size(path)))};
}

bool is_loaded(const std::string& path) { return GetModuleHandleW(std::filesystem::path(path).c_str()); }

bool has_symbol(const char* name) { return GetProcAddress(GetModuleHandleW(nullptr), name); }

}  // namespace test
