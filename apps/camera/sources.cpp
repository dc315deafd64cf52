#include "sources.h"

#include "program.h"

#include <algorithm>
#include <utility>

namespace camera {
namespace {

/// Of 512 descriptors a source takes up to eight: one connection, or two, and two ports for each of three tracks.
constexpr size_t sources_of_a_thread = 60;
/// After the last viewer has left. A description may wait five seconds for the formats before there is a viewer.
constexpr uint64_t linger = 10'000'000;

}  // namespace

net::nt_ctx* sources::thread_for(size_t index) {
    if (index % sources_of_a_thread == 0) {
        threads_.push_back(std::make_unique<net::Thread>());
        threads_.back()->start();
        net::net_nt_set_name(threads_.back()->nt, "sources");
    }
    return threads_.back()->nt;
}

bool sources::open(const options& wanted, media::station& station, media::failure_t& error) {
    on_demand_ = wanted.on_demand;
    for (const source& each : wanted.sources) {
        media::stream* const stream = station.add_stream(each.name.c_str(), {}, &error);
        if (!stream) return false;
        names_.push_back(each.name);
        if (each.url == "-") {
            pipe_ = std::make_unique<pipe_source>(*stream);
            continue;
        }
        watched_.push_back(std::make_unique<watched>(
            each, media::watcher::settings_t{
                      .transport = wanted.transport, .insist = true, .nt = thread_for(watched_.size())}));
        watched& made = *watched_.back();
        made.watcher.into(*stream);
        made.watcher.on_event(&watched::on_event, &made);
        if (on_demand_) stream->on_demand(&watched::on_wanted, &made, linger);
    }
    return true;
}

bool sources::start(media::failure_t& error) {
    const auto begin = [&](const auto& each) { return each->watcher.start(&error) != 0; };
    if (!on_demand_ && !std::ranges::all_of(watched_, begin)) return false;
    if (!pipe_ || pipe_->start()) return true;
    media::tell(&error, "cannot start a thread");
    return false;
}

void sources::stop() {
    for (const auto& each : watched_)
        each->watcher.stop();
    if (pipe_) pipe_->stop();
    for (const auto& each : threads_)
        each->stop();
}

size_t sources::fetched() const {
    return static_cast<size_t>(std::ranges::count_if(
        watched_, [](const auto& each) { return each->watcher.status().state == media::watcher::state_t::playing; }));
}

/// Tells what changes, not every attempt.
void sources::watched::on_event(void* arg, const media::watch_event_t& event) {
    auto* self = static_cast<watched*>(arg);
    using e = media::watch_event_t;
    if (event.what == e::pausing && !std::exchange(self->lost, true)) {
        apps::complain(program_name, self->name + ": " + event.text + ", trying again");
    } else if (event.what == e::playing && std::exchange(self->lost, false)) {
        apps::complain(program_name, self->name + ": is there again");
    } else if (event.what == e::falls_back) {
        apps::complain(program_name, self->name + ": " + event.text + ", trying tcp");
    } else if (event.what == e::track_refused) {
        apps::complain(program_name, self->name + ": " + event.text + ", going on without that track");
    }
}

void sources::watched::on_wanted(void* arg, int yes) {
    auto* self = static_cast<watched*>(arg);
    if (yes) {
        self->watcher.start();
    } else {
        self->watcher.stop();
    }
}

}  // namespace camera
