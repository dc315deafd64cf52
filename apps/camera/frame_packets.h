// Frames cut into packets for all viewers of a network thread.
#pragma once

#include "avc/frame.h"
#include "core/memory.h"
#include "inet/rtp_packets.h"

#include <array>
#include <cstddef>

namespace camera {

/// Remembers the frames that were cut last: most viewers are sent the same one, some are still coming up to it.
class frame_packets {
public:
    /// @return null for a frame that makes no packet, or when memory is out; good until the next call
    rtp::Packets* of(const av::frame_t& frame) {
        for (entry& each : entries_) {
            if (each.data == frame.data && each.packets.time() == frame.time) return each.made();
        }
        entry& oldest = entries_[next_];
        next_ = (next_ + 1) % entries_.size();
        oldest.data = frame.data;
        oldest.packets.cut(&frame);
        return oldest.made();
    }

private:
    struct entry {
        const uint8_t* data = nullptr;  ///< of the frame, which is the clip's for good
        rtp::Packets packets{CORE_HERE};

        rtp::Packets* made() { return packets.count() != 0 ? &packets : nullptr; }
    };

    /// More than come due together, also on a thread that is late: each viewer takes them all before the next one does.
    std::array<entry, 8> entries_;
    size_t next_ = 0;
};

}  // namespace camera
