#include "common/h264.h"

#include <algorithm>
#include <optional>

namespace {

using bytes = std::span<const uint8_t>;

constexpr uint32_t max_dimension = 16384;
constexpr size_t start_code_size = 3;
constexpr size_t block_size = 128;  // bytes looked at together in the search for start codes

/// Whether two zeros stand side by side, the second at most behind the block. No branch depends on the bytes, so that
/// the loop becomes a few vector instructions: a search that stops at every likely byte of a start code costs more in
/// mispredicted branches than in reading.
bool has_zero_pair(const uint8_t* block) noexcept {
    uint8_t least = 0xff;
    for (size_t i = 0; i < block_size; ++i)
        least = std::min<uint8_t>(least, block[i] | block[i + 1]);
    return least == 0;
}

/// Offset of the next 00 00 01, or the size of the stream. Coded pictures hold two zeros in a row so rarely that nearly
/// all of their blocks are passed over.
size_t find_start_code(bytes stream) noexcept {
    const uint8_t* data = stream.data();
    for (size_t at = 0; at + start_code_size <= stream.size();) {
        const size_t block = std::min(block_size, stream.size() - start_code_size + 1 - at);
        const size_t end = at + block;
        if (block == block_size && !has_zero_pair(data + at)) at = end;
        for (; at < end; ++at) {
            if (data[at] == 0 && data[at + 1] == 0 && data[at + 2] == 1) return at;
        }
    }
    return stream.size();
}

/// Moves the stream behind its next start code. @return false when there is none.
bool enter_nal(bytes& stream) noexcept {
    const size_t code = find_start_code(stream);
    if (code == stream.size()) return false;
    stream = stream.subspan(code + start_code_size);
    return true;
}

bytes without_trailing_zeros(bytes nal) noexcept {
    while (!nal.empty() && nal.back() == 0)
        nal = nal.first(nal.size() - 1);
    return nal;
}

/// The parameter sets of a configuration, whose count stands in front of them, off its front. @return false when it is
/// cut short.
bool take_sets(bytes& record, uint8_t count_mask, bytes& out) noexcept {
    if (record.empty()) return false;
    int count = record[0] & count_mask;
    record = record.subspan(1);
    const bytes all = record;
    for (; count > 0; --count) {
        if (record.size() < 2) return false;
        const size_t size = 2 + (size_t{record[0]} << 8 | record[1]);
        if (record.size() < size) return false;
        record = record.subspan(size);
    }
    out = all.first(all.size() - record.size());
    return true;
}

/// Bits of a NAL unit after its header byte, emulation prevention bytes passed over (7.3.1). Reading past the end gives
/// zeros and marks the reader as failed, so that a parser checks once.
class bit_reader {
public:
    explicit bit_reader(bytes payload) noexcept : data_(payload) {}

    bool failed() const noexcept { return failed_; }

    uint32_t bit() noexcept {
        if (left_ == 0 && !load()) return 0;
        --left_;
        return current_ >> left_ & 1U;
    }

    bool flag() noexcept { return bit() != 0; }

    uint32_t bits(unsigned count) noexcept {
        uint32_t value = 0;
        for (; count > 0; --count)
            value = value << 1 | bit();
        return value;
    }

    /// ue(v), 9.1. Values above `limit` fail the reader.
    uint32_t ue(uint32_t limit = UINT32_MAX - 1) noexcept {
        unsigned zeros = 0;
        while (!failed_ && bit() == 0)
            ++zeros;
        if (failed_ || zeros > 31) return fail();
        const uint32_t value = (uint32_t{1} << zeros) - 1 + bits(zeros);
        return value > limit ? fail() : value;
    }

    /// se(v), 9.1.1.
    int64_t se() noexcept {
        const int64_t code = ue();
        return code % 2 != 0 ? (code + 1) / 2 : -(code / 2);
    }

    uint32_t fail() noexcept {
        failed_ = true;
        return 0;
    }

private:
    bool load() noexcept {
        if (zeros_ >= 2 && at_ < data_.size() && data_[at_] == 3) {
            ++at_;
            zeros_ = 0;
        }
        if (failed_ || at_ == data_.size()) return fail() != 0;
        current_ = data_[at_++];
        zeros_ = current_ == 0 ? zeros_ + 1 : 0;
        left_ = 8;
        return true;
    }

