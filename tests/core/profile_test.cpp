#include "core/profile.h"

#include "support/held.h"
#include "support/side_thread.h"

#include "core/memory.h"
#include "core/owned.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

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

using handle = test::held<profile_ctx, profile_close>;

handle open(const char* name) { return handle(profile_open(name)); }

/// A subscriber that keeps what reaches it and may do something about it.
struct subscriber {
    using action = std::function<void(profile_ctx*, profile_event_t)>;
    explicit subscriber(const char* name, action acts = {})
        : then(std::move(acts)), profile(core_profile_open2(name, this, called, CORE_HERE)) {}

    static void called(void* arg, profile_ctx* profile, profile_event_t event, const param_t* params) {
        auto& self = *static_cast<subscriber*>(arg);
        self.events.push_back(event);
        self.last = describe(params);
        if (self.then) self.then(profile, event);
    }

    std::vector<profile_event_t> events;
    std::string last;
    action then;
    handle profile;  // last: calls may come as soon as it is open
};

using events_t = std::vector<profile_event_t>;

constexpr param_t list[] = {{"state", "on"}, {"count", int64_t{-3}}, {"none", static_cast<const char*>(nullptr)}, {}};

std::string taken(const char* name) {
    const core::owned<param_t> data(profile_data(name, CORE_HERE));
    return data ? describe(data.get()) : "(none)";
}

