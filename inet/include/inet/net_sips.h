/// SIP registrar and relay over TCP (RFC 3261, a subset) for a closed set of users: they register on their connection,
/// and calls and presence between them go from connection to connection. There is no authentication. Bodies pass
/// unchanged: media goes from phone to phone.
///
/// Requests, after the user named in From (404 when it is not in the table) and the one named in To:
///     REGISTER     binds the sender to this connection, tells the presence to those who subscribed, answers 200
///     INVITE       binds the sender, answers 100 and forwards; 480 when the callee has no connection. To a name that
///                  is not in the table: no answer
///     ACK, BYE     forwarded; 480 when the other end is not known or has no connection
///     SUBSCRIBE    answered 200, and by a NOTIFY with the names of all other bound users, now and at every REGISTER:
///                  content type "application/pidf-xml", body such as ["anna","boris"]. Who has 64 KiB unread gets
///                  the newest one when it has read them. The subscription belongs to the connection: a user who
///                  registers over another one subscribes anew. Before the sender is bound no NOTIFY goes
///     others       405
/// Names are compared as they are meant: "%61nna" is "anna".
///
/// Responses go to the user named in From, as they came. What is forwarded keeps its fields and its body. Changed are:
///     request line    it names the callee at our address
///     Record-Route    an INVITE gets one in front, or two where its phones have reached us by two addresses. Phones
///                     then send what follows in the call this way, too
///     Content-Length  a message without one gets "Content-Length: 0"
///
/// A user stays bound until another binding replaces it or the connection closes; Expires is not read. Two line ends
/// between messages are answered by one: the connection lives (RFC 5626, 4.4.1).
///
/// Bounds of one server. A connection that passes one is closed:
///     header                              4098 bytes
///     body                                64 KiB
///     time for the rest of a message      32 seconds
///     output that the peer does not read  256 KiB, and 32 seconds in which it reads neither 64 KiB nor all
///     in all, for a connection            324 KiB
///     connections                         nt_places of the network thread (inet/net_thread.h), 100 of them without a
///                                         user. For a new one the oldest is closed that no user is bound to; when
///                                         there is none, the new one
/// Also closed is a connection whose Content-Length is no number, a request after its 400. A header that is no message,
/// or has a line end that is not CR LF, is left out. One that holds a NUL is not forwarded; a request is answered 400.
/// Nor is one that would pass the bound on the next connection, or whose answer would; a request is answered 513.
///
/// Everything runs on the network thread. Log "sip.server": "in" and "out" for each message. Methods and headers that
/// are not known are also told on the console, in 20 lines a second at most.
///
/// The gateway joins a server and an agent (inet/net_sip.h). It registers at an outside SIP server, and at its own
/// relay under the same name:
///     a call from outside      rings every bound user of the relay, 16 at most; the first who answers gets it. When
///                              nobody is bound, or all refuse, it is declined
///     a call from the relay    to the gateway's name goes to one user outside, or is declined
/// Pictures and sound go through the gateway, from call to call, as they are. Digits do not: the relay has no INFO. A
/// call ends when its phone on the relay has sent neither sound, pictures nor reports for three minutes. It takes two
/// of the agent's calls, and each user who rings one: the bounds of the agent hold. Of calls from the relay, 16 may
/// wait for an answer; more are declined.
#pragma once

#include "core/api.h"
#include "core/value.h"
#include "inet/net_thread.h"

#include <cstdint>

namespace net {

class SipServer;
class Sips;

/// What sips_info::on_event reports, and `who`.
enum sips_event_t : uint32_t {
    sips_registered = 0,  ///< at the outside server (its name) or the own relay (""), also anew
    sips_lost = 1,        ///< the transport to the outside server was lost, or it has registered the account for 65
                          ///< seconds no more; its name
    sips_calling = 2,     ///< a call has come; the caller
    sips_joined = 3,      ///< it was answered; who answered
    sips_ended = 4,       ///< a call has ended, was refused or has failed; ""
};

/// Settings of a gateway, copied at open.
struct sips_info {
    nt_ctx* nt;            ///< runs longer than the gateway
    value_t** users;       ///< of the relay, as net_sipsrv_open() takes them; the gateway adds itself
    unsigned port;         ///< of the relay; 0 for 5060
    const char* name;      ///< of the account outside, and of the gateway in the relay
    const char* password;  ///< null for none
    const char* server;    ///< outside: address or name, whose look-up blocks
    unsigned server_port;  ///< 0 for 5060
    int transport;         ///< to the outside server: sip_transport_t of inet/net_sip.h
    const char* callee;    ///< whom calls from the relay reach outside; null: they are declined
    void* user;            ///< handed to the callback
    void (*on_event)(void* user, uint32_t event, const char* who);  ///< on the network thread; may be null
};

}  // namespace net

/// Opens a server on port 5060 of 0.0.0.0. Any thread.
/// @param users  (name, value) for each user, copied; the value is kept for the host program. Of equal names the first
///               counts
/// @return null for a null thread, or when memory is out. When the port cannot be had, the server stays without a
///         listener, and the error log tells.
INET_API net::SipServer* net_sipsrv_open(net::nt_ctx* nt, value_t** users, const char* file, int line) noexcept;

/// As net_sipsrv_open(), on another port, from 1 to 65535.
INET_API net::SipServer* net_sipsrv_open_at(net::nt_ctx* nt, value_t** users, unsigned port, const char* file,
                                            int line) noexcept;

/// The port it listens on; 0 for null and for a server without a listener. Any thread.
INET_API unsigned net_sipsrv_port(const net::SipServer* server) noexcept;

/// Closes the listener and every connection, and releases the server. Any thread, before the network thread is stopped:
/// it waits until that thread has done it. Null is ignored.
INET_API void net_sipsrv_close(net::SipServer* server) noexcept;

/// Opens a gateway; it registers as soon as the network thread gets to it. Any thread.
/// @return null:
///     - when the info, its thread, name or server is null,
///     - for a server_port above 65535, a transport that is not of sip_transport_t, or
///     - when memory is out.
/// When the port of the relay cannot be had, the gateway runs without it: net_sipsrv_port() is then 0.
INET_API net::Sips* net_sips_open(const net::sips_info* info, const char* file, int line) noexcept;

/// The gateway's server, for net_sipsrv_port(). It ends with the gateway.
INET_API const net::SipServer* net_sips_server(const net::Sips* sips) noexcept;

/// Hangs up all calls, waits up to a second for the peers' answers, closes both accounts and releases the gateway; no
/// callback comes meanwhile. The server outside forgets the account when the registration has run out. Threads as in
/// net_sipsrv_close(), but not from inside the callback; on the network thread it does not wait, and users of the relay
/// see their connection close instead. Null is ignored.
INET_API void net_sips_close(net::Sips* sips) noexcept;
