#include "core/profile.h"

#include "support/fault.h"
#include "support/side_thread.h"

#include "core/memory.h"
#include "core/owned.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using test::event;
using test::side_thread;

std::string describe(const param_t* params) {
    std::string text;
    for (; params && params->type != param_end; ++params) {
        text += std::string(params->key) + '=';
        if (params->type == param_text) text += params->text ? params->text : "(null)";
        if (params->type == param_integer) text += std::to_string(params->integer);
        text += ' ';
    }
    return text;
}

/// A subscriber that keeps what reaches it and may do something about it.
struct subscriber {
    using action = std::function<void(profile_ctx*, profile_event_t)>;
    explicit subscriber(const char* name, action acts = {})
        : then(std::move(acts)), profile(core_profile_open2(name, this, called, CORE_HERE)) {}
    subscriber(const subscriber&) = delete;
    subscriber& operator=(const subscriber&) = delete;
    ~subscriber() { profile_close(profile); }

    static void called(void* arg, profile_ctx* profile, profile_event_t event, const param_t* params) {
        auto& self = *static_cast<subscriber*>(arg);
        self.events.push_back(event);
        self.last = describe(params);
        if (self.then) self.then(profile, event);
    }

    std::vector<profile_event_t> events;
    std::string last;
    action then;
    profile_ctx* profile;  // last: calls may come as soon as it is open
};

using events_t = std::vector<profile_event_t>;

class Profile : public testing::Test {
protected:
    ~Profile() override { profile_close(bus); }
    profile_ctx* bus = profile_open("camera");
};

constexpr param_t list[] = {{"state", "on"}, {"count", int64_t{-3}}, {"none", static_cast<const char*>(nullptr)}, {}};

std::string taken(param_t* data) {
    const std::string text = data ? describe(data) : "(none)";
    core_mfree(data);
    return text;
}

TEST_F(Profile, ReachesTheSubscribersOfExactlyThatName) {
    subscriber a("camera");
    subscriber b("camera");
    subscriber other("Camera");
    EXPECT_EQ(core_profile_put(bus, list), 2U);
    EXPECT_EQ(a.last, "state=on count=-3 none=(null) ");
    EXPECT_EQ(core_profile_put(bus, nullptr), 2U);
    EXPECT_EQ(a.last, "");
    EXPECT_EQ(core_profile_wake(bus), 2U);
    EXPECT_EQ(core_profile_wake(a.profile), 1U) << "not what goes through its own handle";
    EXPECT_EQ(a.events, (events_t{profile_put, profile_put, profile_woken}));
    EXPECT_EQ(b.events, (events_t{profile_put, profile_put, profile_woken, profile_woken}));
    EXPECT_TRUE(other.events.empty());
    EXPECT_EQ(core_profile_put(nullptr, list), 0U);
    EXPECT_EQ(core_profile_wake(nullptr), 0U);
    EXPECT_EQ(core_profile_open(nullptr, CORE_HERE), nullptr);
}

TEST_F(Profile, LastDataLivesAsLongAsTheName) {
    EXPECT_EQ(taken(profile_data("camera", CORE_HERE)), "(none)");
    const int frame = 0;
    const param_t with_frame[] = {{"frame", static_cast<const void*>(&frame)}, {"id", "long enough to grow"}, {}};
    core_profile_put(bus, list);
    core_profile_put(bus, with_frame);
    EXPECT_EQ(taken(core_profile_data(bus, CORE_HERE)), "id=long enough to grow ");
    core_profile_put(bus, list);
    EXPECT_EQ(taken(profile_data("camera", CORE_HERE)), "state=on count=-3 none=(null) ");
    EXPECT_EQ(taken(profile_data("nobody", CORE_HERE)), "(none)");
    EXPECT_EQ(taken(profile_data(nullptr, CORE_HERE)), "(none)");
    profile_close(bus);
    EXPECT_EQ(taken(profile_data("camera", CORE_HERE)), "(none)");
    bus = profile_open("camera");
    EXPECT_EQ(taken(core_profile_data(bus, CORE_HERE)), "(none)");
}

