// inet-camera: a clip, other cameras or a pipe become a network camera.
#include "clip_graph.h"
#include "keeper.h"
#include "options.h"
#include "program.h"
#include "sources.h"
#include "web.h"

#include "core/array.h"
#include "core/memory.h"
#include "core/thread.h"
#include "core/time.h"
#include "inet/net_socket.h"
#include "media/rtsp_service.h"
#include "media/station.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

/// @param reason  empty when it has been told
int fail(const std::string& reason) {
    if (!reason.empty()) apps::complain(camera::program_name, reason);
    return apps::status_failed;
}

/// Addresses that a player can open: behind 0.0.0.0 stand those of all interfaces.
std::vector<std::string> reachable(const std::string& bind) {
    sockaddr_in address{};
    if (net_addr_setup(address, bind.c_str(), 0) != 0 || address.sin_addr.s_addr != INADDR_ANY) return {bind};
    std::vector<std::string> found;
    char** const texts = net_socket_get_if(CORE_HERE);
    for (char** each = texts; each && *each; ++each) {
        found.emplace_back(*each);
        core_mfree(*each);
    }
    core_array_free(reinterpret_cast<void**>(texts));
    if (found.empty()) found.emplace_back("127.0.0.1");
    return found;
}

/// @param http  0 for none
/// @param lack  why there is no page, when one was wanted
void print_addresses(const std::vector<std::string>& paths, const camera::options& settings, uint16_t port,
                     uint16_t http, const char* lack) {
    const std::vector<std::string> hosts = reachable(settings.bind);
    if (*lack) std::printf("no page for browsers: %s; --http PORT takes another port\n", lack);
    for (const std::string& host : hosts) {
        if (http) std::printf("http://%s:%u/\n", host.c_str(), unsigned{http});
        for (const std::string& each : paths)
            std::printf("rtsp://%s:%u/%s\n", host.c_str(), unsigned{port}, apps::coded_path(each.c_str()).c_str());
    }
    std::printf("ready; watch with: ffplay rtsp://%s:%u/%s   (Ctrl-C ends the camera)\n", hosts.front().c_str(),
                unsigned{port}, apps::coded_path(paths.front().c_str()).c_str());
    std::fflush(stdout);
}

/// Shows the live line once a second until Ctrl-C, or until all has been sent.
void show_status(const media::station& station, const camera::sources& sources, const camera::web& web) {
    apps::status_line line;
    uint64_t shown = core_timer();
    apps::rate_of bytes;
    while (!apps::interrupted()) {
        core_sleep(250);
        const uint64_t now = core_timer();
        if (now - shown < 900'000) continue;
        const media::station::totals_t totals = station.totals();
        if (sources.are_over() && totals.watching == 0) return;
        line.show("viewers %u   %.1f Mbit/s   pictures dropped %llu   sources %zu/%zu",
                  totals.watching + web.film_viewers(), bytes.now(totals.bytes) * 8e-6,
                  static_cast<unsigned long long>(totals.dropped), sources.fetched(), sources.names().size());
        shown = now;
    }
}

/// Seconds between two signs of life of ordinary players.
constexpr unsigned players_patience = 60;

media::rtsp_settings_t rtsp_settings(const camera::options& settings) {
    const auto text = [](const std::string& from) { return from.empty() ? nullptr : from.c_str(); };
    return {.port = settings.rtsp_port,
            .user = text(settings.login.user),
            .password = text(settings.login.password),
            .at_key = settings.start == camera::start_t::key,
            .backlog = settings.backlog,
            .stall = settings.stall,
            .timeout = settings.timeout,
            .multicast = text(settings.multicast),
            .multicast_port = settings.multicast_port,
            .ttl = settings.ttl};
}

int serve(const camera::options& settings) {
    camera::sources fetched;  // the station, which calls for what is wanted, ends before
    media::station station({.bind = settings.bind.c_str(), .threads = settings.threads});
    media::failure_t why;
    camera::clip_graph played;
    if (!played.open(settings, station, why)) return fail(why.text);
    std::vector<std::string> paths = played.names();
    if (!fetched.open(settings, station, why)) return fail(why.text);
    paths.insert(paths.end(), fetched.names().begin(), fetched.names().end());
    media::service* const rtsp = media::rtsp_service(rtsp_settings(settings));
    camera::keeper kept;
    if (!settings.record.empty() && !kept.open(settings.record, settings.keep, station, why)) return fail(why.text);
    camera::web web(station, settings);
    if (played.names().size() > 1) web.show_in_place(paths[0], paths[1]);  // both of the clip
    if (!station.add(rtsp, &why) || (settings.http_port && !web.open(settings, *rtsp, kept.names(), why)))
        return fail(why.text);
    // Whatever fails from here on: the threads that use what stands here end first.
    const struct ending {
        camera::clip_graph& played;
        media::station& station;
        ~ending() {
            played.stop();
            station.stop();
        }
    } last{played, station};
    if (!station.start(&why) || !fetched.start(why) || !web.start(why)) return fail(why.text);
    if (!played.start(station.thread_at(0).nt())) return fail("");
    if (!kept.start()) return fail("no thread for the recordings");
    print_addresses(paths, settings, rtsp->port(), web.port(), why.text);
    if (settings.timeout < players_patience) {
        apps::complain(camera::program_name, "--timeout " + std::to_string(settings.timeout) +
                                                 ": players that show life once a minute, as most do, will be cut");
    }
    show_status(station, fetched, web);
    played.stop();
    kept.stop();
    web.stop();
    station.stop();
    fetched.stop();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments = apps::start(argc, argv);
    std::string error;
    const auto settings = camera::parse_options(arguments, error);
    if (!settings) {
        apps::complain(camera::program_name, error + "; see inet-camera --help");
        return apps::status_usage;
    }
    if (settings->about != apps::about_t::nothing)
        return apps::tell_about(camera::program_name, settings->about, camera::usage());
    return apps::run(camera::program_name, settings->log, [&] { return serve(*settings); });
}
