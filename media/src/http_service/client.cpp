#include "http_service/client.h"

#include "http_service/range.h"

#include "avc/fcc.h"
#include "core/text.h"
#include "core/time.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

namespace media::web {

namespace {

constexpr unsigned longest_leave = 3;  // seconds
constexpr uint64_t longest_put_off = 10'000'000;
constexpr uint64_t put_off_step = 100'000;

struct reason_t {
    unsigned status;
    const char* text;
};
constexpr reason_t reasons[] = {
    {206, "Partial Content"},        {304, "Not Modified"},          {401, "Unauthorized"},
    {405, "Method Not Allowed"},     {412, "Precondition Failed"},   {413, "Content Too Large"},
    {415, "Unsupported Media Type"}, {416, "Range Not Satisfiable"}, {431, "Request Header Fields Too Large"},
    {503, "Service Unavailable"},
};

const char* reason_of(unsigned status) noexcept {
    const auto* found = std::ranges::find(reasons, status, &reason_t::status);
    return found == std::end(reasons) ? http_error(status) : found->text;
}

std::string_view field_of(const net::http::header_s& header, const char* name) noexcept {
    const char* value = value_geti(header.fields, name);
    return value ? value : "";
}

buffer_t bytes_of(std::string_view text) noexcept {
    return {reinterpret_cast<uint8_t*>(const_cast<char*>(text.data())), static_cast<uint32_t>(text.size())};
}

bool same_name(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() && core_strncasecmp(a.data(), b.data(), a.size()) == 0;
}

/// Whether one element of a list, separated by commas, is as `is` wants it.
template <class Is>
bool lists(std::string_view list, Is is) noexcept {
    while (!list.empty()) {
        const size_t end = std::min(list.find(','), list.size());
        std::string_view each = list.substr(0, end);
        each.remove_prefix(std::min(each.find_first_not_of(" \t"), each.size()));
        each = each.substr(0, each.find_last_not_of(" \t") + 1);
        if (is(each)) return true;
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return false;
}

/// The same of all fields of that name together (RFC 9110, 5.3).
template <class Is>
bool lists(const net::http::header_s& header, std::string_view name, Is is) noexcept {
    for (value_t* const* field = header.fields; field && *field; ++field)
        if (same_name((*field)->key, name) && lists((*field)->value, is)) return true;
    return false;
}

/// What speaks HTTP/1.1 names the host once (RFC 9112, 3.2).
bool names_host(const net::http::header_s& header) noexcept {
    size_t hosts = 0;
    for (value_t* const* field = header.fields; field && *field; ++field)
        hosts += same_name((*field)->key, "Host") ? 1 : 0;
    return hosts == 1 || (hosts == 0 && std::strcmp(header.protocol, "HTTP/1.1") != 0);
}

}  // namespace

client_t::client_t(thread& on, service_t& of) noexcept : thread_(on), service_(of) {}

client_t::~client_t() {
    leave_pictures();
    net_http_close(http_);
}

bool client_t::begin(net::Tcp*& from) noexcept {
    const sockaddr_in near = from->local();
    net_addr_ip(near, host_, sizeof host_);
    net_addr_ip(from->peer(), peer_, sizeof peer_);
    net::http_info info;
    info.arg = this;
    info.on_close = [](void* arg, net::http_ctx*) { static_cast<client_t*>(arg)->finish(); };
    info.on_drained = [](void* arg, net::http_ctx*) { static_cast<client_t*>(arg)->on_drained(); };
    info.on_message = [](void* arg, net::http_ctx*, int status, net::http::header_s* header, const buffer_t* body) {
        static_cast<client_t*>(arg)->on_message(status, header, body);
    };
    http_ = net_http_open(info, thread_.nt(), CORE_HERE);
    if (!http_) return false;
    net_http_set_limit(http_, service_.settings().body);
    net_http_set_type(http_, "application/soap+xml, application/xml");
    return net_http_take(http_, from) == 0;
}

uint64_t client_t::serve(uint64_t now) noexcept {
    if (put_off_ != 0) ask_again(now);
    return put_off_ != 0 ? now + put_off_step : 0;
}

void client_t::finish() noexcept {
    if (finished_) return;
    finished_ = true;
    leave_pictures();
    net_http_close(http_);
    thread_.sweep();
}

void client_t::second() noexcept {
    if (finished_) return;
    count_bytes();
    const http_settings_t& limits = service_.settings();
    const bool stalls = net_http_second(http_) >= limits.stall;
    const bool is_quiet = !sending_ && !pictures_ && put_off_ == 0 && ++quiet_ > limits.timeout;
    const bool lingers = leaving_ > 0 && ++leaving_ > longest_leave;
    if (stalls) net_http_give_up(http_);
    if (stalls || is_quiet || lingers) return finish();
    if (snapshot_ && ++waited_ > 5) {
        leave_pictures();
        answer_error(503);
    }
}

void client_t::count_bytes() noexcept {
    const uint64_t sent = net_http_sent(http_);
    if (sent <= counted_) return;
    thread_.count().bytes += sent - counted_;
    service_.count().bytes += sent - counted_;
    counted_ = sent;
}

// The request

void client_t::on_message(int status, net::http::header_s* header, const buffer_t* body) noexcept {
    quiet_ = 0;
    // Behind an answer that ends the connection nothing is answered any more.
    if (pictures_ || leaving_ > 0) return;
    switch (status) {
        case net::http_message:
            break;
        case net::http_header_large:
            return refuse(431);
        case net::http_unknown_type:
            return refuse(415);
        case net::http_body_large:
            return refuse(413);
        default:
            return refuse(400);
    }
    header_ = header;
    announced_ = !announced_;
    if (announced_) {
        if (!admit()) announced_ = false;
    } else {
        body_ = body ? *body : buffer_t{};
        answered_ = false;
        if (!route_) {
            if (!answer_stream()) answer_error(404);
        } else if (route_->handler) {
            head_ = !is_get();
            ask_handler(core_timer());
        } else {
            answer_document(route_->document);
        }
    }
    header_ = nullptr;
}

void client_t::ask_handler(uint64_t now) noexcept {
    puts_off_ = false;
    route_->handler(route_->arg, *this);
    if (answered_ || !puts_off_) {
        put_off_ = 0;
        if (!answered_) answer_error(500);
    } else if (put_off_ == 0) {
        put_off_ = now;
        thread_.wake(*this);
    } else if (now > put_off_ + longest_put_off) {
        put_off_ = 0;
        answer_error(503, "Retry-After", "2");
    }
}

/// The connection keeps no header between its calls.
void client_t::ask_again(uint64_t now) noexcept {
    char method[] = "GET";
    char head[] = "HEAD";
    net::http::header_s bare{};
    bare.method = head_ ? head : method;
    header_ = &bare;
    body_ = {};
    ask_handler(now);
    header_ = nullptr;
}

/// Looks at the header alone. @return false when it has been answered
bool client_t::admit() noexcept {
    keeps_ = std::strcmp(header_->protocol, "HTTP/1.1") == 0 &&
             !lists(*header_, "Connection", [](std::string_view each) { return same_name(each, "close"); });
    route_ = nullptr;
    if (!names_host(*header_) || !read_target(header_->uri, target_)) {
        keeps_ = false;
        answer_error(400);
        return false;
    }
    route_ = service_.find(target_.path);
    const auto judged = route_ && route_->open ? gate::result_t::passes : service_.doorman().judge(*header_);
    if (judged != gate::result_t::passes) {
        const core::owned_text challenge = service_.doorman().challenge(judged == gate::result_t::stale);
        answer_error(401, "WWW-Authenticate", challenge.get());
        return false;
    }
    const char* methods = route_ ? route_->methods.c_str() : "GET, HEAD";
    const std::string_view method = header_->method;
    if (lists(methods, [&](std::string_view each) { return each == method; })) return true;
    // A '*' asks about the server itself.
    if (route_ || target_.path == "*" || leads_to_stream())
        answer_error(405, "Allow", methods);
    else
        answer_error(404);
    return false;
}

bool client_t::is_get() const noexcept { return std::strcmp(header_->method, "GET") == 0; }

// The answer

constexpr uint64_t no_length = UINT64_MAX;

/// The fields that every answer begins with.
void client_t::put_fields(answer_head& head, const http_answer_t& how, uint64_t size) noexcept {
    head.put("Date", date_.of(time_now()));
    if (how.type) head.put("Content-Type", how.type);
    if (size != no_length) head.put_length(size);
    if (how.cache) head.put("Cache-Control", how.cache);
    head.put("X-Content-Type-Options", "nosniff");
    if (how.field) head.put(how.field, how.value ? how.value : "");
    if (!keeps_) head.put("Connection", "close");
}

/// Sends a header and bytes. @return false when that could not be: the connection then ends
bool client_t::send(const answer_head& head, buffer_t text, buffer_t bytes, void (*release)(void*),
                    void* owner) noexcept {
    answered_ = sending_ = true;
    const bool sent = net_http_send_share(http_, &head.header(), text, bytes, release, owner);
    if (!sent) {
        leave_pictures();
        keeps_ = false;
        leaving_ = std::max(leaving_, 1U);
    }
    if (!keeps_ && !pictures_) net_http_finish(http_);
    return sent;
}

void client_t::send_answer(const http_answer_t& how, uint64_t size, buffer_t text, buffer_t bytes,
                           void (*release)(void*), void* owner) noexcept {
    answer_head head(how.status, reason_of(how.status));
    put_fields(head, how, size);
    send(head, text, bytes, release, owner);
}

void client_t::answer(const http_answer_t& how, buffer_t bytes) noexcept {
    if (!answered_ && !finished_) send_answer(how, bytes.size, bytes, {}, nullptr, nullptr);
}

void client_t::answer_share(const http_answer_t& how, buffer_t bytes, void (*release)(void* owner),
                            void* owner) noexcept {
    if (!answered_ && !finished_) {
        send_answer(how, bytes.size, {}, bytes, release, owner);
    } else if (release) {
        release(owner);
    }
}

void client_t::answer_error(unsigned status, const char* field, const char* value) noexcept {
    char text[64];
    const int size = std::snprintf(text, sizeof text, "%u %s\n", status, reason_of(status));
    answered_ = false;
    answer({.status = status, .field = field, .value = value}, bytes_of({text, static_cast<size_t>(size)}));
}

/// A request that cannot be read, or only in part: nothing behind it can be trusted. One that has been answered already
/// only ends.
void client_t::refuse(unsigned status) noexcept {
    announced_ = false;
    keeps_ = false;
    answer_error(status);
}

void client_t::answer_document(const document_t& what) noexcept {
    const std::string_view etag = what.etag;
    const auto is_this = [&](std::string_view each) { return each == etag || each == "*"; };
    if (value_geti(header_->fields, "If-Match") && !lists(*header_, "If-Match", is_this)) return answer_error(412);
    http_answer_t how{.type = what.type, .cache = what.cache, .field = "ETag", .value = what.etag};
    // A weak tag is as good here (RFC 9110, 13.1.2).
    const auto is_held = [&](std::string_view each) {
        if (each.starts_with("W/")) each.remove_prefix(2);
        return is_this(each);
    };
    if (lists(*header_, "If-None-Match", is_held)) {
        how.status = 304;
        how.type = nullptr;
        return send_answer(how, no_length, {}, {}, nullptr, nullptr);
    }
    uint64_t first = 0;
    uint64_t last = what.bytes.size;
    const std::string_view only_if = field_of(*header_, "If-Range");
    const auto range = is_get() && (only_if.empty() || only_if == etag)
                           ? read_range(field_of(*header_, "Range"), what.bytes.size, first, last)
                           : range_t::none;
    how.status = range == range_t::none ? 200 : range == range_t::part ? 206 : 416;
    const uint64_t size = range == range_t::outside ? 0 : last - first;
    answer_head head(how.status, reason_of(how.status));
    put_fields(head, how, size);
    head.put("Accept-Ranges", "bytes");
    char part[80];
    if (range == range_t::part)
        std::snprintf(part, sizeof part, "bytes %llu-%llu/%u", static_cast<unsigned long long>(first),
                      static_cast<unsigned long long>(last - 1), what.bytes.size);
    if (range == range_t::outside) std::snprintf(part, sizeof part, "bytes */%u", what.bytes.size);
    if (range != range_t::none) head.put("Content-Range", part);
    send(head, {}, {what.bytes.data + first, static_cast<uint32_t>(size)}, nullptr, nullptr);
}

void client_t::on_drained() noexcept {
    sending_ = false;
    quiet_ = 0;
    count_bytes();
    if (!keeps_ && !pictures_) leaving_ = std::max(leaving_, 1U);
    if (pictures_ && !snapshot_ && pictures_->number() != shown_) send_picture();
}

// Pictures

/// The stream whose pictures the path names, for stream::drop(); null when there is none.
/// @param single  receives whether it is one picture
stream* client_t::find_stream(bool& single) const noexcept {
    constexpr std::string_view film = ".mjpeg";
    constexpr std::string_view snapshot = ".jpg";
    std::string_view name = std::string_view(target_.path).substr(1);
    single = name.ends_with(snapshot);
    if (!single && !name.ends_with(film)) return nullptr;
    name.remove_suffix(single ? snapshot.size() : film.size());
    const core::owned_text text(core_strndup(name.data(), name.size(), CORE_HERE));
    return text ? thread_.station().find(text.get()) : nullptr;
}

bool client_t::leads_to_stream() const noexcept {
    bool single = false;
    stream* const found = find_stream(single);
    if (found) stream::drop(found);
    return found != nullptr;
}

/// @return false when the path is not that of a stream
bool client_t::answer_stream() noexcept {
    bool single = false;
    stream* const found = find_stream(single);
    if (!found) return false;
    format_t format;
    const bool known = found->format(kind_t::video, &format, nullptr) != 0;
    auto* const part = static_cast<part_t*>(thread_.part(service_));
    const bool other = (known && format.fcc != av::fcc_jpeg) || (!known && found->ready());
    if (!other && part) pictures_ = part->of(*found);
    stream::drop(found);
    if (other) {
        answer({.status = 404}, bytes_of("404 Not Found: this stream has no JPEG pictures\n"));
    } else if (!pictures_ || !pictures_->add(*this)) {
        pictures_ = nullptr;
        answer_error(503);
    } else {
        begin_pictures(single);
    }
    return true;
}

void client_t::begin_pictures(bool snapshot) noexcept {
    snapshot_ = snapshot;
    waited_ = 0;
    shown_ = 0;
    answered_ = true;  // or will be
    if (snapshot) {
        if (pictures_->number() != 0) send_snapshot();
        return;
    }
    keeps_ = false;
    const bool get = is_get();
    if (!get) leave_pictures();
    answer_head head(200, reason_of(200));
    put_fields(head, {.type = "multipart/x-mixed-replace; boundary=picture"}, no_length);
    if (!send(head, bytes_of("--picture\r\n"), {}, nullptr, nullptr) || !get) return;
    counts_ = true;
    pictures_->watch(1);
    if (pictures_->number() != 0) send_picture();
}

namespace {

void release_picture(void* held) noexcept { avc_frame_drop(static_cast<av::frame_t*>(held)); }

}  // namespace

/// A part, with the boundary behind it: a browser shows a picture when it has seen where it ends.
void client_t::send_picture() noexcept {
    // The one before has gone.
    if (!avc_frame_share(&held_, &pictures_->newest(), CORE_HERE)) return;
    shown_ = pictures_->number();
    sending_ = true;
    constexpr std::string_view end = "\r\n--picture\r\n";
    ++thread_.count().frames;
    ++service_.count().frames;
    if (!net_http_send_share(http_, nullptr, bytes_of(pictures_->part_head()),
                             {const_cast<uint8_t*>(held_.data), held_.size}, release_picture, &held_) ||
        !net_http_send_message(http_, nullptr, end.data(), static_cast<unsigned>(end.size())))
        finish();
}

void client_t::send_snapshot() noexcept {
    const bool shared = avc_frame_share(&held_, &pictures_->newest(), CORE_HERE);
    leave_pictures();
    if (!shared) return answer_error(503);
    const buffer_t bytes{const_cast<uint8_t*>(held_.data), held_.size};
    send_answer({.type = "image/jpeg"}, bytes.size, {}, bytes, release_picture, &held_);
}

void client_t::on_picture() noexcept {
    if (snapshot_) return send_snapshot();
    if (!sending_) return send_picture();
    ++thread_.count().dropped;
    ++service_.count().dropped;
}

void client_t::leave_pictures() noexcept {
    if (pictures_) {
        pictures_->watch(std::exchange(counts_, false) ? -1 : 0);
        pictures_->remove(*this);
    }
    pictures_ = nullptr;
    snapshot_ = false;
}

}  // namespace media::web
