#include "watcher/http.h"

#include "watcher/address.h"

#include "avc/fcc.h"
#include "core/text.h"
#include "core/time.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string_view>
#include <utility>

namespace media::fetch {

namespace {

constexpr uint64_t tick_time = 100'000;
constexpr uint64_t lookup_time = 10'000;
constexpr uint32_t longest_frame = 8U << 20;
constexpr unsigned moved_statuses[] = {301, 302, 303, 307, 308};

ending_t refusal_of(unsigned status) noexcept {
    constexpr const char* answered = "GET was answered with %u%s";
    switch (status) {
        case 401:
        case 403:
            return {outcome_t::refused, answered, status, ": user or password is not let in"};
        case 404:
            return {outcome_t::not_found, answered, status, ": no such stream"};
        default:
            return {outcome_t::protocol_error, answered, status, ""};
    }
}

std::string_view field_of(const net::http::header_s& header, const char* name) noexcept {
    const char* const value = value_geti(header.fields, name);
    return value ? std::string_view(value) : std::string_view();
}

bool begins(std::string_view text, std::string_view with) noexcept {
    return text.size() >= with.size() && core_strncasecmp(text.data(), with.data(), with.size()) == 0;
}

uint64_t length_of(const net::http::header_s& header) noexcept {
    const std::string_view text = field_of(header, "Content-Length");
    uint64_t length = 0;
    std::from_chars(text.data(), text.data() + text.size(), length);
    return length;
}

/// Where a body is written to.
struct place_t {
    /// @param path   as watcher::settings_t::save_as. "./" at its beginning would stand for the program's folder
    /// @param asked  names the file where the path does not
    place_t(std::string_view path, const address_t& asked) noexcept {
        while (path.starts_with("./"))
            path = path.substr(std::min(path.find_first_not_of('/', 1), path.size()));
        const size_t slash = path.find_last_of("/\\");
        const bool is_here = slash == std::string_view::npos;
        const std::string_view folder = is_here ? "." : path.substr(0, std::max<size_t>(slash, 1));
        const std::string_view file = path.substr(is_here ? 0 : slash + 1);
        directory.reset(core_strndup(folder.data(), folder.size(), CORE_HERE));
        name = file.empty() ? asked.file_name() : core::owned_text(core_strndup(file.data(), file.size(), CORE_HERE));
        if (directory && name)
            whole.reset(
                core_sprintf(CORE_HERE, "%.*s%s", static_cast<int>(is_here ? 0 : slash + 1), path.data(), name.get()));
    }

