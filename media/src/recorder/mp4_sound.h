// The sound of an MP4 file: what came, as samples of the file, with silence where nothing came.
#pragma once

#include "recorder/file.h"
#include "recorder/timeline.h"

#include "avc/mp4.h"

namespace media::record {

class mp4_sound {
public:
    /// @return false for a format that MP4 cannot hold, or that is not known well enough
    bool open(const format_t& format);
    bool is_open() const noexcept { return track_.fcc != 0; }
    const av::mp4_track_t& track() const noexcept { return track_; }

    static bool takes(uint32_t fcc) noexcept;
    void take(const placed_t& placed);
    /// Microseconds from the start to the end of what came.
    int64_t end() const noexcept {
        return static_cast<int64_t>((line_.end() * 1'000'000 + track_.scale - 1) / track_.scale);
    }
    /// Ends the sound there: leaves out what lies behind, adds the silence that is missing.
    void end_at(int64_t at);
    /// Silence up to there, when the sound is that far behind.
    void fill(int64_t at);
    /// It holds more than can wait for the next picture.
    bool is_full() const noexcept {
        return !held_.empty() && line_.end() - start_ > uint64_t{longest_held} * track_.scale;
    }

    /// What is held and begins before `until`. Valid until the next call. @param delay  microseconds added to the times
    av::mp4_run_t run(uint32_t number, int64_t until, int64_t delay);
    /// Forgets what run() gave.
    void drop_run() noexcept;

private:
    static constexpr uint32_t longest_held = 3;  ///< seconds

    struct sample_t {
        uint32_t size;
        uint32_t duration;
    };

    void add(const uint8_t* data, uint32_t size, uint32_t duration);
    void add_decoded(const uint8_t* data, uint32_t size);
    void add_silence(uint64_t duration);
    bool read_aac(const format_t& format);

    av::mp4_track_t track_;
    core::vector<uint8_t> config_;
    uint32_t unit_ = 0;             ///< ticks of an AAC frame; 0 for PCM
    core::vector<uint8_t> silent_;  ///< an AAC frame; none where its form is not known
    uint32_t law_ = 0;              ///< format of G.711
    sound_line line_;
    uint64_t start_ = 0;  ///< ticks of the first held sample
    core::vector<uint8_t> bytes_;
    core::vector<sample_t> held_;
    core::vector<av::mp4_sample_t> shown_;
};

}  // namespace media::record