TEST_F(Profile, FirstAnswerIsTheAnswer) {
    EXPECT_EQ(profile_request(bus, list, CORE_HERE), nullptr);
    subscriber silent("camera");
    subscriber answering("camera");
    subscriber late("camera");
    answering.then = [](profile_ctx* profile, profile_event_t event) {
        core_profile_answer(profile, event == profile_ask ? "draft" : "nobody asked");
        core_profile_answer(profile, "final");
    };
    core::owned_text answer(profile_request(bus, list, CORE_HERE));
    EXPECT_STREQ(answer.get(), "final");
    EXPECT_EQ(silent.last, "state=on count=-3 none=(null) ");
    EXPECT_EQ(silent.events, events_t{profile_ask});
    EXPECT_TRUE(late.events.empty());
    core_profile_put(bus, list);
    core_profile_answer(answering.profile, "no request");
}

TEST_F(Profile, NestedCallsAnswerTheirOwnRequest) {
    // "camera" asks "clock", whose subscriber puts to "camera" before it answers.
    subscriber camera("camera");
    subscriber clock("clock");
    core::owned_text inner;
    camera.then = [&](profile_ctx* profile, profile_event_t event) {
        core_profile_answer(profile, "camera");
        if (event != profile_ask) return;
        profile_ctx* ask = profile_open("clock");
        inner.reset(profile_request(ask, nullptr, CORE_HERE));
        profile_close(ask);
    };
    clock.then = [&](profile_ctx* profile, profile_event_t) {
        core_profile_put(bus, nullptr);
        core_profile_answer(profile, "clock");
    };
    core::owned_text outer(profile_request(bus, nullptr, CORE_HERE));
    EXPECT_STREQ(outer.get(), "camera");
    EXPECT_STREQ(inner.get(), "clock");
    EXPECT_EQ(camera.events, (events_t{profile_ask, profile_put}));
}

TEST_F(Profile, EndlessRecursionEndsAtSixteen) {
    subscriber echo("camera");
    echo.then = [this](profile_ctx*, profile_event_t) { core_profile_put(bus, nullptr); };
    core_profile_put(bus, nullptr);
    EXPECT_EQ(echo.events.size(), 16U);
}

TEST_F(Profile, CallbackMayLeaveAndCloseAndOpenOthers) {
    subscriber first("camera");
    subscriber second("camera");
    subscriber third("camera");
    std::vector<std::unique_ptr<subscriber>> joined;
    first.then = [&](profile_ctx*, profile_event_t) {
        profile_close(first.profile);
        profile_close(second.profile);
        profile_close(bus);  // through which the put came
        joined.push_back(std::make_unique<subscriber>("camera"));
    };
    EXPECT_EQ(core_profile_put(bus, list), 2U) << "the first and the third";
    EXPECT_EQ(first.events.size(), 1U);
    EXPECT_TRUE(second.events.empty());
    EXPECT_EQ(third.events.size(), 1U);
    EXPECT_TRUE(joined.at(0)->events.empty()) << "came during the put";
    EXPECT_EQ(core_profile_put(third.profile, list), 1U);
    EXPECT_EQ(joined.at(0)->events.size(), 1U);
}

