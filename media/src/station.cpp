#include "media/station.h"

#include "station/door.h"
#include "station/thread.h"
#include "stream/inside.h"

#include "core/text.h"
#include "core/time.h"
#include "inet/inet.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <numeric>
#include <string_view>

namespace media {

namespace {

constexpr unsigned most_threads = 64;

struct work_item {
    void (*work)(void* arg);
    void (*done)(thread& on, void* arg);
    void* arg;
    thread* back;
};

using stream_share = core::owned<stream, stream::drop>;

/// An accepted connection on its way to its thread.
struct arrival {
    const port_services* port;
    int fd;
    sockaddr_in peer;
};

}  // namespace

struct station::inside {
    explicit inside(const settings_t& wanted) noexcept;
    ~inside();
    inside(const inside&) = delete;
    inside& operator=(const inside&) = delete;

    bool open_services(station& face, failure_t* error) noexcept;
    bool start_threads(failure_t* error) noexcept;
    bool listen(failure_t* error) noexcept;
    bool listen_on(port_services& port, failure_t* error) noexcept;
    static bool do_without(port_services& port) noexcept;
    bool find_ports() noexcept;
    static void on_accept(void* arg, int fd, const sockaddr_in* peer) noexcept;
    static void on_arrival(thread& on, void* arg) noexcept;
    static void control(void* arg, thread_ctx* self) noexcept;
    static void stir(void* arg) noexcept { event_set(static_cast<inside*>(arg)->stirred); }
    bool take_work(work_item& out) noexcept;
    bool has_work() noexcept;
    stream_share stream_at(size_t index) noexcept;
    uint64_t settle_demands() noexcept;

    core::owned_text bind;
    unsigned wanted_threads;
    station* face = nullptr;

    mutable std::mutex lock;  ///< streams and work
    core::vector<stream_share> streams;
    core::vector<work_item> work;

