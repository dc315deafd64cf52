/// Media frames. Frames share a payload by count. Any number of frames on any threads may hold one payload, and none
/// may change it. A record belongs to one thread at a time.
#pragma once

#include "core/api.h"
#include "core/param.h"

#include <cstdint>

namespace av {

struct payload_t;  ///< counted bytes behind one or more frames

/// One coded picture, block of sound or text. The owner of the record may change `time`; the other fields stay as made.
struct frame_t {
    uint32_t fcc;   ///< format of the data (avc/fcc.h); H.264 is one access unit in Annex B form
    uint64_t time;  ///< microseconds since 1970-01-01 UTC
    const uint8_t* data;
    uint32_t size;
    uint32_t width, height;         ///< of a picture, 0 when not known
    uint32_t rate, channels, bits;  ///< of sound: samples per second, channels, bits of a sample; 0 when not known
    uint8_t key;                    ///< 1 when decoding can start here
    uint8_t complete;               ///< 1 when the whole frame is in `data`
    uint32_t shown_after;           ///< microseconds from the decoding of a picture, at `time`, to its display; 0 when
                                    ///< the pictures come in display order
    payload_t* payload;             ///< who holds `data`; null when it is borrowed
};

/// Metadata beside the media: the analytics report of a moment, or another text. Same rules as for a frame.
struct meta_t {
    uint32_t fcc;  ///< "META" for analytics JSON, "UNIV" for bytes sent as they are
    uint64_t time;
    const uint8_t* data;
    uint32_t size;
    payload_t* payload;
};

}  // namespace av

/// New frame with a copy of the bytes, behind which a NUL is kept. Width, height and key are read from H.264 and JPEG
/// data.
/// @return null for null data with a size, or when memory is out. Release with avc_frame_need().
INET_API av::frame_t* avc_frame_create(uint32_t fcc, uint64_t time, const void* data, uint32_t size, const char* file,
                                       int line) noexcept;

/// New record for the same payload. Borrowed bytes are copied. Any thread that may read the frame.
INET_API av::frame_t* avc_frame_dup(const av::frame_t* frame, const char* file, int line) noexcept;

/// Makes `out`, a record of the caller's, a frame of the same payload, without allocating. Borrowed bytes are copied.
/// What `out` held before is overwritten, not released. Any thread that may read the frame.
/// @return 1; 0 for null, or when memory is out: `out` is then empty. End it with avc_frame_drop().
INET_API int avc_frame_share(av::frame_t* out, const av::frame_t* frame, const char* file, int line) noexcept;
/// Releases the share of the payload that the record holds, and empties the record. Null is ignored.
INET_API void avc_frame_drop(av::frame_t* frame) noexcept;

/// New frame from the entry named "frame" (type param_data, pointing at an av::frame_t) of a list; null when it is
/// missing.
INET_API av::frame_t* avc_frame_parse(const param_t* params, const char* file, int line) noexcept;

/// Releases a record and its share of the payload, and nulls the handle.
INET_API void avc_frame_need(av::frame_t*& frame) noexcept;

INET_API av::meta_t* avc_meta_create(uint32_t fcc, uint64_t time, const void* data, uint32_t size, const char* file,
                                     int line) noexcept;
INET_API void avc_meta_need(av::meta_t*& meta) noexcept;
