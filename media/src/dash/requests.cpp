// What players are answered: on the network threads, but for a range, which the control thread opens.
#include "dash/inside.h"

#include "core/text.h"

#include <charconv>

namespace media {

namespace {

constexpr size_t most_openings = 8;

/// A stamp (core_time_from_stamp()), or microseconds.
bool read_time(std::string_view text, uint64_t& out) noexcept {
    if (core_time_from_stamp(text.data(), static_cast<uint32_t>(text.size()), &out)) return true;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc() && end == text.data() + text.size();
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

bool is_live(const net::dash_ctx* ctx) noexcept { return net_dash_property(ctx).start == 0; }

}  // namespace

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
    if (is_live(found.ctx) && comes_next(found.ctx, path)) return asked.later();
    net::dash_share share;
    const bool was_early = asked.was_put_off() && is_live(found.ctx);
    if (!was_early && net_dash_share(found.ctx, path.data(), &share)) {  // the path ends with its NUL
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
    in.answer_range(each, range, path, asked);
    in.exit();
}

/// Also a segment may be the first that is asked for: of a player that was stopped for longer than a range is kept.
void dash::inside::answer_range(const archive& of, std::string_view range, std::string_view path,
                                http_exchange& asked) noexcept {
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
    const bool is_manifest = path == "manifest.mpd";
    if (!is_manifest && !(path.starts_with('v') && name && path.substr(1).starts_with(name.get())))
        return asked.answer({.status = 404}, {});
    const context found(name ? net_dash_find(name.get()) : nullptr);
    const net::dash_state_t state = found.ctx ? net_dash_state(found.ctx) : net::dash_filling;
    // One that has failed is not kept by those who ask: it is tried again later.
    if (state == net::dash_failed || (!found.ctx && !order(of, start, end, asked)))
        return asked.answer({.status = 404}, {});
    if (state != net::dash_ready) return asked.later();
    if (!is_manifest) return answer_segment(&of, path, asked);
    const core::owned_text text(net_dash_manifest(found.ctx, CORE_HERE));
    if (!send_manifest(asked, "max-age=10", text.get())) return asked.later();
    watchers.saw(&of, asked.peer());
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
