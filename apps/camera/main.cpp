// inet-camera: a clip, other cameras or a pipe become a network camera.
#include "clip_graph.h"
#include "keeper.h"
#include "options.h"
#include "phone.h"
#include "program.h"
#include "sources.h"
#include "web.h"

#include "avc/fcc.h"
#include "core/array.h"
#include "core/memory.h"
#include "core/thread.h"
#include "core/time.h"
#include "inet/net_socket.h"
#include "media/rtmp_service.h"
#include "media/rtsp_service.h"
#include "media/station.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
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

/// Of the ports that could not be had, what there is to say of one; empty when it is none of them.
std::string lack_of(std::optional<uint16_t> port, std::string_view lacks) {
    const std::string place = ':' + std::to_string(port.value_or(0)) + ": ";
    while (!lacks.empty()) {
        const std::string_view first = lacks.substr(0, lacks.find("; "));
        if (first.find(place) != std::string_view::npos) return std::string(first);
        lacks.remove_prefix(std::min(first.size() + 2, lacks.size()));
    }
    return {};
}

struct ports_t {
    uint16_t rtsp;
    uint16_t http;  ///< 0 for none
    media::rtmp_service_t* rtmp;
};

/// @param lacks  ports that were wanted and could not be had
void print_addresses(const std::vector<std::string>& paths, const camera::options& settings, media::station& station,
                     const camera::phone& phone, const ports_t& ports, const char* lacks) {
    const std::vector<std::string> hosts = reachable(settings.bind);
    if (const std::string lack = lack_of(settings.http_port, lacks); !lack.empty())
        std::printf("no page for browsers: %s; --http PORT takes another port\n", lack.c_str());
    for (const std::string& host : hosts) {
        if (ports.http) std::printf("http://%s:%u/\n", host.c_str(), unsigned{ports.http});
        for (const std::string& each : paths) {
            std::printf("rtsp://%s:%u/%s\n", host.c_str(), unsigned{ports.rtsp},
                        apps::coded_path(each.c_str()).c_str());
            media::stream* const stream = station.find(each.c_str());
            const auto print = [](void*, const char* address) { std::printf("%s\n", address); };
            if (stream && ports.rtmp) ports.rtmp->addresses(*stream, host.c_str(), print, nullptr);
            media::stream::drop(stream);
        }
    }
    if (const std::string lack = lack_of(settings.rtmp_port, lacks); !lack.empty())
        std::printf("no RTMP: %s; --rtmp PORT takes another port\n", lack.c_str());
    if (!phone.address().empty()) std::printf("%s\n", phone.address().c_str());
    if (!settings.sip_users.empty())
        std::printf("SIP relay on port %u for %s\n", unsigned{settings.sip_port}, settings.sip_users.c_str());
    std::printf("ready; watch with: ffplay rtsp://%s:%u/%s   (Ctrl-C ends the camera)\n", hosts.front().c_str(),
                unsigned{ports.rtsp}, apps::coded_path(paths.front().c_str()).c_str());
    std::fflush(stdout);
}

/// Shows the live line once a second until Ctrl-C, or until all has been sent.
void show_status(const media::station& station, const camera::sources& sources, const camera::web& web,
                 const camera::phone& phone) {
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
                  totals.watching + web.film_viewers() + phone.calls(), bytes.now(totals.bytes) * 8e-6,
                  static_cast<unsigned long long>(totals.dropped), sources.fetched(), sources.names().size());
        shown = now;
    }
}

/// Seconds between two signs of life of ordinary players.
constexpr unsigned players_patience = 60;

/// The stream of the clip whose sound RTSP leaves out; null for none.
const char* with_aac(const std::vector<std::string>& played, media::station& station) {
    for (const std::string& each : played) {
        media::stream* const stream = station.find(each.c_str());
        media::format_t format;
        const bool has = stream && stream->format(media::kind_t::audio, &format, nullptr);
        media::stream::drop(stream);
        if (has && format.fcc == av::fcc_mp4a) return each.c_str();
    }
    return nullptr;
}

/// @param without_aac  name of a stream; null for none
media::rtsp_settings_t rtsp_settings(const camera::options& settings, const char* without_aac) {
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
            .ttl = settings.ttl,
            .without_aac = without_aac};
}

/// @return null when none is wanted, or memory is out
media::rtmp_service_t* rtmp_service(const camera::options& settings) {
    const auto text = [](const std::string& from) { return from.empty() ? nullptr : from.c_str(); };
    if (!settings.rtmp_port) return nullptr;
    return media::rtmp_service({.port = *settings.rtmp_port,
                                .needs_port = settings.rtmp_asked,
                                .user = text(settings.login.user),
                                .password = text(settings.login.password),
                                .at_key = settings.start == camera::start_t::key,
                                .backlog = settings.backlog,
                                .stall = settings.stall});
}

int serve(const camera::options& settings) {
    camera::sources fetched;  // the station, which calls for what is wanted, ends before
    media::station station({.bind = settings.bind.c_str(), .threads = settings.threads});
    media::failure_t why;
    camera::clip_graph played;
    if (!played.open(settings, station, why)) return fail(why.text);
    const char* const without_aac = with_aac(played.names(), station);
    if (without_aac)
        apps::complain(camera::program_name, settings.audio + ": RTSP leaves AAC out; RTMP and recordings have it");
    std::vector<std::string> paths = played.names();
    if (!fetched.open(settings, station, why)) return fail(why.text);
    paths.insert(paths.end(), fetched.names().begin(), fetched.names().end());
    media::service* const rtsp = media::rtsp_service(rtsp_settings(settings, without_aac));
    camera::keeper kept;
    if (!settings.record.empty() && !kept.open(settings.record, settings.keep, station, why)) return fail(why.text);
    camera::web web(station, settings);
    if (played.names().size() > 1) web.show_in_place(paths[0], paths[1]);  // both of the clip
    web.leave_out_aac(without_aac);
    media::rtmp_service_t* const rtmp = rtmp_service(settings);
    if (!station.add(rtsp, &why) || (settings.rtmp_port && !station.add(rtmp, &why)) ||
        (settings.http_port && !web.open(settings, *rtsp, rtmp, kept.names(), why)))
        return fail(why.text);
    if (!settings.sip_users.empty() && !station.add(camera::sip_relay(settings), &why)) return fail(why.text);
    camera::phone phone;
    if (!phone.open(settings, station, paths.front(), why)) return fail(why.text);
    if (without_aac && settings.sip && paths.front() == without_aac)
        apps::complain(camera::program_name, settings.audio + ": calls have no sound");
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
    if (!phone.start(why)) return fail(why.text);
    print_addresses(paths, settings, station, phone, {rtsp->port(), web.port(), rtmp}, why.text);
    if (settings.timeout < players_patience) {
        apps::complain(camera::program_name, "--timeout " + std::to_string(settings.timeout) +
                                                 ": players that show life once a minute, as most do, will be cut");
    }
    show_status(station, fetched, web, phone);
    phone.stop();
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
