// What files hold (formats.cpp): frames that repeat for ever without a jump in time. The film of an H.264 file.
#pragma once

#include "avc/frame.h"
#include "core/owned.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace media_module {

/// A whole file in memory, of at most 512 MiB. Throws std::runtime_error.
class file_bytes {
public:
    explicit file_bytes(const std::string& path);
    std::span<const uint8_t> bytes() const { return {data_.get(), size_}; }
    std::string_view text() const { return {reinterpret_cast<const char*>(data_.get()), size_}; }

private:
    size_t size_ = 0;
    core::owned<uint8_t> data_;
};

using frame_ptr = core::owned<av::frame_t, avc_frame_need>;

/// A length of time that a whole number of frames fills evenly.
struct pace {
    uint64_t frames = 1;   ///< frames ...
    uint64_t seconds = 1;  ///< ... in so many seconds
};

/// Frames of one format that follow each other at an even pace, the first after the last again.
class track {
public:
    /// @param config  what decoders need beside the frames: AudioSpecificConfig
    track(std::vector<frame_ptr> frames, pace rate, std::vector<uint8_t> config = {})
        : frames_(std::move(frames)), rate_(rate), config_(std::move(config)) {}

    /// Pictures that are shown in another order. @param places  of each picture among those that are shown
    void set_order(const std::vector<size_t>& places);
    /// Microseconds from the decoding of a picture to its display, where it keeps its place.
    uint64_t delay() const { return delay_; }

    const av::frame_t& frame(uint64_t number) const { return *frames_[number % frames_.size()]; }
    size_t size() const { return frames_.size(); }

    /// Microseconds from the start of playing to a frame. Counted from the start each time, so that no rounding adds
    /// up.
    uint64_t time(uint64_t number) const {
        const uint64_t whole = number / rate_.frames;
        return (whole * rate_.seconds * 1'000'000) + (number % rate_.frames) * rate_.seconds * 1'000'000 / rate_.frames;
    }

    uint32_t fcc() const { return frames_.front()->fcc; }
    std::span<const uint8_t> config() const { return config_; }

private:
    std::vector<frame_ptr> frames_;
    pace rate_;
    std::vector<uint8_t> config_;
    uint64_t delay_ = 0;
};

/// @return a frame of time 0; throws std::bad_alloc
frame_ptr make_frame(uint32_t fcc, std::span<const uint8_t> bytes);

/// The pictures of an H.264 file in Annex B form. Throws std::runtime_error with a reason that names the file and tells
/// what helps.
/// @param per_second  pictures a second; 0 for what the stream tells, or 25 where it tells nothing
track load_film(const std::string& path, uint32_t per_second = 0);

enum class wanted_t : uint8_t { any, pictures, sound };

/// The track of a file, or of several with a picture each, whose paths stand one a line. Throws std::runtime_error with
/// a reason that names the file.
///     .wav             sound: one channel of 8000 Hz, as µ-law or 16-bit PCM; frames of µ-law of 20 ms
///     .aac             sound: AAC of one format in ADTS form
///     .json            detector reports, one JSON document a line; five a second
///     .jpg, .jpeg      JPEG pictures that RTP can carry; five a second
///     any other name   H.264 in Annex B form, unless it begins as one of these
/// @param wanted      takes the file for that, whatever its name
/// @param per_second  pictures a second; 0 for what stands above, or what an H.264 stream tells
track load_track(const std::string& files, wanted_t wanted, uint32_t per_second);

}  // namespace media_module
