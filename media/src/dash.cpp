// The packing thread waits for news of any stream, reads what is new of each, and puts it on the bus: the packer runs
// inside that call. Requests come on the network threads. They find contexts by name and take shares of segments, so
// they wait for the packer only as long as it changes its lists.
#include "media/dash.h"

#include "dash/audience.h"
#include "dash/leftovers.h"

#include "avc/fcc.h"
#include "core/owned.h"
#include "core/profile.h"
#include "core/text.h"
#include "core/thread.h"
#include "core/time.h"
#include "inet/net_dash.h"
#include "inet/net_http_header.h"
#include "inet/net_tab.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>
#include <utility>

namespace media {

namespace {

constexpr uint64_t second = 1'000'000;
constexpr uint64_t reserved = 5 * second;
constexpr uint64_t longest_unasked = 25 * second;
constexpr uint32_t look_again = 500;  ///< milliseconds

constexpr size_t most_openings = 8;

constexpr char key_group[] = "stream";
constexpr char key_kind[] = "video";
constexpr char key_part[] = "live";

bool put(value_t**& row, const char* key, const char* value) noexcept {
    const uint32_t before = value_count(row);
    row = core_value_put(row, key, value, CORE_HERE);
    return value_count(row) == before + 1;
}

bool put(value_t**& row, const char* key, uint32_t number) noexcept {
    const core::owned_text text(core_sprintf(CORE_HERE, "%u", number));
    return text && put(row, key, text.get());
}

/// Tells the packer of a track. @param source  its second key: of a recording, its name in the archive
bool enter_track(const char* id, const char* source, const format_t& format) noexcept {
    value_t** row = nullptr;
    const bool complete = put(row, "id", id) && put(row, "key1", key_group) && put(row, "key2", source) &&
                          put(row, "key3", key_kind) && put(row, "key4", key_part) && put(row, "width", format.width) &&
                          put(row, "height", format.height) && put(row, "profile", 0U) &&
                          tab_put(tab_tracks, id, row, CORE_HERE);
    core_value_free(row);
    return complete;
}

/// A stamp (core_time_from_stamp()), or microseconds.
bool read_time(std::string_view text, uint64_t& out) noexcept {
    if (core_time_from_stamp(text.data(), static_cast<uint32_t>(text.size()), &out)) return true;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc() && end == text.data() + text.size();
}

bool is_packable(const stream& of) noexcept {
    format_t format;
    return of.format(kind_t::video, &format, nullptr) && format.fcc == av::fcc_h264;
}

bool send_manifest(http_exchange& asked, const char* cache, const char* text) noexcept {
    if (!text) return false;
    asked.answer({.type = "application/dash+xml", .cache = cache},
                 {reinterpret_cast<uint8_t*>(const_cast<char*>(text)), static_cast<uint32_t>(core_strlen(text))});
    return true;
}

/// A context with one more user, given back at the end.
struct context {
    explicit context(net::dash_ctx* held) noexcept : ctx(held) {}
    ~context() { net_dash_close(ctx); }
    context(const context&) = delete;
    context& operator=(const context&) = delete;
    net::dash_ctx* ctx;
};

}  // namespace

struct dash::inside {
    /// A stream that is packed.
    struct channel {
        inside* of = nullptr;
        stream* from = nullptr;
        core::owned_text id;         ///< of its track; null while nothing runs
        profile_ctx* bus = nullptr;  ///< of the packing thread, as are the next two
        cursor reader;
        net::dash_ctx* held = nullptr;        ///< keeps the context while the stream is packed
        std::atomic<uint64_t> asked = 0;      ///< core_timer() of the last request
        std::atomic<bool> is_failed = false;  ///< it cannot be packed

        ~channel() { stream::drop(from); }
    };

    /// A recording, whose ranges are packed when somebody asks.
    struct archive {
        inside* of = nullptr;
        core::owned_text name;
        core::owned_text id;
    };

