#include "film.h"

#include "program.h"

#include "avc/fcc.h"
#include "common/h264.h"
#include "core/memory.h"

#include <algorithm>

namespace reader {

namespace {

constexpr uint64_t longest_step = 24 * 3'600'000'000ULL;

}  // namespace

std::unique_ptr<film> film::open(const apps::recording& of) {
    std::unique_ptr<film> made(new film(of.start));
    made->file_.reset(core_fopen(apps::utf8_text(of.path).c_str(), "rb", CORE_HERE));
    if (!made->file_ || !made->mp4_.open({&film::read, made->file_.get()}) || !made->find_tracks()) return nullptr;
    return made;
}

uint32_t film::read(void* arg, uint64_t position, void* data, uint32_t size) {
    auto* file = static_cast<file_ctx*>(arg);
    if (position > INT64_MAX || !core_fseek(file, static_cast<int64_t>(position))) return 0;
    return static_cast<uint32_t>(core_fread(file, data, size));
}

bool film::find_tracks() {
    end_ = start_;
    const auto tracks = mp4_.tracks();
    for (uint32_t i = 0; i < tracks.size() && !pictures_; ++i) {
        h264_info_t info{};
        if (tracks[i].fcc != av::fcc_h264) continue;
        h264_parse(tracks[i].config, nullptr, nullptr, &info);
        pictures_ = i;
        width_ = info.width;
        height_ = info.height;
    }
    return !tracks.empty();
}

uint64_t film::microseconds(uint32_t track, uint64_t ticks) const {
    const uint32_t scale = mp4_.tracks()[track].scale;
    constexpr uint64_t second = 1'000'000;
    return ticks / scale * second + ticks % scale * second / scale;
}

bool film::go(uint64_t time) {
    const uint32_t track = pictures_.value_or(0);
    std::optional<uint64_t> place;
    bool reaches = false;
    while (!(reaches && place) && mp4_.next_fragment() == 1) {
        av::mp4_span_t span{};
        if (!mp4_.span(track, &span)) continue;
        const bool is_before = start_ + microseconds(track, span.begin) <= time;
        if (span.key && (is_before || !place)) place = mp4_.position();
        reaches = start_ + microseconds(track, span.end) > time;
    }
    if (!reaches || !place) return false;
    mp4_.go(*place);
    return true;
}

void film::describe(const av::mp4_taken_t& taken, av::frame_t& out) {
    const av::mp4_track_t& track = mp4_.tracks()[taken.track];
    const bool is_picture = track.fcc == av::fcc_h264;
    const uint64_t lead = is_picture ? lead_.value_or(0) : 0;
    out = {};
    out.fcc = track.fcc;
    out.time = start_ + microseconds(taken.track, taken.time) - microseconds(taken.track, lead);
    out.data = taken.data.data();
    out.size = static_cast<uint32_t>(taken.data.size());
    out.key = taken.key;
    out.complete = 1;
    if (is_picture) {
        const int64_t after = std::max<int64_t>(taken.shown_after + static_cast<int64_t>(lead), 0);
        out.shown_after = static_cast<uint32_t>(microseconds(taken.track, static_cast<uint64_t>(after)));
        out.width = width_;
        out.height = height_;
    } else {
        out.rate = track.scale;
        out.channels = track.channels;
        out.bits = 16;
    }
    end_ = std::max(end_, start_ + microseconds(taken.track, taken.time + taken.duration));
}

int film::next(av::frame_t& out) {
    av::mp4_taken_t taken{};
    for (;;) {
        while (loaded_ && mp4_.next(taken)) {
            at_key_ = at_key_ || !pictures_ || (taken.track == *pictures_ && taken.key);
            if (!at_key_ || (mp4_.tracks()[taken.track].fcc == av::fcc_h264 && taken.track != *pictures_)) continue;
            describe(taken, out);
            // A longer step is damage, and would have to be waited for.
            if (last_ && out.time > *last_ + longest_step) return -1;
            last_ = out.time;
            return 1;
        }
        int result = mp4_.next_fragment();
        if (result == 1) result = mp4_.load();
        loaded_ = result == 1;
        if (!loaded_) return result;
        av::mp4_span_t span{};
        if (pictures_ && !lead_ && mp4_.span(*pictures_, &span)) lead_ = static_cast<uint64_t>(span.shown_before);
    }
}

}  // namespace reader
