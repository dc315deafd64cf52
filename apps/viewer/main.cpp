// inet-viewer: receives a stream over RTSP, writes it to files and tells how it came.
#include "options.h"
#include "outcome.h"
#include "player.h"
#include "program.h"
#include "recording.h"
#include "terminal.h"

#include "core/thread.h"
#include "core/time.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

using viewer::outcome;

int fail(const viewer::ending& result) {
    if (!result.why.empty()) apps::complain(viewer::name, result.why);
    return static_cast<int>(result.what);
}

/// Gives the player its clock and shows the live line until the end.
void follow(viewer::player& received) {
    apps::status_line line;
    uint64_t shown = core_timer();
    uint64_t bytes = 0;
    while (!received.has_ended()) {
        received.tick();
        core_sleep(50);
        if (apps::interrupted()) received.end();
        const uint64_t now = core_timer();
        if (now - shown < 1'000'000) continue;
        const viewer::progress& have = received.now();
        line.show("%.1f s   %.2f Mbit/s   frames %llu   packets lost %llu",
                  static_cast<double>(have.milliseconds) * 1e-3,
                  static_cast<double>(have.bytes - bytes) * 8 / static_cast<double>(now - shown),
                  static_cast<unsigned long long>(have.frames), static_cast<unsigned long long>(have.lost));
        bytes = have.bytes;
        shown = now;
    }
}

bool print(const std::vector<viewer::track_report>& reports) {
    for (size_t i = 0; i < reports.size(); ++i)
        std::printf("%s\n", reports[i].text(i).c_str());
    return std::fflush(stdout) == 0 && !std::ferror(stdout);  // an earlier part may have failed, too
}

int receive(const viewer::options& settings) {
    viewer::recording files;
    if (!files.open(settings.outputs)) return fail({outcome::cannot_write, "cannot write " + files.failed()});
    viewer::player received(settings, files);
    received.start();
    if (!received.nt) return fail({outcome::failed, "cannot start a network thread"});
    follow(received);
    received.stop();
    viewer::ending result = received.result();
    if (!files.finish() && result.what != outcome::cannot_write) {
        result = {outcome::cannot_write, "cannot write " + files.failed()};
    }
    if (result.what == outcome::ok && !files.untouched().empty()) {
        result = {outcome::nothing_received, "nothing came for " + files.untouched()};
    }
    if (settings.stats && !print(received.reports()) && result.what == outcome::ok) {
        result = {outcome::cannot_write, "cannot write to the standard output"};
    }
    return fail(result);
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments = apps::start(argc, argv);
    std::string error;
    const auto settings = viewer::parse_options(arguments, error);
    if (!settings) return fail({outcome::usage, error + "; see inet-viewer --help"});
    if (settings->help) {
        std::fputs(viewer::usage().c_str(), stdout);
        return 0;
    }
    return apps::run(viewer::name, settings->log, [&] { return receive(*settings); });
}
