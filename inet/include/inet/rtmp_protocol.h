/// RTMP server session: one connection of a player, from its handshake to the frames that it is sent. It answers
/// commands through a handler, and turns frames into video and audio messages. It takes and gives bytes and knows no
/// socket.
///
/// The owner accepts a connection, gives every received byte to ProcessBytes(), and sends what stands in send_buffer()
/// after each call of the session. A false result of ProcessBytes() ends the connection: send the rest of
/// send_buffer(), then close it.
///
///     connect       IRtmp::on_connect(): NetConnection.Connect.Success, or Connect.Rejected. Another one begins anew:
///                   it ends the play and needs a createStream of its own
///     createStream  gives stream id 1; fails before a connect
///     play          IRtmp::on_play(): the chunk size 4,194,304, stream begin, NetStream.Play.Reset,
///                   NetStream.Play.Start, |RtmpSampleAccess; from then on frames are taken. An unknown stream:
///                   NetStream.Play.StreamNotFound, and the conversation goes on
///     pause         IRtmp::on_pause(): NetStream.Pause.Notify, or stream begin and NetStream.Unpause.Notify. While
///                   paused no frame is taken
///     closeStream, deleteStream    IRtmp::on_close(), without an answer; no frame is taken until the next play
///     publish       not supported: fails the conversation
///
/// Handshake: the first byte is 3 for a plain connection, 6 for an encrypted one (RTMPE), any other fails. Then follow
/// the first and the second packet of the client, 1,536 bytes each. The second one is dropped unread. RTMPE: the
/// Diffie-Hellman group of DHWrapper (common/dh.h); the cipher keys are the first 16 bytes of the HMAC-SHA-256 of a
/// public key with the shared secret as key: of the server's own for what is received, of the client's for what is
/// sent. 1,536 bytes of each key stream are run off first.
///
/// Bytes received are acknowledged each time the peer's window (2,500,000 bytes until it names one) is full.
///
/// Log "rtmp". A handler's or a message's failure ends the conversation; error() is then true, and later input is
/// dropped.
///
/// All calls belong to the owner's network thread. From inside IRtmp every call is allowed but destroy(), Restart(),
/// ProcessBytes() and the Process functions.
///
/// Bounds for one peer:
///     until the handshake is done   8 KiB, the output of 3,073 bytes included
///     input                         64 KiB of messages over all channels together, 20 KiB of channels
///     a message being served        its values, 10 MiB (the bounds of inet/rtmp_amf.h)
///     output                        ask waiting() before a picture is fed; 64 KiB of answers that it does not read
/// A peer that exceeds a bound fails the conversation. Audio and video that it sends are dropped as they come.
///
/// When memory is out, a frame is left out whole; an answer that could not be sent fails the conversation.
#pragma once

#include "avc/frame.h"
#include "core/api.h"
#include "core/buf.h"
#include "inet/rtmp_chunks.h"

#include <cstdint>
#include <string_view>

class IOBuffer;  // common/iobuffer.h
class Variant;   // common/variant.h

namespace inet {

class Rtmp;

namespace rtmp {

/// What a player asks for with play. The texts are valid until the call returns, "" when the player did not send them.
struct play_t {
    const char* app;     ///< application of its connect
    const char* tc_url;  ///< URL of its connect
    const char* name;    ///< stream name of its play
    double start;        ///< as it was sent: seconds, or milliseconds of some players. -2 (or -2000, and when absent)
                         ///< live or recorded, -1 (-1000) live, 0 and above recorded from there
    double length;       ///< as it was sent: -1 to the end, and when absent
};

/// The stream names that a player may mean, the likeliest first. Players split the path of a URL in different ways:
/// for rtmp://host/NAME some send "NAME" as application and no stream name. The names are the path of application and
/// stream name together, then its shorter ends: "a/b/c", "b/c", "c". Queries and prefixes as "mp4:" are left out,
/// percent codes are decoded. Without an application the path of the URL stands for it. There are at most eight. Any
/// thread.
/// @param which  0 for the likeliest
/// @param out    receives the name with a terminator
/// @return its length; 0 when there is no such name or no room for it
INET_API uint32_t stream_name(const play_t& play, uint32_t which, char* out, uint32_t size) noexcept;

/// What proves the password to a server that asks with "authmod=adobe": Base64 of the MD5 of three texts, of which the
/// first is Base64 of the MD5 of user, salt and password. Any thread.
/// @param salt, challenge  as the server has sent them
/// @param own              the player's own challenge
/// @return text to free with core_mfree(); null when memory is out
INET_API char* login_response(const char* user, std::string_view salt, const char* password, std::string_view challenge,
                              std::string_view own, const char* file, int line) noexcept;

/// Bytes of the keys of the digest handshake.
inline constexpr uint32_t client_key_size = 62;
inline constexpr uint32_t server_key_size = 68;

}  // namespace rtmp

/// Owner of a session.
class INET_API IRtmp {
public:
    /// The texts are valid until the call returns. @return 1 to accept the player, 0 to refuse it; 1 unless overridden
    virtual int on_connect(Rtmp* rtmp, const char* app, const char* tc_url) noexcept;
    /// @return 1 when the player shall have the stream; 0 when it is not there. Frames are taken after the answer, so
    ///         not yet inside. Another play ends the one before without on_close()
    virtual int on_play(Rtmp* rtmp, const rtmp::play_t& play) noexcept = 0;
    /// The answer follows. A stream that goes on begins with a key picture.
    virtual void on_pause(Rtmp* rtmp, int paused) noexcept;
    /// The player has ended the stream. It may ask for another one.
    virtual void on_close(Rtmp* rtmp) noexcept;

protected:
    ~IRtmp() = default;
};

class INET_API Rtmp {
public:
    /// @return null when memory is out. End it with destroy().
    static Rtmp* create(const char* file, int line) noexcept;
    /// Null is ignored.
    static void destroy(Rtmp* rtmp) noexcept;
    Rtmp(const Rtmp&) = delete;
    Rtmp& operator=(const Rtmp&) = delete;

