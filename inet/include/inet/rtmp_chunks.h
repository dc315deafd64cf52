/// The RTMP chunks of one frame, made once for any number of viewers. Chunk streams, message stream (1), chunk size
/// (4,194,304) and times are the same for all of them. So every viewer is sent the same bytes; an encrypted one, a
/// ciphered copy (inet/rtmp_protocol.h).
///
///     "H264"    video, FLV codec 7 (AVC). NAL units of types 1 and 5, each in a message of its own
///     "mp4a"    audio, codec 10 (AAC), once set_sound() has given its configuration
///     "mp3 "    audio, codec 2
///     "PCMU"    audio, codec 8
///     "MP4V"    video, codec 9
/// The first byte of "mp3 " and "PCMU" names the rate: 0x04 for 11,025 Hz, 0x08 for 22,050 Hz, 0x0C for 44,100 Hz. For
/// another one it is 0x00, of "mp3 " 0x0C. 0x02 means 16 bits (always for "mp3 "), 0x01 more than one channel.
///
/// An object belongs to one thread. Once it has grown to the longest frame, it allocates nothing. An object for which
/// there was no memory cuts nothing.
#pragma once

#include "avc/frame.h"
#include "core/api.h"
#include "core/buf.h"

#include <cstdint>

namespace inet::rtmp {

/// Chunk size of all media.
inline constexpr uint32_t media_chunk_size = 4194304;

class INET_API Chunks {
public:
    /// `file` and `line` name what the object allocates; the text is valid until the object ends.
    Chunks(const char* file, int line) noexcept;
    ~Chunks();
    Chunks(const Chunks&) = delete;
    Chunks& operator=(const Chunks&) = delete;

    /// The frame time (microseconds) that has timestamp 0. The time of the first frame unless set. Times before it have
    /// timestamp 0, too.
    void set_start(uint64_t us) noexcept;

    /// Whether all NAL units of a picture go into one message; off unless set. Players take each message for a whole
    /// picture, so they need it for pictures of several slices.
    void set_whole_pictures(bool on) noexcept;

    /// Tells that there is sound of a format: onMetaData then says so, and players wait for it. "mp4a" needs its
    /// AudioSpecificConfig (2 to 64 bytes, copied). A change makes a new head. 0 for no sound.
    /// @return 1, or 0 for another format or configuration; all is then as before
    int set_sound(uint32_t fcc, buffer_t config) noexcept;

    /// Makes the chunks of a frame. Drops those of the frame before. Parameter sets of an H.264 frame are kept for the
    /// head, at most 1,000 bytes of both.
    /// @return 1; 0 when the frame has nothing to be sent, as H.264 before parameter sets have come; -1 for null,
    ///         another format, or when memory is out. bytes() is empty after 0 and -1
    int cut(const av::frame_t* frame) noexcept;

    /// Messages of the frame. Valid until cut().
    buffer_t bytes() const noexcept;
    uint32_t fcc() const noexcept;
    /// Milliseconds, modulo 2^32.
    uint32_t timestamp() const noexcept;

    /// What a player has to have before the frame: onMetaData, with timestamp 0, and the sequence headers that are
    /// known, with the frame's timestamp. onMetaData has "width", "height", "videocodecid" ("avc1"), "audiocodecid"
    /// (the number above) and "date" (the frame's time), as far as they are known. Valid until cut() or set_sound().
    /// Empty when nothing is known or memory is out.
    buffer_t head() noexcept;
    /// The number of the head: 0 while there is none. Another one when parameter sets or sound change; the same in
    /// every object for the same sets and sound. Send the head to each viewer whose last one had another number, before
    /// the frame. Rtmp::Feed() does it.
    uint32_t generation() const noexcept;

private:
    class insides;
    insides* insides_;
};

}  // namespace inet::rtmp
