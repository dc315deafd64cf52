#include "inet/inet.h"

#include "lifecycle.h"

#include "core/log.h"
#include "core/owned.h"
#include "core/param.h"
#include "core/profile.h"
#include "core/version.h"
#include "inet/net_socket.h"
#include "inet/net_tab.h"

#include <cstring>

namespace {

/// Formed when it is first asked for, which may be before main(). The stamp is that of the interface, not of the
/// compiler's run: builds reproduce.
struct version_text {
    version_text() noexcept { core_get_version("Nov 25 2015", "15:47:30", text); }
    char text[32];
};

const char* version() noexcept { return core::process_wide<version_text>().text; }

constinit net::lifecycle library;

log_ctx* library_log = nullptr;
profile_ctx* library_profile = nullptr;

// Names the methods that the library serves over the bus.
void on_profile(void*, profile_ctx* profile, profile_event_t event, const param_t* params) {
    if (event != profile_ask) return;
    const char* method = param_get_text(params, "method");
    if (method && std::strcmp(method, "trackWsListMethods") == 0) {
        core_profile_answer(profile, R"(["trackWsListMethods"])");
    }
}

void bring_up() noexcept {
    tab_init();
    library_log = core_log_create(CORE_HERE, "graph");
    socket_init();
    library_profile = core_profile_open2("graph", nullptr, on_profile, CORE_HERE);
}

void take_down() noexcept {
    profile_close(library_profile);
    core_log_free(library_log);
    tab_free();
    socket_free();
}

struct self_test {
    const char* name;
    void (*run)();
};

constexpr self_test self_tests[] = {
    {"auto", [] {}},
    {nullptr, nullptr},
};

}  // namespace

const char* net_init() noexcept {
    library.start(bring_up);
    return version();
}

void net_free() noexcept { library.stop(take_down); }

void dll_test(const char* name) noexcept {
    const char* wanted = name ? name : "auto";
    net_init();
    for (const self_test* test = self_tests; test->name; ++test) {
        if (std::strcmp(test->name, wanted) != 0) continue;
        test->run();
        break;
    }
    net_free();
}
