// The packing thread waits for news of any stream, reads what is new of each, and puts it on the bus: the packer runs
// inside that call. Requests come on the network threads. They find contexts by name and take shares of segments, so
// they wait for the packer only as long as it changes its lists.
#include "media/dash.h"

#include "dash/inside.h"

#include "avc/fcc.h"
#include "core/text.h"
#include "core/value.h"
#include "inet/net_tab.h"

#include <algorithm>
#include <utility>

namespace media {

namespace {

constexpr uint64_t second = 1'000'000;
constexpr uint64_t reserved = 5 * second;
constexpr uint32_t look_again = 500;  ///< milliseconds

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

}  // namespace

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

}  // namespace media
