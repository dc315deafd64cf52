// The agent and its records: accounts, sessions (Call-IDs), users (the other ends) and requests (transactions, ours and
// those of peers). It is driven by messages, tick() and the calls of its interface; wires carry what it sends.
//
// Records that end are taken out of their lists at once and released when the outermost call into the agent returns, as
// callbacks may end anything.
#pragma once

#include "sip/media.h"
#include "sip/message.h"

#include "core/cmd.h"
#include "core/log.h"
#include "core/owned.h"
#include "inet/net_sip.h"
#include "inet/rtp_packets.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

namespace sip {

inline constexpr uint64_t ms = 1000;
inline constexpr uint64_t second = 1000 * ms;
inline constexpr uint64_t t1 = 500 * ms;               // RFC 3261, 17.1.1.1
inline constexpr uint64_t t2 = 4 * second;             // 17.1.2.1
inline constexpr uint64_t t4 = 5 * second;             // 17.1.2.2
inline constexpr uint64_t t_end = 64 * t1;             // timers B, F, H and J
inline constexpr uint64_t last_try_time = 2 * second;  // for a request with credentials under a new branch
inline constexpr uint64_t bye_time = 2 * second;       // for the end of an INVITE after BYE; then CANCEL
inline constexpr uint64_t ring_time = 180 * second;
inline constexpr uint64_t quiet_time = 120 * second;  // without media or an answer; then OPTIONS asks
inline constexpr uint32_t most_fields = 128;
inline constexpr uint32_t most_requests = 1024;
inline constexpr uint32_t most_ringing = 64;
inline constexpr uint32_t most_calls = 120;
inline constexpr uint32_t most_proxies = 70;
inline constexpr uint32_t most_alike = 8;

/// Carries the messages of an account.
class wire {
public:
    virtual ~wire() = default;
    /// @param to  of a datagram; null for the server
    virtual void send(std::string_view bytes, const sockaddr_in* to) noexcept = 0;
    virtual uint32_t local_port() const noexcept = 0;
    virtual in_addr local_address() const noexcept = 0;  ///< as the server sees it; 0.0.0.0 when it is not known
    virtual bool is_server(const sockaddr_in& from) const noexcept = 0;
    virtual bool is_up() const noexcept = 0;  ///< false while it connects
    virtual void stop() noexcept = 0;         ///< before it is released: nothing more comes from it
    virtual void seek() noexcept {}           ///< looks the server up again; blocks
};

using text = core::string;

/// The way to the other end of a call, past the server (RFC 3261, 12.2.1.1).
struct way_t {
    text target;  ///< its Contact
    text routes;  ///< the proxies in between, as fields
};

}  // namespace sip

namespace net {

struct sip_request {
    Sip* agent = nullptr;
    sip_account* account = nullptr;
    sip_session* session = nullptr;
    sip_user* user = nullptr;  ///< null when it has none, or it has gone
    const char* method = "";
    uint32_t cseq = 0;  ///< 0 until sent
    sip::text branch;
    sip::text sent_by;  ///< of its Via: host and port of ours, the host of a peer
    sip::text bytes;    ///< as last sent: a request of ours, or the answer to one of a peer
    bool gone = false;

    // Ours
    sip::text peer, remote_tag;  ///< whom it is for; the user may go before it is answered
    sip::way_t way;              ///< in a call: where the other end says it is
    bool by_way = false;         ///< goes there
    uint32_t repeated = 0;       ///< how often the 200 of an INVITE came again
    sip::text extra;             ///< fields of its own, as lines
    sip::text body;
    sip::text ack;  ///< INVITE with a final answer: goes out again when that comes again
    const char* credentials_name = nullptr;
    sip::text credentials;
    sip::text challenged;      ///< the answer that asked for them
    uint32_t resent = 0;       ///< copies that were sent since it was made, or given credentials
    uint32_t stale = 0;        ///< of these, copies whose challenge may still come
    bool doubted = false;      ///< that answer came again: a copy, a refusal, or the server took us for a copy
    bool renewed = false;      ///< and the request went out with a branch of its own then
    bool provisional = false;  ///< an INVITE that was answered 1xx
    bool abandoned = false;    ///< an INVITE whose call we ended: a late 200 gets ACK and BYE
    bool cancelled = false;
    sip::text early, early_tag;  ///< the description in a 1xx, and whose it is
    uint32_t reliable = 0;       ///< number of the 1xx that was acknowledged last (RFC 3262)
    sip::text reliable_tag;      ///< and whose it was

    // A peer's
    bool incoming = false;
    bool answered = false;  ///< with a final status
    unsigned status = 0;
    sip::owned_header header;
    sip::text call_id, from_tag;
    sip::text offer;         ///< body of an INVITE, until its final answer
    bool has_offer = false;  ///< it came with one
    sockaddr_in from = {};

    uint64_t resend_at = 0;  ///< 0: not sent again
    uint64_t interval = 0;
    uint64_t ends_at = 0;  ///< of the wait for an answer or an ACK, then of the record
};

struct sip_user final : sip::frame_taker {
    void on_frame(av::frame_t& frame) noexcept override;
    void on_digit(int code) noexcept override;

