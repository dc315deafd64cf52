#include "inet/net_thread.h"

#include "net_thread/guard.h"
#include "net_thread/loop.h"

#include "core/owned.h"
#include "core/text.h"
#include "core/time.h"

#include <algorithm>
#include <cstdarg>

namespace net {

namespace {

// A pass that runs callbacks looks at everything they changed before it waits; other threads' changes need a wake.
void notify_loop(nt_ctx& nt) noexcept {
    if (net_nt_need_invoke(&nt)) wake_loop(nt);
}

// Hands a new record to the loop. The handle stands before the loop can see the record.
template <class T>
bool hand_over(nt_ctx& nt, slist* pending, T*& handle, T* record) noexcept {
    handle = record;
    if (_slist_enqueue(pending, record, nt.file, nt.line)) {
        notify_loop(nt);
        return true;
    }
    handle = nullptr;
    core::destroy(record);
    return false;
}

// The first whole second at which `seconds` have passed in full.
int64_t due_after(int seconds) noexcept {
    constexpr uint64_t second = 1'000'000;
    return static_cast<int64_t>((core_timer() + second - 1) / second) + seconds;
}

void disarm(nt_ctx& nt, timer_ctx*& t) noexcept {
    if (!t) return;
    {
        const record_change change(&nt, t->guard);
        t->due = 0;
        t->arg = nullptr;
        t->callback = nullptr;
        t->interval = 0;
    }
    t = nullptr;
}

void rearm(nt_ctx& nt, timer_ctx& t, int seconds, void* arg, timer_callback callback) noexcept {
    {
        const record_change change(&nt, t.guard);
        t.arg = arg;
        t.callback = callback;
        t.due = due_after(seconds);
        t.interval = seconds;
    }
    notify_loop(nt);
}

void change_command(command_ctx& c, void* arg, command_callback callback) noexcept {
    const record_change change(c.owner, c.guard);
    c.arg = arg;
    c.callback = callback;
}

}  // namespace

void net_nt_start(nt_ctx*& nt, const char* file, int line) noexcept {
    if (nt) return;
    nt_ctx* made = core::create<nt_ctx>(file, line, file, line);
    if (!made) return;
    thread_ctx* thread = made->complete() ? core_thread_start(made, loop_body, nullptr, file, line) : nullptr;
    if (!thread) {
        release_context(made);
        return;
    }
    made->thread = thread;
    nt = made;
}

void net_nt_stop(nt_ctx*& nt) noexcept {
    if (!nt) return;
    thread_ctx* thread = nt->thread;
    const bool waits = net_nt_need_invoke(nt);
    if (!waits) nt->releases_self = true;
    core_thread_cancel(thread);
    wake_loop(*nt);
    core_thread_stop(thread);
    if (waits) release_context(nt);
    nt = nullptr;  // not before the end: until then callbacks may still read it
}

void net_nt_set_name(nt_ctx* nt, const char* format, ...) noexcept {
    if (!nt || !format) return;
    va_list args;
    va_start(args, format);
    const core::owned_text name(core_vsprintf(CORE_HERE, format, args));
    va_end(args);
    if (name) core_thread_setname(nt->thread, name.get());
}

void net_nt_socket_add(nt_ctx* nt, socket_ctx*& out, int fd, int flags, void* arg, socket_callback callback) noexcept {
    if (!nt) return;
    out = nullptr;
    if (fd < 0) return;
    auto* record = core::create<socket_ctx>(nt->file, nt->line);
    if (!record) return;
    record->fd = fd;
    record->flags = static_cast<uint32_t>(flags);
    record->arg = arg;
    record->callback = callback;
    hand_over(*nt, nt->new_sockets, out, record);
}

void net_nt_socket_set(nt_ctx* nt, socket_ctx* s, int read, int write) noexcept {
    if (!nt || !s) return;
    const auto apply = [s](uint32_t flag, int on) { on ? s->flags.fetch_or(flag) : s->flags.fetch_and(~flag); };
    apply(nt_flag_read, read);
    apply(nt_flag_write, write);
}

void net_nt_socket_rem(nt_ctx* nt, socket_ctx*& s) noexcept {
    if (!nt || !s) return;
    {
        const record_change change(nt, s->guard);
        s->flags = nt_flag_removed;
        nt->sets.leave(s->fd);
    }
    s = nullptr;
    notify_loop(*nt);
}

void net_nt_command(nt_ctx* nt, socket_ctx* s) noexcept {
    if (!nt || !s) return;
    s->signals.fetch_add(1);
    notify_loop(*nt);
}

void net_nt_unlock(nt_ctx* nt) noexcept {
    if (nt) wake_loop(*nt);
}

int net_nt_sync_call(nt_ctx* nt, socket_ctx* s, void* arg, void (*fn)(void* arg)) noexcept {
    if (!nt || !fn) return 0;
    queued_call* call = core::create<queued_call>(nt->file, nt->line, s, arg, fn);
    queued_call* handle = nullptr;
    return call && hand_over(*nt, nt->calls, handle, call) ? 1 : 0;
}

void net_nt_timer_set(nt_ctx* nt, timer_ctx*& t, int seconds, void* arg, timer_callback callback) noexcept {
    if (!nt) return;
    if (seconds <= 0 || !callback) return disarm(*nt, t);
    if (t) return rearm(*nt, *t, seconds, arg, callback);
    auto* record = core::create<timer_ctx>(nt->file, nt->line);
    if (!record) return;
    record->interval = seconds;
    record->due = due_after(seconds);
    record->arg = arg;
    record->callback = callback;
    hand_over(*nt, nt->new_timers, t, record);
}

void net_nt_command_set(nt_ctx* nt, command_ctx*& c, void* arg, command_callback callback) noexcept {
    if (!nt) return;
    if (!callback) {
        net_nt_command_destroy(c);
        c = nullptr;
    } else if (c) {
        change_command(*c, arg, callback);
    } else {
        c = net_nt_command_create(nt, arg, callback);
    }
}

command_ctx* net_nt_command_create(nt_ctx* nt, void* arg, command_callback callback) noexcept {
    if (!nt || !callback) return nullptr;
    auto* record = core::create<command_ctx>(nt->file, nt->line);
    if (!record) return nullptr;
    record->owner = nt;
    record->arg = arg;
    record->callback = callback;
    command_ctx* handle = nullptr;
    hand_over(*nt, nt->new_commands, handle, record);
    return handle;
}

void net_nt_command_destroy(command_ctx* c) noexcept {
    if (c) change_command(*c, nullptr, nullptr);
}

void net_nt_command_exec(command_ctx* c) noexcept {
    if (!c) return;
    // The callback may destroy the command: once the order is seen, the record is not ours to read.
    nt_ctx& owner = *c->owner;
    c->signals.fetch_add(1);
    notify_loop(owner);
}

void net_nt_command_at(command_ctx* c, uint64_t us) noexcept {
    if (!c) return;
    nt_ctx& owner = *c->owner;
    c->due = static_cast<int64_t>(std::min<uint64_t>(us, INT64_MAX));
    notify_loop(owner);
}

uint32_t net_nt_take_places(nt_ctx* nt, int32_t change) noexcept {
    return nt ? nt->places += static_cast<uint32_t>(change) : 0;
}

int net_nt_need_invoke(nt_ctx* nt) noexcept { return nt && !core_thread_iscurrent(nt->thread) ? 1 : 0; }

Thread::Thread() noexcept : queue(core_cmd_open(this, CORE_HERE)) {}

Thread::~Thread() {
    Thread::stop();
    core_cmd_close(queue);
}

void Thread::start() noexcept {
    if (nt) return;
    net_nt_start(nt, CORE_HERE);
    command = net_nt_command_create(nt, this, on_nt_command);
    if (!command) return Thread::stop();
    // For what was posted while the thread was stopped, when there was no command to order.
    net_nt_command_exec(command);
}

void Thread::stop() noexcept {
    net_nt_command_destroy(command);
    command = nullptr;
    net_nt_stop(nt);
}

// An order that comes while the callback runs is not delivered, though its call may have come too late for the first
// look into the queue. The second look, taken after the loop has closed the command's books, finds it.
void Thread::on_nt_command(void* arg, command_ctx*) noexcept {
    auto* self = static_cast<Thread*>(arg);
    core_cmd_process(self->queue);
    net_nt_sync_call(self->nt, nullptr, self,
                     [](void* owner) { core_cmd_process(static_cast<Thread*>(owner)->queue); });
}

}  // namespace net
