#include "core/thread.h"

#include "support/side_thread.h"

#include "core/memory.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <string>

namespace {

using clock_type = std::chrono::steady_clock;

constexpr uint32_t long_time = 60'000;

TEST(Thread, BodyLearnsOfTheCancelAndStopWaitsForItsEnd) {
    struct state_t {
        test::event wake;
        std::atomic<int> hooks = 0;
        std::atomic<bool> ended = false;
    } state;
    const auto body = [](void* arg, thread_ctx* self) {
        auto& s = *static_cast<state_t*>(arg);
        EXPECT_EQ(core_thread_iscurrent(self), 1);
        while (!core_thread_iscancel(self))
            s.wake.wait(event_infinite);
        core_sleep(2);
        s.ended = true;
    };
    const auto hook = [](void* arg, thread_ctx*) {
        auto& s = *static_cast<state_t*>(arg);
        ++s.hooks;
        s.wake.set();
    };
    thread_ctx* thread = core_thread_start(&state, body, hook, CORE_HERE);
    EXPECT_EQ(core_thread_iscurrent(thread), 0);
    EXPECT_EQ(core_thread_iscancel(thread), 0);
    core_thread_cancel(thread);
    EXPECT_EQ(core_thread_iscancel(thread), 1);
    core_thread_stop(thread);
    EXPECT_TRUE(state.ended);
    EXPECT_EQ(state.hooks, 1);
    EXPECT_FALSE(thread);
}

TEST(Thread, CancelEndsASleepAtOnce) {
    test::event slept;
    const auto body = [](void* arg, thread_ctx* self) {
        EXPECT_EQ(core_thread_sleep(self, 1), 0);
        static_cast<test::event*>(arg)->set();
        EXPECT_EQ(core_thread_sleep(self, long_time), 1);
    };
    thread_ctx* thread = core_thread_start(&slept, body, nullptr, CORE_HERE);
    ASSERT_TRUE(slept.wait());
    const auto start = clock_type::now();
    core_thread_stop(thread);
    EXPECT_LT(clock_type::now() - start, std::chrono::milliseconds(long_time / 2));
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
    const test::event done;
    for (int i = 0; i < 50; ++i) {
        const size_t held = core_mem_blocks();
        core_thread_start(const_cast<test::event*>(&done), body, nullptr, CORE_HERE);
        ASSERT_TRUE(done.wait());
        while (core_mem_blocks() > held)
            core_sleep(0);
    }
}

TEST(Thread, InvokeRunsOnAThreadOfItsOwn) {
    struct state_t {
        test::event done;
        uint64_t id = core_thread_id();
    } state;
    const auto call = [](void* arg) {
        EXPECT_NE(std::exchange(static_cast<state_t*>(arg)->id, 0), core_thread_id());
        static_cast<state_t*>(arg)->done.set();
    };
    ASSERT_EQ(core_thread_invoke(call, &state, CORE_HERE), 1);
    ASSERT_TRUE(state.done.wait());
    EXPECT_EQ(state.id, 0U);
}

TEST(Event, SetTwiceReleasesOneWaitAndResets) {
    event_ctx* event = _event_create(CORE_HERE);
    EXPECT_EQ(event_wait(event, 0), 0);
    event_set(event);
    event_set(event);
    EXPECT_EQ(event_wait(event, 0), 1);
    const auto start = clock_type::now();
    EXPECT_EQ(event_wait(event, 20), 0);
    EXPECT_GE(clock_type::now() - start, std::chrono::milliseconds(20));
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

}  // namespace
