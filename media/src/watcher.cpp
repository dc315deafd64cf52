// One attempt after the other. All that changes while a watcher runs is changed on its network thread, by a command
// that orders itself about ten times a second and once more when an attempt has ended; `lock` guards what status()
// shows.
#include "media/watcher.h"

#include "watcher/address.h"
#include "watcher/http.h"
#include "watcher/rtmp.h"
#include "watcher/rtsp.h"

#include "core/text.h"
#include "core/thread.h"
#include "core/time.h"
#include "inet/inet.h"
#include "inet/net_uri.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <utility>

namespace media {

namespace {

constexpr uint64_t second = 1'000'000;
constexpr uint32_t longest_pause = 30;  ///< seconds
constexpr uint32_t most_moves = 5;
constexpr uint32_t doublings = 5;  ///< of the pause, up to the longest

bool can_pass(outcome_t what) noexcept {
    return what == outcome_t::no_connection || what == outcome_t::connection_lost ||
           what == outcome_t::nothing_received || what == outcome_t::protocol_error;
}

bool is_rejection(outcome_t what) noexcept { return what == outcome_t::refused || what == outcome_t::not_found; }

}  // namespace

struct watcher::inside final : fetch::attempt_owner {
    ~inside() { stream::drop(into); }

    bool begin(failure_t* error) noexcept;
    bool take_places(failure_t* error) noexcept;
    void close() noexcept;

    static void on_tick(void* arg, net::command_ctx* command) noexcept;
    static void on_close(void* arg, net::command_ctx* command) noexcept;
    static void on_looked_up(void* arg, net::command_ctx* command) noexcept;
    uint64_t work(uint64_t now) noexcept;
    void start_attempt() noexcept;
    void end_attempt(uint64_t now) noexcept;
    fetch::ending_t no_place(const char* place) const noexcept;
    void pause(const fetch::ending_t& why, uint64_t now) noexcept;
    void finish(const fetch::ending_t& result) noexcept;
    void drop_attempt() noexcept;
    void set_state(state_t state) noexcept;
    void show(const fetch::ending_t& result, state_t state) noexcept;
    void count() noexcept;

    int take(const watched_t& got) noexcept override;
    void tell(const watch_event_t& event) noexcept override;
    void ended() noexcept override;

    fetch::address_t address;
    core::owned_text save_as;
    fetch::address_t elsewhere;  ///< where the source says that it is,
    uint32_t moves = 0;          ///< after so many times; 0: where it was told
    bool usable = false;         ///< the address
    settings_t settings;
    stream* into = nullptr;
    int (*frame)(void* arg, const watched_t& got) = nullptr;
    void* frame_arg = nullptr;
    void (*event)(void* arg, const watch_event_t& what) = nullptr;
    void* event_arg = nullptr;

    net::Thread own;
    net::nt_ctx* nt = nullptr;  ///< null while it does not run
    int32_t places = 0;         ///< taken on it
    net::command_ctx* tick = nullptr;
    net::command_ctx* closer = nullptr;
    net::command_ctx* looked_up = nullptr;
    event_ctx* closed = nullptr;
    event_ctx* over = nullptr;  ///< for wait()
    std::atomic<bool> end_wanted = false;

    // On the network thread

    fetch::name_lookup lookup;
    std::unique_ptr<fetch::attempt> attempt;
    transport_t transport = transport_t::tcp;
    uint64_t next_attempt = 0;                         ///< by core_timer()
    uint32_t failures = 0;                             ///< in a row
    std::array<track_counts_t, most_tracks> counts{};  ///< of the attempts before this one
    size_t count_of_tracks = 0;
    fetch::saved_t saved;
    bool at_an_end = false;