    /// A range that the control thread opens.
    struct opening {
        inside* of = nullptr;
        core::owned_text token;
        uint64_t start = 0;
        uint64_t end = 0;
        bool is_done = false;  ///< without success
        uint64_t asked = 0;    ///< core_timer() of the last request

        bool is(const char* which, uint64_t from, uint64_t to) const noexcept {
            return std::strcmp(token.get(), which) == 0 && start == from && end == to;
        }
    };

    inside(station& all, const settings_t& how) noexcept : streams(all), settings(how) {}

    void run(thread_ctx* thread) noexcept;
    void step(channel& each, uint64_t now) noexcept;
    void put_picture(channel& each, const entry_t& entry) noexcept;
    void leave(channel& each) noexcept;

    static void on_request(void* arg, http_exchange& asked) noexcept;
    static void on_recorded(void* arg, http_exchange& asked) noexcept;
    void answer_range(const archive& of, std::string_view range, http_exchange& asked) noexcept;
    bool order(const archive& of, uint64_t start, uint64_t end, http_exchange& asked) noexcept;
    void open(opening& range) noexcept;
    static void answer_manifest(const channel& each, http_exchange& asked) noexcept;
    void answer_segment(const void* of, std::string_view path, http_exchange& asked) noexcept;
    bool comes_next(net::dash_ctx* ctx, std::string_view name) noexcept;

    bool enter() noexcept;
    void exit() noexcept;
    bool admit(http_exchange& asked) noexcept;

