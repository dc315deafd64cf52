/// RTSP session (RFC 2326): one conversation over one byte stream, server role. It answers OPTIONS, DESCRIBE, SETUP,
/// PLAY, PAUSE, GET_PARAMETER, SET_PARAMETER and TEARDOWN and streams the tracks it announced, interleaved with the
/// conversation (RFC 2326, 10.12) or over UDP unicast.
///
/// No socket is touched. Received bytes go into process(); what is to be sent stands in send_buffer() and is announced
/// by event rtsp_send; UDP packets are announced one by one. The owner, an rtsp3::IRtsp, does the input and output:
///
///     on rtsp_event    open_server: add_trak() for each stream, then send_sdp()
///                      rtsp_setup:  open ports when trak()->protocol is rtp_udp, then send_setup()
///                      rtsp_play:   send_play(), then send_frame() for each frame from now on
///                      rtsp_send:   send what stands in send_buffer() and drop what went, with core_buf_ignore()
///                      send_rtp:    send rtp()->packet to the player's port trak()->client_port
///                      rtsp_rtcp:   send rtp()->packet to the player's port trak()->client_port + 1
///                      rtsp_stop:   the player is done; free the ports. The connection stays: players that change the
///                                   transport set up again on it
///                      rtsp_close:  send what is left, close the connection, destroy the session
///
/// Everything runs on the owner's network thread. From inside an event every call but destroy() and process() is
/// allowed; close() there takes effect when the running call is through. An answer that the owner owes is given from
/// inside the event.
///
/// What a peer can make a session hold: 64 KiB + 16 KiB of input (a header of at most 4098 bytes, a body of at most
/// 64 KiB, an interleaved packet of at most 65535 bytes) and 64 KiB of replies, and one more, that it does not read.
/// Whoever goes beyond, or breaks the framing, is logged once and gets rtsp_close. Frames that a peer does not read are
/// bounded by set_send_limit(). Every allocation may fail: the reply or the picture at hand is then left out whole.
#pragma once

#include "avc/frame.h"
#include "core/api.h"
#include "core/buf.h"
#include "core/log.h"
#include "core/owned.h"
#include "inet/net_http_header.h"
#include "inet/rtp_protocol.h"

#include <cstdint>

namespace rtsp3 {

/// How the packets of a track travel.
struct protocol_t {
    enum enum_t : int {
        rtp_tcp = 0,        ///< inside the RTSP stream, behind '$'
        rtp_udp = 1,        ///< UDP unicast
        rtp_multicast = 2,  ///< UDP multicast; not served, a SETUP that asks for nothing else gets 461
    };
};

/// What the handler is called for. The numbers are fixed, as are the texts of Enum::event_name(), most of which are
/// those of the next number; the names here say what is meant.
struct event_t {
    enum enum_t : int {
        open_client = 0,
        open_server = 1,  ///< DESCRIBE of uri(): earlier tracks are gone, set up or not; announce tracks and answer
                          ///< with send_sdp() or send_error()
        rtsp_close = 2,   ///< the peer broke a bound: the conversation is over, close the connection
        rtsp_setup = 3,   ///< SETUP of trak(): answer with send_setup() or send_error()
        rtsp_key = 4,
        rtsp_play = 6,   ///< PLAY: answer with send_play(); frames are taken from now on
        rtsp_pause = 7,  ///< PAUSE was answered; no frame is taken until the next PLAY
        rtsp_stop = 8,   ///< TEARDOWN was answered; no track is set up any more, all stay announced
        rtsp_error = 9,
        rtsp_send = 10,  ///< bytes were added to send_buffer(): a reply, or all packets of a frame
        send_rtp = 11,   ///< an RTP packet of trak(), set up over UDP, is ready in rtp()->packet
        rtsp_frame = 12,
        rtsp_rtcp = 13,  ///< an RTCP packet of trak(), set up over UDP, is ready in rtp()->packet
    };
};

struct Enum {
    /// The name of an event by its number, for logs: 6 is "rtsp_pause", 10 "send_rtp", 12 "rtsp_rtcp"; "rtsp_unknown"
    /// from 13 on.
    INET_API static const char* event_name(unsigned event) noexcept;
};

/// Tracks of a session, at most.
inline constexpr uint32_t max_traks = 8;

/// A stream that the session announces. Made by Rtsp::add_trak() and owned by the session; valid until the next
/// DESCRIBE (before its event), clear_traks() or close().
struct trak_t {
    uint32_t fcc;                 ///< "H264", "META", "JPEG", "PCMU" or "UNIV" (avc/fcc.h)
    core::owned_text name;        ///< the owner's text for the track; null for none
    const char* media;            ///< media word of the SDP and value of its control attribute: "video", "audio", ...
    protocol_t::enum_t protocol;  ///< of the last SETUP
    uint8_t set_up;               ///< 1 when a SETUP of it was answered
    uint8_t channel;              ///< TCP: channel of the RTP packets; the next one is that of RTCP
    uint16_t client_port;         ///< UDP: the player's port for RTP; the next one is that for RTCP
    uint16_t server_port;         ///< UDP: our port for RTP, as send_setup() was told
    rtp::trak_t* rtp;             ///< its packetizer's side
};

class Rtsp;

/// Owner of a session.
class INET_API IRtsp {
public:
    virtual void on_rtsp_event(Rtsp* rtsp, event_t::enum_t event) noexcept = 0;

protected:
    ~IRtsp() = default;
};

class INET_API Rtsp : private rtp::IRtp {
public:
    /// @return null when memory is out. End it with destroy().
    static Rtsp* create(const char* file, int line) noexcept;
    /// Ends the conversation without a word and releases the session; null is ignored. Not from inside an event.
    static void destroy(Rtsp* rtsp) noexcept;

