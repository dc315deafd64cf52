// H.264 pictures and sound as fragmented MP4.
//
// Pictures wait for the end of their fragment: before a key picture, after a second, with 4 MiB. Their times, which
// come in decoding order, say in which order they are shown; put in order they are the times of decoding. A picture is
// shown so much later than it is decoded that none is shown before: by `delay_`, which is found with the first fragment
// and put in front of all tracks, so that they keep step.
#include "recorder/mp4_sound.h"

#include "avc/fcc.h"
#include "common/h264.h"

#include <algorithm>
#include <cstring>

namespace media::record {

namespace {

constexpr uint32_t scale = 90000;
constexpr int64_t second = 1'000'000;
constexpr int64_t longest_fragment = second;
constexpr uint64_t largest_fragment = 4 << 20;
constexpr int64_t usual_step = 40'000;
constexpr int64_t shortest_step = 1'000;
constexpr int64_t unknown = -1;
/// How long the last picture stays at most while sound goes on.
constexpr int64_t longest_still = 3'600'000'000;
/// How far sound may be behind the picture before silence is written for it.
constexpr int64_t longest_wait = 2'000'000;

int64_t ticks(int64_t at) noexcept { return at * 9 / 100; }
int64_t microseconds(int64_t ticks) noexcept { return (ticks * 100 + 8) / 9; }

class mp4_file final : public file {
public:
    using file::file;
    ~mp4_file() override {
        drop_pictures();
        core_buf_free(&start_);
        core_buf_free(&fragment_);
    }

    bool is_film() const noexcept override { return true; }
    bool takes(uint32_t fcc) const noexcept override { return fcc == av::fcc_h264 || mp4_sound::takes(fcc); }
    void begin(const format_t (&formats)[kind_count]) override;
    bool take(const placed_t& placed) override;
    bool flush() override;
    bool finish() override;

private:
    struct picture_t {
        av::frame_t frame;
        int64_t at;
    };

    bool take_picture(const placed_t& placed);
    bool begin_with(const av::frame_t& key);
    bool make_movie(const av::frame_t* key, buf_t& into);
    bool open_with(const av::frame_t* key);
    bool put(buf_t& bytes) { return out().put(bytes.data, bytes.length) && out().flush(); }
    bool is_full(const av::frame_t& next, int64_t at) const noexcept;
    bool write_pictures(int64_t end, bool last = false);
    bool write_sound();
    bool write_all(bool last);
    bool write(const av::mp4_run_t* runs, size_t count);
    void order(int64_t end, int64_t sound_end);
    void find_delay() noexcept;
    void drop_pictures() noexcept;

