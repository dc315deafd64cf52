// Descriptions as they are found, made into what the parser reads (RFC 4566, 9).
#pragma once

#include "core/owned.h"

#include <string_view>

namespace rtsp3 {

/// A description with lines that end as they should, single blanks between the words of m=, c=, rtpmap and fmtp, none
/// around values, and no empty parameter; names of attributes and of parameters in small letters. Reading stops at a
/// NUL.
/// @param control  receives the control value of the session, which points into `text`; empty for none
/// @return at most twice the size of `text`; null when memory is out
core::owned_text tidy(std::string_view text, std::string_view* control, const char* file, int line) noexcept;

}  // namespace rtsp3
