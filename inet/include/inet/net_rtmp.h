/// RTMP client: connects to a server, asks for one stream, and hands over its pictures and sound as frames.
///
///     net::ProtocolRtmp* const rtmp = net::ProtocolRtmp::create(CORE_HERE);
///     rtmp->init(handler);
///     if (!rtmp->parse_url("rtmp://camera/live/1")) ...
///     if (rtmp->connect(nt, address) != 0) ...    // on_rtmp_frame() follows, on_rtmp_ended() ends it
///
/// A session goes through these steps by itself:
///     1. Handshake: C0 and C1 go out; after S0 and S1 goes C2; S2 ends it. It is the plain handshake, without digests
///     2. "connect", after its answer the acknowledgement window, the buffer length and "createStream", after its
///        answer "play" and the buffer length
///     3. Audio and video messages become frames. Pings, bandwidth checks and window sizes are answered. Received bytes
///        are acknowledged once a window
///
/// Two ways to drive it:
///     over TCP         connect(). The session owns its net::Tcp
///     from bytes       handshake() once, then process() with what the server sent. Each time bytes wait in
///                      send_buffer(), on_rtmp_send() tells. The owner sends them and drops them with
///                      core_buf_ignore(). A lost connection is told to close()
///
/// What becomes of media (Adobe Flash Video File Format 10.1, Annex E.4):
///     video 7        "H264": pictures in Annex B form. The parameter sets, of the sequence header and of messages,
///                    stand once before each key picture, and before another one when they have changed. Messages with
///                    one timestamp are one picture, unless a slice among them begins another. It is handed over when
///                    the next one begins. flush() hands it over when none comes
///     audio 10       "mp4a": raw AAC, one access unit a frame
///     audio 2, 14    "mp3 "
///     audio 7, 8     "PCMA", "PCMU"
///     anything else  left out; on_rtmp_track() with `fcc` 0 tells once
/// Pictures and AAC that come before their sequence header are left out. Messages of type 22 are taken apart.
///
/// Times: the first frame of all tracks has media time 0. Timestamps go on over the wrap of their 32 bits, or 31, as
/// some servers have it. One that is earlier than that of the first frame gives a negative media time. Where the
/// server's timestamps jump, media time does.
///
/// Threads: all calls belong to one thread, with connect() to the network thread. Every call may be made inside a
/// callback, destroy() too, but process() and connect() may not.
///
/// Bounds for one peer:
///     input          8 MiB over all channels together, 64 channels, and the 64 KiB of net::Tcp
///       command, data message, user control    64 KiB, and 16,384 values of it, 4 MiB, until the call returns; a
///                                              longer data message is skipped
///     picture        8 MiB in all its messages
///     parameter sets, AudioSpecificConfig      64 KiB, 64 bytes
///     unread output  256 KiB
/// A peer that exceeds a bound, or breaks the protocol, ends the session with rtmp_end_t::bad_peer. How long a silent
/// one is waited for is the owner's matter: received() tells whether anything came.
#pragma once

#include "avc/frame.h"
#include "core/api.h"
#include "core/buf.h"
#include "inet/net_thread.h"

#include <cstdint>

class Variant;

