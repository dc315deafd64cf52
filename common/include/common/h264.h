/// H.264 byte streams and parameter sets (ITU-T H.264, Annex B and 7.3.2). No allocation. Any thread. Returned spans
/// point into the given stream, and are valid until its bytes end or change.
#pragma once

#include "core/api.h"

#include <cstddef>
#include <cstdint>
#include <span>

/// NAL unit types (table 7-1).
enum h264_nal_type_t : uint8_t {
    h264_slice = 1,
    h264_slice_idr = 5,
    h264_sei = 6,
    h264_sps = 7,
    h264_pps = 8,
    h264_aud = 9,
};

/// What a sequence parameter set says.
struct h264_info_t {
    uint8_t profile_idc;
    uint8_t constraints;  ///< the constraint flags as they stand in the second byte
    uint8_t level_idc;
    uint8_t chroma_format;  ///< 0 monochrome, 1 4:2:0, 2 4:2:2, 3 4:4:4
    uint8_t bit_depth;      ///< of luma
    uint8_t bit_depth_chroma;
    bool frame_mbs_only;
    uint32_t width;  ///< luma samples after cropping, 1..16384, as is height
    uint32_t height;
    uint32_t max_num_ref_frames;
    uint32_t num_units_in_tick;  ///< 0 without timing information
    uint32_t time_scale;
    uint8_t max_num_reorder_frames;  ///< pictures that may precede one in decoding order and follow it in display
                                     ///< order; 0 when the stream does not say
    uint8_t log2_max_frame_num;
    uint8_t picture_order_type;      ///< 0 to 2
    uint8_t log2_max_picture_order;  ///< of type 0
};

/// Takes the next NAL unit off the front of an Annex B stream. Start codes have three or four bytes. Trailing zero
/// bytes are left out. Bytes before the first start code, and empty NAL units, are skipped. Calls until the end read
/// the stream once. @return the NAL unit, empty when there is none left.
INET_API std::span<const uint8_t> h264_next_nal(std::span<const uint8_t>& stream) noexcept;

/// Type of a NAL unit; 0 for an empty one.
INET_API uint8_t h264_nal_type(std::span<const uint8_t> nal) noexcept;

/// 1 for the types that carry slices of the picture (1 to 5), else 0.
INET_API int h264_is_slice(uint8_t type) noexcept;

/// First NAL unit of a type in an Annex B stream; empty when there is none. The stream is read up to the end of that
/// unit.
INET_API std::span<const uint8_t> h264_find(std::span<const uint8_t> stream, uint8_t type) noexcept;

/// The stream from its first slice on, starting at the NAL header, with all that follows; empty when there is none.
/// Only what stands before it (delimiter, parameter sets, SEI) is read. The slices are not.
INET_API std::span<const uint8_t> h264_first_slice(std::span<const uint8_t> stream) noexcept;

/// Reads a sequence parameter set (NAL header included, emulation prevention bytes in place). When the VUI is cut short
/// or malformed, what was read before it is kept.
/// @return 1; 0 when it is cut short or malformed before the VUI: `out` is then as before.
INET_API int h264_parse_sps(std::span<const uint8_t> nal, h264_info_t* out) noexcept;

/// Parameter sets of an access unit or an extradata stream: sets the spans to the first SPS and PPS (empty when
/// missing) and reads the SPS into `info`; each pointer may be null. @return 1 when both are there and the SPS can be
/// read, else 0.
INET_API int h264_parse(std::span<const uint8_t> stream, std::span<const uint8_t>* sps, std::span<const uint8_t>* pps,
                        h264_info_t* info) noexcept;

/// What the head of a slice says of its picture's place in the order of display.
struct h264_slice_t {
    bool idr;
    bool reference;          ///< others build on the picture
    bool b;                  ///< the slice may build on pictures that are shown later
    uint32_t picture_order;  ///< its low bits, of picture order type 0; else 0
};

/// Reads the head of a slice (7.3.3). @param sps  of its sequence
/// @return 1; 0 when the NAL unit is no slice or is cut short: `out` is then as before.
INET_API int h264_parse_slice(std::span<const uint8_t> nal, const h264_info_t& sps, h264_slice_t* out) noexcept;

/// 1 when the NAL unit begins a new access unit after one that holds a slice (7.4.1.2.3): an AUD, SPS, PPS, SEI or one
/// of the types 14 to 18, or a slice whose first_mb_in_slice is 0.
INET_API int h264_starts_access_unit(std::span<const uint8_t> nal) noexcept;

/// The configuration of a track whose NAL units stand behind their lengths.
struct h264_config_t {
    uint32_t length_size;          ///< bytes of such a length: 1, 2 or 4
    std::span<const uint8_t> sps;  ///< sequence parameter sets for h264_next_set()
    std::span<const uint8_t> pps;  ///< picture parameter sets
};

/// Reads an AVCDecoderConfigurationRecord (ISO/IEC 14496-15, 5.3.3.1).
/// @return 1; 0 when it is cut short, or states lengths of 3 bytes: `out` is then as before.
INET_API int h264_parse_config(std::span<const uint8_t> record, h264_config_t* out) noexcept;

/// Takes the next parameter set off the front of a list. Empty ones are skipped. @return empty when there is none left.
INET_API std::span<const uint8_t> h264_next_set(std::span<const uint8_t>& list) noexcept;
