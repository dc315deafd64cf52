// Frames in: what the packetizer hands over is put together by its RTP time.
#pragma once

#include "rtsp/outbox.h"

#include "avc/frame.h"

#include <cstdint>
#include <span>

namespace rtsp3 {

/// What owners set for the client's role, before or after it began.
struct client_settings {
    bool tunnelled = false;
    uint32_t frame_limit = 8U << 20;
    parameter_sets_t parameter_sets = parameter_sets_t::slices;
    bool prompt = false;
};

class receiver final : public rtp::IRtp {
public:
    receiver(conversation& of, outbox& out, const client_settings& settings) noexcept
        : talk_(of), out_(out), settings_(settings) {}
    receiver(const receiver&) = delete;
    receiver& operator=(const receiver&) = delete;

    /// A received packet, as Rtsp::process_rtp().
    void take(unsigned channel, buffer_t packet) noexcept;
    void flush() noexcept;
    /// The frame of the event; null outside of it.
    const av::frame_t* frame() const noexcept { return frame_.data ? &frame_ : nullptr; }

    /// PLAY is asked for: media time starts now.
    void begin(uint64_t now) noexcept;
    uint64_t play_time() const noexcept { return play_time_; }
    /// PAUSE was answered: what still comes is no frame.
    void pause() noexcept { paused_ = true; }

private:
    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept override;

    void go_on() noexcept;
    void unpack(unsigned channel, buffer_t packet) noexcept;
    void take_report(track_t* track, buffer_t packet) noexcept;
    void take_data(rtp::trak_t* from) noexcept;
    void start_frame(track_t& track, std::span<const uint8_t> data) noexcept;
    void note_first(track_t& track, buffer_t packet) noexcept;
    void note_loss(track_t& track, bool another, std::span<const uint8_t> data) noexcept;
    void resume_numbering(rtp::trak_t& rtp) noexcept;
    void add_h264(track_t& track, std::span<const uint8_t> nal) noexcept;
    void add(track_t& track, std::span<const uint8_t> bytes) noexcept;
    rtp::gathering_limits limits() const noexcept;
    void log_left_out(const track_t& track) const noexcept;
    void deliver(track_t& track) noexcept;
    bool note_end(track_t& track) noexcept;
    void learn_ends(track_t& track) noexcept;
    void send_report() noexcept;
    void raise(const track_t& track, event_t::enum_t event) noexcept;

    conversation& talk_;
    outbox& out_;
    const client_settings& settings_;
    av::frame_t frame_ = {};
    uint64_t play_time_ = 0;
    bool paused_ = false;
    uint64_t first_frame_ = 0;  ///< core_timer() when the first frame of any track began, since PLAY
};

}  // namespace rtsp3
