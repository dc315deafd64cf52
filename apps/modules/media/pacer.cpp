#include "pacer.h"

#include "core/time.h"

#include <algorithm>
#include <new>
#include <utility>

namespace media_module {

std::shared_ptr<pacer> pacer::of_this_start() {
    static std::mutex lock;
    static std::vector<std::weak_ptr<pacer>> all;
    net::graph_start_t start = net_graph_start();
    if (start.time == 0) start.time = core_timer();  // a host without a graph
    const std::lock_guard guard(lock);
    std::erase_if(all, [](const auto& each) { return each.expired(); });
    for (const auto& each : all) {
        auto found = each.lock();
        if (found && found->start_.time == start.time && found->start_.thread == start.thread) return found;
    }
    auto made = std::make_shared<pacer>(start);
    all.push_back(made);
    return made;
}

pacer::pacer(const net::graph_start_t& start) : start_(start), base_(time_now() - (core_timer() - start.time)) {
    if (!start.thread) {
        net::net_nt_start(own_, CORE_HERE);
        net::net_nt_set_name(own_, "media");
    }
    tick_ = net::net_nt_command_create(start.thread ? start.thread : own_, this, &pacer::on_tick);
    if (tick_) return;
    net::net_nt_stop(own_);
    throw std::bad_alloc();
}

pacer::~pacer() {
    net::net_nt_command_destroy(tick_);
    net::net_nt_stop(own_);
}

void pacer::add(played_t& played) {
    {
        const std::lock_guard guard(lock_);
        tracks_.push_back(&played);
    }
    net::net_nt_command_at(tick_, start_.time);
}

void pacer::remove(const played_t& played) noexcept {
    const std::lock_guard guard(lock_);
    std::erase(tracks_, &played);
}

void pacer::on_tick(void* arg, net::command_ctx* command) {
    auto& self = *static_cast<pacer*>(arg);
    const std::lock_guard guard(self.lock_);
    if (self.tracks_.empty()) return;
    const uint64_t position = core_timer() - self.start_.time;
    const auto earliest = [&] { return *std::ranges::min_element(self.tracks_, {}, &played_t::time); };
    // However late the thread is.
    played_t* next = earliest();
    for (; next->time <= position; next = earliest())
        self.put_next(*next);
    net::net_nt_command_at(command, self.start_.time + next->time);
}

void pacer::put_next(played_t& next) const noexcept {
    av::frame_t frame = next.of->frame(next.number);
    frame.time = base_ + next.time - next.of->delay();
    const param_t params[] = {{"frame", static_cast<const void*>(&frame)}, {}};
    core_profile_put(next.bus, params);
    next.time = next.of->time(++next.number);
}

}  // namespace media_module
