/// Four-character codes: "H264" is 'H' in the lowest byte, '4' in the highest. Any thread.
#pragma once

#include "core/api.h"

#include <cstdint>

/// Code of a text of four characters, at compile time: av::fcc("H264").
namespace av {
constexpr uint32_t fcc(const char (&text)[5]) noexcept {
    return static_cast<uint32_t>(static_cast<unsigned char>(text[0])) |
           static_cast<uint32_t>(static_cast<unsigned char>(text[1])) << 8 |
           static_cast<uint32_t>(static_cast<unsigned char>(text[2])) << 16 |
           static_cast<uint32_t>(static_cast<unsigned char>(text[3])) << 24;
}

inline constexpr uint32_t fcc_h264 = fcc("H264");
inline constexpr uint32_t fcc_jpeg = fcc("JPEG");
inline constexpr uint32_t fcc_pcmu = fcc("PCMU");
inline constexpr uint32_t fcc_pcma = fcc("PCMA");
inline constexpr uint32_t fcc_g726 = fcc("G726");
inline constexpr uint32_t fcc_mp4a = fcc("mp4a");
inline constexpr uint32_t fcc_meta = fcc("META");
inline constexpr uint32_t fcc_univ = fcc("UNIV");
}  // namespace av

/// Four characters and a terminator; bytes that are not printable become '.'. @return out
INET_API const char* fcc_str(uint32_t code, char out[5]) noexcept;

/// The usual code of a format for its other spellings:
///     "avc1" "h264" "x264" "X264"  give "H264"
///     "jpeg" "mjpg" "MJPG"  give "JPEG"
///     "ulaw" "pcmu"  give "PCMU"
///     "alaw" "pcma"  give "PCMA"
///     "MP4A" "aac "  give "mp4a"
///     anything else  gives itself
INET_API uint32_t fcc_unic(uint32_t code) noexcept;

/// Each takes a code through fcc_unic() first. @return 1 for these codes, else 0:
///   - audio: PCMU, PCMA, G726, mp4a, "mp3 " and raw "PCM "
///   - video: H264, JPEG, MP4V and the raw pictures I420, YV12, NV12, YUY2, UYVY, Y800, RGB3, BGR3, RGB4, BGR4
///   - compress: those of both that are not raw
INET_API int fcc_is_audio(uint32_t code) noexcept;
INET_API int fcc_is_video(uint32_t code) noexcept;
INET_API int fcc_is_compress(uint32_t code) noexcept;
