#include "system.h"

#include <cstring>
#include <exception>
#include <pthread.h>

namespace core::platform {

void name_thread(std::thread::native_handle_type thread, const char* name) noexcept {
    // A longer name is refused as a whole, not cut by the system.
    char cut[16] = {};
    std::strncpy(cut, name, sizeof cut - 1);
    pthread_setname_np(thread, cut);
}

void name_this_thread(const char* name) noexcept { name_thread(pthread_self(), name); }

bool start_detached(invocation* call) noexcept {
    try {
        std::thread(carry_out, call).detach();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace core::platform
