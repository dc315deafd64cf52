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
    rtsp3::Rtsp* session;
};

constexpr uint32_t longest_report = 1500;
constexpr int reports_at_once = 64;

/// Who comes up to the present is sent the past in steps of so many microseconds.
constexpr uint64_t catch_up_step = 10'000;

}  // namespace

worker::~worker() { stop(); }

void worker::start() noexcept {
    net::Thread::start();
    if (!nt) return;
    tick_ = net::net_nt_command_create(nt, this, &worker::on_tick);
    net::net_nt_timer_set(nt, second_, 1, this, &worker::on_second);
    if (!tick_ || !second_) stop();
}

void worker::stop() noexcept {
    if (!nt) return;
    // Ends the loop first: its callbacks may use the handles until then, viewers are not called any more and can be
    // deleted from here; all registrations went with it.
    net::Thread::stop();
    tick_ = nullptr;
    second_ = nullptr;
    reports_ = nullptr;
    core_cmd_process(queue);
    viewers_.clear();
    close_udp();
}

void worker::take(int fd, const sockaddr_in& peer, rtsp3::Rtsp* session) {
    auto pending = std::make_unique<handover>(handover{fd, peer, session});
    if (!core_cmd_exec(queue, &worker::on_take, pending.get())) {
        net_socket_close(fd);
        rtsp3::Rtsp::destroy(session);
        return;
    }
    static_cast<void>(pending.release());
    ++taken_;
    net::net_nt_command_exec(command);
}

void worker::on_take(void* owner, void* arg) {
    auto* self = static_cast<worker*>(static_cast<net::Thread*>(owner));
    const std::unique_ptr<handover> given(static_cast<handover*>(arg));
    // Stopping: what was handed over last finds no thread.
    if (!self->nt || !self->make_place()) {
        net_socket_close(given->fd);
        rtsp3::Rtsp::destroy(given->session);
        --self->taken_;
        return;
    }
    self->viewers_.push_back(std::make_unique<viewer>(*self, given->fd, given->peer, given->session));
    viewer& added = *self->viewers_.back();
    if (given->session && !added.finished()) self->pair(added);
    on_sweep(self);
}

/// Whoever plays is not driven out by those who only connect.
bool worker::make_place() {
    if (viewers_.size() < most_viewers) return true;
    const auto idle = std::find_if(viewers_.begin(), viewers_.end(), [](const auto& each) { return each->idle(); });
    if (idle == viewers_.end()) return false;
    (*idle)->finish();
    on_sweep(this);
    return true;
}

void worker::pair(viewer& post) {
    const auto get = std::find_if(viewers_.begin(), viewers_.end(), [&](const auto& each) { return post.fits(*each); });
    if (get == viewers_.end() || !post.join(**get)) post.finish();
}

void worker::on_sweep(void* arg) {
    auto* self = static_cast<worker*>(arg);
    self->taken_ -= static_cast<unsigned>(std::erase_if(self->viewers_, [](const auto& v) { return v->finished(); }));
}

void worker::on_tick(void* arg, net::command_ctx*) {
    auto* self = static_cast<worker*>(arg);
    const uint64_t now = self->now();
    for (const auto& each : self->viewers_)
        each->advance(now);
    if (self->first_) {
        const station& shared = self->station_;
        self->count_sent(self->shared_streams().advance(shared.settings, shared.base, now));
    }
    on_sweep(self);
    self->set_next_tick(now);
}

/// With the first frame behind those that were sent at `now`, which may have come by already; rests when nobody
/// watches.
void worker::set_next_tick(uint64_t now) {
    bool watched = first_ && shared_streams().watched();
    bool coming_up = first_ && shared_streams().coming_up();
    for (const auto& each : viewers_) {
        watched |= each->watching();
        coming_up |= each->coming_up();
    }
    if (!watched) return;
    const uint64_t position = now - base();
    const uint64_t next = station_.played.next_time(position);
    net::net_nt_command_at(tick_, station_.began + (coming_up ? std::min(next, position + catch_up_step) : next));
}

rtp::Packets* worker::packets_of(const av::frame_t& frame) { return cut_.of(frame); }

void worker::on_second(void* arg, net::timer_ctx*) {
    auto* self = static_cast<worker*>(arg);
    for (const auto& each : self->viewers_)
        each->watch();
    on_sweep(self);
    const auto playing = std::ranges::count_if(self->viewers_, [](const auto& each) { return each->watching(); });
    self->counters_.viewers = static_cast<unsigned>(playing);
}

const channel* worker::find_channel(std::string_view path) const {
    const auto found = std::find_if(station_.played.channels.begin(), station_.played.channels.end(),
                                    [path](const channel& each) { return each.path == path; });
    return found == station_.played.channels.end() ? nullptr : &*found;
}

uint16_t worker::udp_port() {
    // The pair of a last attempt that failed is left open.
    if (!datagrams_.is_open() &&
        (socket_rtp_pair(&rtp_socket_, &rtcp_socket_) != 1 || !datagrams_.open(*this, rtp_socket_))) {
        close_udp();
        return 0;
    }
    if (!reports_) net::net_nt_socket_add(nt, reports_, rtcp_socket_, net::nt_flag_read, this, &worker::on_report);
    return net_socket_get_near_port(rtp_socket_);
}

/// A report keeps the session of the viewer alive that it comes from.
void worker::on_report(void* arg, uint32_t) {
    auto* self = static_cast<worker*>(arg);
    uint8_t bytes[longest_report];
    buf_t report{bytes, sizeof bytes, 0};
    sockaddr_in from{};
    for (int i = 0; i < reports_at_once && net_udp_recv(self->rtcp_socket_, report, &from) >= 0; ++i) {
        for (const auto& each : self->viewers_) {
            if (each->take_report(from, {report.data, report.length})) break;
        }
    }
}

void worker::close_udp() {
    datagrams_.close();
    if (reports_) net::net_nt_socket_rem(nt, reports_);
    for (int* fd : {&rtp_socket_, &rtcp_socket_}) {
        if (*fd >= 0) net_socket_close(*fd);
        *fd = -1;
    }
}

}  // namespace camera
