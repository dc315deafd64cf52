#include "watcher/receipt.h"

#include "avc/fcc.h"

#include <algorithm>

namespace media::fetch {

receipt::receipt(uint32_t fcc, uint64_t limit) noexcept
    : limit_(limit), media_(fcc_is_audio(fcc) || fcc_is_video(fcc)), wait_for_key_(fcc == av::fcc_h264) {
    counts_.fcc = fcc;
}

bool receipt::take(const av::frame_t& frame, int64_t media_time) noexcept {
    if (started_) last_ = std::max(last_, media_time);
    if (is_done()) return false;
    if (frame.complete && frame.key) wait_for_key_ = false;
    if (!frame.complete && frame.fcc == av::fcc_h264) wait_for_key_ = true;
    const bool whole = frame.complete && !wait_for_key_;
    if (whole && !started_) first_ = last_ = media_time;
    started_ = started_ || whole;
    if (!whole) {
        ++counts_.left_out;
        return false;
    }
    ++counts_.frames;
    counts_.bytes += frame.size;
    return true;
}

// A source's time may run back: then there is no length.
track_counts_t receipt::counts() const noexcept {
    track_counts_t result = counts_;
    result.length = static_cast<uint64_t>(std::max<int64_t>(length(), 0));
    if (limit_) result.length = std::min(result.length, limit_);
    return result;
}

size_t add_counts(std::span<track_counts_t> sum, size_t count, std::span<const track_counts_t> more) noexcept {
    for (size_t i = 0; i < more.size(); ++i) {
        if (i >= count || sum[i].fcc != more[i].fcc) {
            if (count < sum.size()) sum[count++] = more[i];
            continue;
        }
        track_counts_t& to = sum[i];
        to.frames += more[i].frames;
        to.bytes += more[i].bytes;
        to.left_out += more[i].left_out;
        to.packets += more[i].packets;
        to.lost += more[i].lost;
        to.length += more[i].length;
        to.jitter = more[i].jitter;
    }
    return count;
}

uint64_t longest(std::span<const track_counts_t> of) noexcept {
    uint64_t most = 0;
    for (const track_counts_t& each : of)
        most = std::max(most, each.length);
    return most;
}

}  // namespace media::fetch
