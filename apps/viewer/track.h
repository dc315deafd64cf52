// A track being received: which frames are whole, how long it is, what it counts.
#pragma once

#include "track_report.h"

#include "avc/frame.h"
#include "inet/rtsp_protocol.h"

#include <cstdint>

namespace viewer {

class track {
public:
    /// @param limit     microseconds of media that are wanted; 0 is without end
    /// @param recorded  its frames go to the files
    track(const rtsp3::trak_t& source, uint64_t limit, bool recorded);

    /// Counts a frame. @return true when it is whole and wanted.
    bool take(const av::frame_t& frame);

    bool is_media() const { return media_; }
    bool is_recorded() const { return recorded_; }
    /// Microseconds from the first frame to the last.
    int64_t length() const { return last_ - first_; }
    /// All that is wanted of it has come.
    bool is_done() const { return limit_ && length() >= static_cast<int64_t>(limit_); }
    /// Its packets end with what may be the end of a frame.
    bool is_at_rest() const { return source_.rtp->marker; }
    /// The server said that nothing follows.
    bool is_over() const { return source_.rtp->bye; }
    uint64_t packets() const { return source_.rtp->received; }
    track_report report() const;

private:
    const rtsp3::trak_t& source_;
    uint64_t limit_;
    bool recorded_;
    bool media_;         ///< picture or sound, which come all the time
    bool wait_for_key_;  ///< what comes builds on something that is missing
    bool started_ = false;
    int64_t first_ = 0;
    int64_t last_ = 0;
    track_report counts_;
};

}  // namespace viewer
