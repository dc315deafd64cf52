// The SIP service, inside: the service, which takes orders of any thread, and its agent, which is on one.
#pragma once

#include "station/lives.h"

#include "core/owned.h"
#include "inet/net_sip.h"
#include "media/sip.h"

#include <atomic>
#include <cstdint>
#include <mutex>

namespace media::sip {

class call_t;
class part_t;

class service_t final : public sip_service_t {
public:
    explicit service_t(const sip_settings_t& settings) noexcept;
    ~service_t() override;
    /// Whether all texts could be copied.
    bool complete() const noexcept { return complete_; }

    uint16_t port() const noexcept override { return 0; }
    void set_port(uint16_t) noexcept override {}
    bool listens() const noexcept override { return false; }
    claim_t claims(buffer_t) const noexcept override { return claim_t::no; }
    part* make_part(thread& on, failure_t* error) noexcept override;
    client* take(thread&, net::Tcp*&) noexcept override { return nullptr; }
    void addresses(const stream& of, const char* host, void (*each)(void* arg, const char* address),
                   void* arg) const noexcept override;

    uint32_t call(const char* user) noexcept override;
    void hang_up(uint32_t call) noexcept override;
    void press(uint32_t call, const char* digits) noexcept override;

    const sip_settings_t& settings() const noexcept { return settings_; }
    uint32_t next_number() noexcept { return ++calls_; }
    /// Where orders go; null when it ends there.
    void work_on(thread* on) noexcept;

private:
    struct order_t {
        service_t* of;
        void (*run)(part_t& part, uint32_t call, const char* text);
        uint32_t call;
        core::owned_text text;
    };
    static void run_order(thread& on, void* arg) noexcept;
    bool order(void (*run)(part_t& part, uint32_t call, const char* text), uint32_t call, const char* text) noexcept;

    sip_settings_t settings_;
    core::owned_text user_, password_, server_;
    bool complete_;
    std::atomic<uint32_t> calls_ = 0;  ///< numbers given
    std::mutex lock_;
    thread* on_ = nullptr;
};

/// The agent with its account and its calls, on the station's first thread.
class part_t final : public part, public reader {
public:
    part_t(thread& on, service_t& of) noexcept : thread_(on), service_(of) {}
    ~part_t() override;
    bool open() noexcept;
    void second() noexcept override;
    bool settled() const noexcept override { return !net_sip_is_ending(agent_); }

    void place(uint32_t number, const char* callee) noexcept;
    call_t* find(uint32_t number) noexcept;

    thread& on() noexcept { return thread_; }
    const sip_settings_t& settings() const noexcept { return service_.settings(); }
    net::sip_account* account() const noexcept { return account_; }
    void tell(const sip_event_t& event) const noexcept;

    /// The calls of this thread. @return false when memory is out
    bool enter(call_t& one) noexcept;
    void exit(const call_t& one) noexcept;

    /// Follows the stream from now on. @return false when memory is out
    bool follow() noexcept;
    /// A call that has come up to the present. @param from  number of the first frame that it is sent
    bool add_live(call_t& one, uint64_t from) noexcept { return live_.add({&one, from}); }
    void remove_live(const call_t& one) noexcept { live_.remove(one); }

    /// Whether what comes of a call goes into the stream: that of the first one that has it.
    bool feeds(const call_t& one) noexcept;
    void end_feed(const call_t& one) noexcept;

private:
    enum class state_t : uint8_t { unknown, registered, lost };

    struct place_t {
        call_t* one = nullptr;
        uint64_t from = 0;
    };

    static void on_call(void* arg, net::sip_user* party, uint32_t event) noexcept;
    static void on_account(void* arg, void* object, uint32_t event, const char* text) noexcept;
    static void on_dtmf(void* arg, net::sip_user* party, int code) noexcept;
    void on_entry(read_t what, const entry_t& entry) noexcept override;

    void register_account() noexcept;
    void set_registered() noexcept;
    void set_lost(sip_reason_t why) noexcept;
    void take_call(net::sip_user& party) noexcept;
    call_t* add_call(uint32_t number) noexcept;
    call_t* find(const net::sip_user* party) noexcept;
    template <class Do>
    void each_waiting(Do run) noexcept;
    const av::frame_t* sound_of(const entry_t& entry, av::frame_t& room) noexcept;

    thread& thread_;
    service_t& service_;
    net::Sip* agent_ = nullptr;
    net::sip_account* account_ = nullptr;
    state_t state_ = state_t::unknown;
    sip_reason_t lost_why_ = sip_reason_t::none;
    uint64_t refused_ = 0;  ///< core_timer() of a refusal that is not told yet; 0 for none
    uint64_t heard_ = 0;    ///< core_timer() of the last registration; of the start before the first
    core::vector<call_t*> calls_;
    bool follows_ = false;
    places<place_t> live_;
    const call_t* feeding_ = nullptr;
    core::vector<uint8_t> sound_;  ///< converted
};

}  // namespace media::sip
