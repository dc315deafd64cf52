#include "clip_source.h"

#include "core/time.h"

#include <algorithm>
#include <utility>

namespace camera {

void clip_source::add(const channel& played, media::stream& into) {
    for (const track& each : played.tracks) {
        const av::frame_t& first = each.frame(0);
        auto* const config = const_cast<uint8_t*>(each.config().data());  // which is copied
        into.declare(media::kind_of(each.fcc()), {.fcc = each.fcc(),
                                                  .width = first.width,
                                                  .height = first.height,
                                                  .rate = first.rate,
                                                  .channels = first.channels,
                                                  .config = {config, static_cast<uint32_t>(each.config().size())}});
        tracks_.push_back({&each, &into, 0, 0});
    }
}

bool clip_source::start(net::nt_ctx* on) noexcept {
    base_ = time_now();
    began_ = core_timer();
    tick_ = net::net_nt_command_create(on, this, &clip_source::on_tick);
    net::net_nt_command_at(tick_, began_);
    return tick_ != nullptr;
}

void clip_source::stop() noexcept { net::net_nt_command_destroy(std::exchange(tick_, nullptr)); }

void clip_source::on_tick(void* arg, net::command_ctx* command) {
    auto* self = static_cast<clip_source*>(arg);
    const uint64_t position = core_timer() - self->began_;
    // In the order of their times, over all tracks, however late the thread is.
    const auto earliest = [&] { return std::ranges::min_element(self->tracks_, {}, &next_frame::time); };
    auto next = earliest();
    for (; next->time <= position; next = earliest())
        push(*next, self->base_);
    net::net_nt_command_at(command, self->began_ + next->time);
}

void clip_source::push(next_frame& next, uint64_t base) {
    av::frame_t frame = next.of->frame(next.number);
    frame.time = base + next.time - next.of->delay();
    next.into->push(frame);
    ++next.number;
    next.time = next.of->time(next.number);
}

}  // namespace camera