    Sip* agent = nullptr;
    sip_account* account = nullptr;
    sip_session* session = nullptr;
    sip_request* invite = nullptr;  ///< that waits for its final answer, or whose 200 waits for ACK
    sip::text remote_tag, name;
    sip::way_t way;
    uint64_t asked_at = 0;     ///< when it was known, or asked, to be there
    in_addr own = {};          ///< our address, as it was told
    bool established = false;  ///< in the session: media runs
    bool over = false;         ///< its end has been told
    bool gone = false;
    bool subscription = false;
    void* frame_arg = nullptr;
    sip_frame_callback frame_to = nullptr;
    sip::call_media media;
};

struct sip_session {
    Sip* agent = nullptr;
    sip_account* account = nullptr;
    sip::text call_id;
    uint32_t cseq = 0;
    bool permanent = false;  ///< the account's own
    bool gone = false;
    core::vector<sip_user*> users;
};

struct sip_account {
    Sip* agent = nullptr;
    sip::text user, password, server, local_tag, contact_address, contact_port;
    uint32_t port = 5060;
    uint32_t expires = 60;  ///< seconds that a registration is asked for
    int transport = sip_udp;
    core::owned_object<sip::wire> wire;
    uint64_t due = 0;  ///< of its timer; 0 for none
    bool connected = false;
    bool reconnect = true;
    in_addr near_media = {};   ///< for media, where the owner knows better; 0.0.0.0 when it does not
    bool open_server = false;  ///< who asks by way of it is nobody that it knows
    bool renews = false;       ///< the server takes a request with the branch of the challenged one for its copy
    sip_session* registration = nullptr;
    sip_session* subscriber = nullptr;
};

class Sip {
public:
    Sip(const sip_info& wanted, const char* made_in, int made_at);
    ~Sip();
    Sip(const Sip&) = delete;
    Sip& operator=(const Sip&) = delete;

    /// While it lives, a call into the agent is running.
    class work {
    public:
        explicit work(Sip& of) noexcept : of_(of) { ++of_.running; }
        ~work() {
            if (--of_.running == 0) of_.bury();
        }
        work(const work&) = delete;
        work& operator=(const work&) = delete;

    private:
        Sip& of_;
    };

    /// Runs a piece of work; what there is no memory for is left out.
    template <class Do>
    void guarded(Do&& run) noexcept {
        const work running_here(*this);
        try {
            run();
        } catch (const std::bad_alloc&) {
            core_log_err("sip: out of memory");
        }
    }

    // transport.cpp
    sip_account* add_account(int transport, const char* user, const char* password, const char* server, uint32_t port,
                             const char* asked_in, int asked_at);
    void open_transport(sip_account& account);
    void connected(sip_account& account);
    in_addr media_address(const sip_account& account) const;
    in_addr media_address(const sip_account& account, in_addr peer) const;
    void close_transport(sip_account& account, bool lost);
    void account_due(sip_account& account);
    /// One datagram. @param from  its sender
    void take_datagram(sip_account& account, std::string_view bytes, const sockaddr_in& from) noexcept;
    /// Bytes of a connection. @return how many were used; the connection may be gone then
    uint32_t take_stream(sip_account& account, std::string_view bytes, const sockaddr_in& from) noexcept;
    void take_message(sip_account& account, std::string_view head, std::string_view body, unsigned fault,
                      const sockaddr_in& from);

    // transactions.cpp
    sip_request& ask(sip_account& account, sip_session& session, sip_user* user, const char* method, sip::text extra,
                     sip::text body);
    void renew_branch(sip_request& request);
    sip::text new_branch() const;
    void render(sip_request& request);
    void send(sip_request& request);
    void send_ack(sip_request& request);
    sip::text print_ack(const sip_request& invite, std::string_view tag, bool by_way = false);
    void say_again(const sip_account& account);
    void send_by_way(sip_request& request);
    bool may_ask(const sip_request& invite, std::string_view method) const noexcept;
    void leave(sip_request& invite, std::string_view tag, const sip::way_t& way);
    void cancel(sip_request& invite);
    void end(sip_request& request) noexcept;
    sip_request* find_ours(std::string_view branch, std::string_view method) noexcept;
    sip_request* find_theirs(const sip::header_t& header, const char* method) noexcept;
    void answer(sip_request& request, unsigned status, std::string_view type = {}, std::string_view body = {});
    sip::text print_answer(const sip_account& account, const sip::header_t& header, unsigned status,
                           const sockaddr_in& from, std::string_view type, std::string_view body) const;
    void resend(sip_request& request, uint64_t now);
    void timed_out(sip_request& request);

