// A pass serves ordered commands, waits, serves timers, commands and sockets, and rebuilds: queued calls run, new
// records come in, dead ones are released, and the sets of the next wait are filled.
//
// No wake is lost. Another thread first makes its change (an entry of a list, a count of signals, a time), then sets
// `wake_ordered`, and writes a byte into the wake pair if the flag was clear. The loop reads the byte, then clears the
// flag, and only then looks at what others change. So a change is made either
// - before the flag is cleared: this pass finds it, in the services or in the rebuild; or
// - after that: its waker finds the flag clear and writes a byte, which ends the next wait. next_wait() does not wait
//   at all while the flag is set, so the byte may come late, or never, as when there is no pair yet.
// A callback on the loop's own thread needs no wake: the rebuild comes after every callback and before every wait, and
// `pass_due` tells that pass what no descriptor will.
#include "net_thread/loop.h"

#include "net_thread/callback_watch.h"
#include "net_thread/guard.h"
#include "report.h"

#include "core/time.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <cassert>
#include <vector>

namespace net {

namespace {

using platform::watch_t;

constexpr int64_t second = 1'000'000;             // microseconds
constexpr int64_t longest_wait = 5;               // seconds
constexpr int64_t retry_wait = 100'000;           // microseconds
constexpr uint32_t pause_after_failed_wait = 10;  // milliseconds

int64_t now_us() noexcept { return static_cast<int64_t>(core_timer()); }

bool on_loop_thread(nt_ctx& nt) noexcept { return !net_nt_need_invoke(&nt); }

// Moves what other threads registered into the loop's array. When memory is out the rest waits for the next pass.
template <class T>
void take_in(slist* pending, records<T>& known) noexcept {
    try {
        while (slist_count(pending) != 0) {
            if (known.size() == known.capacity()) known.reserve(std::max<size_t>(16, 2 * known.size()));
            auto* record = static_cast<T*>(slist_pop(pending));
            if (!record) return;
            known.emplace_back(record);
        }
    } catch (const std::bad_alloc&) {
        return;
    }
}

// A dead record is released with its guard held: the setter that marked it may not have let go of it yet.
bool is_dead(socket_ctx& socket) noexcept {
    if (socket.fd == -1) socket.flags = nt_flag_removed;
    return (socket.flags & nt_flag_removed) && take_for_loop(socket.guard);
}

bool is_dead(timer_ctx& timer) noexcept { return timer.interval == 0 && take_for_loop(timer.guard); }

bool is_dead(command_ctx& command) noexcept {
    if (!take_for_loop(command.guard)) return false;
    const bool dead = !command.callback;
    if (!dead) release_guard(command.guard);
    return dead;
}

// @return the number released
template <class T, class Before = void (*)(const T&)>
size_t release_dead(
    records<T>& known, Before before = [](const T&) {}) noexcept {
    return std::erase_if(known, [&](const core::owned_object<T>& record) {
        if (!is_dead(*record)) return false;
        before(*record);
        return true;
    });
}

// @return true when its callback ran
bool service_command(command_ctx& command, int64_t now) noexcept {
    int64_t due = command.due;
    const bool has_come = due != 0 && due <= now;
    if ((command.signals == 0 && !has_come) || !take_for_loop(command.guard)) return false;
    // Another time that was set meanwhile stays.
    if (has_come) command.due.compare_exchange_strong(due, 0);
    const bool called = command.callback;
    if (called) {
        const callback_watch watch("command");
        command.callback(command.arg, &command);
    }
    command.signals = 0;
    release_guard(command.guard);
    return called;
}

// What a callback registered, queued or signalled is met by the rebuild alone: no wait may come before that.
void service_commands(nt_ctx& nt) noexcept {
    const int64_t now = now_us();
    for (const auto& command : nt.commands)
        nt.pass_due |= service_command(*command, now);
}

// When the next one is to be called: 0 for at once.
int64_t commands_due(nt_ctx& nt) noexcept {
    take_in(nt.new_commands, nt.commands);
    release_dead(nt.commands);
    int64_t due = INT64_MAX;
    for (const auto& command : nt.commands) {
        if (command->signals != 0) return 0;
        if (const int64_t at = command->due) due = std::min(due, at);
    }
    return due;
}

void service_timer(timer_ctx& timer, int64_t now) noexcept {
    if (timer.due > now || !take_for_loop(timer.guard)) return;
    const int64_t due = timer.due;
    if (timer.callback && due <= now) {
        const callback_watch watch("timer");
        timer.callback(timer.arg, &timer);
        // Counted from when it was due, not from now; a callback that set the timer anew has its own way.
        if (timer.due == due) timer.due = due + timer.interval;
    }
    release_guard(timer.guard);
}

void service_timers(nt_ctx& nt) noexcept {
    if (nt.timers.empty()) return;
    const int64_t now = now_us() / second;
    for (const auto& timer : nt.timers)
        service_timer(*timer, now);
}

// When the first timer is due. The pass after a timer was released does not wait.
int64_t timers_due(nt_ctx& nt) noexcept {
    take_in(nt.new_timers, nt.timers);
    if (release_dead(nt.timers) != 0) return 0;
    int64_t due = INT64_MAX;
    for (const auto& timer : nt.timers)
        due = std::min(due, timer->due * second);
    return due;
}

// Something could not be had from the system: the wake pair, or the memory to take in what was registered.
bool has_to_retry(const nt_ctx& nt) noexcept {
    return nt.wake_rd < 0 ||
           slist_count(nt.new_sockets) + slist_count(nt.new_timers) + slist_count(nt.new_commands) != 0;
}

// Microseconds.
int64_t next_wait(nt_ctx& nt) noexcept {
    const int64_t due = std::min(timers_due(nt), commands_due(nt));
    if (nt.pass_due || nt.wake_ordered) return 0;
    return std::clamp<int64_t>(due - now_us(), 0, has_to_retry(nt) ? retry_wait : longest_wait * second);
}

// From here on a wake writes a new byte; what it was written for before is looked at after this.
void acknowledge_wake(nt_ctx& nt) noexcept {
    const int fd = nt.wake_rd;
    if (fd >= 0 && nt.sets.found(fd)) {
        uint8_t drained[1024];
        nt.has_bell ? platform::quiet_bell(fd) : static_cast<void>(platform::receive_bytes(fd, drained, nullptr));
    }
    nt.wake_ordered.exchange(false);
}

uint32_t socket_events(socket_ctx& socket, uint8_t found) noexcept {
    uint32_t events = 0;
    if (found & watch_t::read) events |= socket.flags & nt_flag_listening ? nt_event_accept : nt_event_read;
    if (found & watch_t::write) {
        const bool connecting = socket.flags.fetch_and(~uint32_t{nt_flag_connecting}) & nt_flag_connecting;
        events |= connecting ? nt_event_connected : nt_event_write;
    }
    if (socket.signals.exchange(0) != 0) events |= nt_event_signal;
    return events;
}

// A closed descriptor would end every wait at once. Its number may be somebody else's by now, so its owner is not told
// by way of the callback.
void give_up_closed(socket_ctx& socket) noexcept {
    if (socket.flags & (nt_flag_removed | nt_flag_closed)) return;
    socket.flags |= nt_flag_closed;
    report("network thread: socket %d was closed before it was removed", socket.fd.load());
}

void service_socket(socket_ctx& socket, uint8_t found) noexcept {
    if (!socket.callback || (found == 0 && socket.signals == 0) || !take_for_loop(socket.guard)) return;
    if (found & watch_t::closed) give_up_closed(socket);
    const uint32_t events = socket_events(socket, found);
    if (events != 0 && !(socket.flags & nt_flag_removed)) {
        const callback_watch watch("socket");
        socket.callback(socket.arg, events);
    }
    release_guard(socket.guard);
}

void service_sockets(nt_ctx& nt) noexcept {
    for (const auto& socket : nt.sockets)
        service_socket(*socket, nt.sets.found(socket->fd));
}

// Calls that are queued meanwhile, perhaps by these, are the next pass's.
void run_calls(nt_ctx& nt) noexcept {
    for (uint32_t left = slist_count(nt.calls); left != 0; --left) {
        const core::owned_object<queued_call> call(static_cast<queued_call*>(slist_pop(nt.calls)));
        if (!call) return;
        const callback_watch watch("queued");
        call->fn(call->arg);
    }
}

// The guard keeps the socket open meanwhile: who removes it waits for that. Another time will do when it is taken.
void tell_system(nt_ctx& nt, socket_ctx& socket) noexcept {
    if (!take_for_loop(socket.guard)) return;
    if (!(socket.flags & nt_flag_removed)) nt.sets.tell(socket.fd);
    release_guard(socket.guard);
}

void watch_socket(nt_ctx& nt, socket_ctx& socket) noexcept {
    const uint32_t flags = socket.flags;
    if (!socket.callback || (flags & nt_flag_removed)) return;
    // Signalled where no wait of this thread will tell: before its record came in, or by a callback of this pass.
    if (socket.signals != 0) nt.pass_due = true;
    if (flags & nt_flag_closed) return;
    const bool read = flags & (nt_flag_read | nt_flag_listening);
    const bool write = flags & (nt_flag_write | nt_flag_connecting);
    if (nt.sets.set(socket.fd, read, write)) tell_system(nt, socket);
}

// Begun again once a second until it is there; a pass never waits for it.
void open_wake_pair(nt_ctx& nt) noexcept {
    if (nt.wake_rd >= 0) return;
    if (now_us() >= nt.wake_retry) {
        nt.wake_retry = now_us() + second;
        const int bell = platform::open_bell();
        nt.has_bell = bell >= 0;
        if (nt.has_bell) {
            nt.wake_wr = bell;
            nt.wake_rd = bell;
            return;
        }
        nt.wake_pair.begin();
    }
    int fds[2];
    if (!nt.wake_pair.has_begun() || nt.wake_pair.finish(fds, nt.file, nt.line) != 1) return;
    socket_options(fds[0]);
    socket_options(fds[1]);
    nt.wake_rd = fds[0];
    nt.wake_wr = fds[1];
}

void rebuild(nt_ctx& nt) noexcept {
    assert(on_loop_thread(nt));
    open_wake_pair(nt);
    run_calls(nt);
    const size_t known = nt.sockets.size();
    take_in(nt.new_sockets, nt.sockets);
    for (size_t i = known; i < nt.sockets.size(); ++i)
        nt.sets.renew(nt.sockets[i]->fd);
    release_dead(nt.sockets, [&](const socket_ctx& gone) { nt.sets.renew(gone.fd); });
    nt.pass_due = slist_count(nt.calls) != 0;
    nt.sets.clear();
    if (nt.wake_rd >= 0 && nt.sets.set(nt.wake_rd, true, false)) nt.sets.tell(nt.wake_rd);
    for (const auto& socket : nt.sockets)
        watch_socket(nt, *socket);
}

void run_pass(nt_ctx& nt, thread_ctx* thread) noexcept {
    service_commands(nt);
    const int ready = nt.sets.wait(next_wait(nt));
    if (ready < 0) core_thread_sleep(thread, pause_after_failed_wait);
    acknowledge_wake(nt);
    service_timers(nt);
    service_commands(nt);
    if (ready > 0 || nt.pass_due) service_sockets(nt);
    rebuild(nt);
}

template <class T>
void release_pending(slist*& pending) noexcept {
    while (void* record = slist_pop(pending))
        core::destroy(static_cast<T*>(record));
    slist_free(pending);
}

}  // namespace

nt_ctx::nt_ctx(const char* caller_file, int caller_line) noexcept
    : file(caller_file),
      line(caller_line),
      new_sockets(_slist_init(caller_file, caller_line)),
      new_timers(_slist_init(caller_file, caller_line)),
      new_commands(_slist_init(caller_file, caller_line)),
      calls(_slist_init(caller_file, caller_line)),
      sockets(core::place{caller_file, caller_line}),
      timers(core::place{caller_file, caller_line}),
      commands(core::place{caller_file, caller_line}) {}

nt_ctx::~nt_ctx() {
    release_pending<socket_ctx>(new_sockets);
    release_pending<timer_ctx>(new_timers);
    release_pending<command_ctx>(new_commands);
    release_pending<queued_call>(calls);
    if (has_bell) platform::close_socket(wake_rd);
    for (const int fd : {wake_rd.load(), wake_wr.load()}) {
        if (fd >= 0 && !has_bell) net_socket_close(fd);
    }
}

bool nt_ctx::complete() const noexcept { return new_sockets && new_timers && new_commands && calls; }

void loop_body(void* arg, thread_ctx* thread) noexcept {
    auto& nt = *static_cast<nt_ctx*>(arg);
    nt.thread = thread;
    rebuild(nt);
    while (!core_thread_iscancel(thread))
        run_pass(nt, thread);
    if (nt.releases_self) release_context(&nt);
}

void wake_loop(nt_ctx& nt) noexcept {
    if (nt.wake_ordered.exchange(true) || on_loop_thread(nt)) return;
    const int fd = nt.wake_wr;
    if (fd < 0) return;
    constexpr uint8_t zero[1] = {};
    nt.has_bell ? platform::ring_bell(fd) : static_cast<void>(platform::send_bytes(fd, zero, nullptr));
}

void release_context(nt_ctx* nt) noexcept { core::destroy(nt); }

}  // namespace net
