#include "web.h"

#include "page.h"

#include "avc/fcc.h"
#include "core/json.h"
#include "core/memory.h"
#include "core/owned.h"
#include "core/text.h"
#include "inet/net_http_header.h"
#include "media/discovery.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

namespace camera {

namespace {

using totals_t = media::station::totals_t;

INET_PRINTF(2, 3) void append(std::string& out, const char* format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    const int size = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    out.append(text, std::min(static_cast<size_t>(std::max(size, 0)), sizeof text - 1));
}

/// Every byte that is no UTF-8 becomes U+FFFD: both forms want UTF-8, and a name may be anything.
core::owned_text clean(const char* text) {
    const core::owned<wchar_t> wide(core_wchar(text, CORE_HERE));
    return core::owned_text(core_utf8(wide.get(), CORE_HERE));
}

std::string json_of(const char* text) {
    const core::owned_text encoded(core_json_encode(clean(text).get(), CORE_HERE));
    return '"' + std::string(encoded ? encoded.get() : "") + '"';
}

/// The value of a label in the text form of metrics.
std::string label_of(const char* text) {
    const core::owned_text cleaned = clean(text);
    std::string out;
    for (const char c : std::string_view(cleaned ? cleaned.get() : "")) {
        if (c == '\\' || c == '"') out += '\\';
        if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

void append_format(std::string& out, const media::stream& of, media::kind_t kind, const char* name) {
    media::format_t format;
    if (!of.format(kind, &format, nullptr)) return;
    char fcc[5];
    append(out, "%s\"%s\":{\"format\":%s,\"width\":%u,\"height\":%u,\"rate\":%u}", out.ends_with('{') ? "" : ",", name,
           json_of(fcc_str(format.fcc, fcc)).c_str(), format.width, format.height, format.rate);
}

/// Where dash.js is served, as JSON.
std::string player_address() {
    for (const page_file& each : page_files) {
        const std::string_view name = each.name;
        if (name.starts_with("dash.") && name.ends_with(".js")) return "\"/" + std::string(name) + '"';
    }
    return "null";
}

void append_address(void* arg, const char* address) {
    auto& out = *static_cast<std::string*>(arg);
    if (!out.ends_with('[')) out += ',';
    out += json_of(address);
}

void answer(media::http_exchange& asked, const char* type, const std::string& text) {
    auto* const bytes = reinterpret_cast<uint8_t*>(const_cast<char*>(text.data()));
    asked.answer({.type = type}, {bytes, static_cast<uint32_t>(text.size())});
}

}  // namespace

// The station is read first, so that nothing of the others counts for RTSP. What it lacks is counted the next time, and
// no counter runs back.
web::services_t web::services() const {
    const std::lock_guard held(telling_);
    const totals_t all = station_.totals();
    const totals_t pages = http_->totals();
    const totals_t rtmp = rtmp_ ? rtmp_->totals() : totals_t{};
    const auto raise = [](uint64_t& told, uint64_t sum, uint64_t part) {
        told = std::max(told, sum - std::min(sum, part));
    };
    told_.watching = all.watching - std::min(all.watching, pages.watching + rtmp.watching);
    raise(told_.bytes, all.bytes, pages.bytes + rtmp.bytes);
    raise(told_.frames, all.frames, pages.frames + rtmp.frames);
    raise(told_.dropped, all.dropped, pages.dropped + rtmp.dropped);
    services_t found{{"rtsp", told_, 0, 0}, {"http", pages, 0, 0}};
    found[1].totals.watching += dash_.viewers();
    if (rtmp_) found.push_back({"rtmp", rtmp, 0, 0});
    for (size_t i = 0; i < found.size(); ++i) {
        found[i].bit_rate = uint64_t{bytes_[i].now(found[i].totals.bytes)} * 8;
        found[i].frame_rate = frames_[i].now(found[i].totals.frames);
    }
    return found;
}

bool web::open(const options& settings, const media::service& rtsp, const media::rtmp_service_t* rtmp,
               const std::vector<std::string>& recorded, media::failure_t& error) {
    const auto text = [](const std::string& from) { return from.empty() ? nullptr : from.c_str(); };
    rtsp_ = &rtsp;
    rtmp_ = rtmp;
    http_ = media::http_service({.port = settings.http_port.value_or(0),
                                 .needs_port = settings.http_asked,
                                 .user = text(settings.login.user),
                                 .password = text(settings.login.password),
                                 .stall = settings.stall});
    bool complete = http_ && serve_all() && dash_.serve(*http_) && serve_onvif(settings);
    for (const std::string& each : recorded)
        complete = complete && dash_.serve_recorded(*http_, each.c_str());
    if (!complete) {
        media::tell(&error, "no memory for the HTTP service");
        delete std::exchange(http_, nullptr);
        return false;
    }
    if (station_.add(http_, &error)) return announce(settings, error);
    http_ = nullptr;
    return false;
}

bool web::announce(const options& settings, media::failure_t& error) {
    if (!settings.discovery) return true;
    media::service* const made = media::discovery_service(*device_);
    if (!made) media::tell(&error, "no memory for the discovery");
    return made && station_.add(made, &error);
}

bool web::serve_all() {
    bool complete = http_->serve("/status.json", on_status, this) && http_->serve("/metrics", on_metrics, this) &&
                    http_->serve("/healthz", on_health, this, "GET, HEAD", true);
    for (const page_file& each : page_files) {
        const std::string_view name = each.name;
        const bool first = name == "index.html";
        const std::string path = "/" + std::string(first ? "" : name);
        const media::document_t document{
            .bytes = {const_cast<uint8_t*>(each.bytes.data()), static_cast<uint32_t>(each.bytes.size())},
            .type = first ? "text/html; charset=utf-8" : http_get_file_mime(each.name),
            .etag = each.tag};
        complete = complete && http_->serve(path.c_str(), document);
    }
    return complete;
}

bool web::serve_onvif(const options& settings) {
    const bool has_user = !settings.login.user.empty();
    device_.emplace(station_, *rtsp_,
                    media::onvif::settings_t{.model = program_name,
                                             .firmware = INET_VERSION,
                                             .name = program_name,
                                             .user = has_user ? settings.login.user.c_str() : nullptr,
                                             .password = settings.login.password.c_str(),
                                             .multicast = !settings.multicast.empty(),
                                             .without_aac = without_aac_});
    return (film_.empty() || device_->show_in_place(film_.c_str(), pictures_.c_str())) && device_->serve(*http_);
}

void web::on_health(void*, media::http_exchange& asked) { answer(asked, "text/plain; charset=utf-8", "ok\n"); }

void web::on_status(void* arg, media::http_exchange& asked) {
    auto& self = *static_cast<web*>(arg);
    struct listing_t {
        const web& of;
        const char* host;
        std::string text;
    } listing{self, asked.host(), {}};
    self.station_.streams(
        [](void* to, media::stream& each) {
            auto& [of, host, text] = *static_cast<listing_t*>(to);
            text += text.empty() ? "" : ",";
            text += "{\"name\":" + json_of(each.name()) + ",\"formats\":{";
            append_format(text, each, media::kind_t::video, "video");
            append_format(text, each, media::kind_t::audio, "audio");
            append_format(text, each, media::kind_t::meta, "meta");
            text += "},\"addresses\":[";
            of.rtsp_->addresses(each, host, append_address, &text);
            if (of.rtmp_) of.rtmp_->addresses(each, host, append_address, &text);
            of.http_->addresses(each, host, append_address, &text);
            if (of.dash_.offers(each)) {
                const std::string manifest = "http://" + std::string(host) + ":" + std::to_string(of.http_->port()) +
                                             "/" + apps::coded_path(each.name()) + "/manifest.mpd";
                append_address(&text, manifest.c_str());
            }
            append(text, "],\"frames\":%llu", static_cast<unsigned long long>(each.status().pushed));
            if (of.film_ == each.name()) text += ",\"pictures\":" + json_of(of.pictures_.c_str());
            text += '}';
        },
        &listing);
    std::string text = "{\"version\":\"" INET_VERSION "\",";
    append(text, "\"started\":%llu,\"time\":%llu,\"services\":[", static_cast<unsigned long long>(self.started_),
           static_cast<unsigned long long>(time_now()));
    for (const auto& [name, totals, bit_rate, frame_rate] : self.services())
        append(text,
               "%s{\"name\":\"%s\",\"viewers\":%u,\"bytes\":%llu,\"frames\":%llu,\"dropped\":%llu,\"bit_rate\":%llu,"
               "\"frame_rate\":%u}",
               text.ends_with('[') ? "" : ",", name, totals.watching, static_cast<unsigned long long>(totals.bytes),
               static_cast<unsigned long long>(totals.frames), static_cast<unsigned long long>(totals.dropped),
               static_cast<unsigned long long>(bit_rate), frame_rate);
    answer(asked, "application/json",
           text + "],\"player\":" + player_address() + ",\"streams\":[" + listing.text + "]}\n");
}

void web::on_metrics(void* arg, media::http_exchange& asked) {
    auto& self = *static_cast<web*>(arg);
    const struct {
        const char* name;
        const char* type;
        const char* help;
        uint64_t (*of)(const totals_t& totals);
    } meters[] = {
        {"inet_viewers", "gauge", "Clients that are sent a stream.",
         [](const totals_t& t) { return uint64_t{t.watching}; }},
        {"inet_sent_bytes_total", "counter", "Bytes sent.", [](const totals_t& t) { return t.bytes; }},
        {"inet_sent_pictures_total", "counter", "Pictures sent.", [](const totals_t& t) { return t.frames; }},
        {"inet_dropped_pictures_total", "counter", "Pictures left out for clients that do not keep up.",
         [](const totals_t& t) { return t.dropped; }},
    };
    std::string text =
        "# HELP inet_info The program.\n# TYPE inet_info gauge\ninet_info{version=\"" INET_VERSION "\"} 1\n";
    const services_t services = self.services();
    for (const auto& meter : meters) {
        append(text, "# HELP %s %s\n# TYPE %s %s\n", meter.name, meter.help, meter.name, meter.type);
        for (const auto& [name, totals, bit_rate, frame_rate] : services)
            append(text, "%s{service=\"%s\"} %llu\n", meter.name, name,
                   static_cast<unsigned long long>(meter.of(totals)));
    }
    text += "# HELP inet_stream_frames_total Frames taken from the source.\n# TYPE inet_stream_frames_total counter\n";
    self.station_.streams(
        [](void* to, media::stream& each) {
            auto& out = *static_cast<std::string*>(to);
            out += "inet_stream_frames_total{stream=\"" + label_of(each.name()) + "\"}";
            append(out, " %llu\n", static_cast<unsigned long long>(each.status().pushed));
        },
        &text);
    answer(asked, "text/plain; version=0.0.4; charset=utf-8", text);
}

}  // namespace camera
