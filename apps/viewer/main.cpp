// inet-viewer: receives a stream over RTSP, RTMP or HTTP, writes it to files and tells how it came. What comes over
// HTTP and is no stream is one file.
#include "call.h"
#include "devices.h"
#include "options.h"
#include "platform/system.h"
#include "program.h"

#include "avc/fcc.h"
#include "core/time.h"
#include "media/recorder.h"
#include "media/watcher.h"

#include <algorithm>
#include <cstdio>
#include <span>
#include <string>

namespace {

using viewer::outcome;
using viewer::program_name;

struct ending {
    outcome what = outcome::ok;
    std::string why;  ///< in words; empty when all went well
};

int fail(const ending& result) {
    if (!result.why.empty()) apps::complain(program_name, result.why);
    return static_cast<int>(result.what);
}

/// A line for people and scripts: name=value, separated by blanks.
std::string report_of(const media::track_counts_t& track, size_t number) {
    char format[5];
    fcc_str(track.fcc == av::fcc_univ ? av::fcc_meta : track.fcc, format);  // metadata, whoever wrote it
    std::replace(format, format + 4, ' ', '_');
    const auto seconds = static_cast<double>(track.length) * 1e-6;
    const double rate = seconds > 0 ? static_cast<double>(track.bytes) * 8e-6 / seconds : 0;
    char line[320];
    std::snprintf(line, sizeof line,
                  "track=%zu format=%s frames=%llu bytes=%llu seconds=%.3f mbit/s=%.3f packets=%llu lost=%llu "
                  "left_out=%llu jitter_ms=%.3f",
                  number, format, static_cast<unsigned long long>(track.frames),
                  static_cast<unsigned long long>(track.bytes), seconds, rate,
                  static_cast<unsigned long long>(track.packets), static_cast<unsigned long long>(track.lost),
                  static_cast<unsigned long long>(track.left_out), static_cast<double>(track.jitter) * 1e-3);
    return line;
}

outcome outcome_of(media::outcome_t what) {
    switch (what) {
        case media::outcome_t::ok:
            return outcome::ok;
        case media::outcome_t::no_connection:
            return outcome::no_connection;
        case media::outcome_t::refused:
            return outcome::refused;
        case media::outcome_t::not_found:
            return outcome::not_found;
        case media::outcome_t::no_transport:
        case media::outcome_t::protocol_error:
            return outcome::protocol_error;
        case media::outcome_t::nothing_received:
            return outcome::nothing_received;
        case media::outcome_t::connection_lost:
            return outcome::connection_lost;
        case media::outcome_t::not_written:
            return outcome::cannot_write;
        case media::outcome_t::failed:
            break;
    }
    return outcome::failed;
}

/// What the watcher calls on its thread.
struct receiver {
    media::watcher watcher;
    const viewer::options& options;
    media::recorder& files;
    media::failure_t why;  ///< of the files
    std::string saved_as;  ///< what is no stream
    bool unfit = false;    ///< a stream came for a file that cannot hold one

    receiver(const viewer::options& settings, media::recorder& into)
        : watcher(settings.uri.c_str(), {.transport = settings.way,
                                         .user = settings.user(),
                                         .password = settings.password(),
                                         .timeout = settings.timeout,
                                         .reconnect = settings.reconnect,
                                         .duration = settings.duration,
                                         .save_as = settings.save_as()}),
          options(settings),
          files(into) {
        watcher.on_frame(&receiver::on_frame, this);
        watcher.on_event(&receiver::on_event, this);
        files.on_note([](void*, const char* text) { apps::complain(program_name, text); }, nullptr);
    }

    /// The files get the first track of each format.
    static int on_frame(void* arg, const media::watched_t& got) {
        auto* self = static_cast<receiver*>(arg);
        return !got.first_of_format || self->files.take(got.frame, &self->why) ? 1 : 0;
    }

