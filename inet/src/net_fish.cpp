#include "inet/net_fish.h"

#include "net_fish/archives.h"
#include "net_fish/devices.h"
#include "net_fish/fill.h"
#include "net_fish/network.h"
#include "net_fish/processing.h"
#include "net_fish/sound.h"

#include "core/text.h"

using fish::fill;
using fish::identity;

namespace {

char* device_media(const identity& who, const char* path, int video_stream, int audio_stream, int fps, int speed,
                   const char* file, int line) noexcept {
    return fill(fish::device_media, who,
                {{"file", path},
                 {"video_stream", video_stream},
                 {"audio_stream", audio_stream},
                 {"fps", fps},
                 {"speed", speed}},
                file, line);
}

char* encode_video(const net::cinfo_t__* node, const char* codec, int width, int height, int bitrate, int fps,
                   int keyint, int quality, const fish::field& proportion, const char* file, int line) noexcept {
    return fill(fish::encode_video, node,
                {{"codec", codec},
                 {"width", width},
                 {"height", height},
                 {"bitrate", bitrate},
                 {"fps", fps},
                 {"keyint", keyint},
                 {"quality", quality},
                 proportion},
                file, line);
}

}  // namespace

char* fish_common(const char* key1, const char* key2, const char* key3, const char* typeJS, const char* file,
                  int line) noexcept {
    const net::cinfo_t__ keys{key1, key2, key3, nullptr, nullptr};
    return fill("", identity(&keys, typeJS), {}, file, line);
}

char* fish_archive_zelt54(const net::cinfo_t__* node, const char* ip, int port, int64_t rid, bool audio,
                          const char* file, int line) noexcept {
    return fill(fish::archive_zelt54, node, {{"ip", ip}, {"port", port}, {"rid", rid}, {"audio", audio}}, file, line);
}

char* fish_archive_reader(const net::cinfo_t__* node, const char* arc_key1, const char* arc_key2, const char* arc_key3,
                          const char* subtype, const char* file, int line) noexcept {
    return fill(fish::archive_reader, node,
                {{"arc_key1", arc_key1}, {"arc_key2", arc_key2}, {"arc_key3", arc_key3}, {"subtype", subtype}}, file,
                line);
}

char* fish_archive_writer(const net::cinfo_t__*, const char* file, int line) noexcept {
    return core_strdup("", file, line);
}

char* fish_archive_media(const net::cinfo_t__* node, const char* path, const char* file, int line) noexcept {
    return fill(fish::archive_media, node, {{"file", path}}, file, line);
}

char* fish_device_media(const net::cinfo_t__* node, const char* path, int video_stream, int audio_stream, int fps,
                        int speed, const char* file, int line) noexcept {
    return device_media(node, path, video_stream, audio_stream, fps, speed, file, line);
}

char* fish_device_media_file(const net::cinfo_t__* node, const char* path, int video_stream, int audio_stream, int fps,
                             int speed, const char* file, int line) noexcept {
    return device_media(identity::alone(node), path, video_stream, audio_stream, fps, speed, file, line);
}

char* fish_device_microphone(const net::cinfo_t__* node, const char* device, const char* const* devices,
                             int sampling_rate, int quality, const char* channel, const char* file, int line) noexcept {
    return fill(fish::device_microphone, node,
                {{"device", device},
                 {"devices", devices},
                 {"sampling_rate", sampling_rate},
                 {"quality", quality},
                 {"channel", channel}},
                file, line);
}

char* fish_device_sound_detect(const net::cinfo_t__* node, int nthresh, int width, int height, const char* file,
                               int line) noexcept {
    return fill(fish::device_sound_detect, node, {{"nthresh", nthresh}, {"width", width}, {"height", height}}, file,
                line);
}

char* fish_device_sound_mixer(const net::cinfo_t__* node, const char* codec, const char* file, int line) noexcept {
    return fill(fish::device_sound_mixer, node, {{"codec", codec}}, file, line);
}

char* fish_device_player(const net::cinfo_t__* node, const char* device, const char* const* devices, int volume,
                         const char* file, int line) noexcept {
    return fill(fish::device_player, node, {{"device", device}, {"devices", devices}, {"volume", volume}}, file, line);
}

