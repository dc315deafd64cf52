/// The network thread: one thread that owns sockets, timers and commands and calls their callbacks from a single loop.
///
/// Callbacks of one network thread never run at the same time, so objects that only one network thread drives need no
/// lock. Every net_nt_ function below may be called on any thread, also inside callbacks:
///   - A change from another thread waits while a callback of the same record runs. Do not hold a lock there that the
///     callback takes.
///   - A handle is valid until the call that nulls it. The loop releases the record.
///   - With a null context, or a null handle where one is needed, a call does nothing and sets no handle.
///   - When memory is out, a registering call leaves the handle null and registers nothing.
///
/// Bounds for one thread:
///     reading  512 sockets, one of them its own
///     writing  512 sockets
///     wait     five seconds
/// A socket that does not fit is not watched. A program with more connections starts more threads. A registration
/// allocates once, when it is made.
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
    nt_flag_closed = 32,     ///< closed before it was removed (an error of its owner), as is found within five seconds:
                             ///< no longer watched
};

/// What reaches a socket's callback. One call may combine several. A failed or reset connection is reported as
/// readable, writable and connected, as far as it is watched for these. The next call on the socket tells the error.
enum socket_event_t : uint32_t {
    nt_event_read = 1,
    nt_event_write = 2,
    nt_event_connected = 4,  ///< once; net_socket_get_error() tells whether it succeeded
    nt_event_accept = 8,
    nt_event_signal = 32,  ///< one or more net_nt_command() since the last call
};

typedef void (*socket_callback)(void* arg, uint32_t events);
typedef void (*timer_callback)(void* arg, timer_ctx* timer);
typedef void (*command_callback)(void* arg, command_ctx* command);

/// Who holds a record: `guard` of the three records below. Only the library changes it.
enum guard_t : uint32_t {
    nt_guard_other = 0,           ///< held by another thread that changes the record
    nt_guard_loop = 1,            ///< held by the loop, which calls the callback
    nt_guard_free = 0xffffffffu,  ///< -1
};

