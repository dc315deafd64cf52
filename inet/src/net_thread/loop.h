// The context of a network thread and the loop that runs on it.
#pragma once

#include "net_socket/pairs.h"
#include "net_thread/watch_sets.h"

#include "core/owned.h"
#include "core/slist.h"
#include "core/thread.h"
#include "inet/net_thread.h"

#include <atomic>
#include <cstdint>

namespace net {

template <class T>
using records = core::vector<core::owned_object<T>>;

/// Entry of nt_ctx::calls.
struct queued_call {
    socket_ctx* socket;
    void* arg;
    void (*fn)(void* arg);
};

struct nt_ctx {
    nt_ctx(const char* file, int line) noexcept;
    ~nt_ctx();
    nt_ctx(const nt_ctx&) = delete;
    nt_ctx& operator=(const nt_ctx&) = delete;

    /// False when one of the lists could not be made.
    bool complete() const noexcept;

    const char* file;  // who started the thread; what the loop allocates is held in that name
    int line;
    std::atomic<thread_ctx*> thread = nullptr;

    // The wake pair, or the bell: -1 until the loop has made it. A waker first sets `wake_ordered`, and writes a byte
    // only when it was clear, so at most one byte waits. The loop does not wait while the flag is set, which also
    // covers a wake that came before the pair, or whose byte was not written yet.
    std::atomic<int> wake_rd = -1;
    std::atomic<int> wake_wr = -1;
    std::atomic<bool> wake_ordered = false;
    loopback_pair wake_pair;         // the loop's own, until the two are there
    int64_t wake_retry = INT64_MIN;  // when the loop may begin to make it again, in microseconds
    bool has_bell = false;           // wake_rd and wake_wr are one, by platform::open_bell()

    std::atomic<uint32_t> places = 0;  // taken: net_nt_take_places()

    // From any thread to the loop.
    slist* new_sockets;
    slist* new_timers;
    slist* new_commands;
    slist* calls;

    // The loop's own.
    records<socket_ctx> sockets;
    records<timer_ctx> timers;
    records<command_ctx> commands;
    watch_sets sets;
    bool pass_due = false;       // something is to be delivered without waiting for a descriptor
    bool releases_self = false;  // stopped in a callback: the loop is the last user of the context
};

/// Body of the thread; `arg` is the nt_ctx.
void loop_body(void* arg, thread_ctx* thread) noexcept;

/// Makes the loop's current or next wait end at once. Any thread.
void wake_loop(nt_ctx& nt) noexcept;

/// Releases a context whose thread has ended or was never started.
void release_context(nt_ctx* nt) noexcept;

}  // namespace net
