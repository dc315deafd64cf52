#include "inet/inet.h"

#include "platform/socket_api.h"
#include "support/log_lines.h"

#include "core/owned.h"
#include "core/profile.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

/// Whether the library is up, asked as a program would: over the bus.
bool is_up() {
    profile_ctx* profile = core_profile_open("graph", CORE_HERE);
    const param_t params[] = {{"method", "trackWsListMethods"}, {}};
    const core::owned_text answer(profile_request(profile, params, CORE_HERE));
    profile_close(profile);
    return answer && answer.get() == std::string(R"(["trackWsListMethods"])");
}

TEST(Lifecycle, CallsNestTheLastStopTakesItDownAndOneTooManyCountsNothing) {
    EXPECT_STREQ(net_init(), net_init());
    const std::pair<void (*)(), bool> steps[] = {
        {net_free, true},
        {[] { dll_test("auto"); }, true},
        {net_free, false},
        {net_free, false},
        {[] { net_init(); }, true},
        {net_free, false},
        {[] { dll_test(nullptr); }, false},
    };
    for (int number = 0; const auto& [step, up] : steps) {
        step();
        EXPECT_EQ(is_up(), up) << "after step " << number++;
    }
}

TEST(Lifecycle, SocketsLeftOpenAreNamedOnceByTheLastStop) {
    net_init();
    net_init();
    const int fds[] = {net_socket_create(2, 1, 6, CORE_HERE), net_socket_create(2, 2, 17, CORE_HERE)};
    net_socket_close(net_socket_create(2, 1, 6, CORE_HERE));
    test::log_lines log("error");
    net_free();
    EXPECT_EQ(log.take().size(), 0U);
    net_free();
    auto said = log.take();
    std::vector<std::string> expected;
    for (const int fd : fds) {
        net::platform::close_socket(fd);
        expected.push_back("not closed socket: " + std::to_string(fd));
    }
    EXPECT_TRUE(std::ranges::is_permutation(said, expected)) << testing::PrintToString(said);
}

TEST(Lifecycle, WhoeverHasStartedItFindsItUpWhateverOthersDo) {
    std::atomic<int> down = 0;
    std::thread threads[4];
    for (auto& thread : threads) {
        thread = std::thread([&down] {
            for (int round = 0; round < 200; ++round) {
                net_init();
                if (!is_up()) ++down;
                net_free();
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(down, 0);
    EXPECT_FALSE(is_up());
}

}  // namespace
