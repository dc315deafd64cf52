// The clip that the camera plays: tracks of frames that repeat for ever without a jump in time.
#pragma once

#include "film.h"
#include "options.h"

#include <optional>
#include <string>
#include <vector>

namespace camera {

using apps::frame_ptr;
using apps::pace;
using apps::track;

/// One address of the camera and what it sends.
struct channel {
    std::string path;           ///< "live" in rtsp://host/live
    std::vector<track> tracks;  ///< announced in this order
};

struct clip {
    std::vector<channel> channels;
};

/// Reads the files that the options name, or, without any source, the bundled ones. On failure nothing, with the reason
/// in `error`.
std::optional<clip> load_clip(const options& wanted, std::string& error);

}  // namespace camera
