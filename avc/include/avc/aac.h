/// AAC: the AudioSpecificConfig that describes a track (ISO/IEC 14496-3, 1.6.2.1), and ADTS, the form of files, in
/// which a header stands before each access unit (1.A.2.2; ISO/IEC 13818-7, 6.2). Nothing is allocated. Any thread.
#pragma once

#include "core/api.h"

#include <cstdint>
#include <span>

namespace av {

/// What an AudioSpecificConfig says. Where the decoder makes a second band of frequencies of each frame (SBR), it is
/// that of the first one.
struct aac_config_t {
    uint32_t type = 0;      ///< audio object type: 2 is AAC LC
    uint32_t rate = 0;      ///< samples per second
    uint32_t layout = 0;    ///< channel configuration; 0: described by a list, which is not read
    uint32_t channels = 0;  ///< of the layout; 0 when that tells nothing
    uint32_t samples = 0;   ///< of a frame, for each channel: 1024 or 960
};

/// A frame in ADTS form.
struct adts_t {
    uint32_t header = 0;     ///< bytes before the access unit: 7, or 9 with a checksum
    uint32_t size = 0;       ///< bytes of header and access unit
    uint32_t rate = 0;       ///< samples per second
    uint32_t channels = 0;   ///< 1 to 8
    uint8_t config[2] = {};  ///< AudioSpecificConfig of the track
};

inline constexpr uint32_t adts_header_size = 7;

}  // namespace av

/// Reads an AudioSpecificConfig. @return 1; 0 when it ends early, or the rate is reserved: `out` is then unchanged
INET_API int aac_parse_config(std::span<const uint8_t> config, av::aac_config_t* out) noexcept;

/// Reads the ADTS header at the beginning of `bytes`. The checksum is not looked at.
/// @return 1; 0 when more bytes are needed to tell; -1 for what is no such header, or describes what has no
/// AudioSpecificConfig of two bytes: several blocks of sound in a frame, channels by a list, a reserved rate. `out` is
/// unchanged but for 1. Behind 1 the frame itself may still be cut short: see adts_t::size.
INET_API int adts_parse(std::span<const uint8_t> bytes, av::adts_t* out) noexcept;

/// Writes the ADTS header of an access unit.
/// @param config  of its track
/// @param size    bytes of the access unit
/// @return 1; 0 when ADTS cannot say it: an object type above 4, a rate or channels that are not in its tables, an
/// access unit above 8184 bytes
INET_API int adts_header(const av::aac_config_t& config, uint32_t size,
                         std::span<uint8_t, av::adts_header_size> out) noexcept;
