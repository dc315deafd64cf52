// Module "reader": plays recordings of a stream into its track, from the moment on that it is told over the bus.
#include "film.h"
#include "program.h"

#include "core/json.h"
#include "core/log.h"
#include "core/owned.h"
#include "core/profile.h"
#include "core/text.h"
#include "core/thread.h"
#include "core/time.h"
#include "inet/net_graph.h"
#include "inet/net_node.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace {

constexpr int file_not_found = -13;

using bus_handle = core::owned<profile_ctx, profile_close>;

struct order_t {
    uint64_t start = 0;
    double speed = 1;
};

class archive_reader {
public:
    explicit archive_reader(const char* json);
    ~archive_reader() { stop(); }
    archive_reader(const archive_reader&) = delete;
    archive_reader& operator=(const archive_reader&) = delete;

    int start() noexcept;
    void stop() noexcept { core_thread_stop(thread_); }

private:
    static void on_bus(void* arg, profile_ctx*, profile_event_t event, const param_t* params);
    static void run(void* arg, thread_ctx* self);
    void find_folder();
    bool is_interrupted() noexcept;
    void play(const order_t& order);
    std::unique_ptr<reader::film> open(const apps::recording& of) const;
    std::unique_ptr<reader::film> first_film(uint64_t time) const;
    std::unique_ptr<reader::film> film_after(uint64_t start) const;
    bool put_all(reader::film& film, double speed);
    bool wait_for(uint64_t time, double speed);
    void put_end(int code) const noexcept;

    net::Node settings_;
    std::string stream_;
    std::filesystem::path folder_;

    std::mutex lock_;
    std::optional<order_t> order_;  ///< the last one, until it is played

    thread_ctx* thread_ = nullptr;
    thread_ctx* self_ = nullptr;  ///< the same, on that thread
    uint64_t began_ = 0;          ///< when the first frame of an order was put, by core_timer()
    uint64_t first_ = 0;          ///< and its time; 0 before it

    core::owned<event_ctx, _event_free> news_;  ///< an order, or the end
    bus_handle track_;
    bus_handle control_;  // last: orders may come as soon as it is there
};

archive_reader::archive_reader(const char* json) : news_(_event_create(CORE_HERE)) {
    char error[200];
    if (!settings_.parse(json, error, sizeof error)) throw std::runtime_error(error);
    stream_ = settings_.text("arc_key2");
    if (!apps::is_recording_name(stream_)) throw std::runtime_error("'" + stream_ + "' is no name of a recording");
    find_folder();
    const core::owned_text track(settings_.bus_name(settings_.text("out"), CORE_HERE));
    const core::owned_text control(settings_.bus_name(nullptr, CORE_HERE));
    if (!news_ || !track || !control) throw std::bad_alloc();
    track_.reset(core_profile_open(track.get(), CORE_HERE));
    control_.reset(core_profile_open2(control.get(), this, &archive_reader::on_bus, CORE_HERE));
    if (!track_ || !control_) throw std::bad_alloc();
}

/// The program knows where the recordings of a stream stand.
void archive_reader::find_folder() {
    const core::owned_text name(core_json_encode(stream_.c_str(), CORE_HERE));
    if (!name) throw std::bad_alloc();
    const std::string wanted = std::string("{ \"key2\": \"") + name.get() + "\" }";
    const param_t question[] = {
        {"command", "call"}, {"plugin", "archive"}, {"method", "directory"}, {"params", wanted.c_str()}, {}};
    const bus_handle archive(core_profile_open("plugin_methods_archive", CORE_HERE));
    const core::owned_text answer(profile_request(archive.get(), question, CORE_HERE));
    const core::owned<json_t, yajl_tree_free> root(yajl_tree_parse(answer ? answer.get() : "", nullptr, 0));
    const char* folder = json_text(json_get(root.get(), "directory"));
    if (!folder) throw std::runtime_error("nobody says where the recordings of '" + stream_ + "' are");
    folder_ = apps::utf8_path(folder);
}

int archive_reader::start() noexcept {
    const auto wake = [](void* arg, thread_ctx*) { event_set(static_cast<archive_reader*>(arg)->news_.get()); };
    if (!thread_) thread_ = core_thread_start(this, &archive_reader::run, wake, CORE_HERE);
    return thread_ ? 0 : -1;
}

void archive_reader::on_bus(void* arg, profile_ctx*, profile_event_t event, const param_t* params) {
    const char* command = event == profile_put ? param_get_text(params, "command") : nullptr;
    if (!command || std::string_view(command) != "play") return;
    auto* self = static_cast<archive_reader*>(arg);
    order_t order;
    order.start = static_cast<uint64_t>(std::max<int64_t>(param_get_integer(params, "start", 0), 0));
    if (const char* speed = param_get_text(params, "speed"))
        std::from_chars(speed, speed + core_strlen(speed), order.speed);
    if (!std::isfinite(order.speed) || order.speed <= 0) order.speed = 1;
    {
        const std::lock_guard guard(self->lock_);
        self->order_ = order;
    }
    event_set(self->news_.get());
}

