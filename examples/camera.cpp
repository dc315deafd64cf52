// An RTSP camera: what an encoder hands to its callback goes into a stream. The encoder here is a file of H.264.
//   camera FILE.h264 [PORT]      watch with: ffplay rtsp://127.0.0.1:8554/live
#include "avc/access_units.h"
#include "avc/fcc.h"
#include "core/file.h"
#include "core/thread.h"
#include "core/time.h"
#include "media/rtsp_service.h"
#include "media/station.h"

#include <cstdio>
#include <cstdlib>

// Any thread may push. The stream shares the payload and waits for no player.
void on_picture(void* live, buffer_t picture) {
    av::frame_t* frame = avc_frame_create(av::fcc_h264, time_now(), picture.data, picture.size, CORE_HERE);
    if (frame) static_cast<media::stream*>(live)->push(*frame);
    avc_frame_need(frame);
    core_sleep(40);
}

int main(int argc, char** argv) {
    const int port = argc > 2 ? std::atoi(argv[2]) : 8554;
    size_t size = 0;
    uint8_t* file = core_file_load(argc > 1 ? argv[1] : "", 1 << 30, &size, CORE_HERE);
    media::station station;
    media::stream* live = station.add_stream("live");
    station.add(media::rtsp_service({.port = static_cast<uint16_t>(port)}));
    media::failure_t error;
    if (!file || !live || !station.start(&error)) {
        std::fprintf(stderr, "%s\n", file ? error.text : "which file?");
        return 1;
    }
    av::AccessUnits encoder(CORE_HERE);
    while (true)
        encoder.take({file, static_cast<uint32_t>(size)}, on_picture, live);
}