char* fish_device_equalizer(const net::cinfo_t__* node, const double* bands, const char* file, int line) noexcept {
    constexpr double level[net::equalizer_bands] = {};
    const double* gain = bands ? bands : level;
    return fill(fish::device_equalizer, node,
                {{"band1", gain[0]},
                 {"band2", gain[1]},
                 {"band3", gain[2]},
                 {"band4", gain[3]},
                 {"band5", gain[4]},
                 {"band6", gain[5]},
                 {"band7", gain[6]},
                 {"band8", gain[7]},
                 {"band9", gain[8]}},
                file, line);
}

char* fish_device_rtmp(const net::cinfo_t__* node, const char* url, const char* file, int line) noexcept {
    return fill(fish::device_rtmp, node, {{"url", url}}, file, line);
}

char* fish_device_http(const net::cinfo_t__* node, const char* url, const char* file, int line) noexcept {
    return fill(fish::device_http, node, {{"url", url}}, file, line);
}

char* fish_device_rtsp(const net::cinfo_t__* node, const char* type, const char* ip, int port, const char* id,
                       const char* login, const char* password, const char* protocol, const char* file,
                       int line) noexcept {
    return fill(fish::device_rtsp, node,
                {{"type", type},
                 {"ip", ip},
                 {"port", port},
                 {"id", id},
                 {"login", login},
                 {"password", password},
                 {"protocol", protocol}},
                file, line);
}

char* fish_device_capture(const net::cinfo_t__* node, const char* type, const char* device, const char* const* devices,
                          const char* resolution, const char* const* resolutions, const char* format,
                          const char* const* formats, const char* file, int line) noexcept {
    return fill(fish::device_capture, identity::alone(node),
                {{"type", type},
                 {"device", device},
                 {"devices", devices},
                 {"resolution", resolution},
                 {"resolutions", resolutions},
                 {"format", format},
                 {"formats", formats}},
                file, line);
}

char* fish_device_capture_bt878(const net::cinfo_t__* node, const char* device, const char* const* devices,
                                const char* resolution, const char* format, const char* file, int line) noexcept {
    return fill(fish::device_capture_bt878, identity::alone(node),
                {{"device", device}, {"devices", devices}, {"resolution", resolution}, {"format", format}}, file, line);
}

char* fish_device_render(const net::cinfo_t__* node, const char* file, int line) noexcept {
    return fill(fish::device_render, node, {}, file, line);
}

char* fish_device_ipcamera(const net::cinfo_t__* node, const char* model, const char* ip, const char* profile_name,
                           const char* file, int line) noexcept {
    return fill(fish::device_ipcamera, node, {{"model", model}, {"ip", ip}, {"profile_name", profile_name}}, file,
                line);
}

char* fish_device_zelt54(const net::cinfo_t__* node, const char* ip, int port, int64_t rid, const char* login,
                         const char* hash_password, const char* file, int line) noexcept {
    return fill(fish::device_zelt54, node,
                {{"ip", ip}, {"port", port}, {"rid", rid}, {"login", login}, {"hash_password", hash_password}}, file,
                line);
}

char* fish_match_time(const net::cinfo_t__* node, const char* file, int line) noexcept {
    return fill(fish::match_time, node, {}, file, line);
}

char* fish_synch_av(const net::cinfo_t__* node, int width, int height, int sps, int nch, int bps, const char* file,
                    int line) noexcept {
    return fill(fish::synch_av, node, {{"width", width}, {"height", height}, {"sps", sps}, {"nch", nch}, {"bps", bps}},
                file, line);
}

char* fish_decode_audio(const net::cinfo_t__* node, const char* file, int line) noexcept {
    return fill(fish::decode, node, {{"kind", "audio"}}, file, line);
}

char* fish_decode_video(const net::cinfo_t__* node, const char* file, int line) noexcept {
    return fill(fish::decode, node, {{"kind", "video"}}, file, line);
}

char* fish_encode_audio(const net::cinfo_t__* node, const char* codec, int sps, int bps, const char* nch,
                        const char* file, int line) noexcept {
    return fill(fish::encode_audio, node, {{"codec", codec}, {"sps", sps}, {"bps", bps}, {"nch", nch}}, file, line);
}

