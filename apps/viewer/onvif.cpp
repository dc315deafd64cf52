// One device, asked call by call, each over a connection of its own.
#include "devices.h"

#include "common/digest.h"
#include "common/xml.h"
#include "core/owned.h"
#include "core/template.h"
#include "core/text.h"
#include "core/time.h"
#include "inet/net_http.h"
#include "inet/net_soap.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

namespace viewer {
namespace {

constexpr const char* device_namespace = "http://www.onvif.org/ver10/device/wsdl";
constexpr const char* media_namespace = "http://www.onvif.org/ver10/media/wsdl";

// clang-format off

constexpr char envelope[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<s:Envelope xmlns:s="http://www.w3.org/2003/05/soap-envelope">
  <s:Header>${security}</s:Header>
  <s:Body>
    <${method} xmlns="${ns}" xmlns:tt="http://www.onvif.org/ver10/schema">${inner}</${method}>
  </s:Body>
</s:Envelope>
)";

constexpr char security[] = R"(
<Security xmlns="http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd"
    xmlns:u="http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd" s:mustUnderstand="1">
  <UsernameToken>
    <Username>${user}</Username>
    <Password Type="http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-username-token-profile-1.0#PasswordDigest">)"
    R"(${digest}</Password>
    <Nonce EncodingType="http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-soap-message-security-1.0#Base64Binary">)"
    R"(${nonce}</Nonce>
    <u:Created>${created}</u:Created>
  </UsernameToken>
</Security>
)";

constexpr char stream_setup[] = R"(
<StreamSetup>
  <tt:Stream>RTP-Unicast</tt:Stream>
  <tt:Transport>
    <tt:Protocol>RTSP</tt:Protocol>
  </tt:Transport>
</StreamSetup>
<ProfileToken>${token}</ProfileToken>
)";

// clang-format on

using answer_t = core::owned<soap::soap_t, soap_free>;

std::string filled(const char* document, const param_t* params) {
    const core::owned_text text(core_template_parse(document, params, CORE_HERE));
    return text ? text.get() : "";
}

std::string coded(const std::string& text) {
    const core::owned_text made(xml_encode(text.c_str(), CORE_HERE));
    return made ? made.get() : "";
}

std::string text_at(node* parent, const char* name) {
    const char* text = roxml_get_content(roxml_get_chld(parent, name, 0), nullptr, 0, nullptr);
    return text ? text : "";
}

node* below(node* from, std::initializer_list<const char*> path) {
    for (const char* each : path)
        from = roxml_get_chld(from, each, 0);
    return from;
}

class device {
public:
    explicit device(const device_options& settings) : settings_(settings), host_(settings.host) {
        constexpr std::string_view scheme = "http://";
        if (host_.starts_with(scheme)) host_.erase(0, scheme.size());
        const size_t slash = std::min(host_.find('/'), host_.size());
        if (slash + 1 < host_.size()) path = host_.substr(slash);
        host_.resize(slash);
        const size_t colon = host_.find(':');
        if (colon == host_.npos) return;
        if (!apps::take_number(port_, std::string_view(host_).substr(colon + 1), 1, 65535)) host_.clear();
        host_.resize(std::min(colon, host_.size()));
    }

    /// The answer to a call; null with `result` and `why` when there is none.
    answer_t call(const std::string& at, const char* ns, const char* method, const std::string& inner = "") {
        const std::string token = settings_.login.user.empty() || !knows_clock_ ? "" : token_now();
        const param_t params[] = {
            {"security", token.c_str()}, {"method", method}, {"ns", ns}, {"inner", inner.c_str()}, {}};
        request_ = filled(envelope, params);
        path_ = at;
        status_ = 0;
        is_over_ = is_connected_ = false;
        network_.run([&] { begin(); });
        {
            std::unique_lock held(lock_);
            ended_.wait_for(held, std::chrono::seconds(settings_.seconds), [&] { return is_over_; });
        }
        network_.run([&] { net_http_close(http_); });
        return judge(method);
    }

    /// The clock of the device, from which tokens take their time; 0 for ours. Until then calls have none: a device
    /// refuses a token of another time, even for a call that is open.
    void set_clock(uint64_t now) {
        ahead_ = now != 0 ? static_cast<int64_t>(now - time_now()) : 0;
        knows_clock_ = true;
    }