namespace net {

/// Why a session ended.
enum class rtmp_end_t : uint8_t {
    no_connection,  ///< the host cannot be reached
    lost,           ///< the connection was closed or reset
    refused,        ///< the server refused the application or the stream
    not_found,      ///< it has no such stream
    ended,          ///< it has ended the stream, or asked to close
    bad_peer,       ///< it broke the protocol or a bound, or is no RTMP server
    failed,         ///< no memory
};

/// What the server sends of one kind.
struct rtmp_track_t {
    uint32_t fcc = 0;                 ///< avc/fcc.h; 0 when it is not received
    uint8_t codec = 0;                ///< its number in FLV; 0 of video that is named by four characters
    uint32_t width = 0, height = 0;   ///< of pictures; 0 when not known
    uint32_t rate = 0, channels = 0;  ///< of sound; 0 when not known
    buffer_t config{};  ///< "H264": SPS and PPS in Annex B form. "mp4a": AudioSpecificConfig (ISO/IEC 14496-3, 1.6)
};

class ProtocolRtmp;

/// Owner of a session. What a call is given is valid until it returns.
class INET_API IRtmp {
public:
    /// Only of a session without connect(): bytes wait in send_buffer().
    virtual void on_rtmp_send(ProtocolRtmp* rtmp) noexcept;
    /// The server has begun to play. Once.
    virtual void on_rtmp_playing(ProtocolRtmp* rtmp) noexcept;
    /// onMetaData. @param data  what the server tells of the stream, mostly a map
    virtual void on_rtmp_metadata(ProtocolRtmp* rtmp, const Variant& data) noexcept;
    /// A track is known, or has changed. It comes before the first frame of which it is true.
    virtual void on_rtmp_track(ProtocolRtmp* rtmp, const rtmp_track_t& track) noexcept;
    /// A frame. avc_frame_dup() keeps it.
    /// @param frame       `payload` is null; `time` is this machine's clock when playing began plus `media_time`
    /// @param media_time  exact microseconds
    virtual void on_rtmp_frame(ProtocolRtmp* rtmp, const av::frame_t& frame, int64_t media_time) noexcept = 0;
    /// The last call, once. @param text  why, in words; what the server said is in it, at most 511 bytes
    virtual void on_rtmp_ended(ProtocolRtmp* rtmp, rtmp_end_t why, const char* text) noexcept = 0;

protected:
    ~IRtmp() = default;
};

/// What "connect" and "play" tell the server. Texts are copied. A null text is not set.
struct rtmp_settings_t {
    const char* flash_ver = nullptr;  ///< "flashVer"
    const char* swf_url = nullptr;    ///< "swfUrl"
    const char* page_url = nullptr;   ///< "pageUrl"
    const char* tc_url = nullptr;     ///< "tcUrl"; null for scheme, host, port and application of the URL, "" for none
    const char* application = nullptr;  ///< instead of that of the URL, as is play_path
    const char* play_path = nullptr;
    double audio_codecs = 3191.0;  ///< "audioCodecs"
    double video_codecs = 252.0;   ///< "videoCodecs"
    double encoding = 0.0;         ///< "objectEncoding": 0 AMF0, 3 AMF3
    bool encoding_set = false;     ///< send "objectEncoding" also when it is 0
    bool nonprivate = false;       ///< for services that take a short connect: "type" is sent; "fpad", "capabilities",
                                   ///< codecs, "videoFunction" and "pageUrl" are not
    double start = -2.0;           ///< of "play": -2 live, else recorded; -1 live; from 0 on recorded, from that second
    uint32_t buffer_ms = 1000;     ///< buffer length that the server is told
};

class INET_API ProtocolRtmp final {
public:
    /// @return null when memory is out
    static ProtocolRtmp* create(const char* file, int line) noexcept;
    /// Closes the connection and releases the session. Null is ignored. No function of the handler runs afterwards.
    static void destroy(ProtocolRtmp* rtmp) noexcept;
    ProtocolRtmp(const ProtocolRtmp&) = delete;
    ProtocolRtmp& operator=(const ProtocolRtmp&) = delete;

    /// Sets the handler.
    void init(IRtmp* handler) noexcept;
    /// @return 1, or 0 when memory is out: the settings are then as before
    int set(const rtmp_settings_t& settings) noexcept;

