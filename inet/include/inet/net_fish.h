/// Node documents of media graphs (inet/net_graph.h). Each call fills a fixed JSON document with the caller's values.
///
/// A document has two members:
///     common    "enable", "key1", "key2", "key3" (the node's identity) and "_typeJS", its settings class
///     SECTION   the node's role, such as "device". It has "_type", whose "_value" is the node's type, and a member of
///               that name with the node's parameters
/// A parameter is an object with "_level" (0 basic, 1 advanced, 2 expert, 3 hidden), "_value", and where they are bound
/// "_values" (the choices) or "_minvalue" and "_maxvalue". What a call does not ask for has a fixed value.
///
/// Arguments:
///   - Texts are escaped, so every document is valid JSON. Bytes that are not UTF-8 become U+FFFD. A null text is
///     empty.
///   - Numbers are written as they are: choices and bounds are for the user interface, and not checked here.
///   - Lists of choices end with null; a null list is empty.
///   - A null identity has empty keys and tracks.
///
/// Every call returns a new text, for the caller to release with core_mfree(), or null when memory is out. Any thread.
#pragma once

#include "core/api.h"

#include <cstdint>

namespace net {

/// Identity of a node, and its tracks. A track is on the profile bus as "key1_key2_key3_track".
struct cinfo_t__ {  // NOLINT(bugprone-reserved-identifier): the interface's name
    const char* key1;
    const char* key2;
    const char* key3;
    const char* track;   ///< the input of a converting node, or the only track of another one
    const char* track2;  ///< the output of a converting node
};

inline constexpr int equalizer_bands = 9;

}  // namespace net

/// The member "common" alone. @param typeJS  settings class: "profiles", "servers" or "logic"
INET_API char* fish_common(const char* key1, const char* key2, const char* key3, const char* typeJS, const char* file,
                           int line) noexcept;

// Archives.
INET_API char* fish_archive_zelt54(const net::cinfo_t__* node, const char* ip, int port, int64_t rid, bool audio,
                                   const char* file, int line) noexcept;
INET_API char* fish_archive_reader(const net::cinfo_t__* node, const char* arc_key1, const char* arc_key2,
                                   const char* arc_key3, const char* subtype, const char* file, int line) noexcept;
/// The empty text: the module has no settings.
INET_API char* fish_archive_writer(const net::cinfo_t__* node, const char* file, int line) noexcept;
INET_API char* fish_archive_media(const net::cinfo_t__* node, const char* path, const char* file, int line) noexcept;

// Devices.
INET_API char* fish_device_media(const net::cinfo_t__* node, const char* path, int video_stream, int audio_stream,
                                 int fps, int speed, const char* file, int line) noexcept;
/// The member "device" of fish_device_media() alone.
INET_API char* fish_device_media_file(const net::cinfo_t__* node, const char* path, int video_stream, int audio_stream,
                                      int fps, int speed, const char* file, int line) noexcept;
INET_API char* fish_device_microphone(const net::cinfo_t__* node, const char* device, const char* const* devices,
                                      int sampling_rate, int quality, const char* channel, const char* file,
                                      int line) noexcept;
INET_API char* fish_device_sound_detect(const net::cinfo_t__* node, int nthresh, int width, int height,
                                        const char* file, int line) noexcept;
INET_API char* fish_device_sound_mixer(const net::cinfo_t__* node, const char* codec, const char* file,
                                       int line) noexcept;
INET_API char* fish_device_player(const net::cinfo_t__* node, const char* device, const char* const* devices,
                                  int volume, const char* file, int line) noexcept;
/// @param bands  gains of net::equalizer_bands bands from the lowest on, -1.0 to 1.0; null for 0
INET_API char* fish_device_equalizer(const net::cinfo_t__* node, const double* bands, const char* file,
                                     int line) noexcept;
INET_API char* fish_device_rtmp(const net::cinfo_t__* node, const char* url, const char* file, int line) noexcept;
INET_API char* fish_device_http(const net::cinfo_t__* node, const char* url, const char* file, int line) noexcept;
/// @param type  of the camera: the node's type is "rtsp:TYPE"
INET_API char* fish_device_rtsp(const net::cinfo_t__* node, const char* type, const char* ip, int port, const char* id,
                                const char* login, const char* password, const char* protocol, const char* file,
                                int line) noexcept;
