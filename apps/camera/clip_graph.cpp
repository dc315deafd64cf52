#include "clip_graph.h"

#include "program.h"

#include "avc/fcc.h"
#include "core/file.h"
#include "core/owned.h"
#include "media/stream.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace camera {
namespace {

/// The payloads are the clip's: long groups of pictures cost no memory to hold.
constexpr media::limits_t whole_groups{.bytes = 1U << 30, .frames = 8192, .time = 600'000'000};

/// Where the bundled clip lies: beside the installed library, or in the tree the program was built from.
std::string bundled_directory() {
    const core::owned_text library(lib_path(CORE_HERE));
    const std::filesystem::path installed = apps::utf8_path(library ? library.get() : ".") / INET_CLIP_INSTALL_DIR;
    std::error_code ignored;
    return std::filesystem::exists(installed, ignored) ? apps::utf8_text(installed) : INET_CLIP_BUILD_DIR;
}

options with_bundled_files(options wanted) {
    const std::string directory = bundled_directory();
    wanted.video = directory + "/clip.h264";
    wanted.audio = directory + "/clip.wav";
    wanted.analytics = directory + "/clip.json";
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(apps::utf8_path(directory), ignored)) {
        if (entry.path().extension() == ".jpg") wanted.jpeg.push_back(apps::utf8_text(entry.path()));
    }
    std::sort(wanted.jpeg.begin(), wanted.jpeg.end());
    return wanted;
}

/// As the module takes them: one a line.
std::string joined(const std::vector<std::string>& paths) {
    std::string lines;
    for (const std::string& each : paths)
        lines += (lines.empty() ? "" : "\n") + each;
    return lines;
}

}  // namespace

/// A track, and the files that it comes from.
struct clip_graph::piece {
    const char* track;
    const char* what;
    uint32_t fcc;  ///< 0 for any sound
    std::string files;
};

bool clip_graph::open(const options& named, media::station& station, media::failure_t& error) {
    options wanted = named;
    const bool none = wanted.video.empty() && wanted.audio.empty() && wanted.jpeg.empty() && wanted.analytics.empty();
    if (none && wanted.sources.empty()) wanted = with_bundled_files(std::move(wanted));
    return add_stream("live",
                      {{"video", "H.264 stream", av::fcc_h264, wanted.video},
                       {"audio", "sound", 0, wanted.audio},
                       {"meta", "detector report", av::fcc_meta, wanted.analytics}},
                      station, error) &&
           add_stream("jpeg", {{"video", "JPEG picture", av::fcc_jpeg, joined(wanted.jpeg)}}, station, error);
}

bool clip_graph::add_stream(const char* name, const std::vector<piece>& pieces, media::station& station,
                            media::failure_t& error) {
    if (std::ranges::all_of(pieces, &std::string::empty, &piece::files)) return true;
    if (!graph_) graph_.reset(net::Graph::create(CORE_HERE));
    if (!graph_) media::tell(&error, "no memory for the clip");
    media::stream* const stream = graph_ ? station.add_stream(name, whole_groups, &error) : nullptr;
    if (!stream) return false;
    names_.emplace_back(name);
    return std::ranges::all_of(
        pieces, [&](const piece& each) { return each.files.empty() || add_piece(each, *stream, error); });
}

bool clip_graph::add_piece(const piece& played, media::stream& into, media::failure_t& error) {
    const net::cinfo_t__ node{"camera", into.name(), "clip", played.track, nullptr};
    const bool film = played.fcc == av::fcc_h264;
    if (!graph_->add_device_media(&node, played.files.c_str(), film, played.fcc == 0, 0, 1)) return false;
    media::format_t found;
    const std::string track = "camera_" + std::string(into.name()) + "_clip_" + played.track;
    if (!intakes_.emplace_back().open(track.c_str(), into, &found)) {
        media::tell(&error, "no memory for the clip");
    } else if (played.fcc && found.fcc != played.fcc) {
        media::tell(&error, "%s: no %s", played.files.c_str(), played.what);
    } else {
        return true;
    }
    return false;
}

bool clip_graph::start(net::nt_ctx* on) {
    if (!graph_) return true;
    graph_->run_on(on);
    return graph_->start();
}

void clip_graph::stop() {
    graph_.reset();
    intakes_.clear();
}

}  // namespace camera