    mutable std::mutex lock;
    status_t shown;
};

watcher::watcher(const char* url, const settings_t& settings) noexcept : inside_(core::create<inside>(CORE_HERE)) {
    net_init();
    if (!inside_) return;
    inside_->usable = inside_->address.set(url, settings.user, settings.password);
    inside_->settings = settings;
    inside_->settings.user = inside_->settings.password = inside_->settings.save_as = nullptr;  // copied
    if (settings.save_as) inside_->save_as.reset(core_strdup(settings.save_as, CORE_HERE));
    inside_->usable = inside_->usable && !settings.save_as == !inside_->save_as;
    inside_->closed = _event_create(CORE_HERE);
    inside_->over = _event_create(CORE_HERE);
}

watcher::~watcher() {
    stop();
    if (inside_) {
        _event_free(inside_->closed);
        _event_free(inside_->over);
    }
    core::destroy(inside_);
    net_free();
}

int watcher::takes(const char* url) noexcept { return fetch::address_t().set(url, nullptr, nullptr) ? 1 : 0; }

void watcher::into(stream& to) noexcept {
    if (!inside_) return;
    to.keep();
    stream::drop(std::exchange(inside_->into, &to));
}

void watcher::on_frame(int (*frame)(void* arg, const watched_t& got), void* arg) noexcept {
    if (!inside_) return;
    inside_->frame = frame;
    inside_->frame_arg = arg;
}

void watcher::on_event(void (*event)(void* arg, const watch_event_t& what), void* arg) noexcept {
    if (!inside_) return;
    inside_->event = event;
    inside_->event_arg = arg;
}

int watcher::start(failure_t* error) noexcept {
    if (!inside_ || !inside_->closed || !inside_->over) {
        media::tell(error, "no memory");
        return 0;
    }
    if (inside_->nt && status().state != state_t::ended) return 1;
    stop();
    if (!inside_->usable) {
        media::tell(error, "not an address that can be fetched");
        return 0;
    }
    return inside_->begin(error) ? 1 : 0;
}

bool watcher::inside::begin(failure_t* error) noexcept {
    nt = settings.nt;
    if (!take_places(error)) return false;
    if (!nt) {
        own.start();
        nt = own.nt;
        net::net_nt_set_name(nt, "watcher");
    }
    end_wanted = at_an_end = false;
    transport = settings.transport;
    next_attempt = failures = moves = 0;
    count_of_tracks = 0;
    saved = {};
    {
        const std::lock_guard held(lock);
        shown = {};
        shown.state = state_t::connecting;
        shown.transport = transport;
    }
    tick = nt ? net::net_nt_command_create(nt, this, on_tick) : nullptr;
    closer = nt ? net::net_nt_command_create(nt, this, on_close) : nullptr;
    looked_up = nt ? net::net_nt_command_create(nt, this, on_looked_up) : nullptr;
    if (tick && closer && looked_up) {
        lookup.tell(looked_up);
        net::net_nt_command_exec(tick);
        return true;
    }
    media::tell(error, "cannot start a network thread");
    close();
    return false;
}

void watcher::stop() noexcept {
    if (inside_ && inside_->nt) inside_->close();
}

// The attempt ends on its thread. Nothing of it allocates.
void watcher::inside::close() noexcept {
    if (closer && net::net_nt_need_invoke(nt)) {
        net::net_nt_command_exec(closer);
        event_wait(closed, event_infinite);
    } else {
        on_close(this, nullptr);
        event_wait(closed, 0);
    }
    lookup.tell(nullptr);
    net::net_nt_command_destroy(looked_up);  // before the one that it orders
    net::net_nt_command_destroy(tick);
    net::net_nt_command_destroy(closer);
    tick = closer = looked_up = nullptr;
    own.stop();
    net::net_nt_take_places(settings.nt, -std::exchange(places, 0));
    nt = nullptr;
}

/// On a thread that is shared.
bool watcher::inside::take_places(failure_t* error) noexcept {
    const bool ports = settings.transport == transport_t::udp || settings.transport == transport_t::multicast;
    places = settings.transport == transport_t::http ? 2 : 1;
    if (ports) places += 2 * static_cast<int32_t>(into ? kind_count : rtsp3::max_traks);
    if (net::net_nt_take_places(nt, places) <= net::nt_places) return true;
    net::net_nt_take_places(nt, -std::exchange(places, 0));
    nt = nullptr;
    media::tell(error, "the network thread has no place left");
    return false;
}

void watcher::inside::on_close(void* arg, net::command_ctx*) noexcept {
    auto* self = static_cast<inside*>(arg);
    if (self->attempt) {
        self->attempt->leave({});
        self->drop_attempt();
    }
    if (!self->at_an_end) self->finish({});
    event_set(self->closed);
}

void watcher::end() noexcept {
    if (inside_) inside_->end_wanted = true;
}

int watcher::wait(uint32_t milliseconds) noexcept {
    if (!inside_ || !inside_->over) return 1;
    const auto has_ended = [&] { return status().state == state_t::ended || status().state == state_t::idle; };
    if (!has_ended()) event_wait(inside_->over, milliseconds);
    return has_ended() ? 1 : 0;
}

watcher::status_t watcher::status() const noexcept {
    if (!inside_) return {};
    const std::lock_guard held(inside_->lock);
    return inside_->shown;
}

void watcher::inside::on_tick(void* arg, net::command_ctx* command) noexcept {
    auto* self = static_cast<inside*>(arg);
    if (self->at_an_end) return;
    const uint64_t next = self->work(core_timer());
    if (!self->at_an_end) net::net_nt_command_at(command, next);
}

void watcher::inside::on_looked_up(void* arg, net::command_ctx*) noexcept {
    net::net_nt_command_at(static_cast<inside*>(arg)->tick, core_timer());
}

/// @return when to work next
uint64_t watcher::inside::work(uint64_t now) noexcept {
    constexpr uint64_t between = second / 10;
    if (end_wanted) {
        if (!attempt) finish({});
        if (attempt) attempt->leave({});
    }
    if (!attempt && !at_an_end && now >= next_attempt) start_attempt();
    if (!attempt) return now + between;
    const uint64_t next = attempt->tick(now);
    count();
    if (!attempt->has_ended()) return next;
    end_attempt(now);
    return now + between;
}

void watcher::inside::start_attempt() noexcept {
    uint64_t wanted = settings.duration;
    if (wanted) {
        const uint64_t had = fetch::longest({counts.data(), count_of_tracks});
        wanted = wanted > had ? wanted - had : 1;
    }
    const fetch::order_t order{.nt = nt,
                               .address = moves ? elsewhere : address,
                               .asked = address,
                               .lookup = lookup,
                               .transport = transport,
                               .timeout = std::max(settings.timeout, 1U) * second,
                               .duration = wanted,
                               .kinds = settings.kinds,
                               .one_of_a_kind = into != nullptr,
                               .sets_in_slices = settings.sets_in_slices,
                               .save_as = save_as.get()};
    {
        const std::lock_guard held(lock);
        ++shown.attempts;
        shown.transport = transport;
    }
    set_state(state_t::connecting);
    tell({.what = watch_event_t::connecting});
    switch (address.scheme) {
        case fetch::scheme_t::http:
            attempt.reset(core::create<fetch::http_attempt>(CORE_HERE, order, *this));
            break;
        case fetch::scheme_t::rtmp:
            attempt.reset(core::create<fetch::rtmp_attempt>(CORE_HERE, order, *this));
            break;
        case fetch::scheme_t::rtsp:
            attempt.reset(core::create<fetch::rtsp_attempt>(CORE_HERE, order, *this));
            break;
    }
    if (attempt) return attempt->start();
    pause({outcome_t::failed, "no memory"}, core_timer());
}

fetch::ending_t watcher::inside::no_place(const char* place) const noexcept {
    if (moves == most_moves)
        return {outcome_t::protocol_error, "the source says more than %u times in a row that it is elsewhere",
                most_moves};
    const core::owned_text shown_place(uri_encode_rest(place, CORE_HERE));
    return {outcome_t::protocol_error, "the source says that it is at %s, which cannot be fetched",
            shown_place ? shown_place.get() : ""};
}

void watcher::inside::end_attempt(uint64_t now) noexcept {
    fetch::ending_t result = attempt->result();
    const bool wants_tcp = attempt->wants_tcp();
    const char* const place = attempt->moved_to();
    const bool moved = moves < most_moves && place && elsewhere.move(moves ? elsewhere : address, place);
    if (place && !moved) result = no_place(place);
    moves = moved ? moves + 1 : wants_tcp ? moves : 0;
    std::array<track_counts_t, rtsp3::max_traks> more{};
    const size_t tracks = attempt->counts(more);
    if (std::any_of(more.begin(), more.begin() + tracks, [](const track_counts_t& each) { return each.frames > 0; }))
        failures = 0;
    drop_attempt();
    const bool is_over = end_wanted || result.what == outcome_t::ok;
    if (wants_tcp && !is_over) {
        transport = transport_t::tcp;
        next_attempt = 0;
    } else if (moved && !is_over) {
        next_attempt = 0;
    } else if (is_over) {
        finish(result);
    } else {
        pause(result, now);
    }
}

/// Before the next attempt, if there is to be one.
void watcher::inside::pause(const fetch::ending_t& why, uint64_t now) noexcept {
    const bool rejected = is_rejection(why.what);
    if ((!can_pass(why.what) && !settings.insist) || (failures >= settings.reconnect && settings.reconnect != forever))
        return finish(why);
    const uint32_t seconds = !rejected && failures < doublings ? 1U << failures : longest_pause;
    if (failures < forever) ++failures;
    next_attempt = now + seconds * second;
    {
        const std::lock_guard held(lock);
        show(why, state_t::pausing);
    }
    tell({.what = watch_event_t::pausing, .outcome = why.what, .text = why.text, .pause = seconds});
    if (end_wanted) finish({});
}

/// To be asked to end is a good end when there is something to show.
void watcher::inside::finish(const fetch::ending_t& asked) noexcept {
    const bool received = std::any_of(counts.begin(), counts.begin() + count_of_tracks,
                                      [](const track_counts_t& each) { return each.frames > 0; });
    const fetch::ending_t result = asked.what == outcome_t::ok && !received && !saved.complete
                                       ? fetch::ending_t{outcome_t::nothing_received, "ended before media came"}
                                       : asked;
    at_an_end = true;
    tell({.what = watch_event_t::ended, .outcome = result.what, .text = result.text});
    {
        const std::lock_guard held(lock);
        show(result, state_t::ended);
    }
    event_set(over);
}

/// What it counted stays.
void watcher::inside::drop_attempt() noexcept {
    count();
    std::array<track_counts_t, rtsp3::max_traks> more{};
    const size_t tracks = attempt->counts(more);
    count_of_tracks = fetch::add_counts(counts, count_of_tracks, {more.data(), tracks});
    attempt.reset();
    if (into) into->gap();
}

void watcher::inside::show(const fetch::ending_t& result, state_t state) noexcept {
    shown.outcome = result.what;
    std::snprintf(shown.text, sizeof shown.text, "%s", result.text);
    shown.state = state;
}

void watcher::inside::set_state(state_t state) noexcept {
    const std::lock_guard held(lock);
    shown.state = state;
}

void watcher::inside::count() noexcept {
    std::array<track_counts_t, rtsp3::max_traks> more{};
    const size_t tracks = attempt->counts(more);
    saved = attempt->saved();
    const std::lock_guard held(lock);
    shown.saved = saved.bytes;
    shown.to_save = saved.size;
    std::copy_n(counts.begin(), count_of_tracks, shown.tracks);
    shown.track_count = static_cast<uint32_t>(fetch::add_counts(shown.tracks, count_of_tracks, {more.data(), tracks}));
}

// Into the stream goes one track of each kind, the first. RTMP tells the times of decoding and display.
int watcher::inside::take(const watched_t& got) noexcept {
    if (into) into->push(got.frame, {.utc = got.utc, .of_display = address.scheme != fetch::scheme_t::rtmp});
    return frame ? frame(frame_arg, got) : 1;
}

void watcher::inside::tell(const watch_event_t& what) noexcept {
    if (what.what == watch_event_t::tracks && into) into->declare(what.formats, what.format_count);
    if (what.what == watch_event_t::playing || what.what == watch_event_t::saving) set_state(state_t::playing);
    if (event) event(event_arg, what);
}

// Not from inside of its call.
void watcher::inside::ended() noexcept { net::net_nt_command_at(tick, core_timer()); }

}  // namespace media
