// A request is read, its call found by method and namespace, the gate asked, and the answer made from fixed documents.
// Everything is made for the one request: clients ask a few times when they connect.
#include "media/onvif.h"

#include "onvif/documents.h"
#include "onvif/inside.h"

#include "common/digest.h"
#include "common/xml.h"
#include "core/template.h"
#include "core/text.h"
#include "inet/net_socket.h"
#include "inet/net_uri.h"

#include <cstdio>
#include <cstring>

namespace media {

namespace {

using onvif_calls::call_t;
using onvif_calls::side_t;
using onvif_calls::whole;

constexpr const char* device_path = "/onvif/device_service";
constexpr const char* media_path = "/onvif/media_service";
constexpr const char* xml_type = "application/soap+xml; charset=utf-8";

void send(http_exchange& asked, unsigned status, const char* text, const char* challenge = nullptr) noexcept {
    if (!text) return;  // it is answered with 500
    asked.answer(
        {.status = status, .type = xml_type, .field = challenge ? "WWW-Authenticate" : nullptr, .value = challenge},
        {reinterpret_cast<uint8_t*>(const_cast<char*>(text)), static_cast<uint32_t>(std::strlen(text))});
}

void send_fault(http_exchange& asked, int number) noexcept {
    constexpr int of_the_sender = 3;
    send(asked, number == of_the_sender ? 400 : 500, core::owned_text(soap_error(number)).get());
}

/// A name as part of a URI.
core::string part_of_uri(const core::string& name) {
    return core::string(whole(uri_encode_path(name.c_str(), CORE_HERE)).get());
}

core::string text_or(const char* text, const char* other = "") { return core::string(text ? text : other); }

/// The service whose call it is. A method without a namespace is one of the service that was addressed.
/// @return null for a call that is not answered
const call_t* find_call(const soap::soap_t& request, const char* path, side_t& side) noexcept {
    const bool has_namespace = request.ns && *request.ns;
    const char* const named = has_namespace ? request.ns : path;
    side = std::strcmp(named, has_namespace ? onvif_calls::media_namespace : media_path) == 0 ? side_t::media
                                                                                              : side_t::device;
    if (side == side_t::media) return onvif_calls::find_media_call(request.method);
    const bool other = has_namespace && std::strcmp(named, onvif_calls::device_namespace) != 0;
    return other ? nullptr : onvif_calls::find_device_call(request.method);
}

}  // namespace

namespace onvif_calls {

core::string coded(const char* text) { return core::string(whole(xml_encode(text, CORE_HERE)).get()); }

void append(core::string& out, const char* document, const param_t* params) {
    out += whole(core_template_parse(document, params, CORE_HERE)).get();
}

core::owned_text query_t::respond(const char* document, const param_t* params) const {
    constexpr const char* declarations =
        " xmlns:tds=\"http://www.onvif.org/ver10/device/wsdl\" xmlns:trt=\"http://www.onvif.org/ver10/media/wsdl\"";
    return whole(
        net_soap_response(&request, side == side_t::media ? "trt" : "tds", declarations, document, params, CORE_HERE));
}

}  // namespace onvif_calls

onvif::inside::inside(station& of, const service& at, const settings_t& told)
    : streams(of),
      rtsp(at),
      manufacturer(text_or(told.manufacturer)),
      model(text_or(told.model)),
      firmware(text_or(told.firmware)),
      hardware(text_or(told.hardware)),
      told_serial(text_or(told.serial)),
      name(text_or(told.name)),
      user(text_or(told.user)),
      password(text_or(told.password)),
      without_aac(text_or(told.without_aac)),
      multicast(told.multicast),
      digest(told.user ? user.c_str() : nullptr, password.c_str()),
      tokens(user.c_str(), password.c_str()) {
    const core::string base("onvif://www.onvif.org/");
    for (const char* each : {"type/Network_Video_Transmitter", "type/video_encoder"})
        scopes.push_back(core::string(base + each));
    scopes.push_back(core::string(base + "hardware/" + part_of_uri(hardware)));
    scopes.push_back(core::string(base + "name/" + part_of_uri(name)));
}

/// Two devices of a host have different ports.
core::string onvif::inside::serial() const {
    if (!told_serial.empty()) return told_serial;
    const core::owned_text host(net_hostname(CORE_HERE));
    const core::owned_text text =
        whole(core_sprintf(CORE_HERE, "%s:%u", host ? host.get() : "", unsigned{web ? web->port() : uint16_t{0}}));
    return core::string(std::string_view(whole(common_md5(text.get(), CORE_HERE)).get()).substr(0, 12));
}

core::string onvif::inside::address(const char* host, const char* service) const {
    return core::string(
        whole(core_sprintf(CORE_HERE, "http://%s:%u/onvif/%s", host, unsigned{web->port()}, service)).get());
}

void onvif::inside::on_request(void* arg, http_exchange& asked) noexcept {
    try {
        static_cast<inside*>(arg)->answer(asked);
    } catch (const std::bad_alloc&) {
        send_fault(asked, 1);
    }
}

void onvif::inside::answer(http_exchange& asked) {
    const buffer_t body = asked.body();
    const core::owned_text text =
        whole(core_strndup(body.data ? reinterpret_cast<const char*>(body.data) : "", body.size, CORE_HERE));
    const core::owned<soap::soap_t, soap_free> request(soap_parse(text.get()));
    if (!request) throw std::bad_alloc();
    // A client that waits for the challenge sends its first request without a body.
    if (body.size == 0 && !admit(*request, asked)) return;
    if (!request->method) return send_fault(asked, 3);
    side_t side{};
    const call_t* const call = find_call(*request, asked.path(), side);
    if (!call) return send_fault(asked, 1);
    if (!call->is_open && !admit(*request, asked)) return;
    const core::owned_text made = call->answer({*this, *request, side, asked.host()});
    if (!made) return send_fault(asked, 3);
    send(asked, 200, made.get());
}

/// @return false when it has been answered
bool onvif::inside::admit(const soap::soap_t& request, http_exchange& asked) noexcept {
    using onvif_calls::token_gate;
    if (user.empty()) return true;
    const auto told = tokens.judge(request.header);
    if (told == token_gate::result_t::passes) return true;
    const auto judged = digest.judge(asked.header());
    if (judged == web::gate::result_t::passes) return true;
    if (told == token_gate::result_t::refused) {
        send(asked, 400, onvif_calls::not_authorized);
    } else {
        const core::owned_text challenge = digest.challenge(judged == web::gate::result_t::stale);
        send(asked, 401, onvif_calls::not_authorized, challenge.get());
    }
    return false;
}

onvif::onvif(station& of, const service& rtsp, const settings_t& settings) noexcept
    : inside_(core::create<inside>(CORE_HERE, of, rtsp, settings)) {}

onvif::~onvif() { core::destroy(inside_); }

int onvif::show_in_place(const char* film, const char* pictures) noexcept {
    if (!inside_ || !film || !pictures) return 0;
    try {
        inside_->shown.emplace_back(core::string(film), core::string(pictures));
        return 1;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

int onvif::serve(http_service_t& by) noexcept {
    if (!inside_) return 0;
    inside_->web = &by;
    for (const char* path : {device_path, media_path})
        if (!by.serve(path, inside::on_request, inside_, "POST", true)) return 0;
    return 1;
}

char* onvif::urn(const char* file, int line) const noexcept {
    if (!inside_) return nullptr;
    try {
        core::string all = inside_->manufacturer;
        all += '\n';
        all += inside_->model;
        all += '\n';
        all += inside_->serial();
        uint8_t digest[16];
        common_md5_bytes(all.data(), all.size(), digest);
        digest[6] = static_cast<uint8_t>((digest[6] & 0x0f) | 0x30);  // a name, by MD5 (RFC 9562, 5.3)
        digest[8] = static_cast<uint8_t>((digest[8] & 0x3f) | 0x80);
        const auto* d = digest;
        return core_sprintf(file, line, "uuid:%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                            d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7], d[8], d[9], d[10], d[11], d[12], d[13],
                            d[14], d[15]);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

char* onvif::scopes(const char* file, int line) const noexcept {
    if (!inside_) return nullptr;
    try {
        core::string all;
        for (const core::string& each : inside_->scopes)
            all.append(all.empty() ? "" : " ").append(each);
        return core_strdup(all.c_str(), file, line);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

char* onvif::address(const char* host, const char* file, int line) const noexcept {
    if (!inside_ || !inside_->web || inside_->web->port() == 0) return nullptr;
    return core_sprintf(file, line, "http://%s:%u%s", host, unsigned{inside_->web->port()}, device_path);
}

}  // namespace media
