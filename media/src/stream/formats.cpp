// What frames tell of their format, and when they were taken.
#include "stream/inside.h"

#include "avc/fcc.h"
#include "common/h264.h"
#include "core/text.h"

#include <algorithm>
#include <cstdlib>
#include <span>

namespace media {

namespace {

void add_nal(core::vector<uint8_t>& to, std::span<const uint8_t> nal) {
    constexpr uint8_t start_code[] = {0, 0, 0, 1};
    to.insert(to.end(), std::begin(start_code), std::end(start_code));
    to.insert(to.end(), nal.begin(), nal.end());
}

/// SPS and PPS in front of the slices. @return whether both are there
bool gather_parameter_sets(std::span<const uint8_t> picture, core::vector<uint8_t>& to) {
    bool sps = false;
    bool pps = false;
    to.clear();
    const auto slices = h264_first_slice(picture);
    auto front = picture.first(picture.size() - slices.size());
    for (auto nal = h264_next_nal(front); !nal.empty(); nal = h264_next_nal(front)) {
        const uint8_t type = h264_nal_type(nal);
        if (type != h264_sps && type != h264_pps) continue;
        sps |= type == h264_sps;
        pps |= type == h264_pps;
        add_nal(to, nal);
    }
    return sps && pps;
}

/// Parameter sets and the size that they tell. @return false when there are none
bool describe_h264(std::span<const uint8_t> sets, format_t& format, core::vector<uint8_t>& config) {
    if (!gather_parameter_sets(sets, config)) return false;
    format.config = {config.data(), static_cast<uint32_t>(config.size())};
    h264_info_t info;
    if (!h264_parse_sps(h264_find({config.data(), config.size()}, h264_sps), &info)) return true;
    format.width = info.width;
    format.height = info.height;
    return true;
}

}  // namespace

kind_t kind_of(uint32_t fcc) noexcept {
    if (fcc_is_video(fcc)) return kind_t::video;
    return fcc_is_audio(fcc) ? kind_t::audio : kind_t::meta;
}

format_share make_format(const format_t& format, uint32_t generation, const char* file, int line) noexcept {
    format_share made(core::create<format_record>(file, line));
    if (!made) return nullptr;
    try {
        made->config = core::vector<uint8_t>(core::place{file, line});
        made->config.assign(format.config.data, format.config.data + format.config.size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    made->shown = format;
    made->shown.config = {made->config.data(), static_cast<uint32_t>(made->config.size())};
    made->shown.generation = generation;
    h264_info_t info;
    if (format.fcc == av::fcc_h264 && h264_parse(made->config, nullptr, nullptr, &info))
        made->reordered = info.max_num_reorder_frames;
    return made;
}

bool same_format(const format_t& one, const format_t& other) noexcept {
    return one.fcc == other.fcc && one.width == other.width && one.height == other.height && one.rate == other.rate &&
           one.channels == other.channels &&
           std::ranges::equal(std::span(one.config.data, one.config.size),
                              std::span(other.config.data, other.config.size));
}

learned_t learn(const av::frame_t& frame, const format_t& known, core::vector<uint8_t>& config) {
    learned_t out{known, false};
    format_t& format = out.format;
    format.fcc = frame.fcc;
    if (frame.width) format.width = frame.width;
    if (frame.height) format.height = frame.height;
    if (frame.rate) format.rate = frame.rate;
    if (frame.channels) format.channels = frame.channels;
    const bool telephony = frame.fcc == av::fcc_pcmu || frame.fcc == av::fcc_pcma || frame.fcc == av::fcc_g726;
    if (!format.rate && telephony) format.rate = 8000;
    if (!format.channels && telephony) format.channels = 1;
    if (frame.fcc == av::fcc_h264 && frame.key)
        out.lacks_sets = !describe_h264({frame.data, frame.size}, format, config);
    return out;
}

// Parameter sets are kept as a key picture brings them, so that the first one does not change the format.
format_t complete(const format_t& told, const format_t& known, core::vector<uint8_t>& config) {
    format_t format = told;
    const bool same = known.fcc == told.fcc;
    if (told.fcc == av::fcc_h264 && !describe_h264({told.config.data, told.config.size}, format, config))
        format.config = {};
    if (!same) return format;
    if (format.config.size == 0) format.config = known.config;
    if (!format.width || !format.height) {
        format.width = known.width;
        format.height = known.height;
    }
    return format;
}

// A picture has changed places with those before it that are shown later. None does so with as many as are remembered:
// its clock was set back.
int64_t decoding_clock::take(int64_t shown, uint32_t reordered) noexcept {
    const auto recent = std::span(last_shown_).first(std::min(seen_, most));
    const bool jumps = seen_ && std::abs(shown - std::ranges::max(recent)) > longest_jump;
    if (jumps || (seen_ >= most && shown < std::ranges::min(recent))) gap();
    const bool first = seen_ == 0;
    if (!first) {
        const auto later = std::ranges::count_if(recent, [&](int64_t each) { return each > shown; });
        depth_ = std::max(depth_, static_cast<uint32_t>(later));
    }
    depth_ = std::min(std::max(depth_, reordered), most);
    last_shown_[seen_++ % most] = shown;

    const auto place = std::upper_bound(times_.begin(), times_.begin() + waiting_, shown);
    std::copy_backward(place, times_.begin() + waiting_, times_.begin() + waiting_ + 1);
    *place = shown;
    ++waiting_;
    int64_t decoded = times_[0] - int64_t{depth_ + 1 - std::min(waiting_, depth_ + 1)} * usual_step;
    if (waiting_ > depth_) std::copy(times_.begin() + 1, times_.begin() + waiting_--, times_.begin());
    if (!first) decoded = std::max(decoded, last_);
    return last_ = decoded;
}

// The correction changes where the source's time runs back, stands still, or runs away from the time in which its
// frames come. A track is judged by its own last frame: tracks may come in bursts, one behind the other.
uint64_t media_clock::take(kind_t kind, uint64_t time, uint64_t now) noexcept {
    const auto index = static_cast<size_t>(kind);
    int64_t media = static_cast<int64_t>(time) + correction_;
    if (started_) {
        const bool own = last_[index] != 0 && !gap_;
        const auto last = static_cast<int64_t>(own ? last_[index] : last_any_);
        const auto passed = static_cast<int64_t>(now - (own ? last_now_[index] : last_any_now_));
        const bool back = media < last - longest_return || (gap_ && media < last);
        const bool stands = media <= last && passed > longest_return;
        const bool away = !gap_ && media - last - passed > longest_drift;
        if (back || stands || away) {
            correction_ += last + passed - media;
            media = last + passed;
        }
        media = std::max(media, static_cast<int64_t>(last_[index]));
    }
    started_ = true;
    gap_ = false;
    last_[index] = static_cast<uint64_t>(media);
    last_now_[index] = now;
    if (last_[index] >= last_any_) {
        last_any_ = last_[index];
        last_any_now_ = now;
    }
    return last_[index];
}

}  // namespace media
