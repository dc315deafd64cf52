#include "avc/mp4_reader.h"

#include "mp4/parse.h"

#include "common/h264.h"

#include <algorithm>
#include <new>

namespace av {

namespace {

using mp4::bytes;

constexpr uint64_t largest_moov = 1U << 20;
constexpr uint64_t largest_moof = 4U << 20;
constexpr uint64_t largest_data = 64U << 20;

constexpr uint8_t start_code[] = {0, 0, 0, 1};

/// Order of two moments that are counted by different clocks. The remainders are below a second, so nothing overflows.
bool is_before(uint64_t a, uint32_t a_scale, uint64_t b, uint32_t b_scale) noexcept {
    if (a / a_scale != b / b_scale) return a / a_scale < b / b_scale;
    return a % a_scale * b_scale < b % b_scale * a_scale;
}

}  // namespace

struct Mp4Reader::inside {
    explicit inside(core::place place) noexcept
        : where(place), box(place), data(place), tracks(place), said(place), samples(place), unit(place) {}

    /// Finds the next box of a type, at `at`, and reads its body. @return as next_fragment()
    int find_box(uint32_t type, uint64_t limit);
    bool read(uint64_t position, core::vector<uint8_t>& into, uint64_t size);
    void order();
    bool make_unit(const mp4::track& of, bytes coded, bool key);

    core::place where;
    mp4_source_t source{};
    core::vector<uint8_t> box;   ///< body of the last box that was read
    core::vector<uint8_t> data;  ///< of the fragment, from data_at on
    uint64_t data_at = 0;
    core::vector<mp4::track> tracks;
    core::vector<mp4_track_t> said;
    core::vector<mp4::sample> samples;
    size_t next = 0;
    uint64_t at = 0;     ///< where the next box begins
    uint64_t found = 0;  ///< where the last one began
    bool loaded = false;
    core::vector<uint8_t> unit;

