#include "pipe_source.h"

#include "options.h"
#include "platform/system.h"
#include "program.h"

#include "avc/fcc.h"
#include "common/h264.h"
#include "core/memory.h"
#include "core/time.h"

#include <algorithm>
#include <vector>

namespace camera {
namespace {

constexpr size_t most_at_once = 65536;
constexpr int longest_wait = 100;  // milliseconds
/// Pictures that come together still need times that players can tell apart.
constexpr uint64_t shortest_step = 1'000;

}  // namespace

pipe_source::pipe_source(media::stream& into) : into_(into), units_(CORE_HERE) { into_.keep(); }

pipe_source::~pipe_source() {
    stop();
    media::stream::drop(&into_);
}

bool pipe_source::start() {
    into_.declare(media::kind_t::video, {.fcc = av::fcc_h264});
    thread_ = core_thread_start(this, &pipe_source::run, nullptr, CORE_HERE);
    return thread_ != nullptr;
}

void pipe_source::run(void* arg, thread_ctx* self) {
    auto& pipe = *static_cast<pipe_source*>(arg);
    core_thread_setname(self, "pipe");
    std::vector<uint8_t> room(most_at_once);
    for (int count = 0; count >= 0 && !core_thread_iscancel(self);) {
        count = apps::platform::read_input(room, longest_wait);
        if (count <= 0) continue;
        if (pipe.time_ == 0) pipe.time_ = time_now();
        pipe.units_.take({room.data(), static_cast<uint32_t>(count)}, &pipe_source::on_unit, &pipe);
    }
    pipe.units_.end(&pipe_source::on_unit, &pipe);
    pipe.into_.end();
    pipe.ended_ = true;
}

void pipe_source::on_unit(void* arg, buffer_t unit) { static_cast<pipe_source*>(arg)->push(unit); }

/// Pictures have the time at which they come, in which those that change places cannot be shown.
void pipe_source::check_order(buffer_t unit) {
    h264_info_t info{};
    if (!h264_parse({unit.data, unit.size}, nullptr, nullptr, &info)) return;
    if (!checked_ && info.max_num_reorder_frames > 0)
        apps::complain(program_name, "the pipe brings B-pictures, which will be shown out of order; encode with -bf 0");
    checked_ = true;
}

void pipe_source::push(buffer_t unit) {
    if (!checked_) check_order(unit);
    const uint32_t left_out = units_.left_out();
    if (left_out != left_out_) into_.gap();  // what follows builds on it
    left_out_ = left_out;
    av::frame_t* frame = avc_frame_create(av::fcc_h264, time_, unit.data, unit.size, CORE_HERE);
    if (frame) {
        into_.push(*frame, {.utc = time_});
    } else {
        into_.gap();
    }
    avc_frame_need(frame);
    // The first bytes of the next one have just come.
    time_ = std::max(time_now(), time_ + shortest_step);
}

}  // namespace camera