TEST_F(Profile, ArchivePlayPutsItsCommand) {
    subscriber archive("camera");
    EXPECT_EQ(core_archive_play(bus, 1'448'466'450'042'000, -0.5), 1U);
    EXPECT_EQ(archive.last, "command=play start=1448466450042000 speed=-0.5 ");
    EXPECT_EQ(core_archive_play(bus, 0, 1e300), 1U);
}

TEST_F(Profile, CloseWaitsForTheCallbackOnAnotherThread) {
    subscriber slow("camera");
    event entered;
    event never;
    std::atomic<bool> finished = false;
    slow.then = [&](profile_ctx*, profile_event_t) {
        entered.set();
        never.wait(20);  // time for the close to come too early
        finished = true;
    };
    const side_thread putter([this] { core_profile_put(bus, nullptr); });
    ASSERT_TRUE(entered.wait());
    profile_close(slow.profile);
    EXPECT_TRUE(finished);
}

/// Two subscribers whose callbacks run at the same time on two threads and then do something to each other.
class ProfileRing : public testing::Test {
protected:
    ProfileRing() {
        a.then = [this](profile_ctx*, profile_event_t) { meet(a, b_entered, a_entered, a_acts); };
        b.then = [this](profile_ctx*, profile_event_t) { meet(b, a_entered, b_entered, b_acts); };
    }
    ~ProfileRing() override {
        profile_close(to_a);
        profile_close(to_b);
    }

    static void meet(const subscriber& self, const event& other, const event& own, const std::function<void()>& acts) {
        if (self.events.size() > 1) return;  // what the other one has caused
        own.set();
        ASSERT_TRUE(other.wait());
        acts();
    }

    void run() {
        const side_thread one([this] { core_profile_put(to_a, nullptr); });
        const side_thread two([this] { core_profile_put(to_b, nullptr); });
    }

    subscriber a{"a"};
    subscriber b{"b"};
    profile_ctx* to_a = profile_open("a");
    profile_ctx* to_b = profile_open("b");
    event a_entered;
    event b_entered;
    std::function<void()> a_acts;
    std::function<void()> b_acts;
};

TEST_F(ProfileRing, OfPutsIsBrokenByTheLastOne) {
    std::atomic<uint32_t> reached = 0;
    a_acts = [&] { reached += core_profile_put(to_b, nullptr); };
    b_acts = [&] { reached += core_profile_put(to_a, nullptr); };
    run();
    EXPECT_EQ(reached, 1U) << "one gave up, so the other came through";
}

TEST_F(ProfileRing, OfACloseAndAPutIsBrokenByThePut) {
    std::atomic<bool> b_finished = false;
    a_acts = [&] {
        profile_close(b.profile);
        EXPECT_TRUE(b_finished);
    };
    b_acts = [&] {
        EXPECT_EQ(core_profile_put(to_a, nullptr), 0U);
        b_finished = true;
    };
    run();
}

TEST_F(ProfileRing, OfClosesIsBrokenByTheLastOne) {
    a_acts = [&] { profile_close(b.profile); };
    b_acts = [&] { profile_close(a.profile); };
    run();
    EXPECT_FALSE(a.profile);
    EXPECT_FALSE(b.profile);
}

TEST_F(Profile, EverythingAtOnceFromManyThreads) {
    std::atomic<uint32_t> calls = 0;
    std::atomic<int> rounds = 0;
    test::on_four_threads([&] {
        for (int i = 0; i < 150; ++i) {
            const bool is_x = ++rounds % 2 == 0;
            int busy = 0;
            const subscriber mine(is_x ? "x" : "y", [&](profile_ctx* profile, profile_event_t event) {
                ++calls;
                ++busy;  // on one thread at a time: a data race here would show
                if (event == profile_put && busy == 1) {
                    profile_ctx* other = profile_open(is_x ? "y" : "x");
                    core_profile_wake(other);
                    core_mfree(core_profile_data(other, CORE_HERE));
                    profile_close(other);
                }
                core_profile_answer(profile, "mine");
                --busy;
            });
            profile_ctx* to = profile_open(is_x ? "x" : "y");
            core_profile_put(to, list);
            core_mfree(profile_request(to, list, CORE_HERE));
            profile_close(to);
        }
    });
    EXPECT_GE(calls, 600U);
}

TEST_F(Profile, LackOfMemoryLosesTheCallAndNothingElse) {
    EXPECT_GT(test::fail_each_allocation([] {
                  const size_t held = core_mem_blocks();
                  profile_ctx* answering = core_profile_open2(
                      "memory", nullptr,
                      [](void*, profile_ctx* profile, profile_event_t, const param_t*) {
                          core_profile_answer(profile, "yes");
                      },
                      CORE_HERE);
                  profile_ctx* asking = profile_open("memory");
                  EXPECT_EQ(core_profile_put(asking, list), asking && answering ? 1U : 0U);
                  core_mfree(profile_data("memory", CORE_HERE));
                  core_mfree(profile_request(asking, list, CORE_HERE));
                  profile_close(answering);
                  profile_close(asking);
                  EXPECT_EQ(core_mem_blocks(), held);
              }),
              4U);
}

}  // namespace
