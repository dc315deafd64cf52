// The media of a call: a channel each for sound and pictures, and the descriptions that offer and accept them.
#pragma once

#include "rtp/pictures.h"

#include "avc/frame.h"
#include "core/log.h"
#include "core/owned.h"
#include "inet/net_socket.h"
#include "inet/rtp_packets.h"
#include "inet/rtp_port.h"
#include "inet/rtp_protocol.h"

#include <algorithm>
#include <cstdint>
#include <string_view>

namespace sip {

/// Where one medium of a description is to be sent to.
struct target_t {
    bool wanted = false;   ///< the description has it in our format, with a port
    uint32_t line = 0;     ///< which of the m= lines, from 1
    bool receives = true;  ///< the other end takes it now: it is not on hold
    uint8_t pt = 0;
    sockaddr_in rtp = {};
    sockaddr_in rtcp = {};
};

struct described_t {
    target_t audio, video;
};

/// A dotted address, 0.0.0.0 for anything else.
in_addr read_dotted(std::string_view text) noexcept;
core::string dotted(in_addr address);
bool is_loopback(in_addr address) noexcept;

/// Reads an offer or an answer: PCMU, H.264, and where they go.
described_t read_description(std::string_view text) noexcept;

core::string print_offer(std::string_view address, uint32_t audio, uint32_t video);
/// @param offer  whose media are answered in their order, each that we do not have with port 0 (RFC 3264, 6). None when
/// it has no media: the description is an offer then, of sound and pictures
core::string print_answer_sdp(std::string_view user, in_addr address, uint32_t audio, uint32_t video,
                              std::string_view offer);

/// Takes the frames of a channel, and the digits between its sound (RFC 4733).
class frame_taker {
public:
    virtual void on_frame(av::frame_t& frame) noexcept = 0;
    virtual void on_digit(int code) noexcept = 0;

protected:
    ~frame_taker() = default;
};

class channel final : public rtp::IRtp, public rtp::IPort {
public:
    channel(uint32_t fcc, frame_taker& to) noexcept;
    ~channel();
    channel(const channel&) = delete;
    channel& operator=(const channel&) = delete;

    /// Opens the ports. Without a thread there are none, and nothing is sent.
    bool open(net::nt_ctx* nt, log_ctx* log) noexcept;
    uint32_t port() const noexcept { return port_ ? port_->port() : 0; }
    /// Sends to a target from now on, and takes what comes from it. @param own_pt  under which it is received
    /// @param own  the address that the other end was told
    void start(const target_t& target, uint8_t own_pt, in_addr own) noexcept;
    void stop() noexcept;

    void send_pictures(rtp::Packets& packets) noexcept;
    void send_sound(const av::frame_t& frame) noexcept;
    void tick(uint64_t now) noexcept;
    /// Whether the other end has this medium.
    bool is_wanted() const noexcept { return target_.wanted; }
    /// Whether it takes it now. 0.0.0.0 is how phones hold a call that know no direction attributes (RFC 3264, 8.4).
    bool is_taken() const noexcept { return target_.wanted && target_.receives && target_.rtp.sin_addr.s_addr != 0; }
    uint64_t heard() const noexcept { return heard_; }  ///< core_timer() of the last packet, 0 for none

private:
    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept override;
    void on_rtp_packet(rtp::Port* port, buffer_t packet, bool restarted) noexcept override;
    void on_rtcp_packet(rtp::Port* port, buffer_t packet) noexcept override;

    void take_data(rtp::trak_t& from) noexcept;
    void take_event(buffer_t packet) noexcept;
    void deliver() noexcept;
    void report(const buf_t& packet) noexcept;
    void send_piece() noexcept;
    void give_sign(uint64_t now) noexcept;
    uint64_t khz() const noexcept;

    const uint32_t fcc_;
    frame_taker& to_;
    log_ctx* log_ = nullptr;
    rtp::Port* port_ = nullptr;
    rtp::Rtp out_, in_;
    target_t target_;

    rtp::gathering_t gathered_ = {};
    buf_t sets_;
    bool started_ = false;
    bool restarted_ = false;   ///< the sender is another one since the last frame
    uint32_t first_time_ = 0;  ///< RTP time of the last frame
    int64_t ticks_ = 0;
    uint64_t shown_ = 0;      ///< core_timer() of the last frame
    uint64_t begun_ = 0;      ///< time_now() of the first frame
    uint64_t last_data_ = 0;  ///< core_timer()
    uint64_t heard_ = 0;

    uint64_t event_ = UINT64_MAX;  ///< RTP time of the last digit

    uint8_t piece_[160] = {};  ///< 20 ms of sound
    uint32_t held_ = 0;
    uint64_t sign_at_ = 0;  ///< core_timer() of the next sign of life; 0 before the call
    uint64_t piece_time_ = 0;
};

/// Both channels of a user. Not open until a call needs them.
class call_media final : public frame_taker {
public:
    call_media() noexcept = default;
    ~call_media() { close(); }
    call_media(const call_media&) = delete;
    call_media& operator=(const call_media&) = delete;

    /// @return false when there are no ports or places
    bool open(net::nt_ctx* nt, log_ctx* log, frame_taker& to) noexcept;
    bool is_open() const noexcept { return audio_ != nullptr; }
    void close() noexcept;
    void stop() noexcept;

    /// @param own  as of the channels
    void start(const described_t& described, in_addr own) noexcept;
    uint32_t audio_port() const noexcept { return audio_ ? audio_->port() : 0; }
    uint32_t video_port() const noexcept { return video_ ? video_->port() : 0; }
    void send_pictures(rtp::Packets& packets) noexcept {
        if (video_) video_->send_pictures(packets);
    }
    void send_sound(const av::frame_t& frame) noexcept {
        if (audio_) audio_->send_sound(frame);
    }
    void tick(uint64_t now) noexcept;
    /// Whether the other end takes nothing now.
    bool is_held() const noexcept {
        const bool wanted = is_open() && (audio_->is_wanted() || video_->is_wanted());
        return wanted && !audio_->is_taken() && !video_->is_taken();
    }
    uint64_t heard() const noexcept { return is_open() ? std::max(audio_->heard(), video_->heard()) : 0; }

private:
    void on_frame(av::frame_t& frame) noexcept override;
    void on_digit(int code) noexcept override;

    core::owned_object<channel> audio_, video_;
    net::nt_ctx* nt_ = nullptr;
    bool places_ = false;
    frame_taker* to_ = nullptr;
};

}  // namespace sip
