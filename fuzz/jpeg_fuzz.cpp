// JPEG from a camera's file or the network: inspection, and a header rebuilt from the fields of an RTP packet.
#include "fuzz.h"

#include "avc/jpeg.h"

namespace {

/// The fields in the order of RFC 2435, 3.1, but wider than it has them: type, width and height, restart interval,
/// tables. What a header can say is appended, everything else refused.
void rebuild(std::span<const uint8_t> packet) {
    if (packet.size() < 5) return;
    const uint32_t width = packet[1] * 264U;
    const uint32_t height = packet[2] * 264U;
    const uint32_t restart = packet[3] * 257U + packet[4];
    buf_t out;
    if (core_buf_read(&out, "before", 6) != 6) return;
    const uint32_t size = jpeg_rtp_header(&out, packet[0], width, height, restart, packet.subspan(5), CORE_HERE);
    const bool is_possible = packet[0] < 2 && packet.size() >= 5 + 64 && width > 0 && height > 0 &&
                             std::max({width, height, restart}) <= 0xffff;
    require(out.length == 6 + size && (size > 0 ? is_possible : !is_possible || fuzz::starved));
    jpeg_info_t info;
    if (size > 0) {
        require(jpeg_inspect({out.data + 6, size}, &info) == 1 && info.sampling[0] == 0x21 + packet[0]);
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