    core::vector<std::unique_ptr<service>> services;
    core::vector<core::owned_object<port_services>> ports;
    core::vector<core::owned_object<thread::inside>> threads;
    thread_ctx* control_thread = nullptr;
    event_ctx* stirred = nullptr;
    std::atomic<bool> running = false;
};

station::inside::inside(const settings_t& wanted) noexcept
    : bind(core_strdup(wanted.bind ? wanted.bind : "127.0.0.1", CORE_HERE)),
      wanted_threads(std::clamp(wanted.threads, 1U, most_threads)),
      stirred(_event_create(CORE_HERE)) {}

station::inside::~inside() { _event_free(stirred); }

station::station(const settings_t& settings) noexcept : inside_(core::create<inside>(CORE_HERE, settings)) {
    net_init();
    if (inside_) inside_->face = this;
}

station::~station() {
    stop();
    if (inside_) {
        for (const stream_share& each : inside_->streams) {
            each->end();
            const std::lock_guard its(each->in().lock);
            each->in().stirred = nullptr;  // who holds it still may come later than this
        }
    }
    core::destroy(inside_);
    net_free();
}

stream* station::add_stream(const char* name, const limits_t& limits, failure_t* error) noexcept {
    if (!inside_ || !name || !*name) return nullptr;
    inside& in = *inside_;
    const std::lock_guard held(in.lock);
    const auto same = [&](const stream_share& each) { return std::string_view(each->name()) == name; };
    if (std::ranges::any_of(in.streams, same)) {
        tell(error, "there is a stream \"%s\" already", name);
        return nullptr;
    }
    stream_share made(stream::create(name, limits, CORE_HERE));
    if (!made) return nullptr;
    made->in().stirred = inside::stir;
    made->in().stirred_arg = &in;
    try {
        in.streams.push_back(std::move(made));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return in.streams.back().get();
}

void station::remove_stream(stream* which) noexcept {
    if (!inside_ || !which) return;
    which->end();
    stream_share gone;
    {
        const std::lock_guard held(inside_->lock);
        const auto found =
            std::ranges::find_if(inside_->streams, [&](const auto& each) { return each.get() == which; });
        if (found == inside_->streams.end()) return;
        gone = std::move(*found);
        inside_->streams.erase(found);
        const std::lock_guard its(gone->in().lock);
        gone->in().stirred = nullptr;
    }
    end_demand(*gone);
}

stream* station::find(const char* name) noexcept {
    if (!inside_ || !name) return nullptr;
    const std::lock_guard held(inside_->lock);
    for (const stream_share& each : inside_->streams) {
        if (std::string_view(each->name()) != name) continue;
        each->keep();
        return each.get();
    }
    return nullptr;
}

void station::streams(void (*each)(void* arg, stream& which), void* arg) noexcept {
    if (!inside_) return;
    for (size_t i = 0; const stream_share one = inside_->stream_at(i); ++i)
        each(arg, *one);
}

int station::add(service* taken, failure_t* error) noexcept {
    std::unique_ptr<service> owned(taken);
    if (!owned || !inside_ || inside_->running) {
        tell(error, inside_ && inside_->running ? "the station runs already" : "no memory for a service");
        return 0;
    }
    try {
        inside_->services.push_back(std::move(owned));
        return 1;
    } catch (const std::bad_alloc&) {
        tell(error, "no memory for a service");
        return 0;
    }
}

int station::start(failure_t* error) noexcept {
    if (!inside_ || !inside_->bind || !inside_->stirred) {
        tell(error, "no memory");
        return 0;
    }
    inside& in = *inside_;
    if (in.running) return 1;
    in.running = true;
    in.control_thread = core_thread_start(&in, inside::control, nullptr, CORE_HERE);
    if (in.control_thread && in.open_services(*this, error) && in.start_threads(error) && in.listen(error)) return 1;
    if (!in.control_thread) tell(error, "cannot start a thread");
    stop();
    return 0;
}

bool station::inside::open_services(station& of, failure_t* error) noexcept {
    return std::ranges::all_of(services, [&](const auto& each) { return each->open(of, error) != 0; });
}

bool station::inside::start_threads(failure_t* error) noexcept {
    try {
        core::vector<service*> all;
        for (const auto& each : services)
            all.push_back(each.get());
        threads.reserve(wanted_threads);
        for (unsigned i = 0; i < wanted_threads; ++i) {
            core::owned_object<thread::inside> made(core::create<thread::inside>(CORE_HERE, *face, i));
            if (!made || !made->begin(all.data(), all.size(), error)) return false;
            threads.push_back(std::move(made));
        }
        return true;
    } catch (const std::bad_alloc&) {
        tell(error, "no memory");
        return false;
    }
}

/// Services that name one port share it; those that leave it open have one each.
bool station::inside::find_ports() noexcept {
    try {
        for (const auto& each : services) {
            if (!each->listens()) continue;
            const uint16_t wanted = each->port();
            auto found =
                std::ranges::find_if(ports, [&](const auto& known) { return wanted && known->port == wanted; });
            if (found == ports.end()) {
                core::owned_object<port_services> made(core::create<port_services>(CORE_HERE));
                if (!made) return false;
                made->port = wanted;
                ports.push_back(std::move(made));
                found = ports.end() - 1;
            }
            (*found)->services.push_back(each.get());
        }
        for (const auto& port : ports) {
            for (const auto& each : services) {
                const bool own = std::ranges::find(port->services, each.get()) != port->services.end();
                if (each->visits() && !own) port->visitors.push_back(each.get());
            }
        }
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool station::inside::listen(failure_t* error) noexcept {
    if (!find_ports()) {
        tell(error, "no memory");
        return false;
    }
    failure_t lacks;  // of all ports that no service needs
    for (const auto& each : ports) {
        failure_t lack;
        if (listen_on(*each, &lack)) continue;
        if (!do_without(*each)) {
            tell(error, "%s", lack.text);
            return false;
        }
        const failure_t before = lacks;
        tell(&lacks, "%s%s%s", before.text, *before.text ? "; " : "", lack.text);
    }
    if (*lacks.text) tell(error, "%s", lacks.text);
    return true;
}

/// @return false when a service needs the port
bool station::inside::do_without(port_services& port) noexcept {
    if (std::ranges::any_of(port.services, [](const service* each) { return each->needs_port(); })) return false;
    net::net_tcp_close(port.listener);
    for (service* each : port.services)
        each->set_port(0);
    return true;
}

/// Why nothing can listen there.
const char* obstacle(int error) noexcept {
    switch (error) {
        case socket_error_address_not_available:
            return "this host does not have that address";
        case socket_error_access:
            return "permission denied";
        case socket_error_too_many_open:
            return "too many open files";
        default:
            return "another program has that port";
    }
}

bool station::inside::listen_on(port_services& port, failure_t* told) noexcept {
    const uint16_t wanted = port.port;
    net::nt_ctx* const nt = threads.front()->nt;
    port.owner = this;
    const int error = net_tcp_try_listen(bind.get(), wanted);  // listening itself would log what the caller is told
    bool listening = error == 0 && net::net_tcp_create(port.listener, nt, CORE_HERE) == 0;
    if (listening && wanted == 0) {
        // The system's choice has to be known to listen on it.
        listening = net_socket_bind(port.listener->fd, bind.get(), 0) == 0;
        port.port = net_socket_get_near_port(port.listener->fd);
    }
    listening = listening && net::net_tcp_listen2(port.listener, bind.get(), port.port, &port, on_accept) == 0;
    // A taken port shows only here: the system then listens on another.
    if (!listening || net_socket_get_near_port(port.listener->fd) != port.port) {
        tell(told, "cannot listen on %s:%u: %s", bind.get(), unsigned{wanted}, obstacle(error));
        return false;
    }
    for (service* each : port.services)
        each->set_port(port.port);
    return true;
}

void station::inside::on_accept(void* arg, int fd, const sockaddr_in* peer) noexcept {
    const auto& port = *static_cast<const port_services*>(arg);
    auto* made = core::create<arrival>(CORE_HERE, arrival{&port, fd, *peer});
    thread& to = static_cast<inside*>(port.owner)->face->least_loaded();
    ++to.in().load;  // counted from here on, so that a burst spreads
    if (made && to.call(on_arrival, made)) return;
    --to.in().load;
    core::destroy(made);
    net_socket_close(fd);
}

void station::inside::on_arrival(thread& on, void* arg) noexcept {
    const core::owned_object<arrival> came(static_cast<arrival*>(arg));
    receive_at(on, *came->port, came->fd, came->peer);
    --on.in().load;
}

// The control thread: work off the loops, and who is wanted.
void station::inside::control(void* arg, thread_ctx* self) noexcept {
    auto& in = *static_cast<inside*>(arg);
    core_thread_setname(self, "station");
    while (true) {
        work_item item;
        while (in.take_work(item)) {
            item.work(item.arg);
            if (!item.done || !item.back) continue;
            while (!item.back->call(item.done, item.arg))
                core_thread_sleep(self, 10);  // until there is memory
        }
        // Nothing is taken any more once it was cancelled: what came before that is run.
        if (core_thread_iscancel(self) && !in.has_work()) return;
        if (core_thread_iscancel(self)) continue;
        const uint64_t next = in.settle_demands();
        const uint64_t now = core_timer();
        const uint64_t wait = next > now ? (next - now + 999) / 1000 : 1;
        event_wait(in.stirred, next == 0 ? event_infinite : static_cast<uint32_t>(std::min<uint64_t>(wait, 60'000)));
    }
}

bool station::inside::has_work() noexcept {
    const std::lock_guard held(lock);
    return !work.empty();
}

stream_share station::inside::stream_at(size_t index) noexcept {
    const std::lock_guard held(lock);
    if (index >= streams.size()) return nullptr;
    streams[index]->keep();
    return stream_share(streams[index].get());
}

bool station::inside::take_work(work_item& out) noexcept {
    const std::lock_guard held(lock);
    if (work.empty()) return false;
    out = work.front();
    work.erase(work.begin());
    return true;
}

/// Streams are held while they are asked, as the lock is not.
uint64_t station::inside::settle_demands() noexcept {
    const uint64_t now = core_timer();
    uint64_t next = 0;
    for (size_t i = 0; const stream_share each = stream_at(i); ++i) {
        const uint64_t due = settle_demand(*each, now);
        if (due != 0 && (next == 0 || due < next)) next = due;
    }
    return next;
}

void station::stop() noexcept {
    if (!inside_ || !inside_->running) return;
    inside& in = *inside_;
    for (const auto& each : in.ports)
        net::net_tcp_close(each->listener);
    {
        const std::lock_guard held(in.lock);
        in.running = false;
    }
    // What was ordered still finds its thread. Then connections end, the first thread's last: others send by it. Then
    // the loops end, and what threads called of each other is run.
    core_thread_cancel(in.control_thread);
    event_set(in.stirred);
    core_thread_stop(in.control_thread);
    std::for_each(in.threads.rbegin(), in.threads.rend(), [](const auto& each) { each->close(); });
    for (const auto& each : in.threads)
        each->end_loop();
    while (std::ranges::count_if(in.threads, [](const auto& each) { return each->drain(); }) != 0) {
    }
    in.threads.clear();
    in.ports.clear();
    for (size_t i = 0; const stream_share each = in.stream_at(i); ++i)
        end_demand(*each);
}

const char* station::bind() const noexcept { return inside_ && inside_->bind ? inside_->bind.get() : ""; }
unsigned station::thread_count() const noexcept { return static_cast<unsigned>(inside_->threads.size()); }
thread& station::thread_at(unsigned index) noexcept { return inside_->threads[index]->face; }

thread& station::least_loaded() noexcept {
    const auto least =
        std::ranges::min_element(inside_->threads, {}, [](const auto& each) { return each->load.load(); });
    return (*least)->face;
}

int station::run(void (*work)(void* arg), void (*done)(thread& on, void* arg), void* arg, thread& back) noexcept {
    if (!inside_ || !work) return 0;
    {
        const std::lock_guard held(inside_->lock);
        if (!inside_->running) return 0;
        try {
            inside_->work.push_back({work, done, arg, &back});
        } catch (const std::bad_alloc&) {
            return 0;
        }
    }
    event_set(inside_->stirred);
    return 1;
}

station::totals_t station::totals() const noexcept {
    totals_t sum{};
    if (!inside_) return sum;
    for (const auto& each : inside_->threads) {
        sum.watching += each->counters.watching;
        sum.bytes += each->counters.bytes;
        sum.frames += each->counters.frames;
        sum.dropped += each->counters.dropped;
    }
    return sum;
}

}  // namespace media