    // dialogs.cpp
    sip_session& add_session(sip_account& account, sip::text call_id);
    sip_session* find_session(const sip_account& account, std::string_view call_id) noexcept;
    sip_user& add_user(sip_session& session, std::string_view name, std::string_view remote_tag);
    sip_user* find_user(sip_session& session, const sip::header_t& header) noexcept;
    void drop(sip_user& user) noexcept;
    void drop(sip_session& session) noexcept;
    void tell(sip_user* user, uint32_t event) noexcept;
    void finish(sip_user& user, uint32_t event) noexcept;
    void tell_account(void* object, uint32_t event, const char* said) noexcept;
    sip::text own_call_id(std::string_view prefix) const;
    uint32_t calls() const noexcept;
    uint32_t ringing() const noexcept;
    bool is_ending() const noexcept;

    // requests.cpp
    void take_request(sip_account& account, sip::owned_header header, std::string_view body, unsigned fault,
                      const sockaddr_in& from);
    bool is_in_call(const sip_account& account, const sip::header_t& header) noexcept;
    bool has_room(const sip_account& account, const sip::header_t& header, const char* method,
                  const sockaddr_in& from) noexcept;
    void reply(const sip_account& account, const sip::header_t& header, unsigned status, const sockaddr_in& from);
    sip_request& add_theirs(sip_account& account, sip::owned_header header, const char* method,
                            const sockaddr_in& from);
    bool came_before(const sip_request& request) const noexcept;
    void take_ack(sip_account& account, const sip::header_t& header, std::string_view body);
    void act(sip_request& request, std::string_view body);
    void take_invite(sip_request& request, std::string_view body);
    void take_bye(sip_request& request);
    void take_cancel(sip_request& request);
    void take_info(sip_request& request, std::string_view body);
    // responses.cpp
    void take_response(sip_account& account, const sip::header_t& header, std::string_view head, std::string_view body);
    void take_challenge(sip_request& request, const sip::header_t& header, std::string_view head);
    void give_up(sip_request& request);
    void take_provisional(sip_request& request, const sip::header_t& header, std::string_view body);
    void acknowledge_provisional(sip_request& invite, const sip::header_t& header);
    void take_again(sip_request& invite, const sip::header_t& header, std::string_view tag);
    void take_success(sip_request& request, const sip::header_t& header, std::string_view body);
    void take_answer(sip_request& invite, const sip::header_t& header, std::string_view body);
    void take_refusal(sip_request& request, const sip::header_t& header);
    void complete(sip_request& request) noexcept;
    // calls.cpp
    sip_user* invite(sip_account& account, sip_session* session, const char* callee, void* arg,
                     sip_frame_callback callback);
    void accept(sip_user& user);
    void decline(sip_user& user);
    void establish(sip_user& user);
    void ask_whether_there(sip_user& user);
    void say_bye(sip_user& user);
    void bye(sip_user& user);
    void dtmf(std::span<sip_user* const> to, unsigned code);
    sip::text answer_media(sip_user& user, std::string_view offer);
    void put_frame(std::span<sip_user* const> to, const av::frame_t& frame) noexcept;
    // presence.cpp
    void register_account(sip_account& account);
    sip_request* open_registration(const sip_account& account) noexcept;
    void contacts(sip_account& account);
    void subscribe(sip_account& account, std::string_view user, bool wanted);
    void take_notify(sip_account& account, std::string_view body);

    /// To be called about ten times a second, and when the next time is due.
    void tick(uint64_t now) noexcept;
    void bury() noexcept;

    sip_info info;
    const char* const file;
    const int line;
    cmd_ctx* commands = nullptr;
    log_ctx* log = nullptr;
    command_ctx* clock = nullptr;
    int dtmf_mode = 0;
    sip::text host;
    sip::text scratch;  ///< of datagrams
    rtp::Packets packets;
    core::vector<core::owned_object<sip_account>> accounts;
    core::vector<core::owned_object<sip_session>> sessions;
    core::vector<core::owned_object<sip_user>> users;
    core::vector<core::owned_object<sip_request>> requests;
    core::vector<core::owned_object<sip::wire>> old_wires;
    /// Makes and opens the wire of an account; null when it cannot. Replaced where bytes alone drive the agent.
    core::owned_object<sip::wire> (*make_wire)(Sip& agent, sip_account& account) = nullptr;
    uint32_t running = 0;
    bool closing = false;
};

}  // namespace net

namespace sip {

using net::Sip;
using net::sip_account;
using net::sip_request;
using net::sip_session;
using net::sip_user;

/// Makes a record; throws when memory is out.
template <class T, class... Args>
core::owned_object<T> make(const Sip& agent, Args&&... args) {
    core::owned_object<T> made(core::create<T>(agent.file, agent.line, std::forward<Args>(args)...));
    if (!made) throw std::bad_alloc();
    return made;
}

/// The request URI.
text uri_of(const sip_request& request);

/// What INVITE, or its answer, says about the way back.
way_t way_of(const header_t& header, bool answered);

/// The address of this host from which the system sends to another; 0.0.0.0 when it is not known.
in_addr near_to(in_addr other) noexcept;

/// The wire of an account's transport.
core::owned_object<wire> open_wire(Sip& agent, sip_account& account);

/// The code of a digit in the body of an INFO, -1 for none.
int read_digit(std::string_view type, std::string_view body) noexcept;

}  // namespace sip
