#include "worker.h"

#include "avc/fcc.h"
#include "core/cmd.h"
#include "core/time.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <new>

namespace camera {
namespace {

/// Behind by more than this, after a suspended machine for one, the player goes on with what is due now.
constexpr uint64_t longest_catch_up = 1'000'000;

/// A connection on its way to the thread.
struct handover {
    int fd;
    sockaddr_in peer;
};

}  // namespace

worker::worker(const clip& played, const options& settings, uint64_t base)
    : clip_(played), settings_(settings), base_(base) {
    for (const channel& each : clip_.channels) {
        for (const track& source : each.tracks) {
            player playing{&each, &source, {}, 0};
            for (size_t i = 0; i < source.size(); ++i) {
                playing.frames.emplace_back(avc_frame_dup(&source.frame(i), CORE_HERE));
                if (!playing.frames.back()) throw std::bad_alloc();
            }
            players_.push_back(std::move(playing));
        }
    }
}

worker::~worker() { stop(); }

void worker::start() noexcept {
    net::Thread::start();
    if (nt) tick_ = net::net_nt_command_create(nt, this, &worker::on_tick);
}

void worker::stop() noexcept {
    if (!nt) return;
    net::net_nt_command_destroy(tick_);
    tick_ = nullptr;
    // Ends the loop first: viewers are not called any more and can be deleted from here; their registrations went with
    // it.
    net::Thread::stop();
    core_cmd_process(queue);
    viewers_.clear();
    if (rtp_socket_ >= 0) net_socket_close(rtp_socket_);
    if (rtcp_socket_ >= 0) net_socket_close(rtcp_socket_);
    rtp_socket_ = rtcp_socket_ = -1;
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
    for (player& playing : self->players_)
        self->play(playing, now);
    for (const auto& each : self->viewers_) {
        if (each->watching()) each->flush();
    }
    const auto is_finished = [](const auto& each) { return each->finished(); };
    if (std::any_of(self->viewers_.begin(), self->viewers_.end(), is_finished)) on_sweep(self);
}

void worker::play(player& playing, uint64_t now) {
    for (; base_ + playing.source->time(playing.next) <= now; ++playing.next) {
        av::frame_t& frame = *playing.frames[playing.next % playing.frames.size()];
        frame.time = base_ + playing.source->time(playing.next);
        if (now - frame.time > longest_catch_up) continue;
        for (const auto& each : viewers_) {
            if (each->watching() == playing.of) each->send(frame);
        }
    }
}

const channel* worker::find_channel(std::string_view path) const {
    const auto found = std::find_if(clip_.channels.begin(), clip_.channels.end(),
                                    [path](const channel& each) { return each.path == path; });
    return found == clip_.channels.end() ? nullptr : &*found;
}

uint64_t worker::next_start(const channel& watched) const {
    uint64_t start = 0;
    for (const player& playing : players_) {
        if (playing.of != &watched) continue;
        uint64_t number = playing.next;
        if (playing.source->fcc() == av::fcc_h264) {
            while (!playing.source->frame(number).key)
                ++number;
            return base_ + playing.source->time(number);
        }
        start = std::max(start, base_ + playing.source->time(number));
    }
    return start;
}

uint16_t worker::udp_port() {
    if (rtp_socket_ < 0 && socket_rtp_pair(&rtp_socket_, &rtcp_socket_) != 1) {
        // The pair of the last attempt is left open.
        if (rtp_socket_ >= 0) net_socket_close(rtp_socket_);
        if (rtcp_socket_ >= 0) net_socket_close(rtcp_socket_);
        rtp_socket_ = rtcp_socket_ = -1;
        return 0;
    }
    return net_socket_get_near_port(rtp_socket_);
}

}  // namespace camera
