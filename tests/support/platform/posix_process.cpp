#include "support/process.h"

#include <dlfcn.h>
#include <pthread.h>

namespace test {

const size_t longest_thread_name = 15;

std::string thread_name() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

std::filesystem::path program_path() { return std::filesystem::canonical("/proc/self/exe"); }

bool is_loaded(const std::string& path) {
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (library) dlclose(library);
    return library;
}

bool has_symbol(const char* name) { return dlsym(RTLD_DEFAULT, name); }

}  // namespace test
