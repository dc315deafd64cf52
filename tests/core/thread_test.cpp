#include "core/thread.h"

#include "support/process.h"
#include "support/side_thread.h"

#include "core/memory.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <string>

namespace {

using clock_type = std::chrono::steady_clock;

constexpr uint32_t long_time = 60'000;

int64_t elapsed_ms(clock_type::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - since).count();
}

TEST(Thread, BodyLearnsOfTheCancelAndStopWaitsForItsEnd) {
    struct state_t {
        test::event wake;
        std::atomic<int> hooks = 0;
        std::atomic<bool> ended = false;
    } state;
    thread_ctx* thread = core_thread_start(
        &state,
        [](void* arg, thread_ctx* self) {
            auto& s = *static_cast<state_t*>(arg);
            EXPECT_EQ(core_thread_iscurrent(self), 1);
            while (!core_thread_iscancel(self))
                s.wake.wait(event_infinite);
            s.ended = true;
        },
        [](void* arg, thread_ctx*) {
            auto& s = *static_cast<state_t*>(arg);
            ++s.hooks;
            s.wake.set();
        },
        CORE_HERE);
    ASSERT_TRUE(thread);
    EXPECT_EQ(core_thread_iscurrent(thread), 0);
    EXPECT_EQ(core_thread_iscancel(thread), 0);
    core_thread_cancel(thread);
    EXPECT_EQ(core_thread_iscancel(thread), 1);
    core_thread_stop(thread);
    EXPECT_TRUE(state.ended);
    EXPECT_EQ(state.hooks, 1);
    EXPECT_FALSE(thread);
    core_thread_stop(thread);  // null by now
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
    EXPECT_LT(elapsed_ms(start), long_time / 2);
}

TEST(Thread, BodyMayStopItsOwnThread) {
    // The handle is released as the body returns; main() would find it held otherwise.
    const auto body = [](void* arg, thread_ctx* self) {
        thread_ctx* handle = self;
        core_thread_stop(handle);
        EXPECT_FALSE(handle);
        EXPECT_EQ(core_thread_iscancel(self), 1);
        core_thread_setname(self, "leaving");
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

TEST(Thread, NameIsCutToWhatTheSystemHolds) {
    const auto body = [](void*, thread_ctx* self) {
        const std::string name(300, 'n');
        core_thread_setname(self, name.c_str());
        EXPECT_EQ(test::thread_name(), name.substr(0, test::longest_thread_name));
    };
    thread_ctx* thread = core_thread_start(nullptr, body, nullptr, CORE_HERE);
    core_thread_setname(thread, nullptr);
    core_thread_stop(thread);
}

TEST(Thread, InvokeRunsOnAThreadOfItsOwn) {
    struct state_t {
        test::event done;
        uint64_t id = 0;
    } state;
    const auto call = [](void* arg) {
        auto& s = *static_cast<state_t*>(arg);
        s.id = core_thread_id();
        s.done.set();
    };
    ASSERT_EQ(core_thread_invoke(call, &state, CORE_HERE), 1);
    ASSERT_TRUE(state.done.wait());
    EXPECT_NE(state.id, 0U);
    EXPECT_NE(state.id, core_thread_id());
}

TEST(Thread, OutOfMemoryGivesNull) {
    core_mem_set_fault([](size_t, const char*, int) { return true; });
    EXPECT_FALSE(core_thread_start(
        nullptr, [](void*, thread_ctx*) {}, nullptr, CORE_HERE));
    EXPECT_EQ(core_thread_invoke([](void*) {}, nullptr, CORE_HERE), 0);
    EXPECT_FALSE(core_lock_create(CORE_HERE));
    EXPECT_FALSE(_event_create(CORE_HERE));
    core_mem_set_fault(nullptr);
}

TEST(Event, SetTwiceReleasesOneWaitAndResets) {
    event_ctx* event = _event_create(CORE_HERE);
    EXPECT_EQ(event_wait(event, 0), 0);
    event_set(event);
    event_set(event);
    EXPECT_EQ(event_wait(event, 0), 1);
    const auto start = clock_type::now();
    EXPECT_EQ(event_wait(event, 20), 0);
    EXPECT_GE(elapsed_ms(start), 20);
    _event_free(event);
    EXPECT_FALSE(event);
}

TEST(Event, WaiterMayFreeItAsSoonAsItIsReleased) {
    for (int i = 0; i < 200; ++i) {
        event_ctx* event = _event_create(CORE_HERE);
        const test::side_thread setter([shared = event] { event_set(shared); });
        ASSERT_EQ(event_wait(event, event_infinite), 1);
        _event_free(event);
    }
}

TEST(Lock, IsRecursiveAndExcludesOtherThreads) {
    lock_ctx* lock = core_lock_create(CORE_HERE);
    int count = 0;
    test::on_four_threads([&] {
        for (int i = 0; i < 1000; ++i) {
            lock_enter(lock);
            lock_enter(lock);
            ++count;
            lock_leave(lock);
            lock_leave(lock);
        }
    });
    EXPECT_EQ(count, 4000);
    core_lock_delete(lock);
    EXPECT_FALSE(lock);
}

TEST(Atomic, ResultsAreTheNewOrTheFoundValue) {
    volatile uint32_t word = 0;
    EXPECT_EQ(atomic_dec32(&word), 0xffffffffU);
    EXPECT_EQ(atomic_inc32(&word), 0U);
    EXPECT_EQ(atomic_set32(&word, 7), 7U);
    EXPECT_EQ(atomic_xchg32(&word, 8), 7U);
    EXPECT_EQ(atomic_cas32(&word, 9, 7), 8U);
    EXPECT_EQ(atomic_get32(&word), 8U);
    EXPECT_EQ(atomic_cas32(&word, 9, 8), 8U);
    EXPECT_EQ(atomic_get32(&word), 9U);
    test::on_four_threads([&word] {
        for (int i = 0; i < 1000; ++i)
            atomic_inc32(&word);
    });
    EXPECT_EQ(atomic_get32(&word), 4009U);
}

}  // namespace
