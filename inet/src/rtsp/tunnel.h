// The POST stream of RTSP over HTTP.
#pragma once

#include "core/buf.h"

namespace rtsp3 {

/// Decodes the whole groups of four at the front of a Base64 stream and appends them to `out`; blanks are skipped, a
/// group with padding is followed by the next. What was decoded is dropped from `text`, a group that is not yet whole
/// stays.
/// @return 1; 0 when memory is out, with both as before but for blanks; -1 for what is no Base64
int decode_base64_stream(buf_t* text, buf_t* out, const char* file, int line) noexcept;

}  // namespace rtsp3
