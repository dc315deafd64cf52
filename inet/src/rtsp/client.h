// The client's role: asks for a stream, from OPTIONS to PLAY, and keeps it (RFC 2326, 10).
#pragma once

#include "auth/challenge.h"
#include "rtsp/receiver.h"
#include "rtsp/tunnel.h"

#include "inet/net_sdp.h"

#include <cstdint>
#include <string_view>

namespace rtsp3 {

/// Whether a text can stand as the target of a request line.
inline bool is_request_uri(std::string_view text) noexcept {
    return is_printable(text) && text.find(' ') == std::string_view::npos;
}

/// What a server says of its stream: the description (RFC 4566), where it stands, and how it starts.
class description {
public:
    explicit description(conversation& of) noexcept : talk_(of) {}

    /// Makes the tracks. False when memory is out. A description that says nothing leaves none.
    bool take(const net::http::header_s* header) noexcept;
    /// What PLAY and what follows it ask for (RFC 2326, C.3).
    const char* aggregate_uri() const noexcept { return aggregate_ ? aggregate_.get() : base(); }
    /// Has a track asked for by the next of the URIs that its control may mean. False when there is no other.
    bool try_next_uri(track_t& track) noexcept;
    /// RTP-Info; tracks that nothing has come for begin at `play_time`.
    void take_start(const char* rtp_info, uint64_t play_time) noexcept;

private:
    bool take_base(const net::http::header_s* header) noexcept;
    bool take_aggregate(std::string_view control) noexcept;
    bool add(const net::sdp::trak_t& media) noexcept;
    uint8_t inside_pt(uint8_t pt) const noexcept;
    const char* base() const noexcept { return base_ ? base_.get() : talk_.location.get(); }
    core::owned_text control_uri(const char* control, uint32_t form) const noexcept;
    track_t* track_of_url(std::string_view url, bool exact, const bool* taken) const noexcept;

    conversation& talk_;
    core::owned_text base_;       // that the server named
    core::owned_text aggregate_;  // control of the session, when it is a URI
};

/// User and password of a URI, decoded; null for none.
struct login_t {
    core::owned_text user;
    core::owned_text password;
};

class client {
public:
    using header_s = net::http::header_s;

    client(conversation& of, outbox& out, tunnel& by, const client_settings& settings) noexcept;
    client(const client&) = delete;
    client& operator=(const client&) = delete;

    /// Takes the URI of open() as the location, without what it names of a login, which goes to `login`.
    /// @return false when it cannot be used, or memory is out; the location is then as before
    static bool read_uri(conversation& talk, const char* uri, login_t* login) noexcept;
    int open(login_t login) noexcept;

    /// A request of the server's. False for a method that is not known.
    bool serve(header_s* header) noexcept;
    /// False for a response that answers nothing.
    bool take_response(header_s* header) noexcept;
    /// Whether the next response may be the beginning of a tunnel, which has no body that ends.
    bool expects_tunnel() const noexcept { return step_ == step_t::tunnel; }
    /// The tracks are gone.
    void forget_tracks() noexcept;

    // Each asks for one thing. @return 1, or 0 when nothing was sent

    int ask_options(track_t* none) noexcept;
    int ask_describe(track_t* none) noexcept;
    int ask_setup(track_t* track) noexcept;
    int ask_play(track_t* none) noexcept;
    int ask_pause(track_t* none) noexcept;
    int ask_get_parameter(track_t* none) noexcept;
    int ask_set_parameter(track_t* none) noexcept;
    int ask_teardown(track_t* none) noexcept;
    int ask_get(track_t* none) noexcept;
    void ask_post() noexcept;
    void set_up_next() noexcept;

    // Answers with status 200

    void take_options(header_s* header) noexcept;
    void take_describe(header_s* header) noexcept;
    void take_setup(header_s* header) noexcept;
    void take_play(header_s* header) noexcept;
    void take_pause(header_s* header) noexcept;
    void take_teardown(header_s* header) noexcept;
    void take_get(header_s* header) noexcept;
    bool repeat_with_credentials(const header_s* header) noexcept;

    // As those of the Rtsp

    int send_setup(unsigned port) noexcept;
    bool select(uint32_t index, bool wanted) noexcept;
    int send_keep_alive() noexcept;
    uint64_t keep_alive_interval() const noexcept;
    const char* method() const noexcept { return method_; }
    unsigned status() const noexcept { return status_; }
    const char* failure() const noexcept { return failure_; }
    const char* moved_to() const noexcept { return moved_to_; }
    receiver& frames() noexcept { return frames_; }
    const receiver& frames() const noexcept { return frames_; }

private:
    enum class step_t : uint8_t { none, tunnel, options, describe, setup, play, playing };

    /// A request of ours.
    struct asked_t {
        const char* name;
        int (client::*ask)(track_t*) noexcept;
        void (client::*take)(header_s*) noexcept;  ///< null when the answer says nothing
    };
    struct pending_t {
        uint32_t cseq;
        const asked_t* method;  ///< null for none
        track_t* track;
        uint32_t repeated;  ///< with credentials, after so many 401s
    };
    static const asked_t options, describe, setup, play, pause, get_parameter, set_parameter, teardown, get;

    bool may_ask() noexcept;
    int ask(const asked_t& method, const char* uri, track_t* track = nullptr, const char* name = nullptr,
            const char* value = nullptr) noexcept;
    int send_pending(const asked_t& method, request& request, const char* uri, track_t* track) noexcept;
    void add_credentials(request& request, const char* method, const char* uri) noexcept;
    bool take_pending(const header_s* header, pending_t* out) noexcept;
    void failed(const char* method, unsigned status, const char* why) noexcept;
    void set_up_done() noexcept;
    static const char* find_moved(const header_s* header) noexcept;
    bool take_session(const header_s* header) noexcept;

    conversation& talk_;
    outbox& out_;
    tunnel& tunnel_;
    const client_settings& settings_;
    description stream_;
    receiver frames_;

    step_t step_ = step_t::none;
    track_t* asking_for_ = nullptr;  // being set up, while the owner may name its port
    bool answered_ = false;          // the owner has named the port of the track being set up
    uint32_t next_cseq_ = 0;
    uint32_t named_cseq_ = 0;      // of the last response that named its request right
    bool names_requests_ = false;  // the server has named two
    pending_t pending_[8] = {};
    pending_t response_to_ = {};  // the request whose response is being served
    uint32_t repeating_ = 0;
    const char* method_ = "";
    unsigned status_ = 0;
    const char* failure_ = "";
    const char* moved_to_ = nullptr;  // of the answer being served
    login_t login_;
    auth::challenge challenge_;
    bool has_get_parameter_ = false;
    uint32_t timeout_ = 0;  // seconds, 0 for none given
};

}  // namespace rtsp3
