#include "system.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <unistd.h>

namespace core::platform {

const char* const library_prefix = "lib";
const char* const library_suffix = ".so";

bool this_library(char* out, size_t size) noexcept {
    static const char here = 0;
    Dl_info info{};
    if (!dladdr(&here, &info) || !info.dli_fname) return false;
    // The program itself goes by its argv[0], which need not be a path at all.
    const bool program = std::strcmp(info.dli_fname, program_invocation_name) == 0;
    char resolved[PATH_MAX];
    if (!realpath(program ? "/proc/self/exe" : info.dli_fname, resolved)) return false;
    const size_t length = std::strlen(resolved);
    if (length >= size) return false;
    std::memcpy(out, resolved, length + 1);
    return true;
}

void* open_library(const char* path) noexcept { return dlopen(path, RTLD_NOW | RTLD_LOCAL); }

void* find_symbol(void* library, const char* name) noexcept { return dlsym(library, name); }

void close_library(void* library) noexcept { dlclose(library); }

}  // namespace core::platform
