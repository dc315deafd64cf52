// What the parts of a session share: whose it is, its tracks, and whether it goes on.
#pragma once

#include "rtp/packet.h"
#include "rtp/parameter_sets.h"
#include "rtp/pictures.h"

#include "core/log.h"
#include "core/owned.h"
#include "inet/net_http_header.h"
#include "inet/rtsp_protocol.h"

#include <algorithm>
#include <cstdint>
#include <span>
#include <string_view>

namespace rtsp3 {

inline constexpr uint32_t max_waiting = rtp::interleaved_header + 65535;  // the longest of what may be awaited
inline constexpr uint32_t max_port = 65534;                               // the next one is for RTCP
inline constexpr uint32_t max_channel = 254;
using rtp::max_parameter_sets;

/// Where the frames of a received track end: the packets with which one may be over are counted.
struct ends_t {
    static constexpr uint32_t proof = 32;  ///< frames in a row that had the same number

    uint32_t seen;   ///< in the frame at hand
    uint32_t usual;  ///< in each of the last `alike` frames
    uint32_t alike;
    bool early;       ///< the frame at hand was handed over with its last expected packet
    bool unknowable;  ///< one was, and was not over

    void forget() noexcept { alike = 0; }
    bool is_reached() const noexcept { return alike >= proof && !unknowable && seen == usual; }
};

/// The frame of a received track while it is put together.
struct gathered_t final : rtp::gathering_t {
    bool tried;     ///< SETUP was asked for, or left out for want of a port
    uint32_t form;  ///< of the URIs that its control may mean, the one that is asked for
    uint8_t pt;     ///< of its packets; that of its trak_t::rtp is another one when two media have the same
    uint64_t time;

    uint32_t received;  ///< the packetizer's counters when the last packet was taken
    uint32_t late;

    ends_t ends;

    uint32_t before_play;  ///< packets taken when PLAY was asked for
    bool started;          ///< `last_rtp_time` is known
    bool timed;            ///< and is that of RTP-Info
    bool announced;        ///< RTP-Info told the number of the first packet
    uint16_t first_seq;    ///< which is this
    uint32_t last_rtp_time;
    int64_t ticks;  ///< RTP time since the start, not folded

    bool reported;  ///< a sender report came: these two are one moment
    uint32_t report_rtp_time;
    uint64_t report_time;
};

/// A track with what the session keeps of it. Every track of a session is one.
struct track_t final : trak_t {
    core::owned_object<gathered_t> gathered;  ///< client; null in a server

    ~track_t() {
        core_buf_free(&config);
        core_buf_free(&parameter_sets);
    }
};

/// Value of a field, whatever the case of its name; null when it is missing.
inline const char* field(const net::http::header_s* header, const char* name) noexcept {
    return value_geti(header->fields, name);
}

/// Whether a text of the peer's may stand in a header of ours.
inline bool is_printable(std::string_view text) noexcept {
    return std::none_of(text.begin(), text.end(),
                        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; });
}

/// Whether a URI, absolute or relative, ends with a control value: the whole of its last segments. Players put a query
/// of the session's URI before the control or behind it.
bool names_control(std::string_view uri, std::string_view control) noexcept;

class conversation {
public:
    /// Settles what waits for the end of the running call.
    class settler {
    public:
        virtual void settle() noexcept = 0;

    protected:
        ~settler() = default;
    };

    conversation(Rtsp& owned, settler& by, const char* made_in, int made_at) noexcept;
    ~conversation();
    conversation(const conversation&) = delete;
    conversation& operator=(const conversation&) = delete;

    void raise(event_t::enum_t event) noexcept;
    /// One line, one event, then nothing more is taken: the framing is lost or the peer takes too much.
    void fail(const char* reason) noexcept;
    /// Whether a Session field names this session. The conversation has one at a time, so a request that names none
    /// means that one.
    bool is_named(const net::http::header_s* header) const noexcept;
    /// False when memory is out: the request cannot be answered.
    bool remember_cseq(const net::http::header_s* header) noexcept;
    const char* cseq() const noexcept { return cseq_ ? cseq_.get() : ""; }
    bool set_location(const char* text) noexcept;

    std::span<track_t* const> tracks() const noexcept { return {traks, trak_total}; }
    track_t* track_of(const rtp::trak_t* rtp_side) const noexcept;
    track_t* track_of_channel(unsigned channel) const noexcept;
    bool is_set_up() const noexcept;
    void add(core::owned_object<track_t> track) noexcept { traks[trak_total++] = track.release(); }
    /// False when a packetizer is at work on a track.
    bool drop_tracks() noexcept;

    /// While it lives, a call into the session is running: what close() asks for, and what a late answer sets free,
    /// waits for the end of the outermost.
    class call {
    public:
        explicit call(conversation& of) noexcept : of_(of) { ++of_.running; }
        ~call() {
            if (--of_.running == 0 && of_.settling) of_.settler_.settle();
        }
        call(const call&) = delete;
        call& operator=(const call&) = delete;

    private:
        conversation& of_;
    };

    Rtsp& rtsp;
    const int32_t number;
    const char* const file;
    const int line;
    log_ctx* log;
    IRtsp* handler = nullptr;
    rtp::Rtp rtp;

    track_t* traks[max_traks] = {};
    uint32_t trak_total = 0;
    const trak_t* event_trak = nullptr;  ///< of the event
    protocol_t::enum_t transport = protocol_t::rtp_tcp;
    bool all_formats = false;
    core::owned_text location;      ///< what is served or asked for
    core::owned_text content_base;  ///< with "/" behind it
    char identifier[128] = {};      ///< of the RTSP session
    buffer_t body;                  ///< of the message being served
    uint32_t received = 0;          ///< requests and reports

    bool playing = false;
    bool ended = false;
    bool at_work = false;   ///< a packetizer is inside of a frame: the tracks stay
    bool settling = false;  ///< there is something to settle
    uint32_t running = 0;

private:
    settler& settler_;
    core::owned_text cseq_;  // of the request being served
};

}  // namespace rtsp3
