// The nodes that a graph knows, each with its module and its document.
#include "net_fish/fill.h"
#include "net_graph/graph.h"
#include "report.h"

#include "core/json.h"
#include "core/profile.h"
#include "core/text.h"
#include "inet/net_tab.h"

#include <charconv>

namespace net {

namespace {

/// A row of the registry tables, held.
class row {
public:
    row(tab_t table, const char* key) noexcept : row_(tab_find(table, key)) {}
    ~row() { tab_close(row_); }
    row(const row&) = delete;
    row& operator=(const row&) = delete;

    explicit operator bool() const noexcept { return row_ != nullptr; }
    const char* text(const char* name) const noexcept { return row_ ? value_get(row_->values, name) : nullptr; }
    int64_t number(const char* name) const noexcept {
        const char* found = text(name);
        int64_t value = 0;
        if (found) std::from_chars(found, found + core_strlen(found), value);
        return value;
    }
    int setting(const char* name) const noexcept { return static_cast<int>(number(name)); }

private:
    const tab_row_t* row_;
};

/// Whether the archive's answer says that there is something.
bool is_something(const char* answer) noexcept {
    json_t* root = yajl_tree_parse(answer, nullptr, 0);
    const bool found = root && (root->type == json_true ||
                                ((root->type == json_object || root->type == json_array) && root->count > 0));
    yajl_tree_free(root);
    return found;
}

bool archive_holds(const char* source, core::place where) noexcept {
    const core::owned_text escaped(core_json_encode(source, where.file, where.line));
    const core::owned_text wanted(core_sprintf(where.file, where.line, "{  \"key2\": \"%s\",   \"view\": \"simple\" }",
                                               escaped ? escaped.get() : ""));
    profile_ctx* archive = core_profile_open("plugin_methods_archive", where.file, where.line);
    const param_t question[] = {{"command", "call"},
                                {"plugin", "archive"},
                                {"method", "stat_single"},
                                {"params", static_cast<const char*>(wanted.get())},
                                {}};
    const core::owned_text answer(escaped && wanted ? profile_request(archive, question, where.file, where.line)
                                                    : nullptr);
    profile_close(archive);
    return answer && is_something(answer.get());
}

}  // namespace

bool Graph::add_archive(const cinfo_t__* node, const char* source) noexcept {
    if (!source) return false;
    if (archive_holds(source, inside_->where))
        return add_archive_reader(node, node ? node->key1 : nullptr, source, nullptr, nullptr);
    const row server(tab_sources, source);
    const char* host = server.text("host");
    if (!host || !*host || !server.text("id")) {
        report("nobody holds the archive of '%s'", source);
        return false;
    }
    return add_archive_zelt54(node, host, server.setting("port"), server.number("id"), false);
}

bool Graph::clone_encode_video(const cinfo_t__* node, const char* id, const char* codec, int bitrate) noexcept {
    const row of(tab_streams, id);
    return of && add_encode_video2(node, codec, of.setting("width"), of.setting("height"), bitrate, of.setting("fps"),
                                   of.setting("keyint"), of.setting("quality"), of.text("proportion"));
}

bool Graph::clone_encode_audio(const cinfo_t__* node, const char* id, const char* codec, int sps, int bps,
                               const char* nch) noexcept {
    return row(tab_streams, id) && add_encode_audio(node, codec, sps, bps, nch);
}

bool Graph::add_archive_zelt54(const cinfo_t__* node, const char* ip, int port, int64_t rid, bool audio) noexcept {
    return inside_->add_fish("zelt54client", fish_archive_zelt54, node, ip, port, rid, audio);
}

bool Graph::add_archive_reader(const cinfo_t__* node, const char* arc_key1, const char* arc_key2, const char* arc_key3,
                               const char* subtype) noexcept {
    return inside_->add_fish("reader", fish_archive_reader, node, arc_key1, arc_key2, arc_key3, subtype);
}

bool Graph::add_archive_writer(const cinfo_t__* node) noexcept {
    return inside_->add_fish("writer", fish_archive_writer, node);
}

bool Graph::add_archive_media(const cinfo_t__* node, const char* path) noexcept {
    return inside_->add_fish("media", fish_archive_media, node, path);
}

bool Graph::add_device_media(const cinfo_t__* node, const char* path, int video_stream, int audio_stream, int fps,
                             int speed) noexcept {
    return inside_->add_fish("media", fish_device_media, node, path, video_stream, audio_stream, fps, speed);
}

bool Graph::add_device_microphone(const cinfo_t__* node, const char* device, const char* const* devices,
                                  int sampling_rate, int quality, const char* channel) noexcept {
    return inside_->add_fish("sound", fish_device_microphone, node, device, devices, sampling_rate, quality, channel);
}

bool Graph::add_device_sound_detect(const cinfo_t__* node, int nthresh, int width, int height) noexcept {
    return inside_->add_fish("sound", fish_device_sound_detect, node, nthresh, width, height);
}

bool Graph::add_device_sound_mixer(const cinfo_t__* node, const char* codec) noexcept {
    return inside_->add_fish("sound", fish_device_sound_mixer, node, codec);
}

bool Graph::add_device_player(const cinfo_t__* node, const char* device, const char* const* devices,
                              int volume) noexcept {
    return inside_->add_fish("sound", fish_device_player, node, device, devices, volume);
}

bool Graph::add_device_equalizer(const cinfo_t__* node, const double* bands) noexcept {
    return inside_->add_fish("sound", fish_device_equalizer, node, bands);
}

bool Graph::add_device_rtmp(const cinfo_t__* node, const char* url) noexcept {
    return inside_->add_fish("rtmp", fish_device_rtmp, node, url);
}

bool Graph::add_device_http(const cinfo_t__* node, const char* url) noexcept {
    return inside_->add_fish("http", fish_device_http, node, url);
}

bool Graph::add_device_rtsp(const cinfo_t__* node, const char* type, const char* ip, int port, const char* id,
                            const char* login, const char* password, const char* protocol) noexcept {
    return inside_->add_fish("rtsp", fish_device_rtsp, node, type, ip, port, id, login, password, protocol);
}

bool Graph::add_device_capture(const cinfo_t__* node, const char* type, const char* device, const char* const* devices,
                               const char* resolution, const char* const* resolutions, const char* format,
                               const char* const* formats) noexcept {
    return inside_->add_fish("capture", fish_device_capture, node, type, device, devices, resolution, resolutions,
                             format, formats);
}

bool Graph::add_device_capture_bt878(const cinfo_t__* node, const char* device, const char* const* devices,
                                     const char* resolution, const char* format) noexcept {
    return inside_->add_fish("capture", fish_device_capture_bt878, node, device, devices, resolution, format);
}

bool Graph::add_device_render(const cinfo_t__* node) noexcept {
    return inside_->add_fish("render", fish_device_render, node);
}

bool Graph::add_device_ipcamera(const cinfo_t__* node, const char* model, const char* ip,
                                const char* profile_name) noexcept {
    return inside_->add_fish("ipcameras", fish_device_ipcamera, node, model, ip, profile_name);
}

bool Graph::add_device_zelt54(const cinfo_t__* node, const char* ip, int port, int64_t rid, const char* login,
                              const char* hash_password) noexcept {
    return inside_->add_fish("zelt54client", fish_device_zelt54, node, ip, port, rid, login, hash_password);
}

bool Graph::add_match_time(const cinfo_t__* node) noexcept { return inside_->add_fish("text", fish_match_time, node); }

bool Graph::add_synch_av(const cinfo_t__* node, int width, int height, int sps, int nch, int bps) noexcept {
    return inside_->add_fish("ratchet", fish_synch_av, node, width, height, sps, nch, bps);
}

bool Graph::add_decode_audio(const cinfo_t__* node) noexcept {
    return inside_->add_fish("recode", fish_decode_audio, node);
}

bool Graph::add_decode_video(const cinfo_t__* node) noexcept {
    return inside_->add_fish("recode", fish_decode_video, node);
}

bool Graph::add_encode_audio(const cinfo_t__* node, const char* codec, int sps, int bps, const char* nch) noexcept {
    return inside_->add_fish("recode", fish_encode_audio, node, codec, sps, bps, nch);
}

bool Graph::add_encode_video(const cinfo_t__* node, const char* codec, int width, int height, int bitrate, int fps,
                             int keyint, int quality, const char* proportion) noexcept {
    return inside_->add_fish("recode", fish_encode_video, node, codec, width, height, bitrate, fps, keyint, quality,
                             proportion);
}

bool Graph::add_encode_video2(const cinfo_t__* node, const char* codec, int width, int height, int bitrate, int fps,
                              int keyint, int quality, const char* proportion) noexcept {
    return inside_->add_fish("recode", fish_encode_video2, node, codec, width, height, bitrate, fps, keyint, quality,
                             proportion);
}

bool Graph::add_export_media(const cinfo_t__* node, const char* path, const char* name, const char* type) noexcept {
    return inside_->add_fish("media", fish_export_media, node, path, name, type);
}

bool Graph::add_text_overlay(const cinfo_t__* node, const char* inscription) noexcept {
    return inside_->add_fish("text", fish_text_overlay, node, inscription);
}

bool Graph::add_sinhrofazotron(const cinfo_t__* node, const cinfo_t__* audio, const cinfo_t__* video) noexcept {
    return inside_->add_fish("sinhrofazotron", fish_sinhrofazotron, node, audio, video);
}

bool Graph::add_services_wshost() noexcept { return inside_->add_fish("wshost", fish_services_wshost); }

bool Graph::add_server_http(int port, const char* path) noexcept {
    return inside_->add_fish("http", fish_server_http, port, path);
}

bool Graph::add_server_rtmp(int port) noexcept { return inside_->add_fish("rtmp", fish_server_rtmp, port); }

bool Graph::add_server_rtsp(int port) noexcept { return inside_->add_fish("rtsp", fish_server_rtsp, port); }

bool Graph::add_server_zelt54(int port) noexcept { return inside_->add_fish("zelt54server", fish_server_zelt54, port); }

bool Graph::add_server_wsdd(int port) noexcept { return inside_->add_fish("onvif", fish_server_wsdd, port); }

bool Graph::add_sender_http(const cinfo_t__* node, const char* id) noexcept {
    return inside_->add_fish("http", fish_sender_http, node, id);
}

bool Graph::add_sender_rtmp(const cinfo_t__* node, const char* id) noexcept {
    return inside_->add_fish("rtmp", fish_sender_rtmp, node, id);
}

bool Graph::add_sender_rtsp(const cinfo_t__* node, const char* id) noexcept {
    return inside_->add_fish("rtsp", fish_sender_rtsp, node, id);
}

bool Graph::add_rtpserver(const cinfo_t__* node, const char* ip, int port) noexcept {
    return inside_->add_fish("rtpserv", fish::rtp_server, node, ip, port);
}

}  // namespace net
