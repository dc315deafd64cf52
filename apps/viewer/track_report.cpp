#include "track_report.h"

#include "avc/fcc.h"

#include <algorithm>
#include <cstdio>

namespace viewer {

std::string report_of(const media::track_counts_t& track, size_t number) {
    char format[5];
    fcc_str(track.fcc == av::fcc_univ ? av::fcc_meta : track.fcc, format);  // metadata, whoever wrote it
    std::replace(format, format + 4, ' ', '_');
    const auto seconds = static_cast<double>(track.length) * 1e-6;
    const double rate = seconds > 0 ? static_cast<double>(track.bytes) * 8e-6 / seconds : 0;
    char line[320];
    std::snprintf(line, sizeof line,
                  "track=%zu format=%s frames=%llu bytes=%llu seconds=%.3f mbit/s=%.3f packets=%llu lost=%llu "
                  "left_out=%llu jitter_ms=%.3f",
                  number, format, static_cast<unsigned long long>(track.frames),
                  static_cast<unsigned long long>(track.bytes), seconds, rate,
                  static_cast<unsigned long long>(track.packets), static_cast<unsigned long long>(track.lost),
                  static_cast<unsigned long long>(track.left_out), static_cast<double>(track.jitter) * 1e-3);
    return line;
}

}  // namespace viewer
