// The sources that the camera fetches, each into a stream of its own.
#pragma once

#include "options.h"
#include "pipe_source.h"

#include "inet/net_thread.h"
#include "media/station.h"
#include "media/watcher.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace camera {

/// Network threads beside those of the station fetch them, so that viewers and sources have descriptors of their own.
class sources {
public:
    sources() = default;
    ~sources() { stop(); }
    sources(const sources&) = delete;
    sources& operator=(const sources&) = delete;

    /// This and start() answer false with the reason in `error`. The station outlives the sources.
    bool open(const options& wanted, media::station& station, media::failure_t& error);
    bool start(media::failure_t& error);
    /// After the station has stopped: it calls for what is wanted.
    void stop();

    /// The names of the streams.
    const std::vector<std::string>& names() const { return names_; }
    /// How many are fetched at this moment.
    size_t fetched() const;
    /// There was a pipe alone, and it has ended.
    bool are_over() const { return pipe_ && watched_.empty() && pipe_->has_ended(); }

private:
    struct watched {
        watched(const source& of, const media::watcher::settings_t& settings)
            : name(of.name), watcher(of.url.c_str(), settings) {}
        static void on_event(void* arg, const media::watch_event_t& event);
        static void on_wanted(void* arg, int yes);

        std::string name;
        bool lost = false;  ///< what has been told of it
        media::watcher watcher;
    };

    net::nt_ctx* thread_for(size_t index);

    std::vector<std::string> names_;
    std::vector<std::unique_ptr<net::Thread>> threads_;
    std::vector<std::unique_ptr<watched>> watched_;
    std::unique_ptr<pipe_source> pipe_;
    bool on_demand_ = false;
};

}  // namespace camera
