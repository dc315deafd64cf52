#include "core/thread.h"

#include "platform/system.h"

#include "core/owned.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

using thread_body = void (*)(void* arg, thread_ctx* thread);

struct thread_ctx {
    thread_ctx(void* a, thread_body b, thread_body hook) noexcept : arg(a), body(b), stop_hook(hook) {}

    void* arg;
    thread_body body;
    thread_body stop_hook;
    std::mutex mutex;
    std::condition_variable woken;
    std::thread thread;  // under the mutex: the body may use its handle before the starter has stored it
    std::atomic<uint64_t> id = 0;
    std::atomic<bool> cancelled = false;
    bool abandoned = false;  // touched by the thread itself alone
};

struct lock_ctx {
    std::recursive_mutex mutex;
};

struct event_ctx {
    std::mutex mutex;
    std::condition_variable changed;
    bool set = false;
};

namespace {

void run(thread_ctx* thread) {
    thread->id = core_thread_id();
    thread->body(thread->arg, thread);
    if (thread->abandoned) core::destroy(thread);
}

// The exported words are plain volatile integers, as C callers keep them; this is the one place that says otherwise.
std::atomic_ref<uint32_t> shared(const volatile uint32_t* word) noexcept {
    return std::atomic_ref<uint32_t>(*const_cast<uint32_t*>(word));
}

}  // namespace

void core::platform::carry_out(invocation* call) noexcept {
    const invocation todo = *call;
    core::destroy(call);
    todo.function(todo.arg);
}

thread_ctx* core_thread_start(void* arg, void (*body)(void* arg, thread_ctx* thread),
                              void (*stop_hook)(void* arg, thread_ctx* thread), const char* file, int line) noexcept {
    if (!body) return nullptr;
    core::owned_object<thread_ctx> thread(core::create<thread_ctx>(file, line, arg, body, stop_hook));
    if (!thread) return nullptr;
    try {
        const std::lock_guard guard(thread->mutex);
        thread->thread = std::thread(run, thread.get());
    } catch (const std::exception&) {
        return nullptr;
    }
    return thread.release();
}

void core_thread_cancel(thread_ctx* thread) noexcept {
    if (!thread) return;
    {
        const std::lock_guard guard(thread->mutex);
        if (thread->cancelled.exchange(true)) return;
        thread->woken.notify_all();
    }
    if (thread->stop_hook) thread->stop_hook(thread->arg, thread);
}

int core_thread_iscancel(thread_ctx* thread) noexcept { return thread && thread->cancelled; }

void core_thread_stop(thread_ctx*& thread) noexcept {
    thread_ctx* const ending = thread;
    thread = nullptr;
    if (!ending) return;
    core_thread_cancel(ending);
    if (core_thread_iscurrent(ending)) {
        const std::lock_guard guard(ending->mutex);
        ending->thread.detach();
        ending->abandoned = true;
        return;
    }
    ending->thread.join();
    core::destroy(ending);
}

int core_thread_iscurrent(const thread_ctx* thread) noexcept { return thread && thread->id == core_thread_id(); }

uint64_t core_thread_id() noexcept {
    // Counted rather than asked of the system, which gives the number of an ended thread to the next one.
    static constinit std::atomic<uint64_t> last = 0;
    thread_local const uint64_t id = ++last;
    return id;
}

void core_thread_setname(thread_ctx* thread, const char* name) noexcept {
    if (!thread || !name) return;
    if (core_thread_iscurrent(thread)) {
        core::platform::name_this_thread(name);
        return;
    }
    const std::lock_guard guard(thread->mutex);
    if (thread->thread.joinable()) core::platform::name_thread(thread->thread.native_handle(), name);
}

int core_thread_sleep(thread_ctx* thread, uint32_t milliseconds) noexcept {
    if (!thread) return 0;
    std::unique_lock guard(thread->mutex);
    return thread->woken.wait_for(guard, std::chrono::milliseconds(milliseconds),
                                  [thread] { return thread->cancelled.load(); });
}

int core_thread_invoke(void (*function)(void* arg), void* arg, const char* file, int line) noexcept {
    if (!function) return 0;
    auto* const call = core::create<core::platform::invocation>(file, line, function, arg);
    if (call && core::platform::start_detached(call)) return 1;
    core::destroy(call);
    return 0;
}

void core_sleep(uint32_t milliseconds) noexcept {
    if (milliseconds == 0) {
        std::this_thread::yield();
    } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    }
}

lock_ctx* core_lock_create(const char* file, int line) noexcept { return core::create<lock_ctx>(file, line); }

void lock_enter(lock_ctx* lock) noexcept {
    if (lock) lock->mutex.lock();
}

void lock_leave(lock_ctx* lock) noexcept {
    if (lock) lock->mutex.unlock();
}

void core_lock_delete(lock_ctx*& lock) noexcept {
    core::destroy(lock);
    lock = nullptr;
}

event_ctx* _event_create(const char* file, int line) noexcept { return core::create<event_ctx>(file, line); }

void event_set(event_ctx* event) noexcept {
    if (!event) return;
    // Notified under the lock: the waiter may free the event as soon as it gets the lock.
    const std::lock_guard guard(event->mutex);
    event->set = true;
    event->changed.notify_one();
}

int event_wait(event_ctx* event, uint32_t milliseconds) noexcept {
    if (!event) return 0;
    std::unique_lock guard(event->mutex);
    const auto is_set = [event] { return event->set; };
    if (milliseconds == event_infinite) {
        event->changed.wait(guard, is_set);
    } else if (!event->changed.wait_for(guard, std::chrono::milliseconds(milliseconds), is_set)) {
        return 0;
    }
    event->set = false;
    return 1;
}

void _event_free(event_ctx*& event) noexcept {
    core::destroy(event);
    event = nullptr;
}

uint32_t atomic_inc32(volatile uint32_t* word) noexcept { return ++shared(word); }

uint32_t atomic_dec32(volatile uint32_t* word) noexcept { return --shared(word); }

uint32_t atomic_set32(volatile uint32_t* word, uint32_t value) noexcept { return shared(word) = value; }

uint32_t atomic_xchg32(volatile uint32_t* word, uint32_t value) noexcept { return shared(word).exchange(value); }

uint32_t atomic_cas32(volatile uint32_t* word, uint32_t value, uint32_t expected) noexcept {
    shared(word).compare_exchange_strong(expected, value);
    return expected;
}

uint32_t atomic_get32(const volatile uint32_t* word) noexcept { return shared(word).load(); }
