// What a moof says of its samples (ISO/IEC 14496-12, 8.8).
#include "mp4/parse.h"

#include <algorithm>

namespace av::mp4 {

namespace {

constexpr uint32_t not_sync = 0x10000;

/// A track in a fragment: what its tfhd and tfdt say, and how far its runs have been read.
struct progress {
    track& of;
    uint32_t index;
    uint64_t base;             ///< in the file, from which the runs count
    uint64_t position = base;  ///< behind the last sample
    uint64_t time = of.next_time;
    uint32_t duration = of.default_duration;
    uint32_t size = of.default_size;
    uint32_t flags = of.default_flags;
};

bool overflows(uint64_t a, uint64_t b) noexcept { return a > UINT64_MAX - b; }

bool read_run(bytes trun, progress& at, core::vector<sample>& out) {
    enum : uint32_t {
        has_offset = 1,
        has_first = 4,
        has_duration = 0x100,
        has_size = 0x200,
        has_flags = 0x400,
        has_shown = 0x800
    };
    fields from(trun);
    const uint32_t said = from.u32();
    const uint32_t count = from.u32();
    if (said & has_offset) at.position = at.base + static_cast<uint64_t>(int64_t{static_cast<int32_t>(from.u32())});
    const uint32_t first_flags = said & has_first ? from.u32() : 0;
    if (!from.ok() || count > most_samples - out.size()) return false;
    for (uint32_t i = 0; i < count; ++i) {
        sample each{};
        each.track = at.index;
        each.time = at.time;
        each.position = at.position;
        each.duration = said & has_duration ? from.u32() : at.duration;
        each.size = said & has_size ? from.u32() : at.size;
        uint32_t flags = said & has_flags ? from.u32() : at.flags;
        if (i == 0 && said & has_first) flags = first_flags;
        each.key = !(flags & not_sync);
        each.shown_after = said & has_shown ? static_cast<int32_t>(from.u32()) : 0;
        if (!from.ok() || overflows(at.position, each.size) || overflows(at.time, each.duration)) return false;
        at.position += each.size;
        at.time += each.duration;
        out.push_back(each);
    }
    return true;
}

/// @param behind  where the data of the track before ends
progress read_head(fields& tfhd, uint64_t moof, uint64_t behind, track& of, uint32_t index) noexcept {
    enum : uint32_t {
        has_base = 1,
        has_description = 2,
        has_duration = 8,
        has_size = 0x10,
        has_flags = 0x20,
        base_is_moof = 0x20000
    };
    const uint32_t said = tfhd.u32();
    tfhd.u32();  // track
    const uint64_t base = said & has_base ? tfhd.u64() : said & base_is_moof ? moof : behind;
    progress at{.of = of, .index = index, .base = base};
    if (said & has_description) tfhd.u32();
    if (said & has_duration) at.duration = tfhd.u32();
    if (said & has_size) at.size = tfhd.u32();
    if (said & has_flags) at.flags = tfhd.u32();
    return at;
}

/// @param behind  of the data of the track before, which this one moves on
bool read_track_fragment(bytes traf, uint64_t moof, uint64_t& behind, core::vector<track>& tracks,
                         core::vector<sample>& out) {
    fields head(find(traf, type_of("tfhd")));
    fields id = head;
    id.u32();
    const auto of = std::ranges::find(tracks, id.u32(), &track::id);
    if (!id.ok()) return false;
    if (of == tracks.end()) return true;
    progress at = read_head(head, moof, behind, *of, static_cast<uint32_t>(of - tracks.begin()));
    if (const bytes tfdt = find(traf, type_of("tfdt")); !tfdt.empty()) {
        fields from(tfdt);
        at.time = from.u32() >> 24 == 1 ? from.u64() : from.u32();
        if (!from.ok()) return false;
    }
    for (boxes each(traf); head.ok() && each.next();) {
        if (each.type() == type_of("trun") && !read_run(each.body(), at, out)) return false;
    }
    of->next_time = at.time;
    behind = at.position;
    return head.ok();
}

}  // namespace

bool read_fragment(bytes moof, uint64_t position, core::vector<track>& tracks, core::vector<sample>& out) {
    out.clear();
    uint64_t behind = position;
    for (boxes each(moof); each.next();) {
        if (each.type() != type_of("traf")) continue;
        if (!read_track_fragment(each.body(), position, behind, tracks, out)) return false;
    }
    return true;
}

}  // namespace av::mp4
