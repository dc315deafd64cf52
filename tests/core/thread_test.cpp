#include "core/thread.h"

#include "support/side_thread.h"

#include "core/memory.h"
#include "core/owned.h"
#include "core/time.h"

#include <atomic>
#include <gtest/gtest.h>

namespace {

TEST(Thread, CancelEndsASleepAtOnceAndStopWaitsForTheEnd) {
    struct state_t {
        test::event slept;
        std::atomic<int> hooks = 0;
        std::atomic<bool> ended = false;
    } state;
    const auto body = [](void* arg, thread_ctx* self) {
        auto& s = *static_cast<state_t*>(arg);
        EXPECT_EQ(core_thread_iscurrent(self), 1);
        EXPECT_EQ(core_thread_sleep(self, 1), 0);
        s.slept.set();
        EXPECT_EQ(core_thread_sleep(self, 60'000), 1);
        core_sleep(2);
        s.ended = core_thread_iscancel(self);
    };
    const auto hook = [](void* arg, thread_ctx*) { ++static_cast<state_t*>(arg)->hooks; };
    thread_ctx* thread = core_thread_start(&state, body, hook, CORE_HERE);
    ASSERT_TRUE(state.slept.wait());
    EXPECT_EQ(core_thread_iscurrent(thread), 0);
    EXPECT_EQ(core_thread_iscancel(thread), 0);
    core_thread_cancel(thread);
    EXPECT_EQ(core_thread_iscancel(thread), 1);
    core_thread_stop(thread);
    EXPECT_TRUE(state.ended);
    EXPECT_EQ(state.hooks, 1);
    EXPECT_FALSE(thread);
}

TEST(Thread, BodyMayStopItsOwnThread) {
    // The handle is released as the body returns; main() would find it held otherwise.
    const auto body = [](void* arg, thread_ctx* self) {
        thread_ctx* handle = self;
        core_thread_stop(handle);
        EXPECT_FALSE(handle);
        EXPECT_EQ(core_thread_iscancel(self), 1);
        core_thread_setname(self, "leaving, with a name longer than the system holds");
        static_cast<test::event*>(arg)->set();
    };
    test::event done;
    for (int i = 0; i < 50; ++i) {
        const size_t held = core_mem_blocks();
        core_thread_start(&done, body, nullptr, CORE_HERE);
        ASSERT_TRUE(done.wait());
        while (core_mem_blocks() > held)
            core_sleep(0);
    }
}

TEST(Event, SetTwiceReleasesOneWaitAndResets) {
    event_ctx* event = _event_create(CORE_HERE);
    EXPECT_EQ(event_wait(event, 0), 0);
    event_set(event);
    event_set(event);
    EXPECT_EQ(event_wait(event, 0), 1);
    const uint64_t start = core_timer();
    EXPECT_EQ(event_wait(event, 20), 0);
    EXPECT_GE(core_timer() - start, 20'000U);
    _event_free(event);
    EXPECT_FALSE(event);
}

TEST(Lock, AndAtomicsHoldAmongThreads) {
    lock_ctx* lock = core_lock_create(CORE_HERE);
    int count = 0;
    volatile uint32_t word = 0;
    EXPECT_EQ(atomic_dec32(&word), 0xffffffffU);
    EXPECT_EQ(atomic_inc32(&word), 0U);
    EXPECT_EQ(atomic_set32(&word, 7), 7U);
    EXPECT_EQ(atomic_xchg32(&word, 8), 7U);
    EXPECT_EQ(atomic_cas32(&word, 9, 7), 8U);
    EXPECT_EQ(atomic_cas32(&word, 9, 8), 8U);
    test::on_four_threads([&] {
        for (int i = 0; i < 1000; ++i) {
            lock_enter(lock);
            lock_enter(lock);
            ++count;
            lock_leave(lock);
            lock_leave(lock);
            atomic_inc32(&word);
        }
    });
    EXPECT_EQ(count, 4000);
    EXPECT_EQ(atomic_get32(&word), 4009U);
    core_lock_delete(lock);
}

constexpr uint64_t moment = 1'448'466'450'042'999;  // 2015-11-25 15:47:30.042999, a Wednesday

TEST(Time, NowNeverGoesBackwards) {
    static std::atomic<uint64_t> shown;
    core_time_set_clock([] { return shown.load(); });
    for (const uint64_t clock : {1000, 400, 1001}) {
        shown = clock;
        EXPECT_EQ(time_now(), std::max<uint64_t>(clock, 1000));
        EXPECT_EQ(core_timer(), clock);
    }
    // The clock jumps to and fro; whoever sees another thread's time sees no earlier one afterwards.
    core_time_set_clock([] { return (shown += 7919) % 10'007; });
    std::atomic<uint64_t> seen = 0;
    test::on_four_threads([&seen] {
        for (int i = 0; i < 3000; ++i) {
            const uint64_t before = seen;
            const uint64_t now = time_now();
            ASSERT_GE(now, before);
            seen = now;
        }
    });
    core_time_set_clock(nullptr);
}

TEST(Time, SystemClocksRun) {
    const uint64_t timer = core_timer();
    EXPECT_NEAR(static_cast<double>(time_now()), static_cast<double>(std::time(nullptr)) * 1e6, 3e6);
    core_sleep(2);
    EXPECT_GE(core_timer() - timer, 2000U);
    EXPECT_EQ(time_to_FileTime(1), 116'444'736'000'000'010U);
}

TEST(Time, PatternsOfTheProtocols) {
    const struct {
        const char* pattern;
        const char* text;
    } cases[] = {{"%Y-%m-%dT%H:%M:%S.%sZ", "2015-11-25T15:47:30.042Z"},
                 {"%a, %d %b %Y %H:%M:%S GMT", "Wed, 25 Nov 2015 15:47:30 GMT"},
                 {"%s%%s%", "042%s%"},
                 {"%q", "%q"},
                 {"", ""}};
    for (const auto& c : cases)
        EXPECT_STREQ(core::owned_text(core_str_from_time(moment, c.pattern, CORE_HERE)).get(), c.text);
}

TEST(Time, FormatIsCutToTheBuffer) {
    char out[6] = "xxxxx";
    EXPECT_EQ(time_format(moment, "%Y-%m", out, 6), 5U);
    EXPECT_STREQ(out, "2015-");
    EXPECT_EQ(time_format(moment, "%Y-%m", out, 1), 0U);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(time_format(moment, "%Y-%m", out, 0), 0U);
    EXPECT_EQ(time_format(moment, nullptr, out, 6), 0U);
}

}  // namespace
