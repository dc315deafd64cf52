#include "inet/inet.h"

#include "platform/socket_api.h"
#include "support/log_lines.h"

#include "core/owned.h"
#include "core/profile.h"
#include "core/version.h"
#include "inet/net_socket.h"

#include <atomic>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

/// Whether the library is up, asked as a program would: over the bus.
std::string served_methods() {
    profile_ctx* profile = core_profile_open("graph", CORE_HERE);
    const param_t params[] = {{"method", "trackWsListMethods"}, {}};
    const core::owned_text answer(profile_request(profile, params, CORE_HERE));
    profile_close(profile);
    return answer ? answer.get() : "";
}

const std::string methods = R"(["trackWsListMethods"])";

TEST(Lifecycle, CallsNestAndTheLastStopTakesItDown) {
    char expected[32];
    core_get_version("Nov 25 2015", "15:47:30", expected);
    net_free();
    EXPECT_EQ(served_methods(), "");
    EXPECT_STREQ(net_init(), expected);
    EXPECT_STREQ(net_init(), expected);
    net_free();
    EXPECT_EQ(served_methods(), methods);
    net_free();
    EXPECT_EQ(served_methods(), "");
    net_free();
    net_init();
    EXPECT_EQ(served_methods(), methods) << "a stop too many has not unsettled the count";
    net_free();
}

TEST(Lifecycle, SocketsLeftOpenAreNamedOnceByTheLastStop) {
    net_init();
    net_init();
    const int fds[] = {net_socket_create(2, 1, 6, CORE_HERE), net_socket_create(2, 2, 17, CORE_HERE)};
    net_socket_close(net_socket_create(2, 1, 6, CORE_HERE));
    test::log_lines log("error,console");
    net_free();
    EXPECT_EQ(log.take(), std::vector<std::string>());
    net_free();
    std::multiset<std::string> expected;
    for (const int fd : fds) {
        const std::string text = "not closed socket: " + std::to_string(fd);
        expected.insert({text, text});
    }
    const auto said = log.take();
    for (const int fd : fds)
        net::platform::close_socket(fd);
    EXPECT_EQ(std::multiset<std::string>(said.begin(), said.end()), expected);
    net_init();
    net_free();
    EXPECT_EQ(log.take(), std::vector<std::string>());
}

TEST(Lifecycle, WhoeverHasStartedItFindsItUpWhateverOthersDo) {
    std::atomic<int> down = 0;
    std::thread threads[4];
    for (auto& thread : threads) {
        thread = std::thread([&down] {
            for (int round = 0; round < 200; ++round) {
                net_init();
                if (served_methods() != methods) ++down;
                net_free();
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(down, 0);
    EXPECT_EQ(served_methods(), "");
}

TEST(SelfTest, LeavesTheLibraryAsItWas) {
    for (const char* name : {static_cast<const char*>(nullptr), "auto", "Auto", "other"})
        dll_test(name);
    EXPECT_EQ(served_methods(), "");
    net_init();
    dll_test("auto");
    EXPECT_EQ(served_methods(), methods);
    net_free();
}

}  // namespace
