// One attempt to receive the stream: from connecting to the end of the connection, on a network thread.
#pragma once

#include "connection.h"
#include "host_lookup.h"
#include "options.h"
#include "outcome.h"
#include "recording.h"
#include "track.h"
#include "udp_track.h"

#include "inet/net_thread.h"
#include "inet/rtsp_protocol.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace viewer {

/// What is wanted of an attempt.
struct order {
    transport way = transport::tcp;
    uint64_t duration = 0;  ///< microseconds of media that are still wanted; 0 is without end
};

/// A server can make it hold what rtsp3::Rtsp states, 64 KiB of input, and 64 KiB + 64 KiB for each track over UDP. It
/// is waited for as long as the options say: for the connection and all answers up to PLAY together, then for each
/// packet. Deleted by its owner when it has ended, from outside of its calls.
class session final : public rtsp3::IRtsp, public connection::owner {
public:
    session(net::nt_ctx* nt, const options& settings, const order& wanted, recording& files);
    ~session();
    session(const session&) = delete;
    session& operator=(const session&) = delete;

    void start();
    /// To be called about ten times a second.
    void tick(uint64_t now);
    /// Takes leave of the server and ends.
    void leave(const ending& result);

    bool has_ended() const { return stage_ == stage::ended; }
    const ending& result() const { return result_; }
    /// The server does not send over UDP.
    bool wants_tcp() const { return wants_tcp_; }

    /// Of the tracks that were set up.
    std::vector<track_report> reports() const;

private:
    enum class stage : uint8_t { connecting, asking, playing, leaving, ended };

    /// What has come so far.
    struct pulse {
        uint64_t packets = 0;
        bool at_rest = true;  ///< nothing is known to be unfinished
        bool media = false;   ///< there are tracks on which something always comes
        bool over = true;     ///< the server said of all of these that nothing follows
    };

    void on_connected(connection& from) override;
    void on_received(connection& from, buf_t& received) override;
    void on_writable(connection& from) override;
    void on_closed(connection& from) override;
    void on_rtsp_event(rtsp3::Rtsp* rtsp, rtsp3::event_t::enum_t event) noexcept override;

    void connect();
    ending no_connection(const connection& missed) const;
    void end(const ending& result);
    void send();
    void open_post();
    void set_up();
    void make_ready();
    void note_tracks();
    void play();
    void take_frame();
    void take_error();
    pulse feel() const;
    void watch_media(uint64_t now);
    void keep_alive(uint64_t now);
    void fall_back(const std::string& why);
    bool is_complete() const;
    bool uses_udp() const { return wanted_.way == transport::udp || wanted_.way == transport::multicast; }
    udp_track& make_udp(const rtsp3::trak_t& source);
    size_t index_of(const rtsp3::trak_t* source) const;

    net::nt_ctx* nt_;
    const options& settings_;
    order wanted_;
    recording& files_;
    rtsp3::Rtsp* rtsp_;
    std::optional<host_lookup> lookup_;
    std::unique_ptr<connection> main_;
    std::unique_ptr<connection> post_;  ///< of a tunnel
    std::array<std::unique_ptr<track>, rtsp3::max_traks> tracks_;
    std::array<std::unique_ptr<udp_track>, rtsp3::max_traks> udp_;

    stage stage_ = stage::connecting;
    ending result_;
    std::vector<track_report> last_reports_;  ///< once it has ended: the tracks may be gone
    ending refused_track_;                    ///< of the first track that cannot be set up
    bool wants_tcp_ = false;
    uint64_t deadline_ = 0;   ///< of the stage, by core_timer()
    uint64_t play_time_ = 0;  ///< wall clock of PLAY
    uint64_t last_packet_ = 0;
    uint64_t packets_ = 0;
    uint64_t kept_alive_ = 0;
    bool flushed_ = false;
};

}  // namespace viewer
