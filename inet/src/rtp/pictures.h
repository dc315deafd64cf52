// Received data of one RTP time, put together into a frame: H.264 NAL units into access units, with their parameter
// sets, and whether packets are missing in it. For every family that receives pictures.
#pragma once

#include "rtp/parameter_sets.h"

#include "core/buf.h"
#include "core/owned.h"
#include "inet/rtp_protocol.h"

#include <cstdint>
#include <span>

namespace rtp {

/// A frame while it is put together. Begins zeroed.
struct gathering_t {
    buf_t frame;
    uint32_t rtp_time;
    bool picture;   ///< holds a slice, or data of another format
    bool key;       ///< holds an IDR slice
    bool broken;    ///< packets are missing in it
    bool torn;      ///< packets are missing in front of what comes next
    bool left_out;  ///< it passed the limit, or memory was out
    bool orphaned;  ///< the one before it was left out

    bool sets_changed;  ///< parameter sets came since they last went into a frame
    bool marked;        ///< the last data ended with the marker bit,
    bool marks_units;   ///< which this sender sets not only at the end of a picture
    uint32_t lost;      ///< the packetizer's counters when data last came
    uint32_t discarded;
    uint32_t restarts;

    ~gathering_t() { core_buf_free(&frame); }
};

struct gathering_limits {
    bool before_slices;  ///< parameter sets before every slice, else before the first of a key picture
    uint32_t most;       ///< bytes of a frame; a longer one is left out
    core::place where;   ///< who allocates
};

/// Adds what one event of the packetizer brought: a NAL unit, several with start codes, or an aggregate.
/// @param sets  the parameter sets of the track, which are kept from what comes
/// @return what became of the parameter sets: `restarted` when another stream begins
kept_t add_h264(gathering_t& to, buf_t& sets, std::span<const uint8_t> nal, const gathering_limits& limits) noexcept;

/// Adds bytes as they are. @return false when the frame is left out from now on
bool add_bytes(gathering_t& to, std::span<const uint8_t> bytes, const gathering_limits& limits) noexcept;

/// To be called before data is added.
/// @param another  the data has another RTP time than the frame at hand
/// @param alone    a gap before the data takes nothing from it
/// @param picture  frames of this format travel in several packets, the last with the marker bit
void note_loss(gathering_t& to, const trak_t& from, bool another, bool alone, bool picture) noexcept;

/// Whether the frame at hand is whole, and what it refers to was handed over.
bool is_complete(gathering_t& of, bool key) noexcept;
void end_frame(gathering_t& of) noexcept;

}  // namespace rtp