    bytes data_;
    size_t at_ = 0;
    unsigned zeros_ = 0;
    unsigned left_ = 0;
    uint8_t current_ = 0;
    bool failed_ = false;
};

/// Profiles whose SPS carries the chroma format (7.3.2.1.1).
bool has_chroma_format(uint8_t profile) noexcept {
    constexpr uint8_t profiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    return std::ranges::find(profiles, profile) != std::end(profiles);
}

/// 7.3.2.1.1.1: only the syntax matters, the values are of no use here.
void skip_scaling_list(bit_reader& in, int size) noexcept {
    int64_t last = 8;
    int64_t next = 8;
    for (int i = 0; i < size && !in.failed(); ++i) {
        if (next != 0) {
            const int64_t delta = in.se();
            if (delta < -128 || delta > 127) in.fail();
            next = (last + delta + 256) % 256;
        }
        if (next != 0) last = next;
    }
}

void skip_scaling_matrix(bit_reader& in, int lists) noexcept {
    for (int i = 0; i < lists; ++i) {
        if (in.flag()) skip_scaling_list(in, i < 6 ? 16 : 64);
    }
}

/// Samples of luma to one of chroma, and whether there is any chroma to crop with.
struct sampling {
    uint32_t chroma_array_type;
    uint32_t crop_x;
    uint32_t crop_y;
};

sampling read_chroma_format(bit_reader& in, h264_info_t& info) noexcept {
    constexpr uint32_t sub_width[] = {1, 2, 2, 1};
    constexpr uint32_t sub_height[] = {1, 2, 1, 1};
    info.chroma_format = 1;
    info.bit_depth = info.bit_depth_chroma = 8;
    bool separate_planes = false;
    if (has_chroma_format(info.profile_idc)) {
        info.chroma_format = static_cast<uint8_t>(in.ue(3));
        if (info.chroma_format == 3) separate_planes = in.flag();
        info.bit_depth = static_cast<uint8_t>(8 + in.ue(6));
        info.bit_depth_chroma = static_cast<uint8_t>(8 + in.ue(6));
        in.flag();  // qpprime_y_zero_transform_bypass_flag
        if (in.flag()) skip_scaling_matrix(in, info.chroma_format == 3 ? 12 : 8);
    }
    const uint32_t type = separate_planes ? 0 : info.chroma_format;
    return {type, sub_width[type], sub_height[type]};
}

void read_picture_order(bit_reader& in, h264_info_t& info) noexcept {
    info.picture_order_type = static_cast<uint8_t>(in.ue(2));
    if (info.picture_order_type == 0) info.log2_max_picture_order = static_cast<uint8_t>(in.ue(12) + 4);
    if (info.picture_order_type != 1) return;
    in.flag();  // delta_pic_order_always_zero_flag
    in.se();    // offset_for_non_ref_pic
    in.se();    // offset_for_top_to_bottom_field
    for (uint32_t cycle = in.ue(255); cycle > 0 && !in.failed(); --cycle)
        in.se();
}

/// One side of the picture: `units` of 16 samples (or of 32, in fields), less what the two crops take off.
uint32_t cropped(bit_reader& in, uint64_t size, uint64_t first_crop, uint64_t last_crop, uint32_t unit) noexcept {
    const uint64_t crop = (first_crop + last_crop) * unit;
    return size > max_dimension || crop >= size ? in.fail() : static_cast<uint32_t>(size - crop);
}

void read_size(bit_reader& in, const sampling& chroma, h264_info_t& info) noexcept {
    const uint64_t mbs_wide = uint64_t{in.ue()} + 1;
    const uint64_t map_units_high = uint64_t{in.ue()} + 1;
    info.frame_mbs_only = in.flag();
    const uint32_t fields = info.frame_mbs_only ? 1 : 2;
    if (!info.frame_mbs_only) in.flag();  // mb_adaptive_frame_field_flag
    in.flag();                            // direct_8x8_inference_flag
    uint32_t crop[4] = {};                // left, right, top, bottom
    if (in.flag()) {
        for (uint32_t& side : crop)
            side = in.ue();
    }
    info.width = cropped(in, mbs_wide * 16, crop[0], crop[1], chroma.crop_x);
    info.height = cropped(in, map_units_high * 16 * fields, crop[2], crop[3], chroma.crop_y * fields);
}

/// E.1.2.
void skip_hrd(bit_reader& in) noexcept {
    const uint32_t count = in.ue(31) + 1;
    in.bits(8);  // bit_rate_scale, cpb_size_scale
    for (uint32_t i = 0; i < count && !in.failed(); ++i) {
        in.ue();    // bit_rate_value_minus1
        in.ue();    // cpb_size_value_minus1
        in.flag();  // cbr_flag
    }
    in.bits(20);  // lengths of delays and offsets
}

/// E.1.1. Where it is cut short, what was read before stands.
void read_vui(bit_reader& in, h264_info_t& info) noexcept {
    constexpr uint32_t extended_sar = 255;
    if (in.flag() && in.bits(8) == extended_sar) in.bits(32);
    if (in.flag()) in.flag();  // overscan
    if (in.flag()) {           // video_signal_type
        in.bits(4);
        if (in.flag()) in.bits(24);  // colour description
    }
    if (in.flag()) {  // chroma_loc_info
        in.ue(5);
        in.ue(5);
    }
    if (in.flag()) {
        const uint32_t num_units_in_tick = in.bits(32);
        const uint32_t time_scale = in.bits(32);
        if (in.failed()) return;
        info.num_units_in_tick = num_units_in_tick;
        info.time_scale = time_scale;
        in.flag();  // fixed_frame_rate_flag
    }
    const bool nal_hrd = in.flag();
    if (nal_hrd) skip_hrd(in);
    const bool vcl_hrd = in.flag();
    if (vcl_hrd) skip_hrd(in);
    if (nal_hrd || vcl_hrd) in.flag();  // low_delay_hrd_flag
    in.flag();                          // pic_struct_present_flag
    if (in.flag()) {                    // bitstream_restriction
        in.flag();
        for (int i = 0; i < 4; ++i)
            in.ue();  // bounds of bytes, bits and vectors
        info.max_num_reorder_frames = static_cast<uint8_t>(in.ue(16));
        in.ue();  // max_dec_frame_buffering
    }
}

/// Not set when the set is cut short before its VUI, or says what the standard forbids there.
std::optional<h264_info_t> read_sps(bit_reader& in) noexcept {
    h264_info_t info{};
    info.profile_idc = static_cast<uint8_t>(in.bits(8));
    info.constraints = static_cast<uint8_t>(in.bits(8));
    info.level_idc = static_cast<uint8_t>(in.bits(8));
    in.ue(31);  // seq_parameter_set_id
    const sampling chroma = read_chroma_format(in, info);
    info.log2_max_frame_num = static_cast<uint8_t>(in.ue(12) + 4);
    read_picture_order(in, info);
    info.max_num_ref_frames = in.ue(16);
    in.flag();  // gaps_in_frame_num_value_allowed_flag
    read_size(in, chroma, info);
    if (in.flag()) {
        if (in.failed()) return std::nullopt;
        read_vui(in, info);
        return info;
    }
    if (!in.flag()) in.fail();  // the stop bit: without it the end is missing
    if (in.failed()) return std::nullopt;
    return info;
}

}  // namespace

