// Where the pictures of a context come from.
#include "net_dash/contexts.h"

#include "core/file.h"
#include "core/param.h"
#include "core/time.h"

#include <string_view>

namespace net::dash {

namespace {

constexpr double archive_speed = 100000.0;

const av::frame_t* frame_of(profile_event_t event, const param_t* params) noexcept {
    if (event != profile_put) return nullptr;
    const param_t* const entry = param_find(params, "frame");
    return entry && entry->type == param_data ? static_cast<const av::frame_t*>(entry->data) : nullptr;
}

core::string joined(std::initializer_list<std::string_view> keys) {
    core::string out;
    for (const std::string_view key : keys) {
        out += key;
        out += '_';
    }
    out.pop_back();
    return out;
}

/// Opens a name of the bus for the time of a call.
template <class Call>
void on_bus(const core::string& name, Call call) noexcept {
    profile_ctx* handle = profile_open(name.c_str());
    if (handle) call(handle);
    profile_close(handle);
}

void on_live(void* arg, profile_ctx*, profile_event_t event, const param_t* params) noexcept;

bool play_live(dash_ctx& ctx) {
    const auto& keys = ctx.track.keys;
    ctx.profile = core_profile_open2(joined({keys[0], keys[1], keys[2], keys[3]}).c_str(), &ctx, on_live, CORE_HERE);
    if (!ctx.profile) return false;
    on_bus(joined({keys[0], keys[1], keys[2]}), [](profile_ctx* source) { core_profile_wake(source); });
    return true;
}

/// Opens the context that follows one whose parameter sets have changed, at the picture that has the new ones. No
/// picture of the track comes before it has returned. @return false when there can be none now
bool succeed(dash_ctx& ctx, const av::frame_t& key) noexcept {
    ctx.is_retired = true;
    dash_ctx* next = nullptr;
    bool made = false;
    try {
        next = add(ctx.track, 0, 0, made, CORE_HERE);
    } catch (const std::bad_alloc&) {
    }
    if (!next) {
        ctx.is_retired = false;
        return false;
    }
    if (made) {
        next->pack.take(key);
        if (!play(*next)) next->is_failed = next->is_retired = true;
        next->is_open = true;
    }
    net_dash_close(next);
    return true;
}

void on_live(void* arg, profile_ctx*, profile_event_t event, const param_t* params) noexcept {
    auto& ctx = *static_cast<dash_ctx*>(arg);
    const av::frame_t* const picture = frame_of(event, params);
    if (!picture || ctx.is_retired) return;
    if (ctx.pack.take(*picture) == packer::verdict::changed) succeed(ctx, *picture);
}

/// Ends a range. Its graph is the guard's to stop: the caller is one of its threads.
void end_range(dash_ctx& ctx) noexcept {
    if (ctx.is_over) return;
    ctx.pack.finish();
    ctx.is_failed = !ctx.segments.set_ready();
    ctx.is_over = true;
    call_guard();
}

void on_recorded(void* arg, profile_ctx*, profile_event_t event, const param_t* params) noexcept {
    auto& ctx = *static_cast<dash_ctx*>(arg);
    if (event != profile_put || ctx.is_over) return;
    ctx.last_put = core_timer();
    const av::frame_t* const picture = frame_of(event, params);
    const bool is_end = param_find(params, "end") != nullptr;
    if (is_end || (picture && picture->time > ctx.end)) return end_range(ctx);
    if (picture && ctx.pack.take(*picture) != packer::verdict::taken) end_range(ctx);
}

bool play_range(dash_ctx& ctx) {
    const auto& keys = ctx.track.keys;
    const core::string own = joined({"#_dash", ctx.name});
    ctx.graph.reset(Graph::create(CORE_HERE));
    ctx.profile = core_profile_open2(joined({keys[0], keys[1], own, keys[3]}).c_str(), &ctx, on_recorded, CORE_HERE);
    if (!ctx.graph || !ctx.profile) return false;
    const cinfo_t__ node{.key1 = keys[0].c_str(),
                         .key2 = keys[1].c_str(),
                         .key3 = own.c_str(),
                         .track = keys[3].c_str(),
                         .track2 = nullptr};
    // Whoever stands on the bus may play, too.
    ctx.graph->add_archive(&node, keys[1].c_str());
    ctx.graph->start();
    uint32_t players = 0;
    on_bus(joined({keys[0], keys[1], own}), [&](profile_ctx* player) {
        players = core_archive_play(player, ctx.start, archive_speed);
        core_profile_wake(player);
    });
    if (players == 0) ctx.is_failed = true;
    return true;
}

void tell(const dash_ctx& ctx) noexcept {
    constexpr const char* format = "%Y-%m-%dT%H:%M:%SZ";
    char from[32];
    char to[32];
    time_format(ctx.start, format, from, sizeof from);
    time_format(ctx.end, format, to, sizeof to);
    core_log_print(log(), "open: %s: [%s - %s]", ctx.name, from, to);
}

}  // namespace

bool play(dash_ctx& ctx) noexcept {
    tell(ctx);
    // What is live is served from memory all the same.
    if (!(core_mkdir("./temp") && core_mkdir(ctx.directory)) && ctx.is_range()) return false;
    try {
        return ctx.is_range() ? play_range(ctx) : play_live(ctx);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void stop_playing(dash_ctx& ctx) noexcept {
    profile_close(ctx.profile);
    if (ctx.graph) {
        ctx.graph->stop();
        ctx.graph->close();
        ctx.graph.reset();
    }
    if (ctx.is_range()) end_range(ctx);
}

}  // namespace net::dash
