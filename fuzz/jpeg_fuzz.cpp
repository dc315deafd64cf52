// JPEG from a camera's file or the network: inspection, and a header rebuilt from the fields of an RTP packet.
#include "fuzz.h"

#include "avc/jpeg.h"

namespace {

using fuzz::require;

/// The fields in the order of RFC 2435, 3.1: type, width and height in blocks of 8, restart interval, tables.
void rebuild(std::span<const uint8_t> packet) {
    if (packet.size() < 5) return;
    const uint32_t width = packet[1] * 8U;
    const uint32_t height = packet[2] * 8U;
    const uint32_t restart = packet[3] * 256U + packet[4];
    buf_t out;
    const uint32_t size = jpeg_rtp_header(&out, packet[0], width, height, restart, packet.subspan(5), CORE_HERE);
    require(out.length == size);
    jpeg_info_t info;
    if (size > 0) {
        require(jpeg_inspect({out.data, size}, &info) == 1);
        require(info.width == width && info.height == height && info.restart_interval == restart);
    }
    core_buf_free(&out);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    jpeg_info_t info;
    if (jpeg_inspect(input, &info)) require(info.width > 0 && info.height > 0 && info.components > 0);
    rebuild(input);
}
