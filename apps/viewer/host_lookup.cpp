#include "host_lookup.h"

#include "core/memory.h"
#include "core/thread.h"
#include "inet/net_socket.h"

#include <atomic>

namespace viewer {

struct host_lookup::job {
    std::string text;  ///< the name, then the address
    std::atomic<state> now = state::running;
};

host_lookup::host_lookup(const std::string& host) : job_(std::make_shared<job>()) {
    job_->text = host;
    // The number of a host is 0 for what is no address.
    if (net_hostid(host.c_str(), 1) != 0) {
        job_->now = state::found;
        return;
    }
    auto shared = std::make_unique<std::shared_ptr<job>>(job_);
    if (core_thread_invoke(&host_lookup::run, shared.get(), CORE_HERE)) {
        static_cast<void>(shared.release());  // run() takes it
    } else {
        job_->now = state::failed;
    }
}

void host_lookup::run(void* arg) {
    const std::unique_ptr<std::shared_ptr<job>> shared(static_cast<std::shared_ptr<job>*>(arg));
    job& todo = **shared;
    sockaddr_in address{};
    if (net_addr_setup(address, todo.text.c_str(), 0) != 0) {
        todo.now = state::failed;
        return;
    }
    char text[net_addr_size];
    net_addr_ip(address, text, sizeof text);
    todo.text = text;
    todo.now = state::found;
}

host_lookup::state host_lookup::now() const { return job_->now; }

const std::string& host_lookup::address() const { return job_->text; }

}  // namespace viewer
