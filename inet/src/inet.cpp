#include "inet/inet.h"

#include "core/log.h"
#include "core/owned.h"
#include "core/param.h"
#include "core/profile.h"
#include "core/thread.h"
#include "core/version.h"
#include "inet/net_socket.h"
#include "inet/net_tab.h"

#include <atomic>
#include <cstdint>
#include <cstring>

namespace {

/// Formed when it is first asked for, which may be before main(). The stamp is that of the interface, not of the
/// compiler's run: builds reproduce.
struct version_text {
    version_text() noexcept { core_get_version("Nov 25 2015", "15:47:30", text); }
    char text[32];
};

const char* version() noexcept { return core::process_wide<version_text>().text; }

// Starts are counted together with the number of the life they belong to, in one word: a start that meets the last stop
// of the old life must know that it waits for another one.
struct alignas(uint64_t) life_count {  // as the atomic word is
    uint32_t life = 0;
    uint32_t starts = 0;
};

constinit std::atomic<life_count> count;
constinit std::atomic<uint32_t> running_life;  // 0 while the library is down

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

void wait_until_running(uint32_t life) noexcept {
    while (running_life != life)
        core_sleep(1);
}

life_count count_start() noexcept {
    life_count found = count;
    life_count next;
    do {
        next = {.life = found.starts == 0 ? found.life + 1 : found.life, .starts = found.starts + 1};
        if (next.life == 0) next.life = 1;
    } while (!count.compare_exchange_weak(found, next));
    return next;
}

// @return true for the last stop of the life that runs
bool count_stop() noexcept {
    life_count found = count;
    life_count next;
    do {
        if (found.starts == 0 || found.life != running_life) return false;
        next = {.life = found.life, .starts = found.starts - 1};
    } while (!count.compare_exchange_weak(found, next));
    return next.starts == 0;
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
    const life_count joined = count_start();
    if (joined.starts != 1) {
        wait_until_running(joined.life);
        return version();
    }
    wait_until_running(0);
    bring_up();
    running_life = joined.life;
    return version();
}

void net_free() noexcept {
    if (!count_stop()) return;
    take_down();
    running_life = 0;
}

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
