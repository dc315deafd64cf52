#include "station/thread.h"

#include "core/cmd.h"
#include "core/time.h"
#include "inet/net_socket.h"
#include "media/station.h"

#include <algorithm>
#include <new>

namespace media {

namespace {

/// Frames of one stream that are read before others get their turn.
constexpr int most_at_once = 64;

constexpr uint64_t longest_close = 3'000'000;  // microseconds
constexpr uint64_t closing_step = 10'000;

/// A call on its way to a thread.
struct posted_call {
    void (*fn)(thread& on, void* arg);
    void* arg;
};

void run_posted(void* owner, void* arg) noexcept {
    auto* self = static_cast<thread::inside*>(static_cast<net::Thread*>(owner));
    const core::owned_object<posted_call> call(static_cast<posted_call*>(arg));
    call->fn(self->face, call->arg);
}

}  // namespace

client::~client() = default;
part::~part() = default;
service::~service() = default;
void client::operator delete(void* block) noexcept { core_mfree(block); }
void part::operator delete(void* block) noexcept { core_mfree(block); }
void service::operator delete(void* block) noexcept { core_mfree(block); }

int service::open(media::station&, failure_t*) noexcept { return 1; }

thread::inside::inside(class station& of, unsigned number) noexcept : owner(of), index(number), face(this) {}

thread::inside::~inside() { inside::stop(); }

bool thread::inside::begin(service* const* services, size_t count, failure_t* error) noexcept {
    net::Thread::start();
    if (!nt || !open_wake()) {
        media::tell(error, "cannot start a network thread");
        stop();
        return false;
    }
    net::net_nt_set_name(nt, "station-%u", index);
    try {
        for (size_t i = 0; i < count; ++i)
            parts.push_back({services[i], nullptr});
    } catch (const std::bad_alloc&) {
        stop();
        return false;
    }
    struct {
        inside* self;
        failure_t* error;
        event_ctx* done;
    } making{this, error, _event_create(CORE_HERE)};
    const auto make = [](void* arg) {
        auto* of = static_cast<decltype(making)*>(arg);
        of->self->make_parts(of->error);
        event_set(of->done);
    };
    if (making.done && net::net_nt_sync_call(nt, nullptr, &making, make)) event_wait(making.done, event_infinite);
    _event_free(making.done);
    const bool complete =
        second && std::ranges::all_of(parts, [](const part_record& each) { return each.made != nullptr; });
    if (!complete) {
        stop();
        return false;
    }
    const std::lock_guard held(call_lock);
    halted = false;
    net::net_nt_command_exec(command);
    return true;
}

void thread::inside::make_parts(failure_t* error) noexcept {
    for (part_record& each : parts) {
        each.made.reset(each.of->make_part(face, error));
        if (!each.made) return;
    }
    net::net_nt_timer_set(nt, second, 1, this, on_second);
}

// A descriptor that nobody reads: it carries the signals of those who push.
bool thread::inside::open_wake() noexcept {
    tick = net::net_nt_command_create(nt, this, on_tick);
    closed = _event_create(CORE_HERE);
    closer = closed ? net::net_nt_command_create(nt, this, on_close) : nullptr;
    wake_fd = net_socket_create(2, 2, 17, CORE_HERE);
    if (wake_fd >= 0) net::net_nt_socket_add(nt, wake_socket, wake_fd, 0, this, on_wake);
    return tick && closer && wake_socket;
}

void thread::inside::stop() noexcept {
    close();
    end_loop();
    drain();
}

// Clients, parts and feeds end on the thread itself, in this order. Nothing of it allocates.
void thread::inside::close() noexcept {
    if (!nt || !closer) return;
    net::net_nt_command_exec(closer);
    event_wait(closed, event_infinite);
}

void thread::inside::end_loop() noexcept {
    {
        const std::lock_guard held(call_lock);
        halted = true;
    }
    net::net_nt_command_destroy(tick);
    net::net_nt_command_destroy(closer);
    tick = closer = nullptr;
    net::Thread::stop();
    second = nullptr;
    wake_socket = nullptr;
    if (wake_fd >= 0) net_socket_close(wake_fd);
    wake_fd = -1;
    _event_free(closed);
    next_tick = 0;
    closing = false;
}

bool thread::inside::drain() noexcept { return core_cmd_process(queue) != 0; }

void thread::inside::on_close(void* arg, net::command_ctx* command) noexcept {
    auto* self = static_cast<inside*>(arg);
    if (!self->closing) self->end_clients();
    const uint64_t now = core_timer();
    if (now < self->closes_at && !self->settled()) return net::net_nt_command_at(command, now + closing_step);
    self->parts.clear();
    self->feeds.clear();
    event_set(self->closed);
}

void thread::inside::end_clients() noexcept {
    closing = true;
    closes_at = core_timer() + longest_close;
    for (const client_record& each : clients)
        each.served->finish();
    erase_finished();
}

bool thread::inside::settled() const noexcept {
    return std::ranges::all_of(parts, [](const part_record& each) { return !each.made || each.made->settled(); });
}

void thread::inside::on_news(void* arg) noexcept {
    auto* self = static_cast<inside*>(arg);
    if (!self->news.exchange(true)) net::net_nt_command(self->nt, self->wake_socket);
}

void thread::inside::on_wake(void* arg, uint32_t) noexcept {
    auto* self = static_cast<inside*>(arg);
    self->news = false;
    bool more = false;
    entry_t entry;
    for (size_t i = 0; i < self->feeds.size(); ++i) {
        feed& of = *self->feeds[i];
        int left = most_at_once;
        read_t what = read_t::frame;
        while (what != read_t::ended && left != 0 && (what = of.place.next(entry)) != read_t::nothing) {
            --left;
            for (size_t k = 0; k < of.readers.size(); ++k) {
                if (of.readers[k]) of.readers[k]->on_entry(what, entry);
            }
        }
        more = more || left == 0;
    }
    self->drop_unread();
    if (more) on_news(self);
}

void thread::inside::drop_unread() noexcept {
    for (const auto& each : feeds)
        std::erase(each->readers, nullptr);
    std::erase_if(feeds, [](const auto& each) { return each->readers.empty(); });
}

void thread::inside::order_tick(uint64_t at) noexcept {
    if (!tick || (next_tick != 0 && next_tick <= at)) return;
    next_tick = at;
    net::net_nt_command_at(tick, at);
}

void thread::inside::on_tick(void* arg, net::command_ctx*) noexcept {
    auto* self = static_cast<inside*>(arg);
    self->next_tick = 0;
    self->serve_due(core_timer());
    self->erase_finished();
    uint64_t next = 0;
    for (const client_record& each : self->clients) {
        if (each.due != 0 && (next == 0 || each.due < next)) next = each.due;
    }
    if (next != 0) self->order_tick(next);
}

void thread::inside::serve_due(uint64_t now) noexcept {
    for (size_t i = 0; i < clients.size(); ++i) {
        if (clients[i].due == 0 || clients[i].due > now || clients[i].served->finished()) continue;
        clients[i].due = 0;
        const uint64_t next = clients[i].served->serve(now);
        if (next != 0 && (clients[i].due == 0 || next < clients[i].due)) clients[i].due = next;
    }
}

void thread::inside::on_second(void* arg, net::timer_ctx*) noexcept {
    auto* self = static_cast<inside*>(arg);
    for (size_t i = 0; i < self->clients.size(); ++i)
        self->clients[i].served->second();
    for (const part_record& each : self->parts)
        each.made->second();
    const auto watching =
        std::ranges::count_if(self->clients, [](const client_record& each) { return each.served->watching(); });
    self->counters.watching = static_cast<uint32_t>(watching);
    self->erase_finished();
}

// One by one: what a client does at its end may look at the others.
void thread::inside::erase_finished() noexcept {
    sweeping = false;
    for (size_t i = 0; i < clients.size();) {
        if (!clients[i].served->finished()) {
            ++i;
            continue;
        }
        const std::unique_ptr<client> gone = std::move(clients[i].served);
        net::net_nt_take_places(nt, -static_cast<int32_t>(clients[i].places));
        clients.erase(clients.begin() + static_cast<std::ptrdiff_t>(i));
        --load;
    }
}

/// Who watches is not driven out by who only connects.
bool thread::inside::make_place(uint32_t wanted) noexcept {
    uint32_t taken = wanted + net::net_nt_take_places(nt, 0);
    for (const client_record& each : clients)
        taken -= each.served->finished() ? each.places : 0;
    while (taken > net::nt_places) {
        const auto idle = std::ranges::find_if(
            clients, [](const client_record& each) { return !each.served->finished() && each.served->idle(); });
        if (idle == clients.end()) return false;
        taken -= std::min(taken, idle->places);
        idle->served->finish();
        face.sweep();
    }
    return true;
}

feed* thread::inside::find_feed(const stream& which) noexcept {
    const auto found = std::ranges::find_if(feeds, [&](const auto& each) { return each->from == &which; });
    return found == feeds.end() ? nullptr : found->get();
}

net::nt_ctx* thread::nt() const noexcept { return inside_->nt; }
media::station& thread::station() const noexcept { return inside_->owner; }
unsigned thread::index() const noexcept { return inside_->index; }
counters_t& thread::count() noexcept { return inside_->counters; }
uint32_t thread::load() const noexcept { return inside_->load; }

part* thread::part(const service& of) const noexcept {
    const auto found = std::ranges::find(inside_->parts, &of, &inside::part_record::of);
    return found == inside_->parts.end() ? nullptr : found->made.get();
}

int thread::add(client* taken) noexcept {
    inside& in = *inside_;
    const uint32_t places = taken ? taken->places() : 0;
    if (!taken || !in.nt || in.closing || !in.make_place(places)) return 0;
    try {
        in.clients.reserve(in.clients.size() + 1);
        in.clients.push_back({std::unique_ptr<client>(taken), 1, places});
    } catch (const std::bad_alloc&) {
        return 0;
    }
    net::net_nt_take_places(in.nt, static_cast<int32_t>(places));
    ++in.load;
    in.order_tick(core_timer());
    return 1;
}

void thread::wake(client& which) noexcept {
    inside& in = *inside_;
    const auto found = std::ranges::find_if(
        in.clients, [&](const inside::client_record& each) { return each.served.get() == &which; });
    if (found == in.clients.end()) return;
    found->due = 1;
    in.order_tick(core_timer());
}

void thread::sweep() noexcept {
    if (inside_->sweeping) return;
    inside_->sweeping = true;
    inside_->order_tick(core_timer());
}

int thread::follow(stream& which, reader& by) noexcept {
    inside& in = *inside_;
    try {
        if (feed* known = in.find_feed(which)) {
            known->readers.push_back(&by);
            return 1;
        }
        core::owned_object<feed> made(core::create<feed>(CORE_HERE));
        if (!made || !made->place.open(which, {.at_key = false, .any = true})) return 0;
        made->from = &which;
        made->readers.push_back(&by);
        in.feeds.push_back(std::move(made));
        if (in.feeds.back()->place.told(inside::on_news, &in)) {
            inside::on_news(&in);  // what was pushed meanwhile
            return 1;
        }
        in.feeds.pop_back();
    } catch (const std::bad_alloc&) {
        return 0;
    }
    return 0;
}

// The reader may be called at this moment: its place stays until the round is over.
void thread::unfollow(stream& which, reader& by) noexcept {
    feed* const known = inside_->find_feed(which);
    if (!known) return;
    std::ranges::replace(known->readers, &by, static_cast<reader*>(nullptr));
    inside::on_news(inside_);
}

uint64_t thread::position(const stream& which) const noexcept {
    const feed* const known = inside_->find_feed(which);
    return known ? known->place.position() : 0;
}

int thread::call(void (*fn)(thread& on, void* arg), void* arg) noexcept { return inside_->post(fn, arg) ? 1 : 0; }

bool thread::inside::post(void (*fn)(thread& on, void* arg), void* arg) noexcept {
    auto* posted = core::create<posted_call>(CORE_HERE, posted_call{fn, arg});
    if (!posted) return false;
    if (!core_cmd_exec(queue, run_posted, posted)) {
        core::destroy(posted);
        return false;
    }
    const std::lock_guard held(call_lock);
    if (!halted) net::net_nt_command_exec(command);
    return true;
}

}  // namespace media