std::span<const uint8_t> h264_next_nal(std::span<const uint8_t>& stream) noexcept {
    while (enter_nal(stream)) {
        const size_t end = find_start_code(stream);
        const bytes nal = without_trailing_zeros(stream.first(end));
        stream = stream.subspan(end);
        if (!nal.empty()) return nal;
    }
    stream = {};
    return {};
}

uint8_t h264_nal_type(std::span<const uint8_t> nal) noexcept {
    return nal.empty() ? uint8_t{0} : static_cast<uint8_t>(nal[0] & 0x1f);
}

int h264_is_slice(uint8_t type) noexcept { return type >= h264_slice && type <= h264_slice_idr; }

std::span<const uint8_t> h264_find(std::span<const uint8_t> stream, uint8_t type) noexcept {
    for (bytes nal = h264_next_nal(stream); !nal.empty(); nal = h264_next_nal(stream)) {
        if (h264_nal_type(nal) == type) return nal;
    }
    return {};
}

std::span<const uint8_t> h264_first_slice(std::span<const uint8_t> stream) noexcept {
    while (enter_nal(stream)) {
        if (h264_is_slice(h264_nal_type(stream))) return stream;
    }
    return {};
}

int h264_parse_sps(std::span<const uint8_t> nal, h264_info_t* out) noexcept {
    if (!out || nal.empty() || (nal[0] & 0x9f) != h264_sps) return 0;
    bit_reader in(nal.subspan(1));
    const std::optional<h264_info_t> info = read_sps(in);
    if (!info) return 0;
    *out = *info;
    return 1;
}