    void set_handler(IRtmp* handler) noexcept;

    /// Whether the client's digest is checked; off unless set. Off, scheme 0 is assumed. Players of RTMPE use scheme 1,
    /// too: who serves them sets this on, and the keys. On, when the check fails:
    ///     - a plain client gets the simple answer, one packet, on which many players wait for ever,
    ///     - an encrypted client is refused.
    void set_validate(bool on) noexcept;
    /// Replaces the keys of the digests, of all sessions made later. Players that check the server, as those of RTMPE
    /// do, know fixed keys, and refuse the values that stand here unless set. Not while sessions are made. A null key
    /// brings back the first value.
    static void set_keys(const uint8_t client[rtmp::client_key_size],
                         const uint8_t server[rtmp::server_key_size]) noexcept;

    /// The player must then prove that it knows the password, as "authmod=adobe" asks (salted MD5): the first connect
    /// is refused with a challenge, and the player connects again with the answer. With a null user, as at the start,
    /// everybody passes. The texts are copied.
    /// @return 1, or 0 when memory is out; nobody is then admitted.
    int set_credentials(const char* user, const char* password) noexcept;

    /// Begins anew, as after create(): for another connection. Handler, switches and credentials stay.
    void Restart() noexcept;

    // Input. Results are true for success.

    /// Takes received bytes, from the first byte of the handshake on, in pieces of any size. All are taken.
    bool ProcessBytes(IOBuffer& received) noexcept;
    bool ProcessBytes(buf_t* received) noexcept;

    /// Answers the first packet of a client. Fails for fewer than 1,536 bytes. The rest of `input` is dropped; it
    /// counts for the client's second packet.
    bool PerformHandshake(IOBuffer& input, bool encrypted) noexcept;
    /// Whether the digest of the first packet is that of the client key: scheme() is then its scheme. ValidateClient()
    /// accepts every packet while set_validate() is off.
    bool ValidateClient(IOBuffer& input) noexcept;
    bool ValidateClientScheme(IOBuffer& input, uint8_t scheme) noexcept;
    /// Offsets in a packet of 1,536 bytes, by scheme 0 or 1.
    static uint32_t GetDigestOffset(const uint8_t* packet, uint8_t scheme) noexcept;
    static uint32_t GetDHOffset(const uint8_t* packet, uint8_t scheme) noexcept;

    /// Serves a message as RTMPSerializer::Deserialize() gives it (inet/rtmp_serializer.h).
    ///     1 set chunk size, 2 abort, 3 acknowledgement, 4 user control, 5 window, 6 peer bandwidth: below
    ///     15, 18 data         accepted
    ///     17, 20 command      ProcessInvoke()
    ///     16, 19 shared object    accepted, not served
    bool InboundMessageAvailable(Variant& message) noexcept;
    /// A ping request is answered.
    bool ProcessUsrCtrl(Variant& message) noexcept;
    /// Fails for 0 and above 0x7FFFFFFF.
    bool ProcessChunkSize(Variant& message) noexcept;
    bool ProcessWinAckSize(Variant& message) noexcept;
    /// Drops what has come of a message on that chunk stream.
    bool ProcessAbortMessage(Variant& message) noexcept;

