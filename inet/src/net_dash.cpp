#include "inet/net_dash.h"

#include "lifecycle.h"
#include "net_dash/contexts.h"

#include "core/time.h"
#include "core/value.h"
#include "inet/net_tab.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

using net::dash_ctx;

constinit net::lifecycle packager;

/// The id names a directory and stands in addresses.
bool is_plain(std::string_view id) noexcept {
    constexpr size_t longest = 64;
    return !id.empty() && id.size() <= longest && std::ranges::all_of(id, [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '.' || c == '_' ||
               c == '-';
    });
}

/// @return false when it is not in the registry, or its id is refused. Throws std::bad_alloc.
bool find_track(const char* token, net::dash::track& out) {
    const core::owned<const tab_row_t, tab_close> row(tab_find(tab_tracks, token));
    if (!row) return false;
    const auto text = [&](const char* key) {
        const char* const value = value_get(row->values, key);
        return value ? value : "";
    };
    if (!is_plain(text("id"))) return false;
    out.token = token;
    out.id = text("id");
    constexpr const char* names[] = {"key1", "key2", "key3", "key4"};
    std::ranges::transform(names, out.keys, text);
    out.width = value_get_uint32(row->values, "width");
    out.height = value_get_uint32(row->values, "height");
    out.profile = static_cast<uint8_t>(value_get_uint32(row->values, "profile"));
    return true;
}

bool is_range_allowed(uint64_t start, uint64_t end) noexcept {
    // The order to play carries a signed time.
    constexpr uint64_t latest = INT64_MAX;
    return (start == 0 && end == 0) ||
           (start > 0 && end > start && end <= latest && end - start <= net::dash_longest_range_us);
}

}  // namespace

void dash_init() noexcept { packager.start(net::dash::bring_up); }

void dash_free() noexcept { packager.stop(net::dash::take_down); }

dash_ctx* net_dash_open(const char* token, uint64_t start, uint64_t end, const char* file, int line) noexcept {
    if (!token || !is_range_allowed(start, end)) return nullptr;
    bool made = false;
    dash_ctx* ctx = nullptr;
    try {
        net::dash::track track;
        if (find_track(token, track)) ctx = net::dash::add(std::move(track), start, end, made, file, line);
    } catch (const std::bad_alloc&) {
    }
    if (!ctx) return nullptr;
    net::dash::touch(*ctx);
    if (!made) return ctx;
    const bool is_playing = net::dash::play(*ctx);
    if (!is_playing) ctx->is_failed = ctx->is_retired = true;
    ctx->last_put = core_timer();
    ctx->is_open = true;
    if (is_playing) return ctx;
    net_dash_close(ctx);
    net::dash::call_guard();
    return nullptr;
}

dash_ctx* net_dash_search(const char* token) noexcept {
    return token ? net::dash::use([&](const dash_ctx& each) { return each.serves(token); }) : nullptr;
}

dash_ctx* net_dash_find(const char* name) noexcept {
    return name ? net::dash::use([&](const dash_ctx& each) { return each.is_named(name); }) : nullptr;
}

void net_dash_close(dash_ctx* ctx) noexcept {
    if (!ctx) return;
    const std::lock_guard hold(net::dash::contexts().lock);
    if (ctx->users > 0) --ctx->users;
}

const char* net_dash_name(const dash_ctx* ctx) noexcept { return ctx ? ctx->name : ""; }

net::dash_property_t net_dash_property(const dash_ctx* ctx) noexcept {
    return ctx ? net::dash::describe(*ctx) : net::dash_property_t{};
}

net::dash_state_t net_dash_state(const dash_ctx* ctx) noexcept {
    if (!ctx || ctx->is_failed) return net::dash_failed;
    if (ctx->is_retired) return net::dash_retired;
    return ctx->segments.is_ready() ? net::dash_ready : net::dash_filling;
}

const net::dash_timeline* net_dash_times(dash_ctx* ctx) noexcept { return ctx ? ctx->segments.times() : nullptr; }

char* net_dash_manifest(dash_ctx* ctx, const char* file, int line) noexcept {
    if (!ctx) return nullptr;
    net::dash::touch(*ctx);
    try {
        return net::dash::make_manifest(*ctx, file, line);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

const net::dash_segment* net_dash_segment_video(dash_ctx* ctx, const char* name) noexcept {
    if (!ctx || !name) return nullptr;
    net::dash::touch(*ctx);
    core_log_print(net::dash::log(), "request: %s ", name);
    return ctx->segments.hold(name);
}

void net_dash_segment_close(dash_ctx* ctx, const net::dash_segment* segment) noexcept {
    if (ctx) ctx->segments.release(segment);
}

net::dash_info net_dash_segment_info(const dash_ctx* ctx, const net::dash_segment* segment) noexcept {
    return ctx && segment ? net::dash::describe(*segment) : net::dash_info{};
}

int net_dash_share(dash_ctx* ctx, const char* name, net::dash_share* out) noexcept {
    if (!ctx || !name || !out) return 0;
    net::dash::touch(*ctx);
    core_log_print(net::dash::log(), "request: %s ", name);
    return ctx->segments.share(name, *out);
}