    static void on_event(void* arg, const media::watch_event_t& event) {
        auto* self = static_cast<receiver*>(arg);
        const std::string text = event.text;
        using e = media::watch_event_t;
        if (event.what == e::saving) self->saved_as = text;
        self->unfit = self->unfit || (event.what == e::tracks && viewer::unfit_for_stream(self->options.outputs));
        if (self->unfit) return self->watcher.end();
        for (uint32_t i = 0; event.what == e::tracks && i < event.format_count; ++i)
            self->files.declare(event.formats[i]);
        if (event.what == e::track_refused) apps::complain(program_name, text + ", going on without that track");
        if (event.what == e::falls_back) apps::complain(program_name, text + ", trying tcp");
        if (event.what != e::pausing) return;
        if (!self->files.pause(&self->why)) return self->watcher.end();
        apps::complain(program_name, text + "; connecting again in " + std::to_string(event.pause) + " s");
    }
};

/// What has come of a file, in words.
std::string progress_of(const media::watcher::status_t& status, unsigned rate) {
    char text[96];
    const size_t size = static_cast<size_t>(
        std::snprintf(text, sizeof text, "%.2f MB/s   %.1f MB", rate * 1e-6, static_cast<double>(status.saved) * 1e-6));
    if (status.to_save)
        std::snprintf(text + size, sizeof text - size, " of %.1f", static_cast<double>(status.to_save) * 1e-6);
    return text;
}

/// Shows the live line until the end.
void follow(media::watcher& watcher, bool shows) {
    apps::status_line line(shows);
    uint64_t shown = core_timer();
    apps::rate_of bytes;
    while (!watcher.wait(50)) {
        if (apps::interrupted()) watcher.end();
        const uint64_t now = core_timer();
        if (now - shown < 1'000'000) continue;
        media::track_counts_t all;
        const media::watcher::status_t status = watcher.status();
        for (const media::track_counts_t& each : std::span(status.tracks, status.track_count)) {
            all.bytes += each.bytes;
            all.frames += each.frames;
            all.lost += each.lost;
            all.length = std::max(all.length, each.length);
        }
        const bool is_file = status.saved > 0;
        const unsigned rate = bytes.now(is_file ? status.saved : all.bytes);
        if (is_file)
            line.show("%s", progress_of(status, rate).c_str());
        else
            line.show("%.1f s   %.2f Mbit/s   frames %llu   packets lost %llu", static_cast<double>(all.length) * 1e-6,
                      rate * 8e-6, static_cast<unsigned long long>(all.frames),
                      static_cast<unsigned long long>(all.lost));
        shown = now;
    }
}

/// @param out  the standard output, or another one where that holds media
bool print(const media::watcher::status_t& status, std::FILE* out) {
    for (size_t i = 0; i < status.track_count; ++i)
        std::fprintf(out, "%s\n", report_of(status.tracks[i], i).c_str());
    if (status.saved) std::fprintf(out, "saved=%llu\n", static_cast<unsigned long long>(status.saved));
    return std::fflush(out) == 0 && !std::ferror(out);  // an earlier part may have failed, too
}

int receive(const viewer::options& settings) {
    media::recorder files;
    media::failure_t why;
    const bool to_output = viewer::writes_to_output(settings.outputs);
    if (to_output) apps::platform::prepare_output();
    for (const std::string& path : settings.outputs) {
        if (media::recorder::takes(path.c_str()) && !files.add(path.c_str(), &why))
            return fail({outcome::cannot_write, why.text});
    }
    receiver received(settings, files);
    if (!received.watcher.start(&why)) return fail({outcome::failed, why.text});
    follow(received.watcher, !to_output);
    received.watcher.stop();
    const media::watcher::status_t status = received.watcher.status();
    ending result{outcome_of(status.outcome), status.text};
    if (status.outcome == media::outcome_t::no_transport) {
        const bool tried_both = settings.way == media::transport_t::udp;
        const bool tcp = status.transport == media::transport_t::tcp;
        result.why += tried_both ? "; try --transport http" : tcp ? "; try --transport udp" : "; try --transport tcp";
    }
    const bool is_file = !received.saved_as.empty();
    if (is_file && result.what == outcome::ok && settings.outputs.empty())
        apps::complain(program_name, "saved as " + received.saved_as);
    if (!files.finish(&why)) result = {outcome::cannot_write, why.text};
    if (received.unfit) {
        result = {outcome::usage,
                  *viewer::unfit_for_stream(settings.outputs) + " cannot hold a stream; see inet-viewer --help"};
    }
    if (result.what == outcome::ok && !is_file && files.untouched()) {
        result = {outcome::nothing_received, std::string("nothing came for ") + files.untouched()};
    }
    if (settings.stats && !print(status, to_output ? stderr : stdout) && result.what == outcome::ok) {
        result = {outcome::cannot_write, "cannot write to the standard output"};
    }
    return fail(result);
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments = apps::start(argc, argv);
    if (viewer::is_about_devices(arguments)) return viewer::ask_devices(arguments);
    if (viewer::is_about_call(arguments)) return viewer::make_call(arguments);
    std::string error;
    const auto settings = viewer::parse_options(arguments, error);
    if (!settings) return fail({outcome::usage, error + "; see inet-viewer --help"});
    if (settings->about != apps::about_t::nothing)
        return apps::tell_about(program_name, settings->about, viewer::usage());
    return apps::run(program_name, settings->log, [&] { return receive(*settings); });
}
