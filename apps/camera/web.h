// The camera in a browser: its page, and its state for programs.
#pragma once

#include "options.h"
#include "program.h"

#include "core/time.h"
#include "media/dash.h"
#include "media/http_service.h"
#include "media/onvif.h"
#include "media/rtmp_service.h"
#include "media/station.h"

#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace camera {

/// Serves the page at "/", /status.json, /metrics and, without a user, /healthz, the streams as DASH, and ONVIF; the
/// JPEG pictures are the service's own. It lives as long as the station.
class web {
public:
    web(media::station& station, const options& settings)
        : station_(station), dash_(station, {.on_demand = settings.on_demand}) {}

    /// Adds the HTTP service to the station, before its start. @param rtsp, rtmp  the other services; RTMP may be null
    /// @param recorded  streams whose recordings it offers, too
    /// @return false with the reason in `error`
    bool open(const options& settings, const media::service& rtsp, const media::rtmp_service_t* rtmp,
              const std::vector<std::string>& recorded, media::failure_t& error);
    /// Tells that the stream `pictures` shows in JPEG what `film` shows. Before open().
    void show_in_place(std::string film, std::string pictures) {
        film_ = std::move(film);
        pictures_ = std::move(pictures);
    }
    /// Tells of the stream whose AAC RTSP leaves out; null for none. Before open().
    void leave_out_aac(const char* of) { without_aac_ = of; }
    /// After the station's start, and before its end. Nothing when it is not open.
    bool start(media::failure_t& error) { return port() == 0 || dash_.start(http_->port(), &error); }
    void stop() { dash_.stop(); }
    /// Who watches by DASH: station::totals() does not have them. Any thread.
    uint32_t film_viewers() const { return dash_.viewers(); }
    /// 0 when it is not open, or its port could not be had.
    uint16_t port() const { return http_ ? http_->port() : uint16_t{0}; }

private:
    static void on_status(void* arg, media::http_exchange& asked);
    static void on_metrics(void* arg, media::http_exchange& asked);
    static void on_health(void* arg, media::http_exchange& asked);
    bool serve_all();
    bool serve_onvif(const options& settings);
    bool announce(const options& settings, media::failure_t& error);

    struct service_state {
        const char* name;
        media::station::totals_t totals;
        uint64_t bit_rate;  ///< sent
        unsigned frame_rate;
    };
    using services_t = std::vector<service_state>;
    services_t services() const;

    media::station& station_;
    media::dash dash_;
    std::optional<media::onvif> device_;
    const uint64_t started_ = time_now();  ///< tells the runs of the program apart
    std::string film_;
    std::string pictures_;
    const char* without_aac_ = nullptr;
    const media::service* rtsp_ = nullptr;
    const media::rtmp_service_t* rtmp_ = nullptr;
    media::http_service_t* http_ = nullptr;
    mutable std::mutex telling_;
    mutable media::station::totals_t told_{};  ///< of RTSP, the highest so far
    mutable apps::rate_of bytes_[3];           ///< of the services, as they come in services()
    mutable apps::rate_of frames_[3];
};

}  // namespace camera