    std::string path = "/onvif/device_service";
    outcome result = outcome::ok;
    std::string why;

private:
    void begin() {
        net::http_info info;
        info.arg = this;
        info.on_connect = [](void* arg, net::http_ctx*) { static_cast<device*>(arg)->is_connected_ = true; };
        info.on_close = [](void* arg, net::http_ctx*) { static_cast<device*>(arg)->end(); };
        info.on_message = [](void* arg, net::http_ctx*, int status, net::http::header_s* header, const buffer_t* body) {
            static_cast<device*>(arg)->take(status, header, body);
        };
        http_ = net_http_open(info, network_, CORE_HERE);
        if (!http_) return end();
        const bool has_user = !settings_.login.user.empty();
        net_http_set_type(http_, "application/soap+xml, application/xml");
        net_http_set_limit(http_, 1 << 20);
        net_http_set_login(http_, has_user ? settings_.login.user.c_str() : nullptr, settings_.login.password.c_str());
        net_http_connect(http_, host_.c_str(), port_);
        net::http::header_s* header = http_header_request("POST", path_.c_str(), "HTTP/1.1");
        const bool sent = header && http_header_put_format(header, "Host", "%s:%u", host_.c_str(), unsigned{port_}) &&
                          http_header_put(header, "Content-Type", "application/soap+xml; charset=utf-8") &&
                          http_header_put_uint32(header, "Content-Length", static_cast<unsigned>(request_.size())) &&
                          net_http_send_message(http_, header, request_.data(), static_cast<unsigned>(request_.size()));
        http_header_free(header);
        if (!sent) end();
    }

    void take(int status, const net::http::header_s* header, const buffer_t* body) {
        const std::lock_guard held(lock_);
        if (status == net::http_message && header && status_ == 0) {
            status_ = header->status;
            answer_.clear();
            if (!body) return;  // which comes with the second call
        }
        if (body) answer_.assign(reinterpret_cast<const char*>(body->data), body->size);
        is_over_ = true;
        ended_.notify_all();
    }

    void end() {
        const std::lock_guard held(lock_);
        is_over_ = true;
        ended_.notify_all();
    }

    answer_t judge(const char* method) {
        const std::lock_guard held(lock_);
        answer_t told(soap_parse(answer_.c_str()));
        const bool is_fault = told && told->method && std::strcmp(told->method, "Fault") == 0;
        const bool is_refused = status_ == 401 || status_ == 403 || answer_.find("NotAuthorized") != answer_.npos;
        if (status_ == 200 && !is_fault && told && told->body) return told;
        result = status_ == 0 && !is_connected_ ? outcome::no_connection
                 : is_refused                   ? outcome::refused
                                                : outcome::protocol_error;
        why = result == outcome::no_connection ? settings_.host + " cannot be reached"
              : is_refused                     ? settings_.host + " refuses the user"
              : status_ == 0                   ? settings_.host + " does not answer"
                                               : std::string(method) + " was answered with " + std::to_string(status_);
        const std::string reason = told ? text_at(below(told->body, {"Fault", "Reason"}), "Text") : "";
        if (is_fault && !is_refused) why += ": " + apps::showable(reason);
        return nullptr;
    }

    std::string token_now() const {
        uint8_t nonce[16];
        common_random(nonce, sizeof nonce);
        char created[40];
        time_format(time_now() + static_cast<uint64_t>(ahead_), "%Y-%m-%dT%H:%M:%S.%sZ", created, sizeof created);
        std::string all(reinterpret_cast<const char*>(nonce), sizeof nonce);
        all += created + settings_.login.password;
        uint8_t digest[20];
        common_sha1(all.data(), all.size(), digest);
        const core::owned_text digest_text(b64(digest, sizeof digest, CORE_HERE));
        const core::owned_text nonce_text(b64(nonce, sizeof nonce, CORE_HERE));
        const std::string user = coded(settings_.login.user);
        const param_t params[] = {{"user", user.c_str()},
                                  {"digest", static_cast<const char*>(digest_text.get())},
                                  {"nonce", static_cast<const char*>(nonce_text.get())},
                                  {"created", static_cast<const char*>(created)},
                                  {}};
        return filled(security, params);
    }

