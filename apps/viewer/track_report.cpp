#include "track_report.h"

#include "avc/fcc.h"

#include <algorithm>
#include <cstdio>

namespace viewer {

void track_report::add(const track_report& more) {
    frames += more.frames;
    bytes += more.bytes;
    left_out += more.left_out;
    packets += more.packets;
    lost += more.lost;
    seconds += more.seconds;
    jitter_ms = more.jitter_ms;
}

std::string track_report::text(size_t number) const {
    char format[5];
    fcc_str(fcc, format);
    std::replace(format, format + 4, ' ', '_');
    char line[320];
    std::snprintf(line, sizeof line,
                  "track=%zu format=%s frames=%llu bytes=%llu seconds=%.3f mbit/s=%.3f packets=%llu lost=%llu "
                  "left_out=%llu jitter_ms=%.3f",
                  number, format, static_cast<unsigned long long>(frames), static_cast<unsigned long long>(bytes),
                  seconds, megabits_per_second(), static_cast<unsigned long long>(packets),
                  static_cast<unsigned long long>(lost), static_cast<unsigned long long>(left_out), jitter_ms);
    return line;
}

}  // namespace viewer
