// The camera on the network: listens, spreads the viewers over network threads.
#pragma once

#include "clip.h"
#include "options.h"
#include "worker.h"

#include "inet/net_tcp.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace camera {

class rtsp_service {
public:
    /// Both live longer than the service.
    rtsp_service(const clip& played, const options& settings);
    ~rtsp_service() { stop(); }
    rtsp_service(const rtsp_service&) = delete;
    rtsp_service& operator=(const rtsp_service&) = delete;

    /// @return false when it cannot listen, with the reason in `error`.
    bool start(std::string& error);
    void stop();

    /// The port that is listened on.
    uint16_t port() const { return port_; }
    unsigned viewers() const;
    uint64_t bytes_sent() const;
    uint64_t pictures_dropped() const;

private:
    static void on_accept(void* arg, int fd, const sockaddr_in* peer);
    bool listen(std::string& error);

    station station_;
    net::tcp_ctx* listener_ = nullptr;
    uint16_t port_ = 0;
    std::vector<std::unique_ptr<worker>> workers_;
};

}  // namespace camera
