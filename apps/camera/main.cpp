// inet-camera: a clip becomes a network camera.
#include "clip.h"
#include "options.h"
#include "rtsp_service.h"
#include "terminal.h"

#include "core/log.h"
#include "core/memory.h"
#include "core/thread.h"
#include "core/time.h"
#include "inet/inet.h"

#include <csignal>
#include <cstdio>
#include <string>

namespace {

volatile std::sig_atomic_t interrupted = 0;

void on_interrupt(int) { interrupted = 1; }

int fail(const std::string& reason) {
    std::fprintf(stderr, "inet-camera: %s\n", reason.c_str());
    return 1;
}

void print_addresses(const camera::clip& played, const camera::options& settings, uint16_t port) {
    for (const camera::channel& each : played.channels) {
        std::printf("rtsp://%s:%u/%s\n", settings.bind.c_str(), unsigned{port}, each.path.c_str());
    }
    std::printf("ready; watch with: ffplay rtsp://%s:%u/%s   (Ctrl-C ends the camera)\n", settings.bind.c_str(),
                unsigned{port}, played.channels.front().path.c_str());
    std::fflush(stdout);
}

/// Shows the live line once a second until Ctrl-C.
void show_status(const camera::rtsp_service& service) {
    camera::status_line line;
    uint64_t shown = core_timer();
    uint64_t bytes = 0;
    while (!interrupted) {
        core_sleep(100);
        const uint64_t now = core_timer();
        if (now - shown < 1'000'000) continue;
        const uint64_t sent = service.bytes_sent();
        line.show("viewers %u   %.1f Mbit/s   pictures dropped %llu", service.viewers(),
                  static_cast<double>(sent - bytes) * 8 / static_cast<double>(now - shown),
                  static_cast<unsigned long long>(service.pictures_dropped()));
        bytes = sent;
        shown = now;
    }
}

int serve(const camera::options& settings) {
    std::string error;
    const auto played = camera::load_clip(settings, error);
    if (!played) return fail(error);
    camera::rtsp_service service(*played, settings);
    if (!service.start(error)) return fail(error);
    print_addresses(*played, settings, service.port());
    show_status(service);
    return 0;
}

/// Names what is still held, which is nothing unless there is a mistake in the program.
bool nothing_held() {
    const auto print = [](void*, const mem_site_t* site) {
        std::fprintf(stderr, "inet-camera: held: %s:%d: %zu blocks, %zu bytes\n", site->file, site->line, site->blocks,
                     site->bytes);
    };
    return core_mem_report(print, nullptr) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string error;
    const auto settings = camera::parse_options(argc, argv, error);
    if (!settings) return fail(error + "; see inet-camera --help");
    if (settings->help) {
        std::fputs(camera::usage().c_str(), stdout);
        return 0;
    }
    std::signal(SIGINT, on_interrupt);
    std::signal(SIGTERM, on_interrupt);
    const uint32_t console = core_log_sink_console("console");
    const uint32_t file = settings->log.empty() ? 0 : core_log_sink_file("*", settings->log.c_str());
    int status = 1;
    if (!settings->log.empty() && !file) {
        fail("cannot write " + settings->log);
    } else {
        net_init();
        status = serve(*settings);
        net_free();
    }
    core_log_sink_rem(file);
    core_log_sink_rem(console);
    return nothing_held() ? status : 1;
}
