// What is told of a received track.
#pragma once

#include <cstdint>
#include <string>

namespace viewer {

struct track_report {
    uint32_t fcc = 0;
    uint64_t frames = 0;    ///< whole ones
    uint64_t bytes = 0;     ///< of them
    uint64_t left_out = 0;  ///< frames with gaps, and pictures that build on them
    uint64_t packets = 0;
    uint64_t lost = 0;     ///< packets
    double seconds = 0;    ///< of media, from the first to the last frame
    double jitter_ms = 0;  ///< interarrival jitter (RFC 3550, A.8), as it was last

    double megabits_per_second() const { return seconds > 0 ? static_cast<double>(bytes) * 8e-6 / seconds : 0; }
    /// Adds what came over a later connection.
    void add(const track_report& more);
    /// A line for people and scripts: name=value, separated by blanks.
    std::string text(size_t number) const;
};

}  // namespace viewer