    station& streams;
    settings_t settings;
    core::vector<core::owned_object<channel>> channels;
    core::vector<core::owned_object<archive>> archives;
    core::vector<core::owned_object<opening>> openings;
    audience watchers;
    event_ctx* news = nullptr;
    thread_ctx* packer = nullptr;
    std::mutex lock;  ///< of the openings, the timelines, and the next three
    bool running = false;
    uint32_t visitors = 0;  ///< that use contexts: the end of the packing waits for them
    std::condition_variable left;
};

dash::dash(station& of, const settings_t& settings) noexcept : inside_(core::create<inside>(CORE_HERE, of, settings)) {}

dash::~dash() {
    stop();
    core::destroy(inside_);
}

int dash::serve(http_service_t& by) noexcept {
    struct adding_t {
        inside* in;
        http_service_t& by;
        bool complete;
    } adding{inside_, by, inside_ != nullptr};
    if (!inside_) return 0;
    inside_->streams.streams(
        [](void* arg, stream& each) {
            auto& [in, service, complete] = *static_cast<adding_t*>(arg);
            try {
                in->channels.reserve(in->channels.size() + 1);  // a route is for good: what it leads to is kept
                core::owned_object<inside::channel> made(core::create<inside::channel>(CORE_HERE));
                const core::owned_text path(core_sprintf(CORE_HERE, "/%s/*", each.name()));
                complete = complete && made && path && service.serve(path.get(), inside::on_request, made.get());
                if (!complete) return;
                made->of = in;
                made->from = &each;
                each.keep();
                in->channels.push_back(std::move(made));
            } catch (const std::bad_alloc&) {
                complete = false;
            }
        },
        &adding);
    return adding.complete ? 1 : 0;
}

int dash::serve_recorded(http_service_t& by, const char* name) noexcept {
    if (!inside_ || !name) return 0;
    try {
        core::owned_object<inside::archive> made(core::create<inside::archive>(CORE_HERE));
        const core::owned_text path(core_sprintf(CORE_HERE, "/recorded/%s/*", name));
        if (!made || !path) return 0;
        made->of = inside_;
        made->name.reset(core_strdup(name, CORE_HERE));
        inside_->archives.reserve(inside_->archives.size() + 1);
        if (!made->name || !by.serve(path.get(), inside::on_recorded, made.get())) return 0;
        inside_->archives.push_back(std::move(made));
        return 1;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

int dash::start(uint32_t number, failure_t* error) noexcept {
    if (!inside_ || inside_->packer) return inside_ ? 1 : 0;
    inside& in = *inside_;
    dash_init();
    remove_leftovers(number);
    bool complete = true;
    for (auto& each : in.channels) {
        each->id = dash_id(each->from->name(), number, each->from->id());
        complete = complete && each->id;
    }
    for (size_t i = 0; i < in.archives.size(); ++i) {
        inside::archive& each = *in.archives[i];
        each.id = dash_id(each.name.get(), number, i);
        complete = complete && each.id && enter_track(each.id.get(), each.name.get(), {});
    }
    in.news = _event_create(CORE_HERE);
    {
        const std::lock_guard held(in.lock);
        in.running = true;
    }
    if (complete && in.news) {
        in.packer = core_thread_start(
            &in, [](void* arg, thread_ctx* thread) { static_cast<inside*>(arg)->run(thread); },
            [](void* arg, thread_ctx*) { event_set(static_cast<inside*>(arg)->news); }, CORE_HERE);
    }
    if (in.packer) return 1;
    stop();
    tell(error, "no thread for DASH");
    return 0;
}

void dash::stop() noexcept {
    if (!inside_) return;
    inside& in = *inside_;
    {
        std::unique_lock held(in.lock);
        if (!std::exchange(in.running, false)) return;
        in.left.wait(held, [&] { return in.visitors == 0; });
    }
    core_thread_stop(in.packer);
    if (in.news) _event_free(in.news);
    for (const auto& each : in.archives)
        if (each->id) tab_remove(tab_tracks, each->id.get());
    dash_free();
}

uint32_t dash::viewers() const noexcept { return inside_ ? inside_->watchers.count() : 0; }

int dash::offers(const stream& which) const noexcept {
    if (!inside_) return 0;
    const auto is_it = [&](const auto& each) { return each->from == &which; };
    const auto found = std::ranges::find_if(inside_->channels, is_it);
    const bool may_be = is_packable(which) || (inside_->settings.on_demand && !which.ready());
    return found != inside_->channels.end() && !(*found)->is_failed && may_be ? 1 : 0;
}

// Packing

void dash::inside::run(thread_ctx* thread) noexcept {
    core_thread_setname(thread, "dash");
    while (!core_thread_iscancel(thread)) {
        const uint64_t now = core_timer();
        for (auto& each : channels)
            step(*each, now);
        event_wait(news, look_again);
    }
    for (auto& each : channels)
        leave(*each);
}

/// Reads what is new. A stream that is packed on demand alone is left when nobody asks.
void dash::inside::step(channel& each, uint64_t now) noexcept {
    const uint64_t asked = each.asked;
    const bool wanted = !settings.on_demand || (asked != 0 && now < asked + longest_unasked);
    if (!wanted) return leave(each);
    if (!each.reader.is_open()) {
        const bool complete = each.reader.open(*each.from, {.kinds = only(kind_t::video), .reserve = reserved}) &&
                              each.reader.told([](void* arg) { event_set(static_cast<inside*>(arg)->news); }, this);
        if (!complete) return each.reader.close();
    }
    entry_t entry;
    for (read_t found = each.reader.next(entry); found != read_t::nothing; found = each.reader.next(entry)) {
        if (found == read_t::ended) break;
        if (found == read_t::frame && entry.frame.fcc == av::fcc_h264) put_picture(each, entry);
    }
}

void dash::inside::put_picture(channel& each, const entry_t& entry) noexcept {
    if (!each.held && entry.frame.key && !each.is_failed) {
        const core::owned_text name(
            core_sprintf(CORE_HERE, "%s_%s_%s_%s", key_group, each.id.get(), key_kind, key_part));
        if (!each.bus && name) each.bus = core_profile_open(name.get(), CORE_HERE);
        if (each.bus && enter_track(each.id.get(), each.id.get(), *entry.format))
            each.held = net_dash_open(each.id.get(), 0, 0, CORE_HERE);
        each.is_failed = !each.held;
    }
    if (!each.held) return;
    const param_t list[] = {{"frame", static_cast<const void*>(&entry.frame)}, {}};
    core_profile_put(each.bus, list);
    if (net_dash_state(each.held) != net::dash_retired) return;
    // Another context has taken over. The old one lives on for those that still ask for its segments.
    net_dash_close(each.held);
    each.held = net_dash_open(each.id.get(), 0, 0, CORE_HERE);
}

void dash::inside::leave(channel& each) noexcept {
    each.reader.close();
    net_dash_close(std::exchange(each.held, nullptr));
    if (each.id) tab_remove(tab_tracks, each.id.get());
    if (each.bus) profile_close(each.bus);
    each.is_failed = false;
}

// Requests

bool dash::inside::enter() noexcept {
    const std::lock_guard held(lock);
    visitors += running ? 1 : 0;
    return running;
}

void dash::inside::exit() noexcept {
    const std::lock_guard held(lock);
    if (--visitors == 0) left.notify_all();
}

/// @return false when it has been answered: there are no contexts. Else exit() ends the visit.
bool dash::inside::admit(http_exchange& asked) noexcept {
    if (enter()) return true;
    asked.answer({.status = 503, .field = "Retry-After", .value = "2"}, {});
    return false;
}

void dash::inside::on_request(void* arg, http_exchange& asked) noexcept {
    auto& each = *static_cast<channel*>(arg);
    inside& in = *each.of;
    std::string_view path = asked.path();
    path.remove_prefix(1 + core_strlen(each.from->name()) + 1);
    if (!in.admit(asked)) return;
    const uint64_t before = each.asked.exchange(core_timer());
    if (before == 0) event_set(in.news);
    if (path == "manifest.mpd")
        answer_manifest(each, asked);
    else
        in.answer_segment(&each, path, asked);
    in.exit();
}

void dash::inside::answer_manifest(const channel& each, http_exchange& asked) noexcept {
    const bool other = each.from->ready() && !is_packable(*each.from);
    const context found(other ? nullptr : net_dash_search(each.id.get()));
    const core::owned_text text(found.ctx ? net_dash_manifest(found.ctx, CORE_HERE) : nullptr);
    if (send_manifest(asked, "max-age=1", text.get())) {
        each.of->watchers.saw(&each, asked.peer());
    } else if (other || each.is_failed) {
        asked.answer({.status = 404}, {});
    } else {
        asked.later();
    }
}

/// vCONTEXT/SEGMENT. @param of  the stream or recording whose viewer asks
void dash::inside::answer_segment(const void* of, std::string_view path, http_exchange& asked) noexcept {
    const size_t slash = path.find('/');
    const bool fits = path.starts_with('v') && slash != std::string_view::npos;
    const core::owned_text name(fits ? core_strndup(path.data() + 1, slash - 1, CORE_HERE) : nullptr);
    const context found(name ? net_dash_find(name.get()) : nullptr);
    if (!found.ctx) return asked.answer({.status = 404}, {});
    path.remove_prefix(slash + 1);
    // A player that asks for what is not listed yet would ask for it again when it is: it is told to look at the list
    // first, but not before that would help.
    if (comes_next(found.ctx, path)) return asked.later();
    net::dash_share share;
    if (!asked.was_put_off() && net_dash_share(found.ctx, path.data(), &share)) {  // the path ends with its NUL
        asked.answer_share({.type = share.info.mime, .cache = "max-age=30, immutable"},
                           {const_cast<uint8_t*>(share.info.data), share.info.size}, net_dash_share_release,
                           share.owner);
        watchers.saw(of, asked.peer());
    } else {
        asked.answer({.status = 404}, {});
    }
}

/// Whether it is the segment behind the last one listed.
bool dash::inside::comes_next(net::dash_ctx* ctx, std::string_view name) noexcept {
    const std::lock_guard held(lock);
    const net::dash_timeline* last = net_dash_state(ctx) == net::dash_ready ? net_dash_times(ctx) : nullptr;
    if (!last) return false;
    while (last[1].t != 0 || last[1].d != 0)
        ++last;
    char next[32];
    const unsigned long long end = last->t + last->d;
    const int size = std::snprintf(next, sizeof next, "%llu.m4s", end);
    return name == std::string_view(next, static_cast<size_t>(size));
}

// Recordings

/// START-END/manifest.mpd or START-END/vCONTEXT/SEGMENT
void dash::inside::on_recorded(void* arg, http_exchange& asked) noexcept {
    const auto& each = *static_cast<archive*>(arg);
    inside& in = *each.of;
    constexpr std::string_view folder = "/recorded/";
    std::string_view path = asked.path();
    path.remove_prefix(folder.size() + core_strlen(each.name.get()) + 1);
    const size_t slash = path.find('/');
    const std::string_view range = path.substr(0, slash);
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    if (!in.admit(asked)) return;
    if (path == "manifest.mpd")
        in.answer_range(each, range, asked);
    else
        in.answer_segment(&each, path, asked);
    in.exit();
}

void dash::inside::answer_range(const archive& of, std::string_view range, http_exchange& asked) noexcept {
    const size_t dash = range.find('-');
    uint64_t start = 0;
    uint64_t end = 0;
    const bool is_range = dash != std::string_view::npos && read_time(range.substr(0, dash), start) &&
                          read_time(range.substr(dash + 1), end) && start < end &&
                          end - start <= net::dash_longest_range_us;
    if (!is_range) return asked.answer({.status = 404}, {});
    const core::owned_text name(core_sprintf(CORE_HERE, "%s-%llu-%llu", of.id.get(),
                                             static_cast<unsigned long long>(start),
                                             static_cast<unsigned long long>(end)));
    const context found(name ? net_dash_find(name.get()) : nullptr);
    // One that has failed is not kept by those who ask: it is tried again later.
    const bool is_failed = found.ctx && net_dash_state(found.ctx) == net::dash_failed;
    const core::owned_text text(found.ctx && !is_failed ? net_dash_manifest(found.ctx, CORE_HERE) : nullptr);
    if (send_manifest(asked, "max-age=10", text.get())) {
        watchers.saw(&of, asked.peer());
    } else if (is_failed || (!found.ctx && !order(of, start, end, asked))) {
        asked.answer({.status = 404}, {});
    } else {
        asked.later();
    }
}

/// Has the control thread open a range, once. @return false when that has failed
bool dash::inside::order(const archive& of, uint64_t start, uint64_t end, http_exchange& asked) noexcept {
    const uint64_t now = core_timer();
    const std::lock_guard held(lock);
    std::erase_if(openings, [&](const auto& each) { return each->is_done && now > each->asked + longest_unasked; });
    for (auto& each : openings) {
        if (!each->is(of.id.get(), start, end)) continue;
        if (asked.was_put_off()) each->asked = now;
        return !each->is_done;
    }
    if (openings.size() >= most_openings) return true;  // it waits for its turn
    try {
        core::owned_object<opening> made(core::create<opening>(CORE_HERE));
        if (!made) return true;
        made->of = this;
        made->token.reset(core_strdup(of.id.get(), CORE_HERE));
        made->start = start;
        made->end = end;
        made->asked = now;
        openings.reserve(openings.size() + 1);
        const auto work = [](void* arg) { static_cast<opening*>(arg)->of->open(*static_cast<opening*>(arg)); };
        const auto done = [](thread&, void*) {};
        if (made->token && streams.run(work, done, made.get(), asked.on())) openings.push_back(std::move(made));
    } catch (const std::bad_alloc&) {
        return true;  // tried again
    }
    return true;
}

/// On the control thread. Requests find the context by its name, and the guard ends it when there are none any more.
void dash::inside::open(opening& range) noexcept {
    const bool may = enter();
    net::dash_ctx* const made = may ? net_dash_open(range.token.get(), range.start, range.end, CORE_HERE) : nullptr;
    net_dash_close(made);
    {
        const std::lock_guard held(lock);
        range.is_done = true;
        if (made) std::erase_if(openings, [&](const auto& each) { return each.get() == &range; });
    }
    if (may) exit();
}

}  // namespace media