    /// `file` and `line` name what the session allocates; both outlive it.
    Rtsp(const char* file, int line) noexcept;
    virtual ~Rtsp();
    Rtsp(const Rtsp&) = delete;
    Rtsp& operator=(const Rtsp&) = delete;

    /// Ends the conversation: all tracks go, buffers are emptied, later input is dropped, later output refused.
    void close() noexcept;
    /// Drops all tracks. Not from inside send_rtp and rtsp_rtcp.
    void clear_traks() noexcept;

    // Configuration

    void set_handler(IRtsp* handler) noexcept { handler_ = handler; }

    /// The URI that is served and, with "/" behind it, the content base; DESCRIBE sets it to its own.
    /// @return 1, or 0 when memory is out; both are then as before.
    int set_uri(const char* uri) noexcept;

    /// Closes the gate: every request but OPTIONS then needs a Digest answer (RFC 2617, without qop) of this user to
    /// the realm "inet" and a nonce drawn here, for this session alone; any other gets 401 and no event. A null user
    /// opens the gate, as it stands at first.
    /// @return 1, or 0 when memory is out; nobody is then admitted.
    int set_credentials(const char* user, const char* password) noexcept;

    /// Bytes that may wait in send_buffer() for a frame to be taken; 1 MiB unless set. Above it a frame that would go
    /// over TCP is left out whole, so that no more than this and one frame wait for a reader that stalls. 0 is no
    /// frame at all.
    void set_send_limit(uint32_t bytes) noexcept { send_limit_ = bytes; }

    /// Announces a track, in the order of the SDP. H264, PCMU and UNIV get payload types from 96 up, META 107, JPEG 26.
    /// @param name  a text for the owner's use; may be null
    /// @return null for another format, a second META or JPEG (payload types are unique), a ninth track, or when
    ///         memory is out
    trak_t* add_trak(uint32_t fcc, const char* name, const char* file, int line) noexcept;

    // Answers, each from inside its event. @return 1, or 0 when nothing was sent: out of memory, or closed.

    /// Answers DESCRIBE with the tracks (RFC 4566). The texts make the session name "s1 s2 s3"; if one is null the
    /// answer is 404.
    /// @param start_us, end_us  microseconds; when both are not 0 the range is given, in whole seconds
    int send_sdp(const char* s1, const char* s2, const char* s3, uint64_t start_us, uint64_t end_us) noexcept;

    /// Answers SETUP: trak() is set up, with a random SSRC and first sequence number.
    /// @param destination  group address for multicast, which is not served: 461; else not used, may be null
    /// @param port         our RTP port when trak()->protocol is rtp_udp (RTCP is the next one), else not used
    int send_setup(const char* destination, unsigned port) noexcept;

    /// Answers PLAY.
    /// @param time_us  time of the first frame to come, for the RTP-Info of every track but the first
    int send_play(uint64_t time_us) noexcept;

    /// Answers with a status: its reason text is that of http_error(), or of RFC 2326 for 454 and 455. 401 carries the
    /// challenge.
    int send_error(unsigned code) noexcept;

    // Media. Taken between PLAY and PAUSE, TEARDOWN or close().

    /// Sends a frame on the first track of its format, if that is set up. Over TCP all its packets, whole and with the
    /// sender report that may be due, are added to send_buffer() before one rtsp_send; nothing is allocated once the
    /// buffer has grown. Over UDP each packet raises send_rtp, a report rtsp_rtcp.
    /// @return 1 when packets went out, else 0
    int send_frame(const av::frame_t* frame) noexcept;
    /// The same for a metadata record.
    int send_meta(const av::meta_t* meta) noexcept;

    // Input

    /// Takes received bytes, however they were cut, and serves what is complete. They are dropped from `data`; what
    /// memory was not there for stays in it for the next call.
    void process(buf_t* data) noexcept;
    /// Serves a request whose body, if any, stands at the front of the receive buffer. @return 0 when the body is not
    /// complete yet; the request is then to be given again when more bytes are there, else 1.
    int process_header(net::http::header_s* header) noexcept;
    /// An interleaved packet: receiver reports on odd channels, nothing useful on even ones. Dropped.
    void process_rtp(unsigned short channel, buffer_t packet) noexcept;