/// Without the member "common": of the identity only the track is used. The node's type is "capture:TYPE", and
/// "capture:bt878" of the second one, whose choices of resolution and format are fixed.
INET_API char* fish_device_capture(const net::cinfo_t__* node, const char* type, const char* device,
                                   const char* const* devices, const char* resolution, const char* const* resolutions,
                                   const char* format, const char* const* formats, const char* file, int line) noexcept;
INET_API char* fish_device_capture_bt878(const net::cinfo_t__* node, const char* device, const char* const* devices,
                                         const char* resolution, const char* format, const char* file,
                                         int line) noexcept;
INET_API char* fish_device_render(const net::cinfo_t__* node, const char* file, int line) noexcept;
/// The member "device" is an array of one. Login and password are empty.
INET_API char* fish_device_ipcamera(const net::cinfo_t__* node, const char* model, const char* ip,
                                    const char* profile_name, const char* file, int line) noexcept;
INET_API char* fish_device_zelt54(const net::cinfo_t__* node, const char* ip, int port, int64_t rid, const char* login,
                                  const char* hash_password, const char* file, int line) noexcept;

// Processing.
INET_API char* fish_match_time(const net::cinfo_t__* node, const char* file, int line) noexcept;
INET_API char* fish_synch_av(const net::cinfo_t__* node, int width, int height, int sps, int nch, int bps,
                             const char* file, int line) noexcept;
INET_API char* fish_decode_audio(const net::cinfo_t__* node, const char* file, int line) noexcept;
INET_API char* fish_decode_video(const net::cinfo_t__* node, const char* file, int line) noexcept;
INET_API char* fish_encode_audio(const net::cinfo_t__* node, const char* codec, int sps, int bps, const char* nch,
                                 const char* file, int line) noexcept;
/// The proportion is not written.
INET_API char* fish_encode_video(const net::cinfo_t__* node, const char* codec, int width, int height, int bitrate,
                                 int fps, int keyint, int quality, const char* proportion, const char* file,
                                 int line) noexcept;
/// The same with the proportion.
INET_API char* fish_encode_video2(const net::cinfo_t__* node, const char* codec, int width, int height, int bitrate,
                                  int fps, int keyint, int quality, const char* proportion, const char* file,
                                  int line) noexcept;
INET_API char* fish_export_media(const net::cinfo_t__* node, const char* path, const char* name, const char* type,
                                 const char* file, int line) noexcept;
INET_API char* fish_text_overlay(const net::cinfo_t__* node, const char* inscription, const char* file,
                                 int line) noexcept;
/// Brings sound and pictures of two nodes into step. @param audio, video  their identities
INET_API char* fish_sinhrofazotron(const net::cinfo_t__* node, const net::cinfo_t__* audio, const net::cinfo_t__* video,
                                   const char* file, int line) noexcept;

// Servers. Their identity is fixed: "host", "server" and the protocol.
INET_API char* fish_services_wshost(const char* file, int line) noexcept;
/// @param path  for its files; null for "./temp"
INET_API char* fish_server_http(int port, const char* path, const char* file, int line) noexcept;
INET_API char* fish_server_rtmp(int port, const char* file, int line) noexcept;
INET_API char* fish_server_rtsp(int port, const char* file, int line) noexcept;
INET_API char* fish_server_zelt54(int port, const char* file, int line) noexcept;
INET_API char* fish_server_wsdd(int port, const char* file, int line) noexcept;

// Senders.
INET_API char* fish_sender_http(const net::cinfo_t__* node, const char* id, const char* file, int line) noexcept;
INET_API char* fish_sender_rtmp(const net::cinfo_t__* node, const char* id, const char* file, int line) noexcept;
INET_API char* fish_sender_rtsp(const net::cinfo_t__* node, const char* id, const char* file, int line) noexcept;
/// @param type  the node's type is "rtp:TYPE"
INET_API char* fish_sender_rtp(const net::cinfo_t__* node, const char* type, const char* video_ip, const char* audio_ip,
                               const char* file, int line) noexcept;
