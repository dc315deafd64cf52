/// Calls over SIP as services of a station: a phone (inet/net_sip.h), and a relay for several of them
/// (inet/net_sips.h).
///
///     media::station phones;
///     auto* phone = media::sip_service({.user = "door", .password = "secret", .server = "10.0.0.1", .sends = live});
///     if (!phones.add(phone) || !phones.start(&error)) ...  // from now on calls are answered
///     phone->call("anna");
///
/// The phone registers its account, anew every 30 seconds, and again after the server was lost. A call sends the stream
/// `sends`:
///     pictures   H.264, from the last key picture on. Pictures of the past go at four times their pace, with times of
///                the present, so that the other end is not behind for the rest of the call
///     sound      G.711 of 8000 Hz, A-law as u-law, in pieces of 20 ms, from the present on
/// Other formats are left out. What the other end sends goes to `on_frame`, and into the stream `takes`: that of one
/// call at a time, the next one begins when it has ended. Only whole frames are taken. After a loss H.264 goes on with
/// the next key picture.
///
/// Threads: all of a phone runs on the first thread of its station, its callbacks come from there. The look-up of the
/// server's name keeps that thread waiting, at the start and whenever the server was lost: a phone has a station of its
/// own, unless the server is a dotted address. Its streams may be those of another station.
///
/// Bounds:
///     calls       120, each takes four places of the thread; more are declined
///     orders      64 calls that wait for the registration, 32 seconds each
///     silence     sip_settings_t::silence
/// and those of inet/net_sip.h for the messages.
#pragma once

#include "avc/frame.h"
#include "media/api.h"
#include "media/service.h"
#include "media/stream.h"

#include <cstdint>

namespace media {

/// Why a call has ended, or an account is not registered.
enum class sip_reason_t : uint8_t {
    none,
    hung_up,      ///< by either end, before or after it was answered
    busy,         ///< the other end is busy, or declines
    unreachable,  ///< the server knows no such user, or does not reach one; nobody answers
    refused,      ///< the server refuses user and password, or the account
    no_server,    ///< the server does not answer, or was lost
    silent,       ///< the other end is gone without a word
    no_place,     ///< too many calls, no ports, or no memory
};

/// What a phone reports. Valid until the callback returns.
struct sip_event_t {
    enum what_t : uint8_t {
        registered,    ///< calls come from now on
        unregistered,  ///< `reason` tells why; it is tried again
        calling,       ///< a call has come, and is answered
        ringing,       ///< of a call that was placed
        answered,      ///< media goes both ways
        pressed,       ///< the other end pressed `digit`
        ended,         ///< the call is over, `reason` tells why
    };
    what_t what = registered;
    sip_reason_t reason = sip_reason_t::none;
    uint32_t call = 0;      ///< its number; 0 for none
    const char* peer = "";  ///< user name of the other end, as it came
    char digit = 0;         ///< a character: '0' to '9', '*', '#', 'A' to 'D'; 0 for none
};

/// The texts are copied, the streams held.
struct sip_settings_t {
    const char* user = nullptr;
    const char* password = nullptr;  ///< null for none
    const char* server = nullptr;    ///< address or name
    uint16_t port = 0;               ///< of the server; 0 for 5060
    bool tcp = false;                ///< else UDP
    stream* sends = nullptr;         ///< null: calls are sent nothing
    stream* takes = nullptr;         ///< null: what comes goes into no stream
    bool answers = true;             ///< calls that come are answered, else declined
    bool at_key = true;              ///< calls begin with the last key picture, else with the next one
    unsigned silence = 180;          ///< seconds without RTP and RTCP of the other end, after which a call ends; 3600
                                     ///< at least while it holds the call. 0: the agent asks by OPTIONS
                                     ///< (inet/net_sip.h). Some relays answer in its place
    void (*on_event)(void* arg, const sip_event_t& event) = nullptr;
    /// @param frame  H.264 in Annex B form, or PCMU. Its `time` counts on from the first frame of its call
    void (*on_frame)(void* arg, uint32_t call, const av::frame_t& frame) = nullptr;
    void* arg = nullptr;  ///< of both callbacks
};

/// A phone. Its addresses() are "sip:USER@SERVER", of the stream that it sends.
class MEDIA_API sip_service_t : public service {
public:
    // Any thread, between station::start() and station::stop(). An order that comes too late is left out.

    /// Calls a user of the server, as soon as the account is registered.
    /// @param user  name at the server, without its address
    /// @return the number of the call; 0 without a user, when the station does not run, or when memory is out
    virtual uint32_t call(const char* user) noexcept = 0;
    /// Ends a call. Nothing for one that has ended.
    virtual void hang_up(uint32_t call) noexcept = 0;
    /// Sends digits to the other end of an answered call, by SIP INFO ("application/dtmf-relay").
    /// Other characters are passed over. Nothing happens before the call is answered.
    virtual void press(uint32_t call, const char* digits) noexcept = 0;
};

/// @return a service for station::add(), which does not listen; null without user or server, or when memory is out
MEDIA_API sip_service_t* sip_service(const sip_settings_t& settings) noexcept;

/// Copied.
struct sip_relay_settings_t {
    uint16_t port = 5060;         ///< of 0.0.0.0, whatever the station is bound to; 1 to 65535
    const char* users = nullptr;  ///< names, separated by ','
};

/// Registrar and relay over TCP, without passwords: the users call each other, and media goes from phone to phone.
/// Start of the station fails when the port cannot be had. It runs on the station's first thread; each connection takes
/// a place.
/// @return a service for station::add(); null without users, for port 0, or when memory is out
MEDIA_API service* sip_relay_service(const sip_relay_settings_t& settings) noexcept;

}  // namespace media
