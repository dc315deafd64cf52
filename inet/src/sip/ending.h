// The end of an object that lives on the network thread, asked for by any thread. What it needs is made beforehand: it
// cannot fail. It may take its time, in which the thread goes on with everything else.
#pragma once

#include "core/thread.h"
#include "inet/net_thread.h"

#include <cstdint>

namespace sip {

class ending {
public:
    /// @param may_wait  false: it has to end now
    /// @return 0 when it has ended, else the time in microseconds of core_timer() at which it is called again
    using step = uint64_t (*)(void* of, bool may_wait);

    ending(net::nt_ctx* nt, void* of, step shut_down) noexcept : nt_(nt), of_(of), shut_down_(shut_down) {}
    ~ending() {
        net::net_nt_command_destroy(command_);  // waits for its callback, which sets the event
        _event_free(done_);
    }
    ending(const ending&) = delete;
    ending& operator=(const ending&) = delete;

    /// @return false when memory is out
    bool prepare(const char* file, int line) noexcept {
        done_ = _event_create(file, line);
        command_ = net::net_nt_command_create(nt_, this, on_command);
        return done_ && command_;
    }
    /// Runs the function on the network thread and returns when it has ended.
    void run() noexcept {
        if (!net::net_nt_need_invoke(nt_)) return static_cast<void>(shut_down_(of_, false));
        net::net_nt_command_exec(command_);
        event_wait(done_, event_infinite);
    }

private:
    static void on_command(void* arg, net::command_ctx* command) noexcept {
        auto& self = *static_cast<ending*>(arg);
        if (const uint64_t next = self.shut_down_(self.of_, true)) return net::net_nt_command_at(command, next);
        event_set(self.done_);
    }

    net::nt_ctx* const nt_;
    void* const of_;
    const step shut_down_;
    event_ctx* done_ = nullptr;
    net::command_ctx* command_ = nullptr;
};

}  // namespace sip
