// The gateway: calls that come on one account of its agent are placed on the other one, and both are joined.
#pragma once

#include "sip/ending.h"
#include "sip/server.h"

#include "core/owned.h"
#include "inet/net_sip.h"
#include "inet/net_sips.h"

#include <cstdint>

namespace sip {

/// A call that came, and those that were placed for it.
struct bridge {
    net::sip_user* caller = nullptr;
    net::sip_user* callee = nullptr;    ///< who has answered
    core::vector<net::sip_user*> rung;  ///< who has not answered yet
    uint64_t joined_at = 0;             ///< core_timer(); 0 before
};

}  // namespace sip

namespace net {

class Sips {
public:
    static constexpr size_t most_rung = 16;
    static constexpr size_t most_waiting = 16;

    /// Throws std::bad_alloc.
    Sips(const sips_info& info, const char* file, int line);
    ~Sips();
    Sips(const Sips&) = delete;
    Sips& operator=(const Sips&) = delete;

    /// Before all else. @return false when memory is out
    bool open() noexcept;
    const SipServer* server() const noexcept { return server_; }

private:
    static void on_call(void* arg, sip_user* party, uint32_t event) noexcept;
    static void on_account(void* arg, void* object, uint32_t event, const char* text) noexcept;
    static void on_frame(void* arg, sip_user* party, av::frame_t* frame) noexcept;
    void register_accounts() noexcept;
    static void on_clock(void* arg, timer_ctx* timer) noexcept;
    void end_silent_calls() noexcept;
    void lose_outside() noexcept;
    uint64_t shut_down(bool may_wait) noexcept;
    bool awaits_answers() const noexcept;
    bool is_inside(const sip_user& party) const noexcept;
    size_t waiting_inside() const noexcept;
    void take_call(sip_user& caller) noexcept;
    core::owned_object<sip::bridge> make_bridge() noexcept;
    void ring(sip::bridge& call, sip_account* account, const char* name) noexcept;
    void ring_inside(sip::bridge& call, const core::string& name) noexcept;
    void take_answer(sip_user& party) noexcept;
    void take_end(sip_user& party) noexcept;
    void end(sip::bridge& call, const sip_user* gone) noexcept;
    void hang_up(sip_user& party) noexcept;
    sip::bridge* find(const sip_user& party) noexcept;
    void tell(uint32_t event, const char* who) noexcept;

    sips_info info_;
    const char* const file_;
    const int line_;
    core::string name_, password_, outside_server_, callee_;
    core::vector<core::string> users_;
    SipServer* server_ = nullptr;
    Sip* agent_ = nullptr;
    sip_account* outside_ = nullptr;
    sip_account* inside_ = nullptr;
    core::vector<core::owned_object<sip::bridge>> bridges_;
    core::vector<sip_user*> late_;  ///< to be hung up when they ring: until then the relay cannot end their calls
    uint64_t outside_heard_ = 0;    ///< core_timer() of the last registration outside; 0: it has been told as lost
    timer_ctx* clock_ = nullptr;
    uint64_t closes_at_ = 0;  ///< while it closes: at the latest
    sip::ending ending_;
};

}  // namespace net
