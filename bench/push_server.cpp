// What a push costs: an RTSP server of one clip whose pictures are pushed, a block of them in turn, from the network
// thread that sends them, and from a thread beside it (Linux).
//
//   push_server CLIP.h264 [FPS]
//
// Prints its address, and "ready". At the end of its input it prints processor time a picture, in microseconds, as the
// median of the blocks: pushed from the network thread, from beside, and the second against the block before it.
#include "avc/access_units.h"
#include "avc/fcc.h"
#include "avc/frame.h"
#include "core/file.h"
#include "core/memory.h"
#include "core/time.h"
#include "inet/net_thread.h"
#include "media/rtsp_service.h"
#include "media/station.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

namespace {

constexpr uint64_t block = 10;    // pictures
constexpr uint64_t left_out = 2;  // of a block: the thread before it may be at work still
constexpr uint64_t warm_up = 100;

double processor_time() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return 1e6 * static_cast<double>(time.tv_sec) + 1e-3 * static_cast<double>(time.tv_nsec);
}

double median(std::vector<double> of) {
    if (of.empty()) return 0;
    const auto middle = of.begin() + static_cast<std::ptrdiff_t>(of.size() / 2);
    std::nth_element(of.begin(), middle, of.end());
    return *middle;
}

/// On two threads, one at a time: each orders the next.
struct source {
    void start(net::nt_ctx* sender, net::nt_ctx* beside) {
        began = core_timer();
        base = time_now();
        ticks[0] = net::net_nt_command_create(sender, this, on_tick);
        ticks[1] = net::net_nt_command_create(beside, this, on_tick);
        net::net_nt_command_at(ticks[0], began);
    }

    static void on_tick(void* arg, net::command_ctx*) {
        auto& self = *static_cast<source*>(arg);
        if (self.over) return;
        const uint64_t at = self.count * 1'000'000 / self.fps;
        av::frame_t picture = *self.pictures[self.count % self.pictures.size()];
        picture.time = self.base + at;
        self.into->push(picture);
        self.count_time(++self.count);
        net::net_nt_command_at(self.ticks[self.count / block % 2], self.began + self.count * 1'000'000 / self.fps);
    }

    void count_time(uint64_t number) {
        if (number % block == left_out) begin = processor_time();
        if (number % block != 0 || number < warm_up) return;
        costs[(number - 1) / block % 2].push_back((processor_time() - begin) / (block - left_out));
    }

    std::vector<av::frame_t*> pictures;
    uint64_t fps = 25;
    media::stream* into = nullptr;
    net::command_ctx* ticks[2] = {};
    uint64_t began = 0, base = 0, count = 0;
    double begin = 0;
    std::vector<double> costs[2];
    std::atomic<bool> over = false;
};

void keep(void* pictures, buffer_t unit) {
    av::frame_t* const made = avc_frame_create(av::fcc_h264, 0, unit.data, unit.size, CORE_HERE);
    if (made) static_cast<std::vector<av::frame_t*>*>(pictures)->push_back(made);
}

}  // namespace

int main(int argc, char** argv) {
    size_t size = 0;
    uint8_t* const file = argc > 1 ? core_file_load(argv[1], 1 << 30, &size, CORE_HERE) : nullptr;
    source clip;
    if (argc > 2) clip.fps = std::max(std::strtoul(argv[2], nullptr, 10), 1UL);
    av::AccessUnits units(CORE_HERE);
    units.take({file, static_cast<uint32_t>(size)}, keep, &clip.pictures);
    units.end(keep, &clip.pictures);
    media::station station;
    clip.into = station.add_stream("live", {.frames = 8192});
    media::service* const rtsp = media::rtsp_service({.port = 0});
    net::Thread beside;
    beside.start();
    if (clip.pictures.empty() || !clip.into || !station.add(rtsp) || !station.start() || !beside.nt) {
        std::fprintf(stderr, "usage: push_server CLIP.h264 [FPS]\n");
        return 2;
    }
    clip.start(station.thread_at(0).nt(), beside.nt);
    std::printf("rtsp://127.0.0.1:%u/live\nready\n", unsigned{rtsp->port()});
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    clip.over = true;
    beside.stop();
    station.stop();
    std::vector<double> ratios;
    for (size_t i = 0; i < std::min(clip.costs[0].size(), clip.costs[1].size()); ++i)
        ratios.push_back(clip.costs[1][i] / clip.costs[0][i]);
    std::printf("within=%.1f beside=%.1f ratio=%.3f\n", median(clip.costs[0]), median(clip.costs[1]), median(ratios));
    return 0;
}
