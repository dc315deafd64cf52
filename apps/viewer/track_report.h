// What is told of a received track.
#pragma once

#include "media/watcher.h"

#include <string>

namespace viewer {

/// A line for people and scripts: name=value, separated by blanks.
std::string report_of(const media::track_counts_t& track, size_t number);

}  // namespace viewer
