// An attempt to fetch over RTMP.
#pragma once

#include "watcher/attempt.h"
#include "watcher/receipt.h"

#include "inet/net_rtmp.h"

#include <array>

namespace media::fetch {

/// It is waited for as long as the order says: for the connection and all answers together, then for each frame.
class rtmp_attempt final : public attempt, net::IRtmp {
public:
    rtmp_attempt(const order_t& wanted, attempt_owner& owner) noexcept : wanted_(wanted), owner_(owner) {}
    ~rtmp_attempt() override { drop_early(); }
    rtmp_attempt(const rtmp_attempt&) = delete;
    rtmp_attempt& operator=(const rtmp_attempt&) = delete;

    void start() noexcept override;
    uint64_t tick(uint64_t now) noexcept override;
    void leave(const ending_t& result) noexcept override { end(result); }

    bool has_ended() const noexcept override { return stage_ == stage_t::ended; }
    const ending_t& result() const noexcept override { return result_; }
    bool wants_tcp() const noexcept override { return false; }
    const char* moved_to() const noexcept override { return nullptr; }
    size_t counts(std::span<track_counts_t> out) const noexcept override;

private:
    enum class stage_t : uint8_t { looking_up, asking, playing, ended };
    struct track_t {
        format_t format;  ///< its code is 0 while it is not known
        core::vector<uint8_t> config;
        receipt received;
        uint32_t place = 0;  ///< among those that came, in their order
        bool is_here = false;
        bool is_expected = false;  ///< the source says that it is to come
    };
    struct early_t {
        av::frame_t frame;
        int64_t media_time;
    };

    void on_rtmp_playing(net::ProtocolRtmp* rtmp) noexcept override;
    void on_rtmp_metadata(net::ProtocolRtmp* rtmp, const Variant& data) noexcept override;
    void on_rtmp_track(net::ProtocolRtmp* rtmp, const net::rtmp_track_t& track) noexcept override;
    void on_rtmp_frame(net::ProtocolRtmp* rtmp, const av::frame_t& frame, int64_t media_time) noexcept override;
    void on_rtmp_ended(net::ProtocolRtmp* rtmp, net::rtmp_end_t why, const char* text) noexcept override;

    bool open() noexcept;
    void connect() noexcept;
    bool waits_for_tracks(int64_t media_time) const noexcept;
    bool hold(const av::frame_t& frame, int64_t media_time) noexcept;
    void drop_early() noexcept;
    void tell_tracks() noexcept;
    void deliver(const av::frame_t& frame, int64_t media_time) noexcept;
    void count_from_picture(track_t& taken, bool begins, int64_t media_time) noexcept;
    bool is_complete() const noexcept;
    void end(const ending_t& result) noexcept;
    track_t& video() noexcept { return tracks_[static_cast<size_t>(kind_t::video)]; }

    order_t wanted_;
    attempt_owner& owner_;
    held<net::ProtocolRtmp> rtmp_;
    stage_t stage_ = stage_t::looking_up;
    ending_t result_;
    core::owned_text login_;  ///< what is said to the server of user and password
    unsigned logins_ = 0;
    uint64_t deadline_ = 0;  ///< by core_timer()
    uint64_t last_frame_ = 0;
    bool has_frames_ = false;
    bool flushed_ = false;
    bool told_ = false;            ///< of the tracks, as they are now
    core::vector<early_t> early_;  ///< frames that came while the other track was waited for
    uint32_t early_bytes_ = 0;
    std::array<track_t, 2> tracks_;  ///< by their kind
    uint32_t track_count_ = 0;
};

}  // namespace media::fetch
