/// Threads, locks, events and atomic words.
#pragma once

#include "core/api.h"

#include <cstdint>

struct thread_ctx;
struct lock_ctx;
struct event_ctx;

/// Starts a thread that runs `body(arg, thread)`.
/// @param stop_hook  called by the first core_thread_cancel(), on that thread, to wake a body that waits; may be null
/// @return the handle, or null when the thread cannot be made. End it with core_thread_stop().
INET_API thread_ctx* core_thread_start(void* arg, void (*body)(void* arg, thread_ctx* thread),
                                       void (*stop_hook)(void* arg, thread_ctx* thread), const char* file,
                                       int line) noexcept;

/// Asks the body to end; it polls core_thread_iscancel(). Any thread; null is ignored.
INET_API void core_thread_cancel(thread_ctx* thread) noexcept;

/// 1 once the thread was asked to end, else 0.
INET_API int core_thread_iscancel(thread_ctx* thread) noexcept;

/// Cancels, waits for the end of the body, releases the handle and nulls it. Called by the body itself it does not
/// wait: the handle is released when the body returns.
INET_API void core_thread_stop(thread_ctx*& thread) noexcept;

/// 1 when the caller runs on this thread; 0 otherwise and for null.
INET_API int core_thread_iscurrent(const thread_ctx* thread) noexcept;

/// Number of the calling thread, never 0. No other running thread has it.
INET_API uint64_t core_thread_id() noexcept;

/// Names the thread for debuggers and logs, cut to what the system holds (15 bytes on Linux, 255 on Windows). Null is
/// ignored.
INET_API void core_thread_setname(thread_ctx* thread, const char* name) noexcept;

/// Sleeps until `milliseconds` have passed or the thread is cancelled. @return 1 when it was cancelled, else 0.
INET_API int core_thread_sleep(thread_ctx* thread, uint32_t milliseconds) noexcept;

/// Runs `function(arg)` on a thread of its own. Nothing waits for that thread. @return 1, or 0 when it cannot be made.
INET_API int core_thread_invoke(void (*function)(void* arg), void* arg, const char* file, int line) noexcept;

/// Sleeps for `milliseconds`; 0 yields the processor.
INET_API void core_sleep(uint32_t milliseconds) noexcept;

/// Recursive lock. Every lock_enter() is matched by a lock_leave() on the same thread.
INET_API lock_ctx* core_lock_create(const char* file, int line) noexcept;
INET_API void lock_enter(lock_ctx* lock) noexcept;
INET_API void lock_leave(lock_ctx* lock) noexcept;
INET_API void core_lock_delete(lock_ctx*& lock) noexcept;

/// Auto-reset event. event_set() releases one waiter: one that waits now, else the next one. Setting an event that is
/// set has no effect.
INET_API event_ctx* _event_create(const char* file, int line) noexcept;
INET_API void event_set(event_ctx* event) noexcept;

/// Waits at most `milliseconds` (event_infinite: without end). @return 1 when the event was set, 0 when time ran out.
INET_API int event_wait(event_ctx* event, uint32_t milliseconds) noexcept;
INET_API void _event_free(event_ctx*& event) noexcept;

inline constexpr uint32_t event_infinite = 0xffffffff;

/// Sequentially consistent operations on a shared word. inc, dec and set return the new value; xchg and cas return the
/// value found. cas stores `value` only when the word holds `expected`.
INET_API uint32_t atomic_inc32(volatile uint32_t* word) noexcept;
INET_API uint32_t atomic_dec32(volatile uint32_t* word) noexcept;
INET_API uint32_t atomic_set32(volatile uint32_t* word, uint32_t value) noexcept;
INET_API uint32_t atomic_xchg32(volatile uint32_t* word, uint32_t value) noexcept;
INET_API uint32_t atomic_cas32(volatile uint32_t* word, uint32_t value, uint32_t expected) noexcept;
INET_API uint32_t atomic_get32(const volatile uint32_t* word) noexcept;
