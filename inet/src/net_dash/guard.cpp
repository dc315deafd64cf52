// The thread that releases contexts nobody uses.
#include "net_dash/contexts.h"

#include "core/thread.h"
#include "core/time.h"

#include <algorithm>

namespace net::dash {

namespace {

constexpr uint32_t pause_ms = 5000;
constexpr uint64_t unused_s = 20;
constexpr uint64_t silent_us = 10 * us_per_second;

/// A context that follows retired ones is used as long as one of them is: its users have not noticed yet.
bool is_used(const dash_ctx& ctx, const contexts_t& among) noexcept {
    const auto keeps = [&](const dash_ctx* each) {
        return each->users > 0 && (each == &ctx || (!ctx.is_range() && !each->is_range() && !ctx.is_retired &&
                                                    each->is_retired && each->track.token == ctx.track.token));
    };
    return std::any_of(among.all, among.all + among.count, keeps);
}

/// What a pass has found to do, which is done without the lock.
struct work {
    dash_ctx* all[most_contexts];
    size_t count = 0;

    void add(dash_ctx* each) noexcept { all[count++] = each; }
    auto begin() const noexcept { return all; }
    auto end() const noexcept { return all + count; }
};

void find_work(work& ended, work& unused) noexcept {
    contexts_t& of = contexts();
    const std::lock_guard hold(of.lock);
    const uint64_t now_s = time_now() / us_per_second;
    const uint64_t now = core_timer();
    for (size_t i = 0; i < of.count; ++i) {
        dash_ctx* const each = of.all[i];
        if (!each->is_open) continue;
        const bool is_old = now_s > each->last_access + unused_s || (each->is_failed && each->is_retired);
        if (is_old && !is_used(*each, of)) {
            each->is_leaving = true;
            unused.add(each);
        } else if (each->is_range() && each->graph && (each->is_over || now > each->last_put + silent_us)) {
            ended.add(each);
        }
    }
}

void forget(const work& gone) noexcept {
    contexts_t& of = contexts();
    const std::lock_guard hold(of.lock);
    dash_ctx** const last =
        std::remove_if(of.all, of.all + of.count, [&](dash_ctx* each) { return std::ranges::count(gone, each) > 0; });
    of.count = static_cast<size_t>(last - of.all);
}

void run(void*, thread_ctx* thread) noexcept {
    core_thread_setname(thread, "dash_guard");
    while (!core_thread_iscancel(thread)) {
        event_wait(contexts().wake_guard, pause_ms);
        if (!core_thread_iscancel(thread)) sweep();
    }
}

}  // namespace

void sweep() noexcept {
    const std::lock_guard hold(contexts().sweeping);
    work ended;
    work unused;
    find_work(ended, unused);
    for (dash_ctx* each : ended)
        stop_playing(*each);
    for (dash_ctx* each : unused) {
        stop_playing(*each);
        remove_files(*each);
    }
    forget(unused);
    for (dash_ctx* each : unused)
        core::destroy(each);
}

void start_guard() noexcept {
    contexts_t& of = contexts();
    of.wake_guard = _event_create(CORE_HERE);
    if (!of.wake_guard) return;
    of.guard = core_thread_start(
        nullptr, run, [](void*, thread_ctx*) noexcept { call_guard(); }, CORE_HERE);
}

void stop_guard() noexcept {
    contexts_t& of = contexts();
    if (of.guard) core_thread_stop(of.guard);
    if (of.wake_guard) _event_free(of.wake_guard);
}

void call_guard() noexcept {
    if (contexts().wake_guard) event_set(contexts().wake_guard);
}

}  // namespace net::dash
