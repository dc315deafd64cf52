/// SIP user agent (RFC 3261, a subset): registers accounts at a server, places and answers calls with audio and video
/// (RFC 3264, RFC 3550), sends and receives DTMF digits, subscribes to presence (RFC 3856). Sound is PCMU of 8000 Hz,
/// pictures are H.264.
///
/// Challenges are answered by Digest (RFC 7616: MD5, SHA-256) or Basic. Reliable provisional answers are acknowledged
/// (RFC 3262). Digits go in INFO (RFC 6086), and come in INFO or as RTP events (RFC 4733).
///
/// All calls, but net_sip_post(), belong to the agent's network thread. All callbacks come from it. From inside a
/// callback every call is allowed but net_sip_close().
///
/// Handles:
///     sip_account   valid until net_sip_close()
///     sip_user      valid until the callback of event 2, 4, 5 or 8 for it has returned, or net_sip_bye() or
///                   net_sip_decline(). Of a subscription: until net_sip_close()
///     sip_session   valid until its last user has ended
///
/// Lost datagrams: over UDP a request is sent again after 0.5 seconds, then after twice as long each time, until it is
/// answered (RFC 3261, 17.1). A request that comes again is answered again and acted on once. A final answer to an
/// INVITE is sent again until its ACK comes. Over TCP nothing is sent again, but for 200 to an INVITE.
///
/// Requests in a call go to the server. Where it does not route them (404, 480, 482, 483, or the ACK does not get
/// there), they go once more, by the route and to the address that the other end named.
///
/// Where the owner sends nothing in the first 3 seconds of a call, a packet of silence, or one without payload, goes
/// out every 15 seconds: the way back stays open (RFC 6263).
///
/// Times:
///     32 seconds    for an answer to a request, and for the ACK of a 200 (the call then ends, event 2)
///     2 minutes     in a call without media from the other end, until OPTIONS asks whether it is there (event 2 or 4)
///     3 minutes     for a call that rings, in or out (event 2 or 4)
///     30 seconds    between registrations. Each holds for 60 seconds, or for the Min-Expires of a 423, a day at most
///     10 seconds    to connect over TCP; 2 seconds until a lost transport is opened again, or ten times what the
///                   look-up of the server's name took. Over UDP it is looked up again when 30 seconds bring no answer
///
/// Calls are matched by Call-ID and the tags of both ends, so that no peer ends the call of another by guessing. A
/// message without a field that RFC 3261, 8.1.1 requires, or one that contradicts itself, is answered 400 and not acted
/// on; other errors that RFC 4475 lists get the answers named there. A REGISTER, a SUBSCRIBE and a method that is not
/// known get no answer.
///
/// Bounds for one agent. What comes in beyond them is answered 503, a call 486:
///     header               4098 bytes; a longer one ends a TCP connection, a datagram is dropped
///                          128 fields; a request with more is answered 400, an answer is dropped
///     body                 64 KiB
///     output of a TCP connection that the peer does not read    1 MiB; then it is closed
///     open requests        1024, in both directions together; from 512 on no more of strangers: only those of the
///                          account's server and those inside a call. A call is good for 8 open PRACKs, and for 8
///                          open BYEs to others who took it as well
///     proxies of a call    70
///     calls that ring      64
///     calls                120: each takes four descriptors of the thread
///     a received frame     2 MiB
#pragma once

#include "avc/frame.h"
#include "core/api.h"
#include "inet/net_thread.h"

#include <cstdint>

namespace net {

class Sip;
struct sip_account;
struct sip_session;
struct sip_user;
struct sip_request;

/// What sip_info::on_call reports.
enum sip_call_event_t : uint32_t {
    sip_call_answered = 0,  ///< our INVITE was answered 200, media has started
    sip_call_incoming = 1,  ///< an INVITE came and was answered 180: net_sip_accept() or net_sip_decline()
    sip_call_ended = 2,     ///< BYE or CANCEL came, a time has passed, or net_sip_bye()
    sip_call_failed = 4,  ///< an INVITE, REGISTER or SUBSCRIBE was refused, or an INVITE not answered; or 481 came in a
                          ///< call. The user is null for a REGISTER
    sip_call_busy = 5,    ///< 486
    sip_call_ringing = 6,       ///< 180 or 183
    sip_call_searching = 7,     ///< 100 to a REGISTER; the user is null
    sip_call_unauthorized = 8,  ///< credentials were refused; the user is null for a REGISTER
};

/// What sip_info::on_account reports, and `object`.
enum sip_account_event_t : uint32_t {
    sip_account_registered = 0,  ///< the account's registration session
    sip_account_closed = 1,      ///< the transport was lost or closed; the sip_account
    sip_account_notified = 2,    ///< a NOTIFY came; the sip_account. `text` is its body
};

/// Copied at open. Any callback may be null.
struct sip_info {
    nt_ctx* nt;  ///< runs longer than the agent; not null
    void* user;  ///< handed to every callback
    void (*on_call)(void* user, sip_user* party, uint32_t event);
    void (*on_account)(void* user, void* object, uint32_t event, const char* text);  ///< `text` may be null
    /// A digit came, in an INFO or between the sound of a call (RFC 4733). `code`: 0 to 9, 10 for '*', 11 for '#',
    /// 12 to 15 for 'A' to 'D', a higher number as it was sent; -1 for another signal
    void (*on_dtmf)(void* user, sip_user* party, int code);
};

enum sip_transport_t : int { sip_udp = 0, sip_tcp = 1 };

/// What a call hands over: one access unit in Annex B form, with its parameter sets before a key picture, or one packet
/// of PCMU. The frame is borrowed until the call returns. Its `time` counts on from the first frame of the call.
typedef void (*sip_frame_callback)(void* arg, sip_user* party, av::frame_t* frame);

}  // namespace net