    /// Runs what may throw. @return what it does, -1 without memory
    template <class Work>
    static int run(const Work& work) noexcept {
        try {
            return work();
        } catch (const std::bad_alloc&) {
            return -1;
        }
    }
};

Mp4Reader::Mp4Reader(const char* file, int line) noexcept
    : inside_(core::create<inside>(file, line, core::place{file, line})) {}

Mp4Reader::~Mp4Reader() { core::destroy(inside_); }

bool Mp4Reader::inside::read(uint64_t position, core::vector<uint8_t>& into, uint64_t size) {
    // Room is made for what is there, not for what a box says.
    uint8_t last = 0;
    if (size > 0 && source.read(source.arg, position + size - 1, &last, 1) != 1) return false;
    if (into.capacity() < size) {
        core::vector<uint8_t>(where).swap(into);  // never two at a time, nor more than is asked for
        into.reserve(static_cast<size_t>(size));
    }
    into.resize(static_cast<size_t>(size));
    return size == 0 || source.read(source.arg, position, into.data(), static_cast<uint32_t>(size)) == size;
}

int Mp4Reader::inside::find_box(uint32_t type, uint64_t limit) {
    for (;;) {
        uint8_t front[mp4::longest_head];
        const uint32_t got = source.read(source.arg, at, front, sizeof front);
        mp4::box_head head;
        if (got < 8) return 0;
        if (!mp4::read_head(bytes(front, std::min<size_t>(got, sizeof front)), head)) return -1;
        found = at;
        if (head.size == 0 && head.type != type) return 0;  // the last box
        if (head.size > UINT64_MAX - at) return -1;
        at += head.size;
        if (head.type != type) continue;
        if (head.size == 0 || head.size > limit) return -1;
        return read(found + head.header, box, head.size - head.header) ? 1 : 0;
    }
}

int Mp4Reader::open(mp4_source_t source) noexcept {
    if (!inside_ || !source.read) return 0;
    inside& in = *inside_;
    in.source = source;
    in.at = 0;
    in.loaded = false;
    in.tracks.clear();
    in.said.clear();
    in.samples.clear();
    return inside::run([&] {
               if (in.find_box(mp4::type_of("moov"), largest_moov) != 1) return 0;
               if (!mp4::read_movie(in.box, in.tracks)) return 0;
               for (const mp4::track& each : in.tracks)
                   in.said.push_back(each.said);
               return 1;
           }) == 1;
}

std::span<const mp4_track_t> Mp4Reader::tracks() const noexcept {
    return inside_ ? std::span<const mp4_track_t>(inside_->said) : std::span<const mp4_track_t>();
}

int Mp4Reader::next_fragment() noexcept {
    if (!inside_ || inside_->tracks.empty()) return -1;
    inside& in = *inside_;
    in.loaded = false;
    in.samples.clear();
    return inside::run([&] {
        const int result = in.find_box(mp4::type_of("moof"), largest_moof);
        if (result != 1) return result;
        if (!mp4::read_fragment(in.box, in.found, in.tracks, in.samples)) {
            in.samples.clear();
            return -1;
        }
        in.order();
        return 1;
    });
}

void Mp4Reader::inside::order() {
    std::ranges::stable_sort(samples, [this](const mp4::sample& a, const mp4::sample& b) {
        return is_before(a.time, tracks[a.track].said.scale, b.time, tracks[b.track].said.scale);
    });
}

uint64_t Mp4Reader::position() const noexcept { return inside_ ? inside_->found : 0; }

void Mp4Reader::go(uint64_t position) noexcept {
    if (inside_) inside_->at = position;
}

int Mp4Reader::span(uint32_t track, mp4_span_t* out) const noexcept {
    if (!inside_ || !out) return 0;
    bool any = false;
    for (const mp4::sample& each : inside_->samples) {
        if (each.track != track) continue;
        if (!any) *out = {.begin = each.time, .end = each.time, .key = each.key, .shown_before = 0};
        any = true;
        out->end = each.time + each.duration;
        out->shown_before =
            std::max(out->shown_before, each.shown_after < 0 ? -std::max(each.shown_after, -INT32_MAX) : 0);
    }
    return any ? 1 : 0;
}

int Mp4Reader::load() noexcept {
    if (!inside_) return -1;
    inside& in = *inside_;
    in.next = 0;
    in.loaded = false;
    uint64_t begin = UINT64_MAX;
    uint64_t end = 0;
    uint64_t sum = 0;  // samples may share bytes, which would make a small file a long way to go
    for (const mp4::sample& each : in.samples) {
        if (each.size == 0) continue;
        begin = std::min(begin, each.position);
        end = std::max(end, each.position + each.size);
        sum += each.size;
    }
    begin = std::min(begin, end);
    if (std::max(end - begin, sum) > largest_data) return -1;
    in.data_at = begin;
    return inside::run([&] {
        in.loaded = in.read(begin, in.data, end - begin);
        return in.loaded ? 1 : 0;
    });
}

/// The NAL units of a sample behind start codes, and in front of a key picture what it needs that is not in it.
/// @return false when it is no list of NAL units
bool Mp4Reader::inside::make_unit(const mp4::track& of, bytes coded, bool key) {
    unit.clear();
    bool has_sets = false;
    size_t sets_at = 0;
    mp4::fields from(coded);
    while (!from.rest().empty()) {
        const uint32_t size = of.length_size == 4 ? from.u32() : of.length_size == 2 ? from.u16() : from.u8();
        const bytes nal = from.take(size);
        if (!from.ok()) return false;
        if (nal.empty()) continue;
        const uint8_t type = h264_nal_type(nal);
        key = key || type == h264_slice_idr;
        has_sets = has_sets || type == h264_sps;
        unit.insert(unit.end(), std::begin(start_code), std::end(start_code));
        unit.insert(unit.end(), nal.begin(), nal.end());
        if (type == h264_aud && sets_at == 0) sets_at = unit.size();  // a delimiter stays in front
    }
    if (key && !has_sets)
        unit.insert(unit.begin() + static_cast<std::ptrdiff_t>(sets_at), of.config.begin(), of.config.end());
    return !unit.empty();
}

int Mp4Reader::next(mp4_taken_t& out) noexcept {
    if (!inside_ || !inside_->loaded) return 0;
    inside& in = *inside_;
    return inside::run([&] {
               while (in.next < in.samples.size()) {
                   const mp4::sample& each = in.samples[in.next++];
                   if (each.size == 0) continue;
                   const mp4::track& of = in.tracks[each.track];
                   bytes data = bytes(in.data).subspan(static_cast<size_t>(each.position - in.data_at), each.size);
                   if (of.length_size > 0) {
                       if (!in.make_unit(of, data, each.key)) continue;
                       data = in.unit;
                   }
                   out = {each.track, each.time, each.duration, each.shown_after, each.key, data};
                   return 1;
               }
               return 0;
           }) == 1;
}

}  // namespace av
