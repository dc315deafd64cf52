#include "watcher/name_lookup.h"

#include "core/memory.h"
#include "core/thread.h"
#include "inet/net_socket.h"

#include <atomic>
#include <cstdio>
#include <new>

namespace media::fetch {

// Not of the library's counted memory: a look-up that the system does not end may outlive the program's work.
struct name_lookup::job_t {
    char text[256] = "";  ///< the name, then the address
    std::atomic<state_t> now = state_t::running;
};

void name_lookup::begin(const char* host) noexcept {
    if (state() == state_t::running) return;
    job_.reset();
    try {
        job_ = std::make_shared<job_t>();
        std::snprintf(job_->text, sizeof job_->text, "%s", host);
        // The number of a host is 0 for what is no address.
        if (net_hostid(host, 1) != 0) {
            job_->now = state_t::found;
            return;
        }
        auto shared = std::make_unique<std::shared_ptr<job_t>>(job_);
        if (core_thread_invoke(run, shared.get(), CORE_HERE)) {
            static_cast<void>(shared.release());  // run() takes it
            return;
        }
    } catch (const std::bad_alloc&) {
        job_.reset();
        return;
    }
    job_->now = state_t::failed;
}

void name_lookup::run(void* arg) noexcept {
    const std::unique_ptr<std::shared_ptr<job_t>> shared(static_cast<std::shared_ptr<job_t>*>(arg));
    job_t& todo = **shared;
    sockaddr_in address{};
    if (net_addr_setup(address, todo.text, 0) != 0) {
        todo.now = state_t::failed;
        return;
    }
    net_addr_ip(address, todo.text, sizeof todo.text);
    todo.now = state_t::found;
}

name_lookup::state_t name_lookup::state() const noexcept { return job_ ? job_->now.load() : state_t::none; }

const char* name_lookup::address() const noexcept { return job_ ? job_->text : ""; }

}  // namespace media::fetch
