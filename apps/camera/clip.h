// The clip that the camera plays: tracks of frames that repeat for ever without a jump in time.
#pragma once

#include "options.h"

#include "avc/frame.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace camera {

struct frame_deleter {
    void operator()(av::frame_t* frame) const { avc_frame_need(frame); }
};
using frame_ptr = std::unique_ptr<av::frame_t, frame_deleter>;

/// A length of time that a whole number of frames fills evenly.
struct pace {
    uint64_t frames = 1;   ///< frames ...
    uint64_t seconds = 1;  ///< ... in so many seconds
};

/// Frames of one format that follow each other at an even pace, the first after the last again.
class track {
public:
    track(std::vector<frame_ptr> frames, pace rate) : frames_(std::move(frames)), rate_(rate) {}

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

private:
    std::vector<frame_ptr> frames_;
    pace rate_;
    uint64_t delay_ = 0;
};

/// One address of the camera and what it sends.
struct channel {
    std::string path;           ///< "live" in rtsp://host/live
    std::vector<track> tracks;  ///< announced in this order
};

struct clip {
    std::vector<channel> channels;
};

/// Reads the files that the options name, or, without any source, the bundled ones. On failure nothing, with the reason
/// in `error`.
std::optional<clip> load_clip(const options& wanted, std::string& error);

}  // namespace camera