// Agent

/// @return null for a null info, or when memory is out
INET_API net::Sip* net_sip_open(const net::sip_info* info, const char* file, int line) noexcept;

/// Ends everything without a message to the peers and without callbacks. Null is ignored.
INET_API void net_sip_close(net::Sip* sip) noexcept;

/// 1 while a BYE or a CANCEL waits for its answer, or is to follow: net_sip_close() would leave the peer in the call.
INET_API int net_sip_is_ending(const net::Sip* sip) noexcept;

/// Has the agent's thread call `function(sip, arg)`. Any thread. Calls not run until net_sip_close() are dropped.
/// @return 1, or 0 for null, or when memory is out
INET_API int net_sip_post(net::Sip* sip, void (*function)(void* sip, void* arg), void* arg) noexcept;

/// How digits are sent: 0 as "application/dtmf", 1 as "application/dtmf-relay", anything else not at all; 0 after open.
INET_API void net_sip_set_dtmf(net::Sip* sip, int mode) noexcept;

// Accounts

/// Makes an account, opens its transport over UDP, and registers it.
/// @param password  null for none
/// @param server    address or name, whose look-up blocks
/// @param port      0 for 5060
/// @return null if agent, user or server is null, for a port above 65535, or when memory is out
INET_API net::sip_account* net_sip_register(net::Sip* sip, const char* user, const char* password, const char* server,
                                            unsigned port, const char* file, int line) noexcept;

/// As net_sip_register(), over a transport of sip_transport_t; null for another number.
INET_API net::sip_account* net_sip_register_over(net::Sip* sip, int transport, const char* user, const char* password,
                                                 const char* server, unsigned port, const char* file,
                                                 int line) noexcept;

/// Closes the transport of a connected account (event 1). It is not opened again. The server forgets the account when
/// the registration has run out.
INET_API void net_sip_unregister(net::sip_account* account) noexcept;

// Calls

/// Calls a user of the account's server.
/// @param session  another call, to which the user is invited as well; null for a new one
/// @return null:
///     - without account or callee,
///     - when the transport is not connected,
///     - when there are 120 calls, or no ports are free, or
///     - when memory is out
INET_API net::sip_user* net_sip_invite(net::sip_account* account, net::sip_session* session, const char* callee,
                                       void* arg, net::sip_frame_callback callback) noexcept;

/// Answers an INVITE that waits with 200 and starts media. When there are no ports, it is answered 486, and event 4
/// tells.
INET_API void net_sip_accept(net::sip_user* party, void* arg, net::sip_frame_callback callback) noexcept;

/// Answers an INVITE that waits with 486.
INET_API void net_sip_decline(net::sip_user* party) noexcept;

/// Ends a call: sends BYE, reports event 2 and frees the user. A call that we placed gets CANCEL while no answer has
/// named the other end, and when it goes on ringing after BYE. A call that waits for our answer gets 486. Nothing
/// happens to one whose end is being told.
INET_API void net_sip_bye(net::sip_user* party) noexcept;

/// Sends a digit to every user of the session. One that is refused ends no call, unless with 481 (event 4).
/// @param code  as in sip_info::on_dtmf
INET_API void net_sip_dtmf(net::sip_session* session, unsigned code) noexcept;
/// Sends it to one user.
INET_API void net_sip_dtmf_to(net::sip_user* party, unsigned code) noexcept;

/// Sends a frame to every user of the session: H.264 on the video channel, PCMU on the audio channel, in pieces of
/// 20 ms. Other formats are not sent. After set-up it allocates nothing.
INET_API void net_sip_put_frame(net::sip_session* session, const av::frame_t* frame) noexcept;
/// Sends it to one user.
INET_API void net_sip_put_frame_to(net::sip_user* party, const av::frame_t* frame) noexcept;

/// The request's user; may be null.
INET_API net::sip_user* net_sip_user(net::sip_request* request) noexcept;
/// Name of the other end, "" for null.
INET_API const char* net_sip_user_name(net::sip_user* party) noexcept;
/// 1 once media runs both ways: when our 200 has had its ACK, or we have sent that of the other end.
INET_API int net_sip_user_confirmed(const net::sip_user* party) noexcept;
/// core_timer() of the last packet of RTP or RTCP that came from it; 0 for none.
INET_API uint64_t net_sip_user_heard(const net::sip_user* party) noexcept;
/// 1 while it takes neither sound nor pictures: it holds the call (RFC 3264, 8.4), and may be silent itself.
INET_API int net_sip_user_holds(const net::sip_user* party) noexcept;
/// The session of a user, the account of a user; null for null.
INET_API net::sip_session* net_sip_user_session(net::sip_user* party) noexcept;
INET_API net::sip_account* net_sip_user_account(net::sip_user* party) noexcept;

// Presence

/// SUBSCRIBE with Contact "*" in the registration session.
INET_API void net_sip_contacts(net::sip_account* account) noexcept;
/// Subscribes to the presence of a user for an hour. It is not renewed: call it again before. Each NOTIFY is told by
/// on_account.
INET_API void net_sip_subscribe(net::sip_account* account, const char* user) noexcept;
/// Ends a subscription; nothing for a user who is not subscribed to.
INET_API void net_sip_unsubscribe(net::sip_account* account, const char* user) noexcept;