    void process_options(net::http::header_s* header) noexcept;
    void process_describe(net::http::header_s* header) noexcept;
    void process_setup(net::http::header_s* header) noexcept;
    void process_play(net::http::header_s* header) noexcept;
    void process_pause(net::http::header_s* header) noexcept;
    void process_get_parameter(net::http::header_s* header) noexcept;
    void process_set_parameter(net::http::header_s* header) noexcept;
    void process_teardown(net::http::header_s* header) noexcept;
    /// The gate. @return 1 when the request may pass; else 0, and 401 was sent.
    int process_authorization(net::http::header_s* header) noexcept;

    // Output: appends to send_buffer(), logs and raises rtsp_send. @return as the answers.

    /// @param header  a reply; a request is not sent
    /// @param uri     target of a request, not used
    int send_header(net::http::header_s* header, const char* uri) noexcept;
    int send_content(const char* data, int size) noexcept;

    // State

    int id() const noexcept { return id_; }
    /// What waits to be sent: replies and whole frames. Keeps its capacity.
    buf_t* send_buffer() noexcept { return &send_; }
    /// The packetizer: `packet` on send_rtp and rtsp_rtcp.
    const rtp::Rtp* rtp() const noexcept { return &rtp_; }
    /// The track of the event: being set up on rtsp_setup, of the packet on send_rtp and rtsp_rtcp; else null.
    const trak_t* trak() const noexcept { return trak_; }
    /// The tracks in the order of the SDP; null from trak_count() on.
    const trak_t* trak(uint32_t index) const noexcept;
    uint32_t trak_count() const noexcept { return trak_count_; }
    /// Transport of the last SETUP.
    protocol_t::enum_t protocol() const noexcept { return protocol_; }
    /// URI of the last DESCRIBE, as the player wrote it, and the value of its Authorization field; null before, or
    /// when there was none.
    const char* uri() const noexcept { return uri_.get(); }
    const char* authorization() const noexcept { return authorization_.get(); }
    /// Session identifier; "" before the first SETUP and after TEARDOWN.
    const char* session() const noexcept { return session_; }
    bool playing() const noexcept { return playing_; }
    bool closed() const noexcept { return closed_; }

private:
    struct method_t;
    class running;

    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept override;

    void raise(event_t::enum_t event) noexcept;
    void fail(const char* reason) noexcept;
    void release() noexcept;

    bool serve_next() noexcept;
    bool take_interleaved() noexcept;
    bool take_header() noexcept;
    bool serve_held() noexcept;

    void remember_cseq(const net::http::header_s* header) noexcept;
    void serve_request(net::http::header_s* header) noexcept;
    bool in_session(const net::http::header_s* header) const noexcept;
    trak_t* find_trak(const char* uri) noexcept;
    bool is_set_up() const noexcept;
    uint8_t default_channel(const trak_t* trak) const noexcept;
    void draw_stream(trak_t* trak) noexcept;
    core::owned_text rtp_info(uint64_t time_us) const noexcept;

    bool is_admitted(const net::http::header_s* header) const noexcept;
    core::owned_text describe(const char* name, uint64_t start_us, uint64_t end_us) const noexcept;

    int send_ok() noexcept;
    bool append_header(net::http::header_s* header) noexcept;
    int announce_reply(uint32_t start) noexcept;

    bool start_picture(uint32_t fcc) noexcept;
    int finish_picture() noexcept;
    void make_packet_room() noexcept;
    void add_interleaved(uint8_t channel) noexcept;

    int32_t id_;
    const char* file_;
    int line_;
    log_ctx* log_;
    IRtsp* handler_ = nullptr;
    rtp::Rtp rtp_;

    buf_t receive_;
    uint32_t used_ = 0;  // bytes of receive_ that were served
    net::http::header_s* held_ = nullptr;
    char cseq_[24] = {};

    buf_t send_;
    uint32_t send_limit_ = 1024 * 1024;
    uint32_t replies_ = 0;  // bytes of replies added since send_ was empty or a picture was taken

    trak_t* traks_[max_traks] = {};
    uint32_t trak_count_ = 0;
    uint8_t next_pt_;
    trak_t* trak_ = nullptr;
    protocol_t::enum_t protocol_ = protocol_t::rtp_tcp;
    core::owned_text uri_;
    core::owned_text content_base_;
    core::owned_text authorization_;
    char session_[12] = {};

    bool gate_ = false;
    core::owned_text user_;
    core::owned_text password_;
    core::owned_text nonce_;

    bool playing_ = false;
    bool answered_ = false;  // the event at hand got the answer it asks for
    bool closed_ = false;
    bool release_ = false;  // close() waits for the running call
    uint32_t running_ = 0;

    bool packing_ = false;
    bool spilled_ = false;  // memory ran out within the picture
    uint32_t packed_ = 0;
    uint32_t picture_start_ = 0;
    trak_t* sending_ = nullptr;
    trak_t* outer_trak_ = nullptr;
};

}  // namespace rtsp3
