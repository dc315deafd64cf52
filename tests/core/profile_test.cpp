#include "core/profile.h"

#include "support/fault.h"

#include "core/memory.h"
#include "core/owned.h"
#include "core/thread.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

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

/// Runs a function on a thread until the object ends.
class side_thread {
public:
    explicit side_thread(std::function<void()> function) : function_(std::move(function)) {
        thread_ = core_thread_start(
            this, [](void* arg, thread_ctx*) { static_cast<side_thread*>(arg)->function_(); }, nullptr, CORE_HERE);
    }
    side_thread(const side_thread&) = delete;
    side_thread& operator=(const side_thread&) = delete;
    ~side_thread() { core_thread_stop(thread_); }

private:
    std::function<void()> function_;
    thread_ctx* thread_;
};

struct event {
    event_ctx* handle = _event_create(CORE_HERE);
    event() = default;
    event(const event&) = delete;
    event& operator=(const event&) = delete;
    ~event() { _event_free(handle); }
    void set() const { event_set(handle); }
    bool wait(uint32_t milliseconds = 60'000) const { return event_wait(handle, milliseconds) == 1; }
};

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

TEST_F(Profile, CallbacksThatWouldWaitForEachOtherDoNot) {
    // Two threads are in two callbacks, each of which puts to the other one's name.
    subscriber a("a");
    subscriber b("b");
    profile_ctx* to_a = profile_open("a");
    profile_ctx* to_b = profile_open("b");
    event a_entered;
    event b_entered;
    std::atomic<uint32_t> reached = 0;
    int a_calls = 0;
    int b_calls = 0;
    a.then = [&](profile_ctx*, profile_event_t) {
        if (a_calls++ > 0) return;
        a_entered.set();
        ASSERT_TRUE(b_entered.wait());
        reached += core_profile_put(to_b, nullptr);
    };
    b.then = [&](profile_ctx*, profile_event_t) {
        if (b_calls++ > 0) return;
        b_entered.set();
        ASSERT_TRUE(a_entered.wait());
        reached += core_profile_put(to_a, nullptr);
    };
    {
        const side_thread one([&] { core_profile_put(to_a, nullptr); });
        const side_thread two([&] { core_profile_put(to_b, nullptr); });
    }
    EXPECT_EQ(reached, 1U) << "one gave up, so the other came through";
    profile_close(to_a);
    profile_close(to_b);
}

TEST_F(Profile, CloseWithinACallbackWaitsForOneThatPutsBack) {
    // The callback of "a" closes the handle of "b", whose callback is just putting to "a".
    subscriber a("a");
    subscriber b("b");
    profile_ctx* to_a = profile_open("a");
    profile_ctx* to_b = profile_open("b");
    event a_entered;
    event b_entered;
    std::atomic<bool> b_finished = false;
    a.then = [&](profile_ctx*, profile_event_t) {
        a_entered.set();
        ASSERT_TRUE(b_entered.wait());
        profile_close(b.profile);
        EXPECT_TRUE(b_finished);
    };
    b.then = [&](profile_ctx*, profile_event_t) {
        ASSERT_TRUE(a_entered.wait());
        b_entered.set();
        EXPECT_EQ(core_profile_put(to_a, nullptr), 0U);
        b_finished = true;
    };
    {
        const side_thread one([&] { core_profile_put(to_a, nullptr); });
        const side_thread two([&] { core_profile_put(to_b, nullptr); });
    }
    profile_close(to_a);
    profile_close(to_b);
}

TEST_F(Profile, TwoCallbacksThatCloseEachOtherReturn) {
    subscriber a("a");
    subscriber b("b");
    profile_ctx* to_a = profile_open("a");
    profile_ctx* to_b = profile_open("b");
    event a_entered;
    event b_entered;
    a.then = [&](profile_ctx*, profile_event_t) {
        a_entered.set();
        b_entered.wait();
        profile_close(b.profile);
    };
    b.then = [&](profile_ctx*, profile_event_t) {
        b_entered.set();
        a_entered.wait();
        profile_close(a.profile);
    };
    {
        const side_thread one([&] { core_profile_put(to_a, nullptr); });
        const side_thread two([&] { core_profile_put(to_b, nullptr); });
    }
    EXPECT_FALSE(a.profile);
    EXPECT_FALSE(b.profile);
    profile_close(to_a);
    profile_close(to_b);
}

TEST_F(Profile, EverythingAtOnceFromManyThreads) {
    std::vector<std::unique_ptr<side_thread>> threads;
    std::atomic<uint32_t> calls = 0;
    for (int i = 0; i < 4; ++i) {
        threads.push_back(std::make_unique<side_thread>([&calls, i] {
            for (int round = 0; round < 150; ++round) {
                const char* const name = (i + round) % 2 ? "x" : "y";
                int busy = 0;
                const subscriber mine(name, [&](profile_ctx* profile, profile_event_t event) {
                    ++calls;
                    ++busy;  // on one thread at a time: a data race here would show
                    if (event == profile_put && busy == 1) {
                        profile_ctx* other = profile_open(name[0] == 'x' ? "y" : "x");
                        core_profile_wake(other);
                        core_mfree(core_profile_data(other, CORE_HERE));
                        profile_close(other);
                    }
                    core_profile_answer(profile, name);
                    --busy;
                });
                profile_ctx* to = profile_open(name);
                core_profile_put(to, list);
                core_mfree(profile_request(to, list, CORE_HERE));
                profile_close(to);
            }
        }));
    }
    threads.clear();
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
