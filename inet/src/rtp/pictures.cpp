#include "rtp/pictures.h"

#include "bounded.h"
#include "rtp/h264_cut.h"
#include "rtp/packet.h"

#include "common/h264.h"

#include <algorithm>

namespace rtp {

namespace {

using bytes_t = std::span<const uint8_t>;

constexpr uint8_t start_code[] = {0, 0, 1};

enum nal_type : uint8_t { slice = 1, idr_slice = 5, sps = 7, pps = 8, stap_a = 24 };

/// The first slice that came of an H.264 picture. A gap took nothing from a key picture that begins with it, at its
/// first macroblock (ITU-T H.264, 7.3.3). Any other picture refers to what was lost.
void note_front(gathering_t& gathered, bytes_t nal) noexcept {
    constexpr uint8_t zero = 0x80;  // as ue(v)
    const bool begins = nal.size() > 1 && (nal[1] & zero) != 0;
    const bool key = (nal[0] & 0x1f) == idr_slice;
    gathered.broken = gathered.broken || (gathered.torn && !(key && begins));
    gathered.torn = false;
}

/// One call of add_h264().
class units {
public:
    units(gathering_t& to, buf_t& sets, const gathering_limits& limits) noexcept
        : to_(to), sets_(sets), limits_(limits) {}

    // Aggregates (RFC 6184, 5.7.1), in which encoders send parameter sets, are taken apart.
    kept_t add(bytes_t nal) noexcept {
        if (nal.empty()) return kept_;
        if ((nal[0] & 0x1f) != stap_a) return add_nals(nal), kept_;
        nal = nal.subspan(1);
        while (nal.size() > 2) {
            const size_t size = std::min<size_t>(get16(nal, 0), nal.size() - 2);
            if (size > 0) add_nals(nal.subspan(2, size));
            nal = nal.subspan(2 + size);
        }
        return kept_;
    }

private:
    // Encoders that send byte streams as one NAL unit leave start codes in it.
    void add_nals(bytes_t nals) noexcept {
        bytes_t rest = nals;
        bytes_t next = h264_next_nal(rest);
        if (next.empty()) return add_nal(nals);
        const bytes_t first =
            without_trailing_zeros(nals.first(static_cast<size_t>(next.data() - nals.data()) - sizeof start_code));
        if (!first.empty()) add_nal(first);
        for (; !next.empty(); next = h264_next_nal(rest))
            add_nal(next);
    }

    void add_nal(bytes_t nal) noexcept {
        const uint8_t type = nal[0] & 0x1f;
        if (type == sps || type == pps) return keep(nal);
        constexpr uint8_t zero[] = {0};
        if (to_.frame.length == 0) add_bytes(to_, zero, limits_);
        if (type == slice || type == idr_slice) {
            const bool due = (type == idr_slice || to_.sets_changed) && !to_.picture;
            if (due || limits_.before_slices) add_bytes(to_, {sets_.data, sets_.length}, limits_);
            if (!to_.picture) note_front(to_, nal);
            to_.sets_changed = false;
            to_.picture = true;
            to_.key = to_.key || type == idr_slice;
        }
        add_bytes(to_, start_code, limits_);
        add_bytes(to_, nal, limits_);
    }

    void keep(bytes_t nal) noexcept {
        const kept_t kept = keep_parameter_set(sets_, nal, limits_.where.file, limits_.where.line);
        if (kept == kept_t::unchanged) return;
        if (kept_ != kept_t::restarted) kept_ = kept;
        to_.sets_changed = true;
    }

    gathering_t& to_;
    buf_t& sets_;
    const gathering_limits& limits_;
    kept_t kept_ = kept_t::unchanged;
};

}  // namespace

kept_t add_h264(gathering_t& to, buf_t& sets, std::span<const uint8_t> nal, const gathering_limits& limits) noexcept {
    return units(to, sets, limits).add(nal);
}

bool add_bytes(gathering_t& to, std::span<const uint8_t> bytes, const gathering_limits& limits) noexcept {
    if (to.left_out || bytes.empty()) return true;
    const auto size = static_cast<uint32_t>(bytes.size());
    if (bounded::make_room(to.frame, size, limits.most, limits.where.file, limits.where.line)) {
        core_buf_read(&to.frame, bytes.data(), size);
        return true;
    }
    to.left_out = true;
    to.frame.length = 0;
    return false;
}

// A gap between two frames may have been in either, unless the marker says that the first was over (RFC 6184, 5.1).
void note_loss(gathering_t& to, const trak_t& from, bool another, bool alone, bool picture) noexcept {
    const bool lost = from.lost != to.lost || from.discarded != to.discarded || from.restarts != to.restarts;
    to.lost = from.lost;
    to.discarded = from.discarded;
    to.restarts = from.restarts;
    if (!lost) return;
    const bool over = to.marked && !to.marks_units;
    if (!another || (!over && picture)) to.broken = true;
    to.torn = another && !alone;
}

bool is_complete(gathering_t& of, bool key) noexcept {
    const bool whole = of.picture && !of.broken && (key || !of.orphaned);
    of.orphaned = false;
    return whole;
}

void end_frame(gathering_t& of) noexcept {
    of.frame.length = 0;
    of.orphaned = of.orphaned || of.left_out;
    of.picture = of.key = of.broken = of.left_out = false;
}

}  // namespace rtp
