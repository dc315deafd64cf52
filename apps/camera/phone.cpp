#include "phone.h"

#include "program.h"

namespace camera {

bool phone::open(const options& settings, media::station& streams, const std::string& name, media::failure_t& error) {
    if (!settings.sip) return true;
    const apps::sip_address& account = *settings.sip;
    media::stream* const stream = streams.find(name.c_str());
    media::sip_service_t* const made = media::sip_service({.user = account.user.c_str(),
                                                           .password = account.password.c_str(),
                                                           .server = account.server.c_str(),
                                                           .port = account.port,
                                                           .tcp = account.tcp,
                                                           .sends = stream,
                                                           .at_key = settings.start == start_t::key,
                                                           .on_event = on_event,
                                                           .arg = this});
    server_ = account.server;
    if (made && stream)
        made->addresses(
            *stream, "", [](void* arg, const char* text) { static_cast<phone*>(arg)->address_ = text; }, this);
    media::stream::drop(stream);
    is_open_ = station_.add(made, &error) != 0;
    return is_open_;
}

bool phone::start(media::failure_t& error) { return !is_open_ || station_.start(&error) != 0; }

void phone::on_event(void* arg, const media::sip_event_t& event) {
    const auto& self = *static_cast<const phone*>(arg);
    const std::string peer = apps::showable(event.peer);
    using e = media::sip_event_t;
    switch (event.what) {
        case e::registered:
            return apps::report("sip: registered at " + self.server_);
        case e::unregistered:
            return apps::complain(program_name, "sip: not registered at " + self.server_ + ": " +
                                                    apps::words_of(event.reason) + ", trying again");
        case e::calling:
            return apps::report("sip: " + peer + " calls");
        case e::pressed:
            return apps::report("sip: " + peer + " presses " + event.digit);
        case e::ended:
            return apps::report("sip: the call of " + peer + " is over: " + apps::words_of(event.reason));
        case e::ringing:
        case e::answered:
            return;
    }
}

media::service* sip_relay(const options& settings) {
    return media::sip_relay_service({.port = settings.sip_port, .users = settings.sip_users.c_str()});
}

}  // namespace camera
