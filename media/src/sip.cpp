#include "media/sip.h"

#include "sip/call.h"

#include "core/text.h"
#include "core/value.h"
#include "inet/net_sips.h"

#include <cstdio>
#include <utility>

namespace media {

sip_service_t* sip_service(const sip_settings_t& settings) noexcept {
    if (!settings.user || !settings.server) return nullptr;
    auto* made = core::create<sip::service_t>(CORE_HERE, settings);
    if (!made || made->complete()) return made;
    delete made;
    return nullptr;
}

namespace sip {

namespace {

/// What a service has on the threads beside the first one.
struct nothing_t final : part {};

part* part_or_tell(part* made, failure_t* error) noexcept {
    if (!made && error && !*error->text) tell(error, "no memory");
    return made;
}

}  // namespace

service_t::service_t(const sip_settings_t& settings) noexcept
    : settings_(settings),
      user_(core_strdup(settings.user, CORE_HERE)),
      password_(core_strdup(settings.password ? settings.password : "", CORE_HERE)),
      server_(core_strdup(settings.server, CORE_HERE)),
      complete_(user_ && password_ && server_) {
    settings_.user = user_.get();
    settings_.password = password_.get();
    settings_.server = server_.get();
    for (stream* each : {settings_.sends, settings_.takes})
        if (each) each->keep();
}

service_t::~service_t() {
    for (stream* each : {settings_.sends, settings_.takes})
        if (each) stream::drop(each);
}

part* service_t::make_part(thread& on, failure_t* error) noexcept {
    if (on.index() != 0) return part_or_tell(core::create<nothing_t>(CORE_HERE), error);
    auto* made = core::create<part_t>(CORE_HERE, on, *this);
    if (made && made->open()) return made;
    delete made;
    return part_or_tell(nullptr, error);
}

void service_t::addresses(const stream& of, const char*, void (*each)(void* arg, const char* address),
                          void* arg) const noexcept {
    if (&of != settings_.sends) return;
    char port[8] = "";
    if (settings_.port) std::snprintf(port, sizeof port, ":%u", unsigned{settings_.port});
    const core::owned_text text(core_sprintf(CORE_HERE, "sip:%s@%s%s%s", settings_.user, settings_.server, port,
                                             settings_.tcp ? ";transport=tcp" : ""));
    if (text) each(arg, text.get());
}

void service_t::work_on(thread* on) noexcept {
    const std::lock_guard held(lock_);
    on_ = on;
}

/// Has `run` called on the thread of the agent. @param text  copied; may be null
bool service_t::order(void (*run)(part_t& part, uint32_t call, const char* text), uint32_t call,
                      const char* text) noexcept {
    core::owned_object<order_t> made(core::create<order_t>(CORE_HERE, this, run, call, core::owned_text()));
    if (!made) return false;
    if (text) made->text.reset(core_strdup(text, CORE_HERE));
    const std::lock_guard held(lock_);
    if ((text && !made->text) || !on_ || !on_->call(run_order, made.get())) return false;
    static_cast<void>(made.release());  // run_order() takes it
    return true;
}

void service_t::run_order(thread& on, void* arg) noexcept {
    const core::owned_object<order_t> order(static_cast<order_t*>(arg));
    if (auto* const part = static_cast<part_t*>(on.part(*order->of))) order->run(*part, order->call, order->text.get());
}

uint32_t service_t::call(const char* user) noexcept {
    const uint32_t number = next_number();
    const auto run = [](part_t& part, uint32_t call, const char* text) { part.place(call, text); };
    return user && order(run, number, user) ? number : 0;
}

void service_t::hang_up(uint32_t call) noexcept {
    const auto run = [](part_t& part, uint32_t number, const char*) {
        if (call_t* const one = part.find(number)) one->hang_up(sip_reason_t::hung_up);
    };
    order(run, call, nullptr);
}

void service_t::press(uint32_t call, const char* digits) noexcept {
    const auto run = [](part_t& part, uint32_t number, const char* text) {
        if (call_t* const one = part.find(number)) one->press(text);
    };
    if (digits) order(run, call, digits);
}

namespace {

class relay_part final : public part {
public:
    ~relay_part() override { net_sipsrv_close(server_); }

    /// @return false with the reason in `error`
    bool open(thread& on, const char* users, uint16_t port, failure_t* error) noexcept {
        value_t** names = core_value_split(users, ",", nullptr, CORE_HERE);
        if (names) server_ = net_sipsrv_open_at(on.nt(), names, port, CORE_HERE);
        core_value_free(names);
        if (server_ && net_sipsrv_port(server_) == 0)
            tell(error, "cannot listen on 0.0.0.0:%u for SIP", unsigned{port});
        return net_sipsrv_port(server_) != 0;
    }

private:
    net::SipServer* server_ = nullptr;
};

class relay_t final : public service {
public:
    explicit relay_t(const sip_relay_settings_t& settings) noexcept
        : listens_at_(settings.port), users_(core_strdup(settings.users, CORE_HERE)) {}
    bool complete() const noexcept { return users_ != nullptr; }

    // The station listens for nobody here: the relay has a listener of its own.
    uint16_t port() const noexcept override { return 0; }
    void set_port(uint16_t) noexcept override {}
    bool listens() const noexcept override { return false; }
    claim_t claims(buffer_t) const noexcept override { return claim_t::no; }
    part* make_part(thread& on, failure_t* error) noexcept override {
        if (on.index() != 0) return part_or_tell(core::create<nothing_t>(CORE_HERE), error);
        auto* made = core::create<relay_part>(CORE_HERE);
        if (made && made->open(on, users_.get(), listens_at_, error)) return made;
        delete made;
        return part_or_tell(nullptr, error);
    }
    client* take(thread&, net::Tcp*&) noexcept override { return nullptr; }
    void addresses(const stream&, const char*, void (*)(void* arg, const char* address),
                   void*) const noexcept override {}

private:
    const uint16_t listens_at_;
    const core::owned_text users_;
};

}  // namespace
}  // namespace sip

service* sip_relay_service(const sip_relay_settings_t& settings) noexcept {
    if (!settings.users || settings.port == 0) return nullptr;
    auto* made = core::create<sip::relay_t>(CORE_HERE, settings);
    if (!made || made->complete()) return made;
    delete made;
    return nullptr;
}

}  // namespace media
