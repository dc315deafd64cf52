// What audio and video messages hold, made into frames (Adobe Flash Video File Format 10.1, Annex E.4).
#pragma once

#include "avc/frame.h"
#include "inet/net_rtmp.h"

#include <cstdint>
#include <span>

namespace net::rtmp {

inline constexpr uint32_t longest_picture = 8U << 20;
inline constexpr uint32_t longest_sound_config = 64;

/// Who is told what came.
class media_owner {
public:
    virtual void on_track(const rtmp_track_t& track) noexcept = 0;
    /// @param media_time  microseconds
    virtual void on_frame(av::frame_t& frame, int64_t media_time) noexcept = 0;
    /// The server broke the form, or memory is out. Nothing more is to be taken.
    virtual void on_fault(rtmp_end_t why, const char* text) noexcept = 0;

protected:
    ~media_owner() = default;
};

class media {
public:
    using bytes_t = std::span<const uint8_t>;

    media(media_owner& owner, const char* file, int line) noexcept : owner_(owner), file_(file), line_(line) {}
    ~media();
    media(const media&) = delete;
    media& operator=(const media&) = delete;

    /// Bodies of messages. @param timestamp  milliseconds, absolute, without their carry
    void process_audio(bytes_t body, uint32_t timestamp) noexcept;
    void process_video(bytes_t body, uint32_t timestamp) noexcept;
    /// Hands over the picture that waits for the next one.
    void flush() noexcept;
    /// Whether a frame has come.
    bool begun() const noexcept { return clock_.begun; }

private:
    /// Timestamps as they go on, from the first frame on.
    struct clock_t {
        bool begun = false;
        uint32_t last = 0;
        int64_t since_first = 0;  ///< milliseconds

        int64_t take(uint32_t timestamp) noexcept;
    };

    /// A picture while its messages come.
    struct picture_t {
        buf_t bytes;
        uint32_t timestamp = 0;
        int64_t media_time = 0;
        uint32_t shown_after = 0;
        bool open = false;  ///< a message of it has come
        bool key = false;
        bool slice = false;
        bool sets = false;  ///< the parameter sets stand in it
    };

    void take_sequence_header(bytes_t record) noexcept;
    void take_nals(bytes_t coded, uint32_t timestamp, int32_t shown_after_ms, bool key) noexcept;
    bool keep_sets(bytes_t coded, bool& others) noexcept;
    bool starts_picture(bytes_t coded, uint32_t timestamp) const noexcept;
    void add_nals(bytes_t coded) noexcept;
    bool append(buf_t& to, bytes_t bytes, uint32_t bound, const char* too_long) noexcept;
    bool add(bytes_t bytes) noexcept;
    bool take_nal(bytes_t& coded, bytes_t& nal) const noexcept;

    void take_aac(bytes_t body, uint32_t timestamp) noexcept;
    void take_aac_config(bytes_t config) noexcept;
    void take_mp3(bytes_t body, uint32_t timestamp) noexcept;
    void take_g711(uint8_t head, bytes_t body, uint32_t timestamp) noexcept;
    void hand_over_sound(bytes_t body, uint32_t timestamp) noexcept;
    void tell(rtmp_track_t& kept, const rtmp_track_t& now) noexcept;
    void tell_video() noexcept;

    media_owner& owner_;
    const char* file_;
    int line_;
    clock_t clock_;
    rtmp_track_t audio_, video_;  ///< as they were told; without the configuration
    bool audio_told_ = false;
    bool video_told_ = false;

    uint32_t length_size_ = 0;  ///< of NAL units; 0 before a sequence header
    buf_t sets_;                ///< Annex B
    bool sets_changed_ = false;
    picture_t picture_;

    uint8_t sound_config_[longest_sound_config] = {};
    uint32_t sound_config_size_ = 0;
};

}  // namespace net::rtmp
