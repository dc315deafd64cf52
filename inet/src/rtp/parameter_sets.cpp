#include "rtp/parameter_sets.h"

#include "bounded.h"

#include "common/h264.h"

#include <algorithm>
#include <bit>

namespace rtp {

namespace {

using bytes_t = std::span<const uint8_t>;

constexpr uint8_t start_code[] = {0, 0, 1};

/// pic_parameter_set_id, which a PPS begins with (ITU-T H.264, 7.3.2.2), as ue(v) of 0 to 255.
uint32_t pps_id(bytes_t nal) noexcept {
    uint32_t bits = 0;
    for (size_t i = 1; i < 5; ++i)
        bits = bits << 8 | (i < nal.size() ? nal[i] : 0U);
    const int zeros = std::countl_zero(bits);
    return zeros > 8 ? UINT32_MAX : (bits >> (31 - 2 * zeros)) - 1;
}

/// Takes the PPS out whose place another one takes. @return true when that very set is held already
bool make_place(buf_t& sets, bytes_t nal) noexcept {
    bytes_t rest(sets.data, sets.length);
    bytes_t old;
    const bool is_pps = h264_nal_type(nal) == h264_pps;
    for (bytes_t each = h264_next_nal(rest); !each.empty(); each = h264_next_nal(rest)) {
        if (std::ranges::equal(each, nal)) return true;
        if (is_pps && h264_nal_type(each) == h264_pps && pps_id(each) == pps_id(nal)) old = each;
    }
    if (old.empty()) return false;
    const uint8_t* const end = old.data() + old.size();
    uint8_t* const begin = sets.data + (old.data() - sets.data) - sizeof start_code;
    std::copy<const uint8_t*>(end, sets.data + sets.length, begin);
    sets.length -= static_cast<uint32_t>(end - begin);
    return false;
}

}  // namespace

bytes_t without_trailing_zeros(bytes_t nal) noexcept {
    while (!nal.empty() && nal.back() == 0)
        nal = nal.first(nal.size() - 1);
    return nal;
}

kept_t keep_parameter_set(buf_t& sets, bytes_t nal, const char* file, int line) noexcept {
    nal = without_trailing_zeros(nal);
    if (nal.empty() || make_place(sets, nal)) return kept_t::unchanged;
    const bool restarts = h264_nal_type(nal) == h264_sps;
    if (restarts) sets.length = 0;
    const auto size = static_cast<uint32_t>(sizeof start_code + nal.size());
    if (!bounded::make_room(sets, size, max_parameter_sets, file, line)) return kept_t::unchanged;
    core_buf_read(&sets, start_code, sizeof start_code);
    core_buf_read(&sets, nal.data(), static_cast<uint32_t>(nal.size()));
    return restarts ? kept_t::restarted : kept_t::added;
}

}  // namespace rtp