void archive_reader::run(void* arg, thread_ctx* thread) {
    auto& self = *static_cast<archive_reader*>(arg);
    core_thread_setname(thread, "reader");
    self.self_ = thread;
    while (!core_thread_iscancel(thread)) {
        std::optional<order_t> order;
        {
            const std::lock_guard guard(self.lock_);
            order.swap(self.order_);
        }
        if (!order) {
            event_wait(self.news_.get(), event_infinite);
            continue;
        }
        try {
            self.play(*order);
        } catch (const std::exception& reason) {
            core_log_err("reader: %s: %s", self.stream_.c_str(), reason.what());
            self.put_end(-1);
        }
    }
}

bool archive_reader::is_interrupted() noexcept {
    if (core_thread_iscancel(self_)) return true;
    const std::lock_guard guard(lock_);
    return order_.has_value();
}

void archive_reader::play(const order_t& order) {
    first_ = 0;
    auto film = first_film(order.start);
    if (!film) return put_end(file_not_found);
    while (film) {
        if (!put_all(*film, order.speed)) return;
        auto next = film_after(film->named());
        // Media time does not run back where the clock was set, or a name is a millisecond early.
        if (next) next->not_before(film->end());
        film = std::move(next);
    }
    put_end(0);
}

std::unique_ptr<reader::film> archive_reader::open(const apps::recording& of) const {
    auto film = reader::film::open(of);
    if (!film) core_log_err("reader: %s cannot be read", apps::utf8_text(of.path).c_str());
    return film;
}

/// The recording that holds a moment, or else the first one behind it.
std::unique_ptr<reader::film> archive_reader::first_film(uint64_t time) const {
    const auto all = apps::recordings_of(folder_, stream_);
    const auto behind = std::ranges::upper_bound(all, time, {}, &apps::recording::start);
    // Of files that cannot be read nobody knows how far they reach: the one before may be meant.
    for (auto each = behind; each != all.begin();) {
        auto film = open(*--each);
        if (film && film->go(time)) return film;
        if (film) break;
    }
    for (auto each = behind; each != all.end(); ++each) {
        auto film = open(*each);
        if (film && film->go(time)) return film;
    }
    return nullptr;
}

/// The folder is read again for each file: a recording goes on, and its oldest files are deleted.
std::unique_ptr<reader::film> archive_reader::film_after(uint64_t start) const {
    const auto all = apps::recordings_of(folder_, stream_);
    for (auto each = std::ranges::upper_bound(all, start, {}, &apps::recording::start); each != all.end(); ++each) {
        if (auto film = open(*each)) return film;
    }
    return nullptr;
}

/// @return false when it was interrupted
bool archive_reader::put_all(reader::film& film, double speed) {
    av::frame_t frame{};
    int result = 0;
    while ((result = film.next(frame)) == 1) {
        if (!wait_for(frame.time, speed)) return false;
        const param_t params[] = {{"frame", static_cast<const void*>(&frame)}, {}};
        core_profile_put(track_.get(), params);
    }
    if (result < 0) {
        const std::string name = apps::recording_file(stream_, film.named());
        core_log_err("reader: %s is damaged, the rest of it is left out", name.c_str());
    }
    return true;
}

/// @return false when there is something else to do
bool archive_reader::wait_for(uint64_t time, double speed) {
    if (first_ == 0) {
        first_ = time;
        began_ = core_timer();
    }
    const double due = static_cast<double>(time - std::min(first_, time)) / speed;
    while (!is_interrupted()) {
        const double left = due - static_cast<double>(core_timer() - began_);
        if (left <= 0) return true;
        constexpr double longest = 60e6;
        event_wait(news_.get(), static_cast<uint32_t>(std::min(left, longest) / 1000) + 1);
    }
    return false;
}

void archive_reader::put_end(int code) const noexcept {
    const param_t params[] = {{"end", int64_t{code}}, {}};
    core_profile_put(track_.get(), params);
}

}  // namespace

INET_PLUGIN void* plugin_open(const param_t* params) noexcept {
    try {
        return std::make_unique<archive_reader>(param_get_text(params, "json")).release();
    } catch (const std::exception& reason) {
        net_graph_reason("%s", reason.what());
        return nullptr;
    }
}

INET_PLUGIN int plugin_exec(void* instance, const param_t* params) noexcept {
    auto* self = static_cast<archive_reader*>(instance);
    if (param_get_text(params, "start")) return self->start();
    self->stop();
    return 0;
}

INET_PLUGIN void plugin_close(void* instance) noexcept {
    std::unique_ptr<archive_reader>(static_cast<archive_reader*>(instance));
}
