#include "track.h"

#include "avc/fcc.h"

#include <algorithm>

namespace viewer {

track::track(const rtsp3::trak_t& source, uint64_t limit, bool recorded)
    : source_(source),
      limit_(limit),
      recorded_(recorded),
      media_(fcc_is_audio(source.fcc) || fcc_is_video(source.fcc)),
      wait_for_key_(source.fcc == av::fcc_h264) {}

bool track::take(const av::frame_t& frame) {
    last_ = source_.media_time;
    if (!started_) first_ = last_;
    started_ = true;
    if (is_done()) return false;
    if (frame.complete && frame.key) wait_for_key_ = false;
    if (!frame.complete && frame.fcc == av::fcc_h264) wait_for_key_ = true;
    if (!frame.complete || wait_for_key_) {
        ++counts_.left_out;
        return false;
    }
    ++counts_.frames;
    counts_.bytes += frame.size;
    return true;
}

track_report track::report() const {
    track_report result = counts_;
    const rtp::trak_t& rtp = *source_.rtp;
    result.fcc = source_.fcc;
    result.packets = rtp.received;
    result.lost = rtp.lost;
    const int64_t wanted = limit_ ? std::min(length(), static_cast<int64_t>(limit_)) : length();
    result.seconds = static_cast<double>(wanted) * 1e-6;
    if (rtp.clock_rate > 0) result.jitter_ms = rtp.jitter / rtp.clock_rate * 1000;
    return result;
}

}  // namespace viewer
