// Records what the streams carry: files of a minute each in one folder, the oldest of which go.
#pragma once

#include "core/profile.h"
#include "media/station.h"
#include "media/stream.h"

#include <cstdint>
#include <filesystem>
#include <list>
#include <string>
#include <vector>

struct thread_ctx;
struct event_ctx;

namespace camera {

class kept_stream;

/// Streams with H.264 pictures are recorded, with their sound. A file begins with a key picture and holds a minute, up
/// to the next key picture. What is lost by a crash is the last fragment, of about a second.
///
/// Modules that play recordings find them over the bus (docs/modules.md). Recordings of these streams that were in the
/// folder before count, and go first.
class keeper {
public:
    keeper();
    ~keeper();
    keeper(const keeper&) = delete;
    keeper& operator=(const keeper&) = delete;

    /// Takes the streams that the station has now. @param limit  bytes of all recordings; the one at work may pass it
    /// @return false with the reason in `error`
    bool open(const std::string& folder, uint64_t limit, media::station& station, media::failure_t& error);
    /// The names of the streams that are recorded; empty when it is not open.
    std::vector<std::string> names() const;
    /// Nothing when it is not open. @return false when there is no thread for it
    bool start();
    /// Completes the files. Before the station ends.
    void stop();

private:
    void work(thread_ctx* thread);
    void make_room();
    void answer(profile_ctx* bus, const param_t* asked) const;

    std::filesystem::path folder_;
    uint64_t limit_ = 0;
    std::list<kept_stream> streams_;
    profile_ctx* bus_ = nullptr;  ///< players ask here for what there is
    event_ctx* news_ = nullptr;
    thread_ctx* thread_ = nullptr;
};

}  // namespace camera