    /// Serves a command by its name.
    bool ProcessInvoke(Variant& message) noexcept;
    bool ProcessInvokeConnect(Variant& message) noexcept;
    bool ProcessInvokeCreateStream(Variant& message) noexcept;
    bool ProcessInvokePublish(Variant& message) noexcept;  ///< always false
    bool ProcessInvokePlay(Variant& message) noexcept;
    bool ProcessInvokePause(Variant& message) noexcept;
    bool ProcessInvokeCloseStream(Variant& message) noexcept;
    /// 0 seconds, as a live stream has.
    bool ProcessInvokeGetStreamLength(Variant& message) noexcept;
    /// An answer to a command of ours. This session sends none, so any answer is accepted unread.
    bool ProcessInvokeResult(Variant& message) noexcept;
    bool ProcessInvokeGenericResult(Variant& message) noexcept;
    /// An unknown command: NetConnection.Call.Failed.
    bool ProcessInvokeGeneric(Variant& message) noexcept;
    /// Whether the connect may pass, see set_credentials(). When not, the refusal has been sent.
    bool AuthenticateInboundAdobe(Variant& message) noexcept;

    // Output: appended to send_buffer(). @return false when memory is out or the conversation has failed.

    /// Sends a message of RTMPSerializer::Serialize() in chunks of its channel.
    bool SendRTMPMessage(Variant& message) noexcept;
    /// Sends a body on a channel (2 to 63) and message stream, with an absolute time.
    bool ChunkAndSend(const uint8_t* body, uint32_t size, uint32_t channel, uint8_t type, uint32_t stream,
                      uint32_t timestamp) noexcept;
    /// Sends bytes of chunks, which are encrypted when the connection is.
    bool SendRawData(const uint8_t* data, uint32_t size) noexcept;
    /// Tells the player that its stream has ended: end of stream, NetStream.Play.Stop. It may ask for another one.
    /// @return false when it is not playing, too
    bool SendPlayStop() noexcept;

    // Media. Taken while playing() and not paused(), else the result is false. Timestamps are in milliseconds, modulo
    // 2^32. A message has at most 0xFFFFFF bytes.

    /// A frame of "H264", "mp3 ", "PCMU" or "MP4V", through Chunks (inet/rtmp_chunks.h). Its time is counted
    /// from the first frame. Before the first frame of a play, and when they have changed, onMetaData and the sequence
    /// headers go out. H.264 is taken from the first picture on that has, or follows, parameter sets.
    bool Feed(const av::frame_t* frame) noexcept;
    /// Sends the frame that was cut last for all viewers, behind its head when this player has not had it yet.
    /// @param lent  null: everything is appended to send_buffer(). Else, on a plain connection, it receives the bytes
    ///              of the frame, which are not copied: the owner sends them behind what stands in send_buffer(), and
    ///              gives what the socket did not take to SendRawData() before any other call. On an encrypted one it
    ///              is empty
    bool Feed(rtmp::Chunks& chunks, buffer_t* lent) noexcept;

    bool FeedH264Caps(const uint8_t* sps, uint32_t sps_size, const uint8_t* pps, uint32_t pps_size,
                      uint32_t timestamp) noexcept;
    /// @param composition  milliseconds from the decoding of the picture to its display
    bool FeedH264(const uint8_t* nal, uint32_t size, uint32_t timestamp, uint32_t composition) noexcept;
    bool FeedAACCaps(const uint8_t* config, uint32_t size, uint32_t timestamp) noexcept;
    bool FeedAAC(const uint8_t* data, uint32_t size, uint32_t timestamp) noexcept;
    /// FLV codec 9: 0x19 for a key picture or 0x29, 0x01, three zero bytes, and the picture.
    bool FeedMP4V(const uint8_t* data, uint32_t size, uint32_t timestamp, bool key) noexcept;
    bool FeedVideoData(const uint8_t* body, uint32_t size, uint32_t timestamp) noexcept;
    bool FeedAudioData(const uint8_t* body, uint32_t size, uint32_t timestamp) noexcept;

    // State

    uint32_t id() const noexcept;
    /// The bytes that wait to be sent. The buffer keeps its capacity.
    buf_t* send_buffer() noexcept;
    uint32_t waiting() const noexcept;
    /// Digest scheme of the client, 0 or 1.
    uint8_t scheme() const noexcept;
    bool handshaken() const noexcept;
    bool encrypted() const noexcept;
    bool connected() const noexcept;
    bool playing() const noexcept;
    bool paused() const noexcept;
    /// Whether the conversation has failed.
    bool error() const noexcept;
    /// Bytes received, and the bytes that the peer has told to have taken (modulo 2^32).
    uint64_t received() const noexcept;
    uint32_t acknowledged() const noexcept;

    class insides;

private:
    explicit Rtmp(insides* made) noexcept : insides_(made) {}
    ~Rtmp() = default;

    insides* insides_;
};

}  // namespace inet
