#include "avc/fcc.h"

#include <algorithm>
#include <span>

namespace {

using av::fcc;

struct alias {
    uint32_t spelling;
    uint32_t code;
};

constexpr alias aliases[] = {
    {fcc("avc1"), av::fcc_h264}, {fcc("h264"), av::fcc_h264}, {fcc("x264"), av::fcc_h264}, {fcc("X264"), av::fcc_h264},
    {fcc("jpeg"), av::fcc_jpeg}, {fcc("mjpg"), av::fcc_jpeg}, {fcc("MJPG"), av::fcc_jpeg}, {fcc("ulaw"), av::fcc_pcmu},
    {fcc("pcmu"), av::fcc_pcmu}, {fcc("alaw"), av::fcc_pcma}, {fcc("pcma"), av::fcc_pcma}, {fcc("MP4A"), av::fcc_mp4a},
    {fcc("aac "), av::fcc_mp4a},
};

constexpr uint32_t compressed_audio[] = {av::fcc_pcmu, av::fcc_pcma, av::fcc_g726,
                                         av::fcc_mp4a, fcc("mp3 "),  fcc("MP3 ")};
constexpr uint32_t raw_audio[] = {fcc("PCM "), fcc("pcm ")};
constexpr uint32_t compressed_video[] = {av::fcc_h264, av::fcc_jpeg, fcc("MP4V"), fcc("mp4v")};
constexpr uint32_t raw_video[] = {fcc("I420"), fcc("YV12"), fcc("NV12"), fcc("YUY2"), fcc("UYVY"),
                                  fcc("Y800"), fcc("RGB3"), fcc("BGR3"), fcc("RGB4"), fcc("BGR4")};

bool holds(std::span<const uint32_t> codes, uint32_t code) noexcept {
    return std::ranges::find(codes, fcc_unic(code)) != codes.end();
}

}  // namespace

const char* fcc_str(uint32_t code, char out[5]) noexcept {
    for (int i = 0; i < 4; ++i) {
        const auto byte = static_cast<unsigned char>(code >> (8 * i));
        out[i] = byte >= 0x20 && byte < 0x7f ? static_cast<char>(byte) : '.';
    }
    out[4] = 0;
    return out;
}

uint32_t fcc_unic(uint32_t code) noexcept {
    const auto* found = std::ranges::find(aliases, code, &alias::spelling);
    return found == std::end(aliases) ? code : found->code;
}

int fcc_is_audio(uint32_t code) noexcept { return holds(compressed_audio, code) || holds(raw_audio, code); }

int fcc_is_video(uint32_t code) noexcept { return holds(compressed_video, code) || holds(raw_video, code); }

int fcc_is_compress(uint32_t code) noexcept { return holds(compressed_audio, code) || holds(compressed_video, code); }