int h264_parse_slice(std::span<const uint8_t> nal, const h264_info_t& sps, h264_slice_t* out) noexcept {
    constexpr uint32_t slice_types = 5;  // the second time they hold for all slices of the picture
    constexpr uint32_t b_slice = 1;
    const uint8_t type = h264_nal_type(nal);
    if (!out || (type != h264_slice && type != h264_slice_idr)) return 0;
    bit_reader in(nal.subspan(1));
    h264_slice_t found{};
    found.idr = type == h264_slice_idr;
    found.reference = (nal[0] & 0x60) != 0;
    in.ue();  // first_mb_in_slice
    found.b = in.ue(2 * slice_types - 1) % slice_types == b_slice;
    in.ue(255);  // pic_parameter_set_id
    in.bits(sps.log2_max_frame_num);
    if (!sps.frame_mbs_only && in.flag()) in.flag();  // bottom_field_flag
    if (found.idr) in.ue(65535);                      // idr_pic_id
    if (sps.picture_order_type == 0) found.picture_order = in.bits(sps.log2_max_picture_order);
    if (in.failed()) return 0;
    *out = found;
    return 1;
}

int h264_parse(std::span<const uint8_t> stream, std::span<const uint8_t>* sps, std::span<const uint8_t>* pps,
               h264_info_t* info) noexcept {
    bytes first_sps;
    bytes first_pps;
    while (first_sps.empty() || first_pps.empty()) {
        const bytes nal = h264_next_nal(stream);
        if (nal.empty()) break;
        if (first_sps.empty() && h264_nal_type(nal) == h264_sps) first_sps = nal;
        if (first_pps.empty() && h264_nal_type(nal) == h264_pps) first_pps = nal;
    }
    if (sps) *sps = first_sps;
    if (pps) *pps = first_pps;
    h264_info_t found;
    if (!h264_parse_sps(first_sps, &found) || first_pps.empty()) return 0;
    if (info) *info = found;
    return 1;
}

int h264_starts_access_unit(std::span<const uint8_t> nal) noexcept {
    const uint8_t type = h264_nal_type(nal);
    if ((type >= h264_sei && type <= h264_aud) || (type >= 14 && type <= 18)) return 1;
    const bool has_first_mb = type == h264_slice || type == 2 || type == h264_slice_idr;  // 2: data partition A
    return has_first_mb && nal.size() > 1 && (nal[1] & 0x80) != 0;  // ue(v) of 0 is a single 1 bit
}

int h264_parse_config(bytes record, h264_config_t* out) noexcept {
    constexpr size_t fixed = 5;
    if (record.size() < fixed) return 0;
    h264_config_t found = {(record[4] & 3U) + 1, {}, {}};
    record = record.subspan(fixed);
    if (!take_sets(record, 0x1f, found.sps) || !take_sets(record, 0xff, found.pps) || found.length_size == 3) return 0;
    *out = found;
    return 1;
}

bytes h264_next_set(bytes& list) noexcept {
    bytes set;
    while (set.empty() && list.size() >= 2) {
        const size_t size = std::min<size_t>(size_t{list[0]} << 8 | list[1], list.size() - 2);
        set = list.subspan(2, size);
        list = list.subspan(2 + size);
    }
    return set;
}
