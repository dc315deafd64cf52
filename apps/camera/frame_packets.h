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
    /// @return null when memory is out; good until the next call
    rtp::Packets* of(const av::frame_t& frame) {
        for (entry& each : entries_) {
            if (each.data == frame.data && each.packets.time() == frame.time) return &each.packets;
        }
        entry& oldest = entries_[next_];
        next_ = (next_ + 1) % entries_.size();
        const bool made = oldest.packets.cut(&frame) != 0;
        oldest.data = made ? frame.data : nullptr;
        return made ? &oldest.packets : nullptr;
    }

private:
    struct entry {
        const uint8_t* data = nullptr;  ///< of the frame, which is the clip's for good
        rtp::Packets packets{CORE_HERE};
    };

    std::array<entry, 4> entries_;
    size_t next_ = 0;
};

}  // namespace camera