/// A registered socket. It belongs to the loop. Users keep the handle, and read `fd` and `flags`.
struct socket_ctx {
    std::atomic<int> fd = -1;  ///< -1 once the record and its handle are no longer valid
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

/// A command: any thread orders it, and the loop calls its callback.
struct command_ctx {
    nt_ctx* owner = nullptr;
    void* arg = nullptr;
    command_callback callback = nullptr;  ///< null once destroyed
    std::atomic<uint32_t> signals = 0;    ///< net_nt_command_exec() calls not yet delivered
    std::atomic<int64_t> due = 0;         ///< of net_nt_command_at(), in microseconds of core_timer(); 0 for none
    std::atomic<uint32_t> guard = nt_guard_free;
};

/// Starts a network thread. When `nt` is set already, nothing happens. `nt` stays null when memory is out, or when the
/// thread cannot be made. Sockets, timers and commands may be registered at once.
INET_API void net_nt_start(nt_ctx*& nt, const char* file, int line) noexcept;

/// Ends the thread after its current pass, waits for that, releases every record and drops queued calls without running
/// them. `nt` becomes null, and its handles are no longer valid. Registered sockets stay open: their owners close them.
/// No other thread may be using the context. Called inside a callback it does not wait: the loop finishes the pass and
/// releases the context.
INET_API void net_nt_stop(nt_ctx*& nt) noexcept;

/// Names the thread, formatted as printf does; nothing for a null format.
INET_PRINTF(2, 3) INET_API void net_nt_set_name(nt_ctx* nt, const char* format, ...) noexcept;

/// Registers a socket; it is watched from the loop's next pass on.
/// @param out       receives the handle before the first callback can come; null for a negative descriptor
/// @param flags     socket_flag_t
/// @param callback  without one the socket is not watched
INET_API void net_nt_socket_add(nt_ctx* nt, socket_ctx*& out, int fd, int flags, void* arg,
                                socket_callback callback) noexcept;

/// Sets what a socket is watched for. A call inside a callback takes effect at the next wait. A call from another
/// thread does not wake the loop: it takes effect after the current wait, five seconds at most, or after
/// net_nt_unlock().
INET_API void net_nt_socket_set(nt_ctx* nt, socket_ctx* s, int read, int write) noexcept;

/// Removes a registration and nulls the handle. After the call the callback does not run, and the owner may close the
/// socket. Called inside that callback, it does not run again once it has returned.
INET_API void net_nt_socket_rem(nt_ctx* nt, socket_ctx*& s) noexcept;

/// Signals a socket: its callback gets nt_event_signal on the next pass, once for all signals until then.
INET_API void net_nt_command(nt_ctx* nt, socket_ctx* s) noexcept;

/// Wakes the loop.
INET_API void net_nt_unlock(nt_ctx* nt) noexcept;

/// Has the loop call `fn(arg)`, in the order of these calls. It does not wait for `fn`. A null `fn` does nothing.
/// @param s  carried along, not used; may be null
/// @return 1 when it was queued, else 0.
INET_API int net_nt_sync_call(nt_ctx* nt, socket_ctx* s, void* arg, void (*fn)(void* arg)) noexcept;

/// Sets a timer that fires every `seconds`. It never fires early: 3 seconds means between 3 and 4 seconds from now. The
/// next firing counts from when the last was due, so a late timer fires once per pass until it has caught up. Setting
/// it again, also inside its callback, counts from that moment.
/// @param t        null makes a timer and receives its handle before the first callback can come
/// @param seconds  0 or less, or a null callback, disarms: the handle becomes null
INET_API void net_nt_timer_set(nt_ctx* nt, timer_ctx*& t, int seconds, void* arg, timer_callback callback) noexcept;

/// Makes a command when `c` is null, else changes its callback. A null callback destroys it and nulls the handle.
INET_API void net_nt_command_set(nt_ctx* nt, command_ctx*& c, void* arg, command_callback callback) noexcept;

/// A new command; null when `nt` or the callback is null or memory is out. End it with net_nt_command_destroy().
INET_API command_ctx* net_nt_command_create(nt_ctx* nt, void* arg, command_callback callback) noexcept;

/// Destroys a command. After the call its callback does not run. Called inside that callback, it does not run again
/// once it has returned.
INET_API void net_nt_command_destroy(command_ctx* c) noexcept;

/// Orders one callback of the command from the loop. Orders given before the callback starts count as one. Orders given
/// while it runs are lost. Where none may be lost, use net_nt_command(), net_nt_sync_call() or a net::Thread.
INET_API void net_nt_command_exec(command_ctx* c) noexcept;

/// Orders one callback for when core_timer() has reached `us`, for pacing finer than a timer's seconds. It is never
/// early, and as punctual as the system's waits. Another time replaces it, 0 cancels it. Inside the command's own
/// callback it sets the next time.
INET_API void net_nt_command_at(command_ctx* c, uint64_t us) noexcept;

/// Places of a thread, for owners that share it: each is a socket that somebody may come to watch. The other sockets
/// are for listeners and the like.
inline constexpr uint32_t nt_places = 500;

/// Takes places, or gives them back with a negative `change`. It refuses nothing: an owner that finds more than
/// nt_places taken gives its own back. @return how many are taken now; 0 for null
INET_API uint32_t net_nt_take_places(nt_ctx* nt, int32_t change) noexcept;

/// 1 when the caller is not on the loop's thread; 0 when it is, and for null. Use: `assert(!net_nt_need_invoke(nt))` in
/// code that belongs on that thread.
INET_API int net_nt_need_invoke(nt_ctx* nt) noexcept;

/// A network thread with a queue of calls. Post with `core_cmd_exec(thread.queue, function, arg)` and then
/// `net_nt_command_exec(thread.command)`: the function runs on the network thread with this object as its owner. No
/// function that was posted and ordered is missed, also while the queue is being run.
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
    /// Stops the thread. Queued calls wait for the next start. Not inside a callback of this thread.
    virtual void stop() noexcept;

    nt_ctx* nt = nullptr;
    command_ctx* command = nullptr;
    cmd_ctx* queue = nullptr;

protected:
    /// Runs the queue; `arg` is the object.
    static void on_nt_command(void* arg, command_ctx* command) noexcept;
};

}  // namespace net