    core::owned_text directory;
    core::owned_text name;
    core::owned_text whole;  ///< null when memory is out
};

}  // namespace

void http_attempt::start() noexcept {
    net::http_info info;
    info.arg = this;
    info.on_connect = [](void* arg, net::http_ctx*) { of(arg).stage_ = stage_t::asking; };
    info.on_close = [](void* arg, net::http_ctx*) { of(arg).take_close(); };
    info.on_message = [](void* arg, net::http_ctx*, int status, net::http::header_s* header, const buffer_t*) {
        of(arg).take_message(status, header);
    };
    info.on_frame = [](void* arg, net::http_ctx*, const av::frame_t* frame) { of(arg).take_frame(*frame); };
    deadline_ = core_timer() + wanted_.timeout;
    http_ = net_http_open(info, wanted_.nt, CORE_HERE);
    const address_t& address = wanted_.address;
    if (!http_ || !net_http_set_login(http_, address.user.get(), address.password.get()))
        return end({outcome_t::failed, "no memory"});
    net_http_set_limit(http_, longest_frame);
    wanted_.lookup.begin(address.host);
    connect();
}

/// As soon as the address of the host is known.
void http_attempt::connect() noexcept {
    if (wanted_.lookup.state() == name_lookup::state_t::running) return;
    if (wanted_.lookup.state() != name_lookup::state_t::found)
        return end({outcome_t::no_connection, "no such host: %s", wanted_.address.host});
    stage_ = stage_t::connecting;
    net_http_connect(http_, wanted_.lookup.address(), wanted_.address.port);
    if (!ask()) end({outcome_t::failed, "the request cannot be sent"});
}

bool http_attempt::ask() noexcept {
    const address_t& address = wanted_.address;
    net::http::header_s* request = http_header_request("GET", address.target.get(), "HTTP/1.1");
    const bool is_usual = address.port == 80;
    const bool complete =
        request &&
        (is_usual ? http_header_put(request, "Host", address.host)
                  : http_header_put_format(request, "Host", "%s:%u", address.host, unsigned{address.port})) &&
        http_header_put(request, "Accept", "multipart/x-mixed-replace, */*;q=0.5") &&
        http_header_put(request, "Accept-Encoding", "identity");
    const bool sent = complete && net_http_send_message(http_, request, nullptr, 0);
    http_header_free(request);
    return sent;
}

uint64_t http_attempt::tick(uint64_t now) noexcept {
    if (stage_ == stage_t::looking_up) connect();
    if (stage_ == stage_t::playing) {
        if (now - std::max(last_frame_, deadline_ - wanted_.timeout) >= wanted_.timeout)
            end(begun_ ? ending_t{outcome_t::connection_lost, "no media comes any more"}
                       : ending_t{outcome_t::nothing_received, "no media comes"});
    } else if (stage_ == stage_t::answered || stage_ == stage_t::saving) {
        follow_file(now);
    } else if (stage_ != stage_t::ended && now >= deadline_) {
        end(stage_ == stage_t::asking
                ? ending_t{outcome_t::protocol_error, "%s does not answer", wanted_.address.host}
                : ending_t{outcome_t::no_connection, "%s cannot be reached", wanted_.address.host});
    }
    return now + (stage_ == stage_t::looking_up ? lookup_time : tick_time);
}

size_t http_attempt::counts(std::span<track_counts_t> out) const noexcept {
    const size_t count = std::min(out.size(), track_count_);
    for (size_t i = 0; i < count; ++i)
        out[i] = tracks_[i].received.counts();
    return count;
}

void http_attempt::end(const ending_t& result) noexcept {
    if (stage_ == stage_t::ended) return;
    stage_ = stage_t::ended;
    result_ = result;
    net_http_close(http_);
    owner_.ended();
}

void http_attempt::leave(const ending_t& result) noexcept {
    const bool is_file = stage_ == stage_t::saving;
    end(is_file ? ending_t{outcome_t::nothing_received, "ended before all of %s had come", file_.get()} : result);
}

void http_attempt::take_close() noexcept {
    const char* const host = wanted_.address.host;
    if (stage_ == stage_t::connecting)
        end({outcome_t::no_connection, "cannot connect to %s:%u", host, unsigned{wanted_.address.port}});
    else if (stage_ == stage_t::saving)
        end({outcome_t::connection_lost, "%s closed the connection before all of %s had come", host, file_.get()});
    else
        end({outcome_t::connection_lost, "%s closed the connection", host});
}

void http_attempt::take_message(int status, const net::http::header_s* header) noexcept {
    if (stage_ == stage_t::ended) return;
    if (stage_ == stage_t::answered && file_ && status == net::http_message) tell_of_file();
    const bool is_file = stage_ == stage_t::saving;
    saved_.bytes = net_http_saved(http_);
    if (status == net::http_not_written) return end({outcome_t::not_written, "cannot write %s", file_.get()});
    if (stage_ == stage_t::answered && (status == net::http_message || status == net::http_unknown_type))
        return end({outcome_t::protocol_error, "what comes is no stream but %s", type_});
    if (status != net::http_message)
        return end({outcome_t::protocol_error, "%s sends what cannot be read", wanted_.address.host});
    if (stage_ == stage_t::playing) return end({outcome_t::connection_lost, "the server has ended the stream"});
    if (!is_file) return judge(*header);
    saved_.complete = true;
    end({});
}

void http_attempt::judge(const net::http::header_s& header) noexcept {
    const char* const location = value_geti(header.fields, "Location");  // an empty one names no other place
    if (location && *location && std::ranges::find(moved_statuses, header.status) != std::end(moved_statuses))
        moved_to_.reset(core_strdup(location, CORE_HERE));
    if (header.status != 200) return end(refusal_of(header.status));
    const std::string_view coding = field_of(header, "Content-Encoding");
    if (!coding.empty() && !begins(coding, "identity"))
        return end({outcome_t::protocol_error, "%s sends it compressed", wanted_.address.host});
    const std::string_view type = field_of(header, "Content-Type");
    if (begins(type, "multipart/")) return play();
    std::ranges::replace_copy_if(
        type.empty() ? "nothing" : type.substr(0, sizeof type_ - 1), type_,
        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, '?');
    const bool is_unclear = length_of(header) == 0 && (type.empty() || begins(type, "application/octet-stream"));
    if (!wanted_.save_as && !is_unclear)
        return end({outcome_t::protocol_error, "what comes is no stream but %s", type_});
    stage_ = stage_t::answered;
    deadline_ = core_timer() + wanted_.timeout;
    if (is_unclear) net_http_split(http_);
    if (wanted_.save_as && save(header) && !is_unclear) tell_of_file();
}

void http_attempt::play() noexcept {
    stage_ = stage_t::playing;
    deadline_ = core_timer() + wanted_.timeout;
    owner_.tell({.what = watch_event_t::playing});
}

bool http_attempt::save(const net::http::header_s& header) noexcept {
    place_t place(wanted_.save_as, wanted_.asked);
    const bool named = place.whole && *place.name;
    const int result = named ? net_http_save(http_, place.directory.get(), place.name.get()) : 0;
    if (result == -2)
        end({outcome_t::not_written, "no name for a file: %s", place.name.get()});
    else if (place.whole && !named)
        end({outcome_t::not_written, "the address names no file"});
    else if (!result)
        end({outcome_t::failed, "no memory"});
    file_ = std::move(place.whole);
    saved_ = {.size = length_of(header)};
    return result == 1;
}

void http_attempt::tell_of_file() noexcept {
    stage_ = stage_t::saving;
    owner_.tell({.what = watch_event_t::saving, .text = file_.get()});
}

void http_attempt::follow_file(uint64_t now) noexcept {
    const uint64_t bytes = net_http_saved(http_);
    if (bytes != saved_.bytes) deadline_ = now + wanted_.timeout;
    saved_.bytes = bytes;
    if (stage_ == stage_t::answered && bytes > 0) tell_of_file();
    if (now < deadline_) return;
    if (stage_ == stage_t::saving)
        end({outcome_t::connection_lost, "no more of %s comes", file_.get()});
    else
        end({outcome_t::nothing_received, "nothing comes but %s", type_});
}

/// The track of a frame; the owner is told of a new one. Null for what is not wanted.
http_attempt::track_t* http_attempt::track_of(const av::frame_t& frame) noexcept {
    const std::span known(tracks_.data(), track_count_);
    const auto found = std::ranges::find_if(known, [&](const track_t& each) { return each.format.fcc == frame.fcc; });
    if (found != known.end()) return &*found;
    const kind_t kind = kind_of(frame.fcc);
    const bool surplus = wanted_.one_of_a_kind && std::ranges::any_of(known, [&](const track_t& each) {
                             return kind_of(each.format.fcc) == kind;
                         });
    if (!frame.fcc || surplus || (wanted_.kinds & only(kind)) == 0 || track_count_ == tracks_.size()) return nullptr;
    track_t& made = tracks_[track_count_++];
    made = {{.fcc = frame.fcc, .width = frame.width, .height = frame.height}, receipt(frame.fcc, wanted_.duration)};
    made.format.rate = frame.rate;
    made.format.channels = frame.channels;
    format_t formats[std::tuple_size_v<decltype(tracks_)>];
    std::ranges::transform(tracks_, formats, &track_t::format);
    owner_.tell(
        {.what = watch_event_t::tracks, .formats = formats, .format_count = static_cast<uint32_t>(track_count_)});
    return &made;
}

void http_attempt::take_frame(const av::frame_t& part) noexcept {
    if (stage_ == stage_t::answered) play();
    if (stage_ != stage_t::playing) return;
    const uint64_t now = core_timer();
    const uint64_t passed = begun_ ? now - begun_ : 0;
    const uint64_t begun_time = begun_ ? begun_time_ : time_now();
    watched_t got;
    got.media_time = static_cast<int64_t>(passed);
    // Its size and whether it is a key picture are read here.
    av::frame_t* made = avc_frame_create(part.fcc, begun_time + passed, part.data, part.size, CORE_HERE);
    if (!made) return;
    made->rate = part.rate;
    made->channels = part.channels;
    made->bits = part.bits;
    track_t* const track = track_of(*made);
    if (track) {
        last_frame_ = now;
        begun_ = now - passed;
        begun_time_ = begun_time;
    }
    if (track && track->received.take(*made, got.media_time)) {
        got.frame = *made;
        got.track = static_cast<uint32_t>(track - tracks_.data());
        if (!owner_.take(got)) end({});
    }
    avc_frame_need(made);
    if (is_complete()) end({});
}

bool http_attempt::is_complete() const noexcept {
    const std::span known(tracks_.data(), track_count_);
    return wanted_.duration && !known.empty() &&
           std::ranges::all_of(known, [](const track_t& each) { return each.received.is_done(); });
}

}  // namespace media::fetch
