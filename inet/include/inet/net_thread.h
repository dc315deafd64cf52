/// The network thread: one thread that owns sockets, timers and commands and calls their callbacks from a single loop.
///
/// Whatever a callback belongs to is touched by no other callback at the same time, so what is driven by one network
/// thread needs no lock. Every net_nt_ function below may be called on any thread, in callbacks too; a change made on
/// another thread waits while a callback of the very same record runs (so never hold a lock there that the callback
/// takes). A handle is dead with the call that nulls it; the loop releases the record itself. A null context, or a null
/// handle where one is needed, makes a call do nothing: a handle that the call would set is left alone.
///
/// A thread watches at most 512 sockets for reading, one of them its own, and 512 for writing; what does not fit is not
/// watched. A program with more connections opens more threads. Each wait ends after five seconds at the latest. After
/// a registration nothing is allocated for it any more.
///
/// When memory is out a registering call leaves the handle null and registers nothing.
#pragma once

#include "core/api.h"
#include "core/cmd.h"

#include <atomic>
#include <cstdint>

namespace net {

struct nt_ctx;
struct timer_ctx;
struct command_ctx;

/// What a socket is registered for and what became of it: `socket_ctx::flags`.
enum socket_flag_t : uint32_t {
    nt_flag_read = 1,        ///< watch for reading
    nt_flag_write = 2,       ///< watch for writing
    nt_flag_connecting = 4,  ///< a connect is under way: the next writability is reported as nt_event_connected
    nt_flag_listening = 8,   ///< a listening socket: readability is reported as nt_event_accept
    nt_flag_removed = 16,    ///< removed; the loop releases the record
    nt_flag_closed = 32,     ///< found closed before it was removed, which is a fault of its owner: no longer watched
};

/// What reaches a socket's callback; one call may combine several. A connection that failed or was reset shows as
/// readable, writable and connected, whichever it is watched for: the next call on the socket tells.
enum socket_event_t : uint32_t {
    nt_event_read = 1,
    nt_event_write = 2,
    nt_event_connected = 4,  ///< once; ask net_socket_get_error() before believing it
    nt_event_accept = 8,
    nt_event_signal = 32,  ///< one or more net_nt_command() since the last call
};

typedef void (*socket_callback)(void* arg, uint32_t events);
typedef void (*timer_callback)(void* arg, timer_ctx* timer);
typedef void (*command_callback)(void* arg, command_ctx* command);

/// Who holds a record: `guard` of the three records below. Changed by the network thread's own functions alone.
enum guard_t : uint32_t {
    nt_guard_other = 0,           ///< held by another thread that changes the record
    nt_guard_loop = 1,            ///< held by the loop, which calls the callback
    nt_guard_free = 0xffffffffu,  ///< -1
};

/// A registered socket. The loop's; users keep the handle and read `fd` and `flags`.
struct socket_ctx {
    std::atomic<int> fd = -1;  ///< -1 gives the record up, and with it the handle
    std::atomic<uint32_t> flags = 0;
    void* arg = nullptr;
    socket_callback callback = nullptr;
    std::atomic<uint32_t> signals = 0;  ///< net_nt_command() calls not yet delivered
    std::atomic<uint32_t> guard = nt_guard_free;
};

/// A timer.
struct timer_ctx {
    std::atomic<int> interval = 0;  ///< seconds; 0 is disarmed
    std::atomic<int64_t> due = 0;   ///< next firing, in seconds of core_timer()
    void* arg = nullptr;
    timer_callback callback = nullptr;
    std::atomic<uint32_t> guard = nt_guard_free;
};

/// A command: a call that other threads order and the loop makes.
struct command_ctx {
    nt_ctx* owner = nullptr;
    void* arg = nullptr;
    command_callback callback = nullptr;  ///< null once destroyed
    std::atomic<uint32_t> signals = 0;    ///< net_nt_command_exec() calls not yet delivered
    std::atomic<int64_t> due = 0;         ///< of net_nt_command_at(), in microseconds of core_timer(); 0 for none
    std::atomic<uint32_t> guard = nt_guard_free;
};

/// Starts a network thread; nothing happens when `nt` is already set. `nt` stays null when memory is out or the thread
/// cannot be made. What is registered at once is served from the first pass on.
INET_API void net_nt_start(nt_ctx*& nt, const char* file, int line) noexcept;

/// Ends the thread after its current pass, waits for that, releases every record and drops queued calls without running
/// them. Then `nt` is null, and every handle of it is dead. Registered sockets stay open, their owners close them.
/// No other thread may use the context any more. Called in a callback it does not wait: the pass is finished and the
/// context released by the loop.
INET_API void net_nt_stop(nt_ctx*& nt) noexcept;

/// Names the thread, formatted as printf does; nothing for a null format.
INET_PRINTF(2, 3) INET_API void net_nt_set_name(nt_ctx* nt, const char* format, ...) noexcept;

/// Registers a socket; it is watched from the loop's next pass on.
/// @param out       receives the handle before the first callback can come; null for a negative descriptor
/// @param flags     socket_flag_t
/// @param callback  without one the socket is not watched
INET_API void net_nt_socket_add(nt_ctx* nt, socket_ctx*& out, int fd, int flags, void* arg,
                                socket_callback callback) noexcept;

/// Sets what a socket is watched for. The loop is not woken: on another thread's behalf it takes note after its current
/// wait, five seconds at the most, or after net_nt_unlock(). In a callback it counts from the next wait on.
INET_API void net_nt_socket_set(nt_ctx* nt, socket_ctx* s, int read, int write) noexcept;

/// Removes a registration and nulls the handle. After the call the callback does not run and will not be called again
/// (called in that callback: not after it returns), and the owner may close the socket.
INET_API void net_nt_socket_rem(nt_ctx* nt, socket_ctx*& s) noexcept;

/// Signals a socket: its callback gets nt_event_signal on the next pass, once for all signals until then.
INET_API void net_nt_command(nt_ctx* nt, socket_ctx* s) noexcept;

/// Wakes the loop.
INET_API void net_nt_unlock(nt_ctx* nt) noexcept;

/// Has the loop call `fn(arg)`, in the order of the calls; nothing for a null `fn`. Does not wait for it.
/// @param s  carried along, not used; may be null
/// @return 1 when it was queued, else 0.
INET_API int net_nt_sync_call(nt_ctx* nt, socket_ctx* s, void* arg, void (*fn)(void* arg)) noexcept;

/// Sets a timer that fires every `seconds`. It never fires early: 3 seconds means between 3 and 4 seconds from now. The
/// next firing counts from when the last was due, so a late timer fires once per pass until it has caught up. Setting
/// it anew counts from then on, in its own callback too.
/// @param t        null makes a timer and receives its handle before the first callback can come
/// @param seconds  0 or less, or a null callback, disarms: the handle becomes null
INET_API void net_nt_timer_set(nt_ctx* nt, timer_ctx*& t, int seconds, void* arg, timer_callback callback) noexcept;

/// Makes a command (null `c`), changes what it calls, or with a null callback destroys it and nulls the handle.
INET_API void net_nt_command_set(nt_ctx* nt, command_ctx*& c, void* arg, command_callback callback) noexcept;

/// A new command; null when `nt` or the callback is null or memory is out. End it with net_nt_command_destroy().
INET_API command_ctx* net_nt_command_create(nt_ctx* nt, void* arg, command_callback callback) noexcept;

/// Destroys a command. After the call its callback does not run (called in that callback: not after it returns).
INET_API void net_nt_command_destroy(command_ctx* c) noexcept;

/// Orders one callback of the command from the loop. Orders that come before the callback starts are one order; those
/// that come while it runs are not delivered. Whoever must not lose one, such as the receiver of an answer that the
/// callback gives, takes net_nt_command(), net_nt_sync_call() or a net::Thread, none of which loses any.
INET_API void net_nt_command_exec(command_ctx* c) noexcept;

/// Orders one callback for when core_timer() has come to `us`, which paces what a timer's whole seconds are too coarse
/// for: never early, and as punctual as the system ends its waits. Another time replaces it, 0 takes it back. In the
/// command's own callback it sets the next one.
INET_API void net_nt_command_at(command_ctx* c, uint64_t us) noexcept;

/// 1 when the caller is not on the loop's thread, else 0, also for null: `assert(!net_nt_need_invoke(nt))` stands where
/// code belongs on that thread.
INET_API int net_nt_need_invoke(nt_ctx* nt) noexcept;

/// A network thread with a queue of calls. Post with `core_cmd_exec(thread.queue, function, arg)` and then
/// `net_nt_command_exec(thread.command)`: the function runs on the network thread with this object as its owner.
/// Nothing that was posted and ordered is missed, also while the queue is being worked on.
class INET_API Thread {
public:
    Thread() noexcept;
    /// Stops the thread if it runs, and drops what is still in the queue.
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// Starts the thread and runs what was posted while it was stopped. `nt` and `command` stay null when it cannot be
    /// started. Nothing happens when it runs.
    virtual void start() noexcept;
    /// Stops it; calls still queued wait for the next start. Not in a callback of this very thread.
    virtual void stop() noexcept;

    nt_ctx* nt = nullptr;
    command_ctx* command = nullptr;
    cmd_ctx* queue = nullptr;

protected:
    /// Runs the queue; `arg` is the object.
    static void on_nt_command(void* arg, command_ctx* command) noexcept;
};

}  // namespace net
