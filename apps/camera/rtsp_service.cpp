#include "rtsp_service.h"

#include "core/time.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <numeric>

namespace camera {

rtsp_service::rtsp_service(const clip& played, const options& settings)
    : station_{.played = played,
               .settings = settings,
               .base = time_now(),
               .began = core_timer(),
               .open_tunnels = {},
               .shared_streams = {}} {}

bool rtsp_service::start(std::string& error) {
    const options& settings = station_.settings;
    for (unsigned i = 0; i < settings.threads; ++i) {
        workers_.push_back(std::make_unique<worker>(station_, i == 0));
        workers_.back()->start();
        if (!workers_.back()->nt) {
            error = "cannot start a network thread";
            return false;
        }
        net::net_nt_set_name(workers_.back()->nt, "viewers-%u", i);
    }
    if (!settings.multicast.empty() &&
        !station_.shared_streams.start(*workers_.front(), station_.played, settings, error)) {
        return false;
    }
    return listen(error);
}

bool rtsp_service::listen(std::string& error) {
    listener_ = net_socket_create(AF_INET, SOCK_STREAM, IPPROTO_TCP, CORE_HERE);
    const options& settings = station_.settings;
    const bool listening = listener_ >= 0 && net_tcp_listen(listener_, settings.bind.c_str(), settings.rtsp_port) == 0;
    port_ = listening ? net_socket_get_near_port(listener_) : 0;
    // A taken port shows only here: the system then listens on another.
    if (!port_ || (settings.rtsp_port && port_ != settings.rtsp_port)) {
        error = "cannot listen on " + settings.bind + ":" + std::to_string(settings.rtsp_port);
        return false;
    }
    net::net_nt_socket_add(workers_.front()->nt, accepting_, listener_, net::nt_flag_listening, this,
                           &rtsp_service::on_accept);
    if (!accepting_) error = "out of memory";
    return accepting_ != nullptr;
}

void rtsp_service::stop() {
    if (!workers_.empty()) net::net_nt_socket_rem(workers_.front()->nt, accepting_);
    if (listener_ >= 0) net_socket_close(listener_);
    listener_ = -1;
    station_.open_tunnels.close();
    // The first one last: the others' viewers wake it for the shared streams.
    std::for_each(workers_.rbegin(), workers_.rend(), [](const auto& each) { each->stop(); });
    station_.shared_streams.stop();
    workers_.clear();
}

void rtsp_service::on_accept(void* arg, uint32_t) {
    auto* self = static_cast<rtsp_service*>(arg);
    sockaddr_in peer{};
    const int fd = net_socket_accept(self->listener_, &peer, CORE_HERE);
    if (fd < 0) return;
    const auto least = std::min_element(self->workers_.begin(), self->workers_.end(),
                                        [](const auto& a, const auto& b) { return a->load() < b->load(); });
    (*least)->take(fd, peer);
}

unsigned rtsp_service::viewers() const {
    return std::accumulate(workers_.begin(), workers_.end(), 0u,
                           [](unsigned sum, const auto& each) { return sum + each->count().viewers; });
}

uint64_t rtsp_service::bytes_sent() const {
    return std::accumulate(workers_.begin(), workers_.end(), uint64_t{0},
                           [](uint64_t sum, const auto& each) { return sum + each->count().bytes_sent; });
}

uint64_t rtsp_service::pictures_dropped() const {
    return std::accumulate(workers_.begin(), workers_.end(), uint64_t{0},
                           [](uint64_t sum, const auto& each) { return sum + each->count().pictures_dropped; });
}

}  // namespace camera
