#include "net_dash/contexts.h"

#include "core/file.h"
#include "core/time.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

net::dash_ctx::dash_ctx(dash::track of, uint64_t from, uint64_t to) noexcept
    : track(std::move(of)),
      start(from),
      end(to),
      last_access(time_now() / dash::us_per_second),
      last_put(core_timer()),
      segments(directory, from != 0),
      pack(segments, from, dash::most_range_bytes) {}

net::dash_ctx::~dash_ctx() = default;

namespace net::dash {

namespace {

/// Adds the number that makes the name one of its own: of the directory, and of what caches keep.
void set_name(dash_ctx& ctx, const contexts_t& among) noexcept {
    const int length =
        std::snprintf(ctx.name, sizeof ctx.name, "%s-%llu-%llu", ctx.track.id.c_str(),
                      static_cast<unsigned long long>(ctx.start), static_cast<unsigned long long>(ctx.end));
    ctx.plain_name = static_cast<size_t>(length);
    const auto is_taken = [&](const dash_ctx* each) { return std::strcmp(each->name, ctx.name) == 0; };
    for (unsigned number = 1; std::any_of(among.all, among.all + among.count, is_taken); ++number)
        std::snprintf(ctx.name + length, sizeof ctx.name - static_cast<size_t>(length), "-%u", number);
    std::snprintf(ctx.directory, sizeof ctx.directory, "./temp/%s", ctx.name);
}

bool has_room_for(const dash_ctx& made, const contexts_t& among) noexcept {
    const auto count = [&](auto fits) {
        return static_cast<size_t>(std::count_if(among.all, among.all + among.count, fits));
    };
    if (!among.is_up || among.count == most_contexts) return false;
    if (made.is_range()) return count([](const dash_ctx* each) { return each->is_range(); }) < most_ranges;
    return count([&](const dash_ctx* each) { return each->is_retired && each->track.token == made.track.token; }) <
           most_retired + 1;
}

}  // namespace

contexts_t& contexts() noexcept { return core::process_wide<contexts_t>(); }

void bring_up() noexcept {
    contexts_t& all = contexts();
    all.log = core_log_create(CORE_HERE, "dash");
    all.started = time_now();
    start_guard();
    const std::lock_guard hold(all.lock);
    all.is_up = all.guard != nullptr;
}

void take_down() noexcept {
    contexts_t& all = contexts();
    stop_guard();
    {
        const std::lock_guard hold(all.lock);
        all.is_up = false;
    }
    // From the front: a context may be opening the one that follows it.
    for (size_t i = 0; i < all.count; ++i)
        stop_playing(*all.all[i]);
    while (all.count > 0) {
        dash_ctx* const last = all.all[--all.count];
        remove_files(*last);
        core::destroy(last);
    }
    core_log_free(all.log);
}

void touch(dash_ctx& ctx) noexcept { ctx.last_access = time_now() / us_per_second; }

dash_ctx* add(track of, uint64_t start, uint64_t end, bool& made, const char* file, int line) noexcept {
    core::owned_object<dash_ctx> fresh(core::create<dash_ctx>(file, line, std::move(of), start, end));
    if (!fresh || !fresh->segments.is_made()) return nullptr;
    contexts_t& all = contexts();
    const std::lock_guard hold(all.lock);
    for (size_t i = 0; i < all.count; ++i) {
        dash_ctx& each = *all.all[i];
        if (!each.serves(fresh->track.token) || each.start != start || each.end != end) continue;
        ++each.users;
        return &each;
    }
    if (!has_room_for(*fresh, all)) return nullptr;
    set_name(*fresh, all);
    made = true;
    return all.all[all.count++] = fresh.release();
}

void remove_files(dash_ctx& ctx) noexcept {
    ctx.segments.remove_files();
    core_rmdir(ctx.directory);
}

}  // namespace net::dash
