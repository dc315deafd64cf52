// What the boxes of a file say.
#pragma once

#include "avc/mp4.h"
#include "core/owned.h"

#include <cstdint>
#include <span>

namespace av::mp4 {

using bytes = std::span<const uint8_t>;

/// Big-endian fields from the front of a box. Behind the end all are 0 and ok() is false.
class fields {
public:
    explicit fields(bytes body) noexcept : rest_(body) {}

    uint8_t u8() noexcept { return static_cast<uint8_t>(big_endian(1)); }
    uint16_t u16() noexcept { return static_cast<uint16_t>(big_endian(2)); }
    uint32_t u24() noexcept { return static_cast<uint32_t>(big_endian(3)); }
    uint32_t u32() noexcept { return static_cast<uint32_t>(big_endian(4)); }
    uint64_t u64() noexcept { return big_endian(8); }
    bytes take(size_t size) noexcept {
        ok_ = ok_ && size <= rest_.size();
        const bytes taken = rest_.first(ok_ ? size : 0);
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    bytes rest() const noexcept { return rest_; }
    bool ok() const noexcept { return ok_; }

private:
    uint64_t big_endian(size_t size) noexcept {
        uint64_t value = 0;
        for (const uint8_t byte : take(size))
            value = value << 8 | byte;
        return value;
    }

    bytes rest_;
    bool ok_ = true;
};

/// Size and type in front of a box.
struct box_head {
    uint32_t type = 0;
    uint64_t size = 0;    ///< with its head; 0 up to the end of the file
    uint32_t header = 0;  ///< bytes of the head
};

constexpr uint32_t type_of(const char (&name)[5]) noexcept {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value = value << 8 | static_cast<uint8_t>(name[i]);
    return value;
}

inline constexpr uint32_t longest_head = 16;

/// @return false when the bytes are too few or contradict themselves
bool read_head(bytes from, box_head& out) noexcept;

/// The boxes in a box, one after the other. next() takes one; at the end, or where one is no box, it gives false.
class boxes {
public:
    explicit boxes(bytes body) noexcept : rest_(body) {}
    bool next() noexcept;
    uint32_t type() const noexcept { return type_; }
    bytes body() const noexcept { return body_; }

private:
    bytes rest_;
    bytes body_;
    uint32_t type_ = 0;
};

/// First box of a type in a box; empty when there is none.
bytes find(bytes body, uint32_t type) noexcept;

/// A track of the moov that can be read.
struct track {
    uint32_t id = 0;
    mp4_track_t said;               ///< without its configuration
    core::vector<uint8_t> config;   ///< H.264: parameter sets in Annex B form
    uint32_t length_size = 0;       ///< H.264: bytes of the length in front of a NAL unit
    uint32_t default_duration = 0;  ///< what fragments do not say
    uint32_t default_size = 0;
    uint32_t default_flags = 0;
    uint64_t next_time = 0;  ///< ticks at which the next fragment begins that does not say when
};

inline constexpr size_t most_tracks = 8;

/// Reads the body of a moov. Throws std::bad_alloc. @return false without a track that can be read
bool read_movie(bytes moov, core::vector<track>& out);

/// A sample of a fragment, still in the file.
struct sample {
    uint64_t time;
    uint64_t position;
    uint32_t size;
    uint32_t duration;
    int32_t shown_after;
    uint32_t track;
    bool key;
};

inline constexpr size_t most_samples = 65536;

/// Reads the body of a moof that begins at `position` in the file. Throws std::bad_alloc. @return false when it is
/// malformed
bool read_fragment(bytes moof, uint64_t position, core::vector<track>& tracks, core::vector<sample>& out);

}  // namespace av::mp4