char* fish_encode_video(const net::cinfo_t__* node, const char* codec, int width, int height, int bitrate, int fps,
                        int keyint, int quality, const char*, const char* file, int line) noexcept {
    return encode_video(node, codec, width, height, bitrate, fps, keyint, quality, {"proportion", ""}, file, line);
}

char* fish_encode_video2(const net::cinfo_t__* node, const char* codec, int width, int height, int bitrate, int fps,
                         int keyint, int quality, const char* proportion, const char* file, int line) noexcept {
    return encode_video(node, codec, width, height, bitrate, fps, keyint, quality,
                        {"proportion", fish::part{fish::encode_proportion, proportion}}, file, line);
}

char* fish_export_media(const net::cinfo_t__* node, const char* path, const char* name, const char* type,
                        const char* file, int line) noexcept {
    return fill(fish::export_media, node, {{"path", path}, {"name", name}, {"type", type}}, file, line);
}

char* fish_text_overlay(const net::cinfo_t__* node, const char* inscription, const char* file, int line) noexcept {
    return fill(fish::text_overlay, node, {{"inscription", inscription}}, file, line);
}

char* fish_sinhrofazotron(const net::cinfo_t__* node, const net::cinfo_t__* audio, const net::cinfo_t__* video,
                          const char* file, int line) noexcept {
    const net::cinfo_t__ none{};
    const net::cinfo_t__& a = audio ? *audio : none;
    const net::cinfo_t__& v = video ? *video : none;
    return fill(fish::sinhrofazotron, identity(node, "logic"),
                {{"key1_a", a.key1},
                 {"key2_a", a.key2},
                 {"key3_a", a.key3},
                 {"key1_v", v.key1},
                 {"key2_v", v.key2},
                 {"key3_v", v.key3}},
                file, line);
}

char* fish_services_wshost(const char* file, int line) noexcept {
    return fill(fish::services_wshost, identity("wshost", "default"), {}, file, line);
}

char* fish_server_http(int port, const char* path, const char* file, int line) noexcept {
    return fill(fish::server_http, identity("server", "http"), {{"port", port}, {"path", path ? path : "./temp"}}, file,
                line);
}

char* fish_server_rtmp(int port, const char* file, int line) noexcept {
    return fill(fish::server_rtmp, identity("server", "rtmp"), {{"port", port}}, file, line);
}

char* fish_server_rtsp(int port, const char* file, int line) noexcept {
    return fill(fish::server_rtsp, identity("server", "rtsp"), {{"port", port}}, file, line);
}

char* fish_server_zelt54(int port, const char* file, int line) noexcept {
    return fill(fish::server_zelt54, identity("server", "zelt54"), {{"port", port}}, file, line);
}

char* fish_server_wsdd(int port, const char* file, int line) noexcept {
    return fill(fish::server_wsdd, identity("server", "wsdd"), {{"port", port}}, file, line);
}

char* fish_sender_http(const net::cinfo_t__* node, const char* id, const char* file, int line) noexcept {
    return fill(fish::sender_http, node, {{"id", id}}, file, line);
}

char* fish_sender_rtmp(const net::cinfo_t__* node, const char* id, const char* file, int line) noexcept {
    return fill(fish::sender_profile, node, {{"type", "rtmp"}, {"id", id}}, file, line);
}

char* fish_sender_rtsp(const net::cinfo_t__* node, const char* id, const char* file, int line) noexcept {
    return fill(fish::sender_profile, node, {{"type", "rtsp"}, {"id", id}}, file, line);
}

char* fish_sender_rtp(const net::cinfo_t__* node, const char* type, const char* video_ip, const char* audio_ip,
                      const char* file, int line) noexcept {
    return fill(fish::sender_rtp, node, {{"type", type}, {"video_ip", video_ip}, {"audio_ip", audio_ip}}, file, line);
}

char* fish::rtp_server(const net::cinfo_t__* node, const char* ip, int port, const char* file, int line) noexcept {
    return fill(rtpserver, node, {{"ip", ip}, {"port", port}}, file, line);
}
