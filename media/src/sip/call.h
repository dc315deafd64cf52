// One call: its way from the order or the ring to its end, what it is sent and what comes of it.
#pragma once

#include "sip/inside.h"
#include "station/approach.h"
#include "station/whole_pictures.h"
#include "watcher/receipt.h"

#include "avc/fcc.h"

namespace media::sip {

class call_t final : public client {
public:
    call_t(part_t& owner, uint32_t number) noexcept;
    ~call_t() override { owner_.exit(*this); }

    uint64_t serve(uint64_t now) noexcept override;
    void second() noexcept override;
    void finish() noexcept override { hang_up(sip_reason_t::hung_up); }
    bool finished() const noexcept override { return finished_; }
    bool idle() const noexcept override { return false; }
    bool watching() const noexcept override { return is_answered_ && !finished_ && settings().sends; }
    uint32_t places() const noexcept override { return 0; }  // the agent takes them

    uint32_t number() const noexcept { return number_; }
    const net::sip_user* party() const noexcept { return party_; }
    /// It has been ordered, and its account was not registered yet.
    bool waits() const noexcept { return !finished_ && !party_; }

    /// One that is placed.
    bool set_callee(const char* name) noexcept;
    void invite() noexcept;
    /// One that has come.
    void accept(net::sip_user& party) noexcept;
    /// @param event  sip_call_event_t
    void take_event(uint32_t event) noexcept;
    void press(const char* digits) noexcept;
    void hang_up(sip_reason_t why) noexcept;
    void end(sip_reason_t why) noexcept;
    void tell(sip_event_t::what_t what, sip_reason_t why = sip_reason_t::none, char digit = 0) const noexcept;

    // What it is sent. The past has the times at which it goes: the other end shows it as it comes.
    bool show(const entry_t& entry) noexcept {
        if (entry.kind == kind_t::video) send(entry, settings().sends->now());
        return true;
    }
    bool join(uint64_t from) noexcept { return owner_.add_live(*this, from); }
    void deliver(const entry_t& entry) noexcept;
    void deliver_sound(const av::frame_t& frame) noexcept;
    void leave_out() noexcept { pictures_.leave_out(); }

private:
    static void on_frame(void* arg, net::sip_user* party, av::frame_t* frame) noexcept;
    void take(const av::frame_t& frame) noexcept;
    void begin() noexcept;
    bool is_awaited() const noexcept;
    bool start(uint64_t now) noexcept;
    void send(const entry_t& entry, uint64_t time) noexcept;
    const sip_settings_t& settings() const noexcept { return owner_.settings(); }

    part_t& owner_;
    const uint32_t number_;
    core::owned_text callee_;
    net::sip_user* party_ = nullptr;
    bool finished_ = false;
    bool is_answered_ = false;
    uint64_t since_;       ///< core_timer() of the order, then of the answer
    bool starts_ = false;  ///< it will be sent the stream as soon as the other end is ready

    approach approach_;
    whole_pictures pictures_;
    uint64_t last_time_ = 0;  ///< of a picture that was sent

    fetch::receipt pictures_taken_{av::fcc_h264, 0};
    fetch::receipt sound_taken_{av::fcc_pcmu, 0};
};

}  // namespace media::sip