    bool has_pictures_ = true;
    mp4_sound sound_;
    buf_t start_;     ///< the init segment
    buf_t fragment_;  ///< keeps its capacity
    core::vector<picture_t> held_;
    uint64_t held_bytes_ = 0;
    core::vector<int64_t> shown_;  ///< ticks of the held pictures: of display, and in order
    core::vector<int64_t> ordered_;
    core::vector<av::mp4_sample_t> samples_;
    bool delay_known_ = false;
    int64_t delay_ = 0;     ///< ticks
    int64_t decoded_ = -1;  ///< ticks of the last picture that was written
    int64_t latest_ = -1;   ///< where the last picture shown stands
    int64_t step_ = ticks(usual_step);
    int64_t end_ = 0;       ///< where the last picture that was written ends
    int64_t lift_ = 0;      ///< of the pictures from the last key on, where their times ran back
    uint32_t reorder_ = 0;  ///< pictures that may come before one that is shown before them, by the parameter sets
    uint32_t sequence_ = 0;
    bool ended_ = false;
};

void mp4_file::begin(const format_t (&formats)[kind_count]) {
    has_pictures_ = formats[static_cast<size_t>(kind_t::video)].fcc == av::fcc_h264;
    sound_.open(formats[static_cast<size_t>(kind_t::audio)]);
}

bool mp4_file::take(const placed_t& placed) {
    if (ended_) return true;
    if (placed.frame.fcc == av::fcc_h264) return take_picture(placed);
    if (!sound_.is_open()) return true;
    if (!start_.length && (has_pictures_ || !open_with(nullptr))) return has_pictures_;
    sound_.take(placed);
    if (!sound_.is_full()) return true;
    return has_pictures_ && !delay_known_ ? write_all(false) : write_sound();
}

bool mp4_file::take_picture(const placed_t& placed) {
    const bool key = placed.frame.key != 0;
    if (key && !begin_with(placed.frame)) return false;
    if (ended_ || !start_.length) return true;
    if (key) lift_ = latest_ < 0 ? 0 : std::max<int64_t>(latest_ + shortest_step - placed.at, 0);
    const int64_t at = std::max<int64_t>(placed.at + lift_, 0);
    if (is_full(placed.frame, at)) {
        // Of pictures that are shown in another order it is not known when the next one is decoded.
        const bool next = key || (delay_known_ && delay_ == 0);
        if (!write_pictures(next ? at : unknown)) return false;
    }
    held_.reserve(held_.size() + 1);
    picture_t held{.frame = {}, .at = at};
    if (!avc_frame_share(&held.frame, &placed.frame, CORE_HERE)) throw std::bad_alloc();
    held_.push_back(held);
    held_bytes_ += placed.frame.size;
    latest_ = std::max(latest_, at);
    return true;
}

/// A fragment ends where all that follows is shown behind it: before a picture that is shown behind all others.
bool mp4_file::is_full(const av::frame_t& next, int64_t at) const noexcept {
    if (held_.empty()) return false;
    const int64_t begin = held_.front().at;
    return next.key || held_bytes_ + next.size > largest_fragment || latest_ - begin >= 2 * longest_fragment ||
           (at > latest_ && at - begin >= longest_fragment);
}

/// @param key  null for sound alone. @return false when there is nothing that can be described
bool mp4_file::make_movie(const av::frame_t* key, buf_t& into) {
    av::mp4_track_t tracks[2];
    size_t count = 0;
    if (key) tracks[count++] = {.fcc = av::fcc_h264, .scale = scale, .channels = 0, .config = {key->data, key->size}};
    if (sound_.is_open()) tracks[count++] = sound_.track();
    into.length = 0;
    return av_mp4_movie(&into, {tracks, count}, CORE_HERE) != 0;
}

bool mp4_file::open_with(const av::frame_t* key) {
    if (!make_movie(key, start_)) return true;  // waits for readable parameter sets
    h264_info_t info{};
    if (key && h264_parse({key->data, key->size}, nullptr, nullptr, &info)) reorder_ = info.max_num_reorder_frames;
    return is_ready() && put(start_);
}

/// With the first key picture the file begins; the later ones have to fit it.
bool mp4_file::begin_with(const av::frame_t& key) {
    if (!start_.length) return open_with(&key);
    const bool usable = make_movie(&key, fragment_);
    ended_ =
        !usable || fragment_.length != start_.length || std::memcmp(fragment_.data, start_.data, fragment_.length) != 0;
    if (!ended_) return true;
    say("ends here, the stream has changed its parameter sets");
    return write_all(true);
}

/// How much later than decoded pictures are shown.
void mp4_file::find_delay() noexcept {
    delay_known_ = true;
    delay_ = reorder_ * step_;
    for (size_t i = 0; i < shown_.size(); ++i)
        delay_ = std::max(delay_, ordered_[i] - shown_[i]);
}

/// Decoding times and samples of the held pictures. @param end  of the last one @param sound_end  which it outlasts
void mp4_file::order(int64_t end, int64_t sound_end) {
    shown_.clear();
    for (const picture_t& each : held_)
        shown_.push_back(ticks(each.at));
    ordered_ = shown_;
    std::ranges::sort(ordered_);
    const size_t count = ordered_.size();
    if (count > 1) step_ = std::clamp(ordered_[count - 1] - ordered_[count - 2], ticks(shortest_step), ticks(second));
    const int64_t still = ticks(std::min(sound_end, microseconds(ordered_.back()) + longest_still));
    const int64_t last = std::max(end == unknown ? ordered_.back() + step_ : ticks(end), still);
    end_ = microseconds(last);
    if (!delay_known_) find_delay();
    for (int64_t& each : ordered_)
        each = decoded_ = std::max(each, decoded_ + 1);
    ordered_.push_back(std::max(last, decoded_ + 1));
    samples_.clear();
    for (size_t i = 0; i < count; ++i) {
        const av::frame_t& frame = held_[i].frame;
        samples_.push_back({.data = {frame.data, frame.size},
                            .duration = static_cast<uint32_t>(ordered_[i + 1] - ordered_[i]),
                            .shown_after = static_cast<int32_t>(shown_[i] + delay_ - ordered_[i]),
                            .key = frame.key != 0});
    }
}

/// The held pictures and the sound beside them. @param last  nothing follows: sound and picture end together
bool mp4_file::write_pictures(int64_t end, bool last) {
    order(end, last && sound_.is_open() ? sound_.end() : 0);
    if (sound_.is_open() && last) sound_.end_at(end_);
    av::mp4_run_t runs[2];
    runs[0] = {.track = 1, .annex_b = true, .start = static_cast<uint64_t>(ordered_.front()), .samples = samples_};
    if (sound_.is_open()) {
        sound_.fill(end_ - longest_wait);
        runs[1] = sound_.run(2, end_, microseconds(delay_));
    }
    const bool written = write(runs, 2);
    drop_pictures();
    return written;
}

bool mp4_file::write_sound() {
    const av::mp4_run_t run = sound_.run(has_pictures_ ? 2 : 1, INT64_MAX, microseconds(delay_));
    return run.samples.empty() || write(&run, 1);
}

/// @param last  as above
bool mp4_file::write_all(bool last) {
    if (!held_.empty() && !write_pictures(unknown, last)) return false;
    if (!sound_.is_open()) return true;
    if (last && has_pictures_) sound_.end_at(end_);
    return write_sound();
}

bool mp4_file::write(const av::mp4_run_t* runs, size_t count) {
    fragment_.length = 0;
    if (!av_mp4_fragment(&fragment_, {runs, count}, ++sequence_, CORE_HERE)) throw std::bad_alloc();
    sound_.drop_run();
    return put(fragment_);
}

void mp4_file::drop_pictures() noexcept {
    for (picture_t& each : held_)
        avc_frame_drop(&each.frame);
    held_.clear();
    held_bytes_ = 0;
}

bool mp4_file::flush() { return !start_.length || ended_ || write_all(false); }

bool mp4_file::finish() {
    if (!out().is_open()) return true;
    const bool written = ended_ || write_all(true);
    return out().close() && written;
}

}  // namespace

file_ptr make_mp4(const char* path) { return make<mp4_file>(path); }

}  // namespace media::record
