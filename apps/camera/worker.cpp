#include "worker.h"

#include "core/cmd.h"
#include "core/time.h"
#include "inet/net_socket.h"

#include <algorithm>

namespace camera {
namespace {

/// A connection on its way to the thread.
struct handover {
    int fd;
    sockaddr_in peer;
};

}  // namespace

worker::worker(const clip& played, const options& settings, uint64_t base)
    : clip_(played), settings_(settings), base_(base) {}

worker::~worker() { stop(); }

void worker::start() noexcept {
    net::Thread::start();
    if (!nt) return;
    tick_ = net::net_nt_command_create(nt, this, &worker::on_tick);
    net::net_nt_timer_set(nt, second_, 1, this, &worker::on_second);
}

void worker::stop() noexcept {
    if (!nt) return;
    net::net_nt_command_destroy(tick_);
    tick_ = nullptr;
    second_ = nullptr;
    // Ends the loop first: viewers are not called any more and can be deleted from here; their registrations went with
    // it.
    net::Thread::stop();
    core_cmd_process(queue);
    viewers_.clear();
    close_udp();
}

void worker::take(int fd, const sockaddr_in& peer) {
    auto pending = std::make_unique<handover>(handover{fd, peer});
    if (!core_cmd_exec(queue, &worker::on_take, pending.get())) {
        net_socket_close(fd);
        return;
    }
    static_cast<void>(pending.release());  // on_take() takes it
    ++taken_;
    net::net_nt_command_exec(command);
}

void worker::on_take(void* owner, void* arg) {
    auto* self = static_cast<worker*>(static_cast<net::Thread*>(owner));
    const std::unique_ptr<handover> given(static_cast<handover*>(arg));
    // Stopping: what was handed over last finds no thread.
    if (!self->nt) {
        net_socket_close(given->fd);
        return;
    }
    self->viewers_.push_back(std::make_unique<viewer>(*self, given->fd, given->peer));
    self->counters_.viewers = static_cast<unsigned>(self->viewers_.size());
    if (self->viewers_.back()->finished()) on_sweep(self);
}

void worker::on_sweep(void* arg) {
    auto* self = static_cast<worker*>(arg);
    self->taken_ -= static_cast<unsigned>(std::erase_if(self->viewers_, [](const auto& v) { return v->finished(); }));
    self->counters_.viewers = static_cast<unsigned>(self->viewers_.size());
}

void worker::on_tick(void* arg, net::command_ctx*) {
    auto* self = static_cast<worker*>(arg);
    const uint64_t now = time_now();
    for (const auto& each : self->viewers_)
        each->advance(now);
    if (self->packets_.is_open()) self->packets_.send();
    on_sweep(self);
}

void worker::on_second(void* arg, net::timer_ctx*) {
    auto* self = static_cast<worker*>(arg);
    for (const auto& each : self->viewers_)
        each->watch();
    on_sweep(self);
}

const channel* worker::find_channel(std::string_view path) const {
    const auto found = std::find_if(clip_.channels.begin(), clip_.channels.end(),
                                    [path](const channel& each) { return each.path == path; });
    return found == clip_.channels.end() ? nullptr : &*found;
}

uint16_t worker::udp_port() {
    // The pair of a last attempt that failed is left open.
    if (!packets_.is_open() &&
        (socket_rtp_pair(&rtp_socket_, &rtcp_socket_) != 1 || !packets_.open(*this, rtp_socket_))) {
        close_udp();
        return 0;
    }
    return net_socket_get_near_port(rtp_socket_);
}

void worker::close_udp() {
    packets_.close();
    for (int* fd : {&rtp_socket_, &rtcp_socket_}) {
        if (*fd >= 0) net_socket_close(*fd);
        *fd = -1;
    }
}

}  // namespace camera
