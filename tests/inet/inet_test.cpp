#include "inet/inet.h"

#include "platform/socket_api.h"
#include "support/threads.h"

#include "core/owned.h"
#include "core/profile.h"

#include <gtest/gtest.h>

namespace {

/// As a constructor of a static object would call it.
const std::string before_main = [] {
    const std::string text = net_init();
    net_free();
    return text;
}();

TEST(Lifecycle, TheVersionIsThereBeforeMain) { EXPECT_EQ(before_main, "2015.11.25.154730"); }

/// Whether the library is up, asked as a program would: over the bus.
bool is_up() {
    const core::owned<profile_ctx, profile_close> profile(core_profile_open("graph", CORE_HERE));
    const param_t params[] = {{"method", "trackWsListMethods"}, {}};
    return core::owned_text(profile_request(profile.get(), params, CORE_HERE)) != nullptr;
}

TEST(Lifecycle, CallsNestTheLastStopTakesItDownAndOneTooManyCountsNothing) {
    void (*const start)() = [] { net_init(); };
    void (*const leave_a_socket)() = [] { net::platform::close_socket(net_socket_create(2, 1, 6, CORE_HERE)); };
    const std::pair<void (*)(), bool> steps[] = {{start, true},    {start, true},     {leave_a_socket, true},
                                                 {net_free, true}, {net_free, false}, {net_free, false},
                                                 {start, true},    {net_free, false}};
    for (int number = 0; const auto& [step, up] : steps) {
        step();
        EXPECT_EQ(is_up(), up) << "after step " << number++;
    }
}

TEST(Lifecycle, WhoeverHasStartedItFindsItUpWhateverOthersDo) {
    test::on_four_threads([] {
        for (int round = 0; round < 200; ++round) {
            net_init();
            EXPECT_TRUE(is_up());
            net_free();
        }
    });
    EXPECT_FALSE(is_up());
}

}  // namespace