TEST(Profile, ReachesTheSubscribersOfExactlyThatName) {
    const handle bus = open("camera");
    const subscriber a("camera");
    const subscriber b("camera");
    const subscriber other("Camera");
    EXPECT_EQ(core_profile_put(bus.get(), list), 2U);
    EXPECT_EQ(a.last, "state=on count=-3 none=(null) ");
    EXPECT_EQ(core_profile_put(bus.get(), nullptr), 2U);
    EXPECT_EQ(a.last, "");
    EXPECT_EQ(core_profile_wake(bus.get()), 2U);
    EXPECT_EQ(core_profile_wake(a.profile.get()), 1U) << "not what goes through its own handle";
    EXPECT_EQ(a.events, (events_t{profile_put, profile_put, profile_woken}));
    EXPECT_EQ(b.events, (events_t{profile_put, profile_put, profile_woken, profile_woken}));
    EXPECT_TRUE(other.events.empty());
    EXPECT_EQ(core_archive_play(bus.get(), 1'448'466'450'042'000, -0.5), 2U);
    EXPECT_EQ(a.last, "command=play start=1448466450042000 speed=-0.5 ");
    EXPECT_EQ(core_archive_play(bus.get(), 0, -1e308), 2U);
}

TEST(Profile, LastDataLivesAsLongAsTheName) {
    handle bus = open("camera");
    EXPECT_EQ(taken("camera"), "(none)");
    const int frame = 0;
    const param_t with_frame[] = {{"frame", static_cast<const void*>(&frame)}, {"id", "long enough to grow"}, {}};
    core_profile_put(bus.get(), list);
    core_profile_put(bus.get(), with_frame);
    EXPECT_EQ(taken("camera"), "id=long enough to grow ");
    core_profile_put(bus.get(), list);
    EXPECT_EQ(taken("camera"), "state=on count=-3 none=(null) ");
    EXPECT_EQ(taken("nobody"), "(none)");
    bus.reset();
    bus = open("camera");
    EXPECT_EQ(taken("camera"), "(none)");
}

TEST(Profile, FirstAnswerIsTheAnswer) {
    const handle bus = open("camera");
    EXPECT_EQ(profile_request(bus.get(), list, CORE_HERE), nullptr);
    const subscriber silent("camera");
    const subscriber answering("camera", [](profile_ctx* profile, profile_event_t) {
        core_profile_answer(profile, "draft");
        core_profile_answer(profile, "final");
    });
    const subscriber late("camera");
    EXPECT_STREQ(core::owned_text(profile_request(bus.get(), list, CORE_HERE)).get(), "final");
    EXPECT_EQ(silent.last, "state=on count=-3 none=(null) ");
    EXPECT_EQ(silent.events, events_t{profile_ask});
    EXPECT_TRUE(late.events.empty());
    core_profile_answer(answering.profile.get(), "no request");
}

TEST(Profile, NestedCallsAnswerTheirOwnRequest) {
    const handle bus = open("camera");
    // "camera" asks "clock", whose subscriber puts to "camera" before it answers.
    core::owned_text inner;
    const subscriber camera("camera", [&inner](profile_ctx* profile, profile_event_t event) {
        if (event == profile_ask) inner.reset(profile_request(open("clock").get(), nullptr, CORE_HERE));
        core_profile_answer(profile, event == profile_ask ? "camera" : "nobody asked");
    });
    const subscriber clock("clock", [&](profile_ctx* profile, profile_event_t) {
        core_profile_put(bus.get(), nullptr);
        core_profile_answer(profile, "clock");
    });
    EXPECT_STREQ(core::owned_text(profile_request(bus.get(), nullptr, CORE_HERE)).get(), "camera");
    EXPECT_STREQ(inner.get(), "clock");
    EXPECT_EQ(camera.events, (events_t{profile_ask, profile_put}));
}

TEST(Profile, EndlessRecursionEndsAtSixteen) {
    const handle bus = open("camera");
    const subscriber echo("camera", [&](profile_ctx*, profile_event_t) { core_profile_put(bus.get(), nullptr); });
    core_profile_put(bus.get(), nullptr);
    EXPECT_EQ(echo.events.size(), 16U);
}

TEST(Profile, CallbackMayLeaveAndCloseAndOpenOthers) {
    handle bus = open("camera");
    subscriber first("camera");
    subscriber second("camera");
    const subscriber third("camera");
    std::vector<std::unique_ptr<subscriber>> joined;
    first.then = [&](profile_ctx*, profile_event_t) {
        first.profile.reset();
        second.profile.reset();
        bus.reset();  // through which the put came
        joined.push_back(std::make_unique<subscriber>("camera"));
    };
    EXPECT_EQ(core_profile_put(bus.get(), list), 2U) << "the first and the third";
    EXPECT_EQ(first.events.size(), 1U);
    EXPECT_TRUE(second.events.empty());
    EXPECT_TRUE(joined.at(0)->events.empty()) << "came during the put";
    EXPECT_EQ(core_profile_put(third.profile.get(), list), 1U);
    EXPECT_EQ(joined.at(0)->events.size(), 1U);
}

/// Two subscribers whose callbacks run at the same time on two threads and then do something to each other.
struct ring_t {
    void run(std::function<void()> a_acts, std::function<void()> b_acts) {
        a.then = meeting(a, b_entered, a_entered, std::move(a_acts));
        b.then = meeting(b, a_entered, b_entered, std::move(b_acts));
        const side_thread one([this] { core_profile_put(to_a.get(), nullptr); });
        const side_thread two([this] { core_profile_put(to_b.get(), nullptr); });
    }

    static subscriber::action meeting(const subscriber& self, const test::event& other, const test::event& own,
                                      std::function<void()> acts) {
        return [&self, &other, &own, acts](profile_ctx*, profile_event_t) {
            if (self.events.size() > 1) return;  // what the other one has caused
            own.set();
            ASSERT_TRUE(other.wait());
            acts();
        };
    }

    subscriber a{"a"};
    subscriber b{"b"};
    handle to_a = open("a");
    handle to_b = open("b");
    test::event a_entered;
    test::event b_entered;
};

TEST(ProfileRing, OfPutsIsBrokenByTheLastOne) {
    ring_t ring;
    std::atomic<uint32_t> reached = 0;
    ring.run([&] { reached += core_profile_put(ring.to_b.get(), nullptr); },
             [&] { reached += core_profile_put(ring.to_a.get(), nullptr); });
    EXPECT_EQ(reached, 1U) << "one gave up, so the other came through";
}

TEST(ProfileRing, OfACloseAndAPutIsBrokenByThePutAndTheCloseWaits) {
    ring_t ring;
    std::atomic<bool> b_finished = false;
    const auto close = [&] {
        ring.b.profile.reset();
        EXPECT_TRUE(b_finished);
    };
    const auto put = [&] {
        EXPECT_EQ(core_profile_put(ring.to_a.get(), nullptr), 0U);
        b_finished = true;
    };
    ring.run(close, put);
}

TEST(ProfileRing, OfClosesIsBrokenByTheLastOne) {
    ring_t ring;
    ring.run([&] { ring.b.profile.reset(); }, [&] { ring.a.profile.reset(); });
}

TEST(Profile, EverythingAtOnceFromManyThreads) {
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
                    const handle other = open(is_x ? "y" : "x");
                    core_profile_wake(other.get());
                    core_mfree(core_profile_data(other.get(), CORE_HERE));
                }
                core_profile_answer(profile, "mine");
                --busy;
            });
            const handle to = open(is_x ? "x" : "y");
            core_profile_put(to.get(), list);
            core_mfree(profile_request(to.get(), list, CORE_HERE));
        }
    });
    EXPECT_GE(calls, 600U);
}

}  // namespace
