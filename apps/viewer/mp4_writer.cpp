#include "mp4_writer.h"

#include "outcome.h"
#include "program.h"
#include "utf8_path.h"

#include "avc/fcc.h"
#include "avc/mp4.h"

#include <cstring>

namespace viewer {
namespace {

constexpr uint64_t longest_fragment = 1'000'000;
constexpr uint64_t largest_fragment = 4 << 20;
// Pictures are reordered by less than a second; a longer step back, or an hour ahead, is a clock that was set.
constexpr int64_t furthest_back = -1'000'000;
constexpr int64_t furthest_ahead = 3'600'000'000;
constexpr uint64_t shortest_step = 1'000;

}  // namespace

mp4_writer::~mp4_writer() {
    core_buf_free(&start_);
    core_buf_free(&fragment_);
}

bool mp4_writer::open() {
    file_.open(apps::utf8_path(path()), std::ios::binary | std::ios::trunc);
    return file_.is_open();
}

bool mp4_writer::takes(uint32_t fcc) const { return fcc == av::fcc_h264; }

bool mp4_writer::write(const av::frame_t& frame) {
    if (frame.key && !ended_ && !begin(frame)) return false;
    if (ended_ || !start_.length) return true;
    const uint64_t time = next_time(frame.time);
    const bool full = !held_.empty() && (frame.key || time - held_.front()->time >= longest_fragment ||
                                         held_bytes_ + frame.size > largest_fragment);
    if (full && !write_fragment(time)) return false;
    apps::frame_ptr copy(avc_frame_dup(&frame, CORE_HERE));
    if (!copy) return false;
    copy->time = time;
    held_bytes_ += frame.size;
    held_.push_back(std::move(copy));
    return true;
}

/// With the first key picture the file begins; the later ones have to fit it.
bool mp4_writer::begin(const av::frame_t& key) {
    buf_t& fresh = fragment_;
    fresh.length = 0;
    const bool usable = av_mp4_init(&fresh, &key, CORE_HERE) != 0;
    if (start_.length) {
        ended_ = !usable || fresh.length != start_.length || std::memcmp(fresh.data, start_.data, fresh.length) != 0;
        if (ended_) apps::complain(name, path() + ": ends here, the stream has changed its parameter sets");
        return !ended_ || flush();
    }
    if (!usable) return true;  // waits for readable parameter sets
    return core_buf_read(&start_, fresh.data, fresh.length) != 0 && put(fresh);
}

/// Time on the track of a picture that says it is of `told`. Decoding order is kept: a picture that is shown before
/// its predecessor follows it closely.
uint64_t mp4_writer::next_time(uint64_t told) {
    if (!last_) {
        base_ = last_ = told_ = told;
        return told;
    }
    const auto moved = static_cast<int64_t>(told - told_);
    if (moved < furthest_back || moved > furthest_ahead) shift_ = last_ + step_ - told;
    told_ = told;
    const auto ahead = static_cast<int64_t>(told + shift_ - last_);
    step_ = ahead < static_cast<int64_t>(shortest_step) ? shortest_step : static_cast<uint64_t>(ahead);
    return last_ += step_;
}

bool mp4_writer::write_fragment(uint64_t end) {
    std::vector<av::frame_t*> frames;
    for (const apps::frame_ptr& each : held_)
        frames.push_back(each.get());
    frames.push_back(nullptr);
    fragment_.length = 0;
    const bool made = av_mp4_moof(&fragment_, frames.data(), base_, end, ++sequence_, CORE_HERE) != 0;
    held_.clear();
    held_bytes_ = 0;
    return made && put(fragment_);
}

bool mp4_writer::put(buf_t& bytes) {
    file_.write(reinterpret_cast<const char*>(bytes.data), static_cast<std::streamsize>(bytes.length));
    file_.flush();
    return file_.good();
}

bool mp4_writer::flush() { return held_.empty() || write_fragment(last_ + step_); }

bool mp4_writer::finish() {
    const bool written = flush();
    file_.close();
    return written && file_.good();
}

}  // namespace viewer
