/// A station: network threads, ports, streams, and the services that send them.
///
///     media::station station;
///     media::stream* live = station.add_stream("live");
///     station.add(media::rtsp_service({.port = 8554}));
///     if (!live || !station.start()) ...
///     live->push(frame);  // any thread
///
/// Threads:
///     add_stream(), remove_stream(), find(), streams(), run()    any thread
///     bind(), thread_count(), thread_at(), least_loaded(),       any thread between the return of start() and the call
///     totals()                                                   of stop()
///     all else                                                   one thread, such as the main thread, and no callback
/// Nothing here throws.
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
    /// Calls stop(), and releases the services and the station's hold on its streams.
    ~station();
    station(const station&) = delete;
    station& operator=(const station&) = delete;

    /// A new stream, held by the station. Valid until remove_stream() or the station's end. @return null when the name
    /// is taken, null or empty, or when memory is out
    stream* add_stream(const char* name, const limits_t& limits = {}, failure_t* error = nullptr) noexcept;
    /// Ends a stream, and tells its readers. It is valid until the last of them has released it.
    void remove_stream(stream* which) noexcept;
    /// The stream of that name, held once more: release it with stream::drop(). Null when there is none.
    stream* find(const char* name) noexcept;
    /// Calls `each` with every stream, in the order of their making.
    void streams(void (*each)(void* arg, stream& which), void* arg) noexcept;

    /// Takes a service over. Call it before start(). @return 1; 0 for null, or when memory is out: the service is then
    /// deleted
    int add(service* taken, failure_t* error = nullptr) noexcept;
    /// Starts threads and listens. @return 1, or 0 with a reason in `error`; then nothing runs. After 1 `error` tells
    /// of the ports that could not be had and that no service needs (service::needs_port()), separated by "; "
    int start(failure_t* error = nullptr) noexcept;
    /// Ends all clients and threads, in three seconds at the most. Streams and services stay, for another start().
    void stop() noexcept;

    const char* bind() const noexcept;
    unsigned thread_count() const noexcept;
    /// @param index  below thread_count(), after start()
    thread& thread_at(unsigned index) noexcept;
    /// Gives a connection to the thread with the fewest clients.
    thread& least_loaded() noexcept;

    /// Runs `work(arg)` on the control thread, then `done(back, arg)` on the thread `back`. For work that may block,
    /// such as files and name look-up. Work runs one at a time, in the order of the calls.
    /// stop() waits for all ordered work, and calls the remaining `done` itself: thread::nt() is then null.
    /// @return 1; 0 when memory is out, or when the station does not run: neither is called then
    int run(void (*work)(void* arg), void (*done)(thread& on, void* arg), void* arg, thread& back) noexcept;

    struct totals_t {
        uint32_t watching;
        uint64_t bytes;
        uint64_t frames;
        uint64_t dropped;
    };
    /// Sum of the counters of all threads; 0 while it does not run.
    totals_t totals() const noexcept;

    struct inside;
    inside& in() const noexcept { return *inside_; }

private:
    inside* inside_;
};

}  // namespace media
