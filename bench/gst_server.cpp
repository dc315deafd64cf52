// The peer of bench/compare-rtsp: GStreamer's RTSP server sends an H.264 file over and over at its pace, one medium
// shared by all viewers. Built by that script against the system's packages: gst_server FILE.h264 PORT [FPS]; port 0
// takes a free one.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

struct clip {
    std::vector<GstBuffer*> pictures;
    unsigned fps = 25;
};

/// Takes the file apart where an access unit delimiter stands: every picture of the clip begins with one.
std::vector<GstBuffer*> load_pictures(const char* path) {
    std::ifstream file(path, std::ios::binary);
    const std::string stream{std::istreambuf_iterator<char>(file), {}};
    const std::string delimiter("\0\0\0\1\x09", 5);
    std::vector<GstBuffer*> pictures;
    for (size_t at = stream.find(delimiter); at != std::string::npos;) {
        const size_t next = stream.find(delimiter, at + delimiter.size());
        const size_t size = (next == std::string::npos ? stream.size() : next) - at;
        GstBuffer* picture = gst_buffer_new_allocate(nullptr, size, nullptr);
        gst_buffer_fill(picture, 0, stream.data() + at, size);
        pictures.push_back(picture);
        at = next;
    }
    return pictures;
}

/// Pushes pictures when their time has come, on a thread of its own, until the source is taken down. Their memory is
/// shared: a copy of a buffer copies no payload.
void play(GstAppSrc* source, const clip& played) {
    const auto begin = std::chrono::steady_clock::now();
    const uint64_t period = 1'000'000'000 / played.fps;
    for (uint64_t number = 0;; ++number) {
        std::this_thread::sleep_until(begin + std::chrono::nanoseconds(number * period));
        GstBuffer* picture = gst_buffer_copy(played.pictures[number % played.pictures.size()]);
        GST_BUFFER_PTS(picture) = GST_BUFFER_DTS(picture) = number * period;
        GST_BUFFER_DURATION(picture) = period;
        if (gst_app_src_push_buffer(source, picture) != GST_FLOW_OK) break;
    }
    gst_object_unref(source);
}

void on_media(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer arg) {
    GstElement* element = gst_rtsp_media_get_element(media);
    GstElement* source = gst_bin_get_by_name_recurse_up(GST_BIN(element), "source");
    gst_object_unref(element);
    const auto& played = *static_cast<const clip*>(arg);
    std::thread([source, &played] { play(GST_APP_SRC(source), played); }).detach();
}

}  // namespace

int main(int argc, char** argv) {
    gst_init(&argc, &argv);
    if (argc < 3) {
        std::fprintf(stderr, "usage: gst_server FILE.h264 PORT [FPS]\n");
        return 2;
    }
    clip played{load_pictures(argv[1]), argc > 3 ? static_cast<unsigned>(std::atoi(argv[3])) : 25u};
    if (played.pictures.empty()) {
        std::fprintf(stderr, "gst_server: no access unit delimiters in %s\n", argv[1]);
        return 1;
    }
    GstRTSPServer* server = gst_rtsp_server_new();
    gst_rtsp_server_set_address(server, argc > 4 ? argv[4] : "127.0.0.1");
    gst_rtsp_server_set_service(server, argv[2]);
    gst_rtsp_server_set_backlog(server, 512);
    GstRTSPMediaFactory* factory = gst_rtsp_media_factory_new();
    const std::string pipeline =
        "( appsrc name=source is-live=true format=time max-bytes=4000000 "
        "caps=video/x-h264,stream-format=byte-stream,alignment=au,framerate=" +
        std::to_string(played.fps) + "/1 ! h264parse ! rtph264pay name=pay0 pt=96 config-interval=-1 )";
    gst_rtsp_media_factory_set_launch(factory, pipeline.c_str());
    gst_rtsp_media_factory_set_shared(factory, TRUE);
    g_signal_connect(factory, "media-configure", G_CALLBACK(on_media), &played);
    gst_rtsp_mount_points_add_factory(gst_rtsp_server_get_mount_points(server), "/live", factory);
    if (!gst_rtsp_server_attach(server, nullptr)) {
        std::fprintf(stderr, "gst_server: cannot listen on port %s\n", argv[2]);
        return 1;
    }
    std::printf("rtsp://%s:%d/live\nready\n", gst_rtsp_server_get_address(server),
                gst_rtsp_server_get_bound_port(server));
    std::fflush(stdout);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
