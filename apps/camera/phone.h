// The camera as a phone: whoever calls it sees and hears a stream.
#pragma once

#include "options.h"

#include "media/sip.h"
#include "media/station.h"

#include <cstdint>
#include <string>

namespace camera {

class phone {
public:
    phone() = default;
    phone(const phone&) = delete;
    phone& operator=(const phone&) = delete;

    /// Nothing without an account. @param name  of the stream that calls are sent
    /// @return false with the reason in `error`
    bool open(const options& settings, media::station& streams, const std::string& name, media::failure_t& error);
    /// Registers, and answers calls from then on; what happens is printed. Nothing when it is not open.
    bool start(media::failure_t& error);
    /// Ends the calls.
    void stop() { station_.stop(); }

    /// "sip:USER@SERVER"; empty when it is not open.
    const std::string& address() const { return address_; }
    uint32_t calls() const { return station_.totals().watching; }

private:
    static void on_event(void* arg, const media::sip_event_t& event);

    std::string address_;
    std::string server_;
    bool is_open_ = false;
    media::station station_;  ///< of its own: the look-up of the server's name holds up no viewer
};

/// The relay of the options, for station::add(); null when memory is out.
media::service* sip_relay(const options& settings);

}  // namespace camera
