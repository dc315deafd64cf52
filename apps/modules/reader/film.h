// One recorded file as frames.
#pragma once

#include "recording.h"

#include "avc/frame.h"
#include "avc/mp4_reader.h"
#include "core/file.h"
#include "core/owned.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>

namespace reader {

class film {
public:
    /// @return nothing when the file cannot be read as a recording
    static std::unique_ptr<film> open(const apps::recording& of);

    /// Goes to the last key picture at or before a time, or to the first one of the file. @return false when the file
    /// ends before that time
    bool go(uint64_t time);
    /// Its times begin there, if that is later than its name says.
    void not_before(uint64_t time) { start_ = std::max(start_, time); }
    /// The next frame, borrowed until the next call. @return 1; 0 at the end; -1 where it is malformed
    int next(av::frame_t& out);

    /// As its name says.
    uint64_t named() const { return named_; }
    /// Where the last frame ends that was given.
    uint64_t end() const { return end_; }

private:
    explicit film(uint64_t start) : named_(start), start_(start), mp4_(CORE_HERE) {}
    bool find_tracks();
    uint64_t microseconds(uint32_t track, uint64_t ticks) const;
    void describe(const av::mp4_taken_t& taken, av::frame_t& out);

    static uint32_t read(void* arg, uint64_t position, void* data, uint32_t size);

    uint64_t named_;
    uint64_t start_;  ///< of its times
    core::owned<file_ctx, core_fclose> file_;
    av::Mp4Reader mp4_;
    std::optional<uint32_t> pictures_;  ///< their track
    uint32_t width_ = 0, height_ = 0;
    std::optional<uint64_t> lead_;  ///< ticks by which pictures are decoded earlier than is written
    bool loaded_ = false;
    bool at_key_ = false;  ///< a key picture came: what follows can be decoded
    uint64_t end_ = 0;
    std::optional<uint64_t> last_;  ///< time of the last frame
};

}  // namespace reader
