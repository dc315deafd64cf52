/// MPEG-DASH of a station's streams: a thread reads them and puts their pictures on the profile bus, where they are
/// packed (inet/net_dash.h); an HTTP service sends what was packed. Below the name of every stream with H.264 pictures:
///     /NAME/manifest.mpd    the live manifest
///     /NAME/vCONTEXT/...    its segments
///
///     media::dash live(station);
///     media::http_service_t* web = media::http_service({.port = 8080});
///     live.serve(*web);
///     live.serve_recorded(*web, "yard");
///     station.add(web);
///     if (!station.start() || !live.start(web->port())) ...
///     ...
///     live.stop();
///     station.stop();
///
/// And of every recording that the program names, for ranges of at most an hour:
///     /recorded/NAME/START-END/manifest.mpd, and its segments; the times as 20261122T101500Z, also with milliseconds
///     (20261122T101500.250Z), or in microseconds since 1970
/// A range is played from the archive (net::Graph::add_archive()) by modules, as fast as they can. When nobody has
/// asked for 20 s it is gone, and is played again for whoever asks for a segment: players may pause.
///
/// A live manifest is there when the window of 15 s has filled, that of a range when all of it has been read. A request
/// before that waits for up to 10 s, and is then answered with 503 and Retry-After. With settings_t::on_demand the
/// camera of a stream that nobody watches is not asked for pictures.
///
/// Bounds:
///   - those of inet/net_dash.h;
///   - of each stream 5 s of frames held for this reader, within the stream's bounds;
///   - of a range, each segment that is being sent, once for all peers, until the last of them has it or takes no more
///     for http_settings_t::stall. The network thread reads it from its file, which was written shortly before: 25 us
///     for one of 1 MB (bench/net_dash_bench), and the time of the disk where the system has dropped it from memory.
///
/// One thread, such as the main thread. Nothing here throws.
#pragma once

#include "media/api.h"
#include "media/http_service.h"
#include "media/station.h"

namespace media {

class MEDIA_API dash final {
public:
    struct settings_t {
        bool on_demand = false;  ///< a stream is packed from its first request on, until 25 s have passed without one
    };

    explicit dash(station& of) noexcept : dash(of, settings_t{}) {}
    dash(station& of, const settings_t& settings) noexcept;
    /// stop()
    ~dash();
    dash(const dash&) = delete;
    dash& operator=(const dash&) = delete;

    /// Adds the routes of all streams that the station has now to a service, before it is started.
    /// @return 1; 0 when a path is taken or memory is out
    int serve(http_service_t& by) noexcept;

    /// Adds the route of a recording. @param name  its source, as the archive knows it; copied
    /// @return as serve()
    int serve_recorded(http_service_t& by, const char* name) noexcept;

    /// Starts packing, after the station. Segments that an earlier run of that number has left in ./temp are removed.
    /// @param number  tells this process from others that work in the same directory, such as the port of the service
    /// @return 1, or 0 with a reason in `error`
    int start(uint32_t number, failure_t* error = nullptr) noexcept;
    /// Ends packing, before the station. Requests are answered with 503 from then on.
    void stop() noexcept;

    /// Whether `which` is offered: it has H.264 pictures, and they can be packed; or, on demand, nobody knows yet what
    /// it has: the first request for its manifest has it fetched. Any thread.
    int offers(const stream& which) const noexcept;

    /// Peers that were sent a manifest or a segment within the last 10 s, once for each stream or recording; 1024 at
    /// the most. A player has no session: those behind one cache or router count as one. station::totals() does not
    /// have them. Any thread.
    uint32_t viewers() const noexcept;

    struct inside;

private:
    inside* inside_;
};

}  // namespace media
