// What files hold, and how it is played.
#pragma once

#include "film.h"

#include <cstdint>
#include <string>

namespace media_module {

enum class wanted_t : uint8_t { any, pictures, sound };

/// The track of a file, or of several with a picture each, whose paths stand one a line. Throws std::runtime_error with
/// a reason that names the file.
///     .wav             sound: one channel of 8000 Hz, as µ-law or 16-bit PCM; frames of µ-law of 20 ms
///     .aac             sound: AAC of one format in ADTS form
///     .json            detector reports, one JSON document a line; five a second
///     .jpg, .jpeg      JPEG pictures that RTP can carry; five a second
///     any other name   H.264 in Annex B form, unless it begins as one of these
/// @param wanted      takes the file for that, whatever its name
/// @param per_second  pictures a second; 0 for what stands above, or what an H.264 stream tells
track load_track(const std::string& files, wanted_t wanted, uint32_t per_second);

}  // namespace media_module