    /// Reads a URL: SCHEME "://" HOST [":" PORT] ["/" PATH]. A user and password are not taken. Where a server asks by
    /// "authmod=adobe", the owner puts inet::rtmp::login_response() behind the application's name and connects anew, as
    /// media::watcher does.
    ///     scheme   in any case: "rtmp" 0, "rtmpt" 1, "rtmpe" 2, "rtmpte" 3, "rtmps" 4, "rtmpts" 5, "rtmfp" 8; any
    ///              other 0
    ///     host     up to ":" or "/", at most 255 characters
    ///     port     decimal, at most 65535; none or 0 for 1935
    ///     path     see parse_playpath(); may be missing
    /// @return 1; 0 when it is not of that form or memory is out: the parts of an earlier URL are then gone
    int parse_url(const char* url) noexcept;
    /// Splits the path of a URL, without its first "/", into application and play path. Nothing is decoded.
    ///     APP "?" ... "slist=" NAME   APP, which may hold "/", and NAME, up to "&"
    ///     "ondemand/" FILE            "ondemand", and the file as such servers name it: "mp4:" before .mp4, .m4v,
    ///                                 .mov, .f4v and .3gp; "mp3:" before .mp3, which is cut off; .flv cut off
    ///     APP "/" NAME                APP, which holds no "/", and all the rest
    /// @return as parse_url()
    int parse_playpath(const char* path) noexcept;
    /// What was read.
    int protocol() const noexcept;
    const char* host() const noexcept;
    unsigned short port() const noexcept;  ///< 0 when none was given
    const char* application() const noexcept;
    const char* play_path() const noexcept;

    /// Connects to the host of the URL and runs the session there.
    /// @param address  dotted address of the host; null to look the host up, which blocks
    /// @return 0 when it is under way; -1 when the system refused or memory is out; -2 when there is no host, it cannot
    ///         be resolved, or protocol() is not 0: only plain RTMP is spoken; -5 when the session has begun already
    int connect(nt_ctx* nt, const char* address = nullptr) noexcept;

    /// Queues C0 and C1. @return 1; 0 when memory is out, or the session has begun already
    int handshake() noexcept;
    /// Takes the server's bytes, all that are there.
    void process(buf_t* received) noexcept;
    /// The connection of a session from bytes is lost.
    void close() noexcept;
    /// Hands over a picture that waits for the next one. For a pause in the stream.
    void flush() noexcept;
    /// What is to be sent; of a session with connect(), what the system has not taken yet.
    buf_t* send_buffer() noexcept;

    // Commands and messages. The session sends them by itself; each may be sent once more after the handshake.
    // @return 1; 0 when nothing was sent: before the handshake, after the end, the body would have no byte or exceed
    //         128 KiB, the output its bound, or memory is out

    int send_connect_packet() noexcept;
    int send_create_stream() noexcept;
    int send_play() noexcept;
    /// A user control message. @param time  second value, sent with event 3 alone
    int send_ctrl(uint16_t event, uint32_t value, uint32_t time = 0) noexcept;
    /// The answer to a ping.
    int send_pong(uint32_t value) noexcept;
    int send_checkbw() noexcept;
    /// The answer to "_onbwcheck". @param id  its transaction
    int send_checkbw_result(double id) noexcept;
    /// The window in which the server is to acknowledge.
    int send_serverbw() noexcept;
    /// Any message. @param channel  chunk stream id, 2 to 63 @param type  message type id
    int send_packet(uint32_t channel, uint8_t type, uint32_t stream, buffer_t body) noexcept;

    // State

    bool playing() const noexcept;
    bool ended() const noexcept;
    /// Message stream id of the play; 0 before createStream was answered.
    uint32_t stream() const noexcept;
    /// Bytes taken so far.
    uint64_t received() const noexcept;
    /// Wall clock when playing began, microseconds since 1970; 0 before.
    uint64_t play_time() const noexcept;
    /// Why connect() returned -1, or the connection ended: a socket_error_t; 0 for none.
    int error() const noexcept;

    struct inside;

private:
    explicit ProtocolRtmp(inside* made) noexcept : inside_(made) {}
    ~ProtocolRtmp() = default;

    inside* inside_;
};

}  // namespace net
