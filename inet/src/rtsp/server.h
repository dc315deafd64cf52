// The server's role: answers requests (RFC 2326, 10), some of them when its owner says how.
#pragma once

#include "rtsp/streaming.h"
#include "rtsp/transport.h"
#include "rtsp/tunnel.h"

#include <cstdint>

namespace rtsp3 {

/// A payload format as SDP announces it (RFC 3551, section 6).
struct format_t {
    uint32_t fcc;
    const char* media;
    uint8_t pt;          ///< 0: the next dynamic one
    const char* rtpmap;  ///< null when the payload type is static
    uint32_t clock_rate;
    bool asked_for = false;  ///< with Rtsp::set_all_formats() alone
};

/// The format of a track; null when it cannot be announced.
const format_t* find_format(uint32_t fcc) noexcept;

/// What DESCRIBE is answered with (RFC 4566); null when memory is out.
core::owned_text describe(const conversation& talk, const char* name, uint64_t start_us, uint64_t end_us) noexcept;

/// One answer at a time is owed by the owner. While it is, no request is served: framing asks owes_answer() before it
/// takes the next message. An answer given inside its event lets the running call go on. One given later has the
/// session settle, that is, serve what waited, when the call that gave it is through.
class server {
public:
    using header_s = net::http::header_s;

    server(conversation& of, outbox& out, tunnel& by) noexcept;
    server(const server&) = delete;
    server& operator=(const server&) = delete;

    bool set_credentials(const char* user, const char* password) noexcept;
    trak_t* add_trak(uint32_t fcc, const char* name, const sound_t& sound, const char* file, int line) noexcept;
    bool describe_trak(const trak_t* trak, buffer_t parameter_sets) noexcept;

    /// False for a method that is not known.
    bool serve(header_s* header) noexcept;
    void take_rtp(unsigned channel, buffer_t packet) noexcept;
    bool owes_answer() const noexcept { return owed_ != owed_t::nothing && owed_ != owed_t::anything; }
    /// The track whose SETUP is owed an answer; null for none.
    const trak_t* trak() const noexcept { return owed_trak_; }
    /// The tracks are gone.
    void forget_tracks() noexcept;
    /// Nothing is owed any more.
    void forget() noexcept;

    // Requests

    void options(header_s* header) noexcept;
    void describe_stream(header_s* header) noexcept;
    void set_up(header_s* header) noexcept;
    void play(header_s* header) noexcept;
    void pause(header_s* header) noexcept;
    void parameter(header_s* header) noexcept;
    void teardown(header_s* header) noexcept;
    void get(header_s* header) noexcept { tunnel_.serve_get(header); }
    void post(header_s* header) noexcept { tunnel_.serve_post(header); }
    /// The gate; null is a request without credentials.
    bool admit(const header_s* header) noexcept;

    // Answers

    int send_sdp(const char* s1, const char* s2, const char* s3, uint64_t start_us, uint64_t end_us) noexcept;
    int send_setup(const char* destination, unsigned port) noexcept;
    void share_stream(const rtp::trak_t* shared) noexcept;
    int send_play(uint64_t time_us) noexcept;
    int send_error(unsigned code) noexcept;

    const char* authorization() const noexcept { return authorization_.get(); }
    streaming& frames() noexcept { return frames_; }
    const streaming& frames() const noexcept { return frames_; }

private:
    enum class owed_t : uint8_t {
        anything,  ///< no request has come yet: owners may put answers together without one
        nothing,
        description,
        setup,
        playing,
    };

    struct method_t;

    bool is_admitted(const header_s* header) const noexcept;
    track_t* find_track(const char* uri) noexcept;
    uint8_t default_channel(const track_t& track) const noexcept;
    void offer_setup(unsigned refusal, transport_choice choice) noexcept;
    void offer_next() noexcept;
    bool offer(const transport_choice& choice) noexcept;
    void draw_stream(trak_t& trak) noexcept;
    core::owned_text rtp_info(uint64_t time_us) const noexcept;

    void ask_owner(owed_t what, event_t::enum_t event) noexcept;
    bool owes(owed_t what) const noexcept;
    void answered() noexcept;

    conversation& talk_;
    outbox& out_;
    tunnel& tunnel_;
    streaming frames_;

    uint8_t next_pt_;
    core::owned_text authorization_;
    bool gate_ = false;
    core::owned_text user_;
    core::owned_text password_;
    core::owned_text nonce_;

    owed_t owed_ = owed_t::anything;
    bool asking_ = false;  // the event that asks for it is being raised
    track_t* owed_trak_ = nullptr;
    core::owned_text alternatives_;      // of the SETUP
    const char* alternative_ = nullptr;  // the next of them
    bool refused_ = false;               // the owner refused the one at hand
};

}  // namespace rtsp3
