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
    const options& settings = station_.settings;
    port_ = settings.rtsp_port;
    bool listening = net::net_tcp_create(listener_, workers_.front()->nt, CORE_HERE) == 0;
    if (listening && port_ == 0) {
        // The system's choice has to be known to listen on it.
        listening = net_socket_bind(listener_->fd, settings.bind.c_str(), 0) == 0;
        port_ = net_socket_get_near_port(listener_->fd);
    }
    listening =
        listening && net::net_tcp_listen2(listener_, settings.bind.c_str(), port_, this, &rtsp_service::on_accept) == 0;
    // A taken port shows only here: the system then listens on another.
    if (listening && net_socket_get_near_port(listener_->fd) == port_) return true;
    error = "cannot listen on " + settings.bind + ":" + std::to_string(settings.rtsp_port);
    return false;
}

void rtsp_service::stop() {
    net::net_tcp_close(listener_);
    station_.open_tunnels.close();
    // The first one last: the others' viewers wake it for the shared streams.
    std::for_each(workers_.rbegin(), workers_.rend(), [](const auto& each) { each->stop(); });
    station_.shared_streams.stop();
    workers_.clear();
}

void rtsp_service::on_accept(void* arg, int fd, const sockaddr_in* peer) {
    auto* self = static_cast<rtsp_service*>(arg);
    const auto least = std::min_element(self->workers_.begin(), self->workers_.end(),
                                        [](const auto& a, const auto& b) { return a->load() < b->load(); });
    (*least)->take(fd, *peer);
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
