// Reads H.264 in Annex B form from the standard input into a stream, paced by its arrival.
#pragma once

#include "avc/access_units.h"
#include "core/thread.h"
#include "media/stream.h"

#include <atomic>
#include <cstdint>

namespace camera {

/// Reads on a thread of its own. A picture has the time at which its first bytes came.
class pipe_source {
public:
    explicit pipe_source(media::stream& into);
    ~pipe_source();
    pipe_source(const pipe_source&) = delete;
    pipe_source& operator=(const pipe_source&) = delete;

    /// @return false when there is no thread
    bool start();
    void stop() { core_thread_stop(thread_); }
    /// The input has ended, and the stream with it.
    bool has_ended() const { return ended_; }

private:
    static void run(void* arg, thread_ctx* self);
    static void on_unit(void* arg, buffer_t unit);
    void check_order(buffer_t unit);
    void push(buffer_t unit);

    media::stream& into_;  ///< held
    av::AccessUnits units_;
    thread_ctx* thread_ = nullptr;
    std::atomic<bool> ended_ = false;
    bool checked_ = false;  ///< the order of the pictures
    uint32_t left_out_ = 0;
    uint64_t time_ = 0;  ///< of the picture that is coming
};

}  // namespace camera
