// The relay: who is bound to which connection, and what is answered, forwarded and announced. It knows no sockets:
// bytes come in with take(), and what goes out waits in the output of the parties until their owner sends it.
#pragma once

#include "sip/framing.h"
#include "sip/message.h"

#include "core/buf.h"
#include "core/log.h"
#include "core/owned.h"
#include "core/value.h"

#include <cstdint>
#include <string_view>

namespace sip {

struct party;

/// An entry of the table.
struct relay_user {
    bool reached() const noexcept;  ///< it has a connection that is not about to be closed

    core::string name, value;
    core::string coded;                   ///< its name as it stands in a URI
    party* at = nullptr;                  ///< null while it is not registered
    size_t listed_at = 0, listed_to = 0;  ///< its part of the list of names
};

/// One connection.
struct party {
    ~party() { core_buf_free(&out); }

    core::string peer, local;  ///< dotted addresses
    unsigned peer_port = 0;
    core::string route;  ///< for Record-Route: where it has reached us; may be empty
    relay_user* user = nullptr;
    bool presence = false;   ///< SUBSCRIBE came
    uint32_t notified = 0;   ///< number of the last NOTIFY
    bool outdated = false;   ///< a NOTIFY was left out
    uint32_t line_ends = 0;  ///< since the last message
    buf_t out;
    bool waits = false;  ///< stands in relay::waiting()
    bool lost = false;   ///< a bound is passed: it has to be closed, nothing more is taken or sent
};

inline bool relay_user::reached() const noexcept { return at && !at->lost; }

class relay {
public:
    static constexpr uint32_t most_output = 256 * 1024;
    static constexpr uint32_t most_printed = 20;          ///< on the console, in a second
    static constexpr uint32_t most_presence = 64 * 1024;  ///< waiting, for a NOTIFY to be added

    /// Throws std::bad_alloc.
    relay(value_t* const* users, const char* file, int line);
    relay(const relay&) = delete;
    relay& operator=(const relay&) = delete;

    /// Takes what a connection has brought. @return how many bytes were used; the rest is shown again with more
    uint32_t take(party& from, std::string_view bytes) noexcept;
    /// Makes room for so many parties; throws std::bad_alloc. forget() is to be called before it goes.
    void expect(size_t parties) { waiting_.reserve(parties); }
    void forget(party& gone) noexcept;
    /// To be called when the output of a party is gone: sends the presence that it has missed.
    void catch_up(party& to) noexcept;

    /// The user of that name, null unless it is bound.
    const relay_user* reached(std::string_view name) noexcept;

    /// Parties that have got output or were lost since it was last cleared.
    core::vector<party*>& waiting() noexcept { return waiting_; }

    log_ctx* log = nullptr;  ///< the owner's

private:
    // relay.cpp
    void take_line_ends(party& from, std::string_view ends);
    uint32_t take_message(party& from, const piece_t& message);
    void take_request(party& from, const header_t& header, const piece_t& message);
    void take_register(party& from, relay_user& sender, const header_t& header);
    void take_invite(party& from, relay_user& sender, const header_t& header, const piece_t& message);
    void take_subscribe(party& from, relay_user& sender, const header_t& header);
    void refuse(party& from, const header_t& header, std::string_view method);
    bool may_print() noexcept;
    relay_user* find(std::string_view name);
    relay_user* find_plain(std::string_view name) noexcept;
    void bind(relay_user& user, party& to) noexcept;

    // relay_output.cpp
    void answer(party& to, const header_t& header, unsigned status);
    void forward(const party& from, party& to, std::string_view method, const piece_t& message);
    void pass_on(party& to, std::string_view start, const piece_t& message);
    void list_names();
    void announce(const relay_user& to);
    void send(party& to, std::string_view body);
    void lose(party& which) noexcept;
    void wake(party& which) noexcept;

    const char* const file_;
    const int line_;
    core::vector<relay_user> users_;     ///< in the order given
    core::vector<relay_user*> by_name_;  ///< sorted
    core::vector<party*> waiting_;
    core::string head_;   ///< of what is being sent
    core::string names_;  ///< of all bound users, each in quotation marks behind a comma
    bool listed_ = false;
    core::string list_;  ///< that is being sent
    uint32_t printed_ = 0;
    uint64_t printed_in_ = 0;  ///< second of core_timer()
};

}  // namespace sip
