/// A station: network threads, ports, streams, and the services that send them.
///
///     media::station station;
///     media::stream* live = station.add_stream("live");
///     station.add(media::rtsp_service({.port = 8554}));
///     if (!live || !station.start()) ...
///     live->push(frame);  // any thread
///
/// A program may use any of these functions from its main thread. Streams and services are added and removed from one
/// thread. Nothing here throws.
#pragma once

#include "media/api.h"
#include "media/service.h"
#include "media/stream.h"

#include <cstdint>

namespace media {

class MEDIA_API station final {
public:
    struct settings_t {
        const char* bind = "127.0.0.1";  ///< dotted address to listen on; 0.0.0.0 for all interfaces
        unsigned threads = 1;            ///< network threads, each for up to 500 connections; 64 at most
    };

    station() noexcept : station(settings_t{}) {}
    explicit station(const settings_t& settings) noexcept;
    /// stop(), and lets go of streams and services.
    ~station();
    station(const station&) = delete;
    station& operator=(const station&) = delete;

    /// A new stream, the station's. @return null for a name that is taken, null or empty, or when memory is out
    stream* add_stream(const char* name, const limits_t& limits = {}, failure_t* error = nullptr) noexcept;
    /// Ends a stream; its readers are told. Valid until the last of them has let go of it.
    void remove_stream(stream* which) noexcept;
    /// The stream of that name, held once more: the caller lets go of it with stream::drop(). Null when there is none.
    /// Any thread.
    stream* find(const char* name) noexcept;
    /// Calls `each` with every stream, in the order of their making. Any thread.
    void streams(void (*each)(void* arg, stream& which), void* arg) noexcept;

    /// Takes a service over, before start(). @return 1, or 0 for null or when memory is out: it is then deleted
    int add(service* taken, failure_t* error = nullptr) noexcept;
    /// Starts threads and listens. @return 1, or 0 with a reason in `error`; then nothing runs
    int start(failure_t* error = nullptr) noexcept;
    /// Ends all clients and threads. Streams and services stay, for another start().
    void stop() noexcept;

    const char* bind() const noexcept;
    unsigned thread_count() const noexcept;
    /// @param index  below thread_count(), after start()
    thread& thread_at(unsigned index) noexcept;
    /// Gives a connection to the thread with the fewest clients.
    thread& least_loaded() noexcept;

    /// Runs `work(arg)` on the control thread, off the network threads, for what may block: files, name look-up. One
    /// after the other, in the order of the calls. Then runs `done(arg)` on the thread `back`.
    /// @return 1, or 0 when memory is out or the station does not run: neither is then called. stop() runs what was
    /// ordered to its end, and calls the `done` of what is left itself: thread::nt() is then null
    int run(void (*work)(void* arg), void (*done)(thread& on, void* arg), void* arg, thread& back) noexcept;

    struct totals_t {
        uint32_t watching;
        uint64_t bytes;
        uint64_t dropped;
    };
    /// Sum of the counters of all threads. Any thread.
    totals_t totals() const noexcept;

    struct inside;
    inside& in() const noexcept { return *inside_; }

private:
    inside* inside_;
};

}  // namespace media