    const device_options& settings_;
    std::string host_;
    uint16_t port_ = 80;
    int64_t ahead_ = 0;
    bool knows_clock_ = false;
    network network_;
    net::http_ctx* http_ = nullptr;
    std::string path_, request_;
    std::mutex lock_;  ///< of the next three
    std::condition_variable ended_;
    std::string answer_;
    unsigned status_ = 0;
    bool is_over_ = false;
    std::atomic<bool> is_connected_ = false;
};

/// Microseconds since 1970 of a tt:DateTime; 0 when it is none.
uint64_t time_of(node* told) {
    const auto number = [](node* parent, const char* name) {
        int out = 0;
        apps::take_number(out, text_at(parent, name), 0, 9999);
        return out;
    };
    node* const date = roxml_get_chld(told, "Date", 0);
    node* const time = roxml_get_chld(told, "Time", 0);
    tm fields{};
    fields.tm_year = number(date, "Year") - 1900;
    fields.tm_mon = number(date, "Month") - 1;
    fields.tm_mday = number(date, "Day");
    fields.tm_hour = number(time, "Hour");
    fields.tm_min = number(time, "Minute");
    fields.tm_sec = number(time, "Second");
    const int64_t seconds = date ? core_timegm(&fields) : 0;
    return seconds > 0 ? static_cast<uint64_t>(seconds) * 1'000'000 : 0;
}

/// The path of the media service, at the address that the user has named: the device may know itself by another.
std::string media_path(device& from) {
    const answer_t told = from.call(from.path, device_namespace, "GetCapabilities", "<Category>Media</Category>");
    if (!told) return "";
    const std::string address =
        text_at(below(told->body, {"GetCapabilitiesResponse", "Capabilities", "Media"}), "XAddr");
    const size_t host = address.find("://");
    const size_t slash = host == address.npos ? address.npos : address.find('/', host + 3);
    return slash == address.npos ? from.path : address.substr(slash);
}

void print_profile(table& out, node* profile, const std::string& address) {
    node* const encoder = roxml_get_chld(profile, "VideoEncoderConfiguration", 0);
    node* const size = roxml_get_chld(encoder, "Resolution", 0);
    const char* const token = roxml_get_attr(profile, "token");
    const std::string sound = text_at(roxml_get_chld(profile, "AudioEncoderConfiguration", 0), "Encoding");
    std::string video = "-";
    if (encoder) video = text_at(encoder, "Encoding") + ' ' + text_at(size, "Width") + 'x' + text_at(size, "Height");
    out.print({{"profile", token ? token : ""},
               {"name", text_at(profile, "Name")},
               {"video", video},
               {"audio", sound.empty() ? "-" : sound},
               {"address", address}});
}

}  // namespace

outcome show_device(const device_options& settings, std::string& why) {
    device asked(settings);
    const auto give_up = [&] {
        why = asked.why;
        return asked.result;
    };
    const answer_t clock = asked.call(asked.path, device_namespace, "GetSystemDateAndTime");
    if (!clock && asked.result == outcome::no_connection) return give_up();
    node* const told = clock ? clock->body : nullptr;
    asked.set_clock(time_of(below(told, {"GetSystemDateAndTimeResponse", "SystemDateAndTime", "UTCDateTime"})));
    const std::string media = media_path(asked);
    if (media.empty()) return give_up();
    const answer_t profiles = asked.call(media, media_namespace, "GetProfiles");
    if (!profiles) return give_up();
    node* const all = roxml_get_chld(profiles->body, "GetProfilesResponse", 0);
    table out(settings.json, {20, 20, 18, 8, 0});
    for (int i = 0; i < roxml_get_chld_nb(all); ++i) {
        node* const each = roxml_get_chld(all, nullptr, i);
        const char* const name = roxml_get_attr(each, "token");
        const std::string token = coded(name ? name : "");
        const param_t params[] = {{"token", token.c_str()}, {}};
        const answer_t uri = asked.call(media, media_namespace, "GetStreamUri", filled(stream_setup, params));
        // A profile without pictures may have no stream.
        if (!uri && asked.result != outcome::protocol_error) return give_up();
        const std::string address = uri ? text_at(below(uri->body, {"GetStreamUriResponse", "MediaUri"}), "Uri") : "-";
        print_profile(out, each, address);
    }
    return outcome::ok;
}

}  // namespace viewer
