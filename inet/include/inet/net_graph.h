/// Media graphs. A graph is a list of nodes. A node is a plug-in module, a dynamic library that is loaded by name and
/// configured with one JSON document (inet/net_fish.h). Nodes are not linked to each other: each names its tracks, and
/// those that share a track exchange frames over the profile bus (core/profile.h). docs/modules.md tells how to write a
/// module.
///
/// A module exports three functions with C linkage, marked INET_PLUGIN:
///     plugin_open     makes an instance of the list's text entry "json"; null refuses
///     plugin_exec     takes one text entry, "start" or "stop", with the value "1"; a negative number is a failure, for
///                     which Graph::strerr() has a text
///     plugin_close    ends the instance. It was stopped before. None of its threads may run when it returns, since the
///                     library is unloaded
/// The three run on the thread that drives the graph. A module that refuses or fails says why with net_graph_reason().
#pragma once

#include "core/api.h"
#include "core/owned.h"
#include "core/param.h"
#include "inet/net_fish.h"

extern "C" {
typedef void* plugin_open_fn(const param_t* params);
typedef int plugin_exec_fn(void* instance, const param_t* params);
typedef void plugin_close_fn(void* instance);
}

/// For modules: why the call that runs fails, in one line of at most 300 bytes. It becomes a part of the graph's
/// message.
INET_PRINTF(1, 2) INET_API void net_graph_reason(const char* format, ...) noexcept;

namespace net {

struct nt_ctx;

/// A start of a graph: what its nodes have in common.
struct graph_start_t {
    uint64_t time = 0;         ///< of its beginning, by core_timer()
    nt_ctx* thread = nullptr;  ///< where the host wants what modules do in time, so that their frames wake no other
                               ///< thread; null: on threads of their own
};

}  // namespace net

/// For modules: the start that runs. Between starts all is 0.
INET_API net::graph_start_t net_graph_start() noexcept;

namespace net {

/// A graph is driven by one thread at a time. What it does is told to the log "graph".
class INET_API Graph final {
public:
    /// @return null when memory is out. Release with destroy().
    static Graph* create(const char* file, int line) noexcept;
    /// Closes the nodes and releases the graph; null is ignored.
    static void destroy(Graph* graph) noexcept;

    /// Keeps a text with the graph, in place of the one before. Null is the empty text.
    void init(const char* text) noexcept;

    /// Names the network thread on which modules may have their timers; null, as at first, for none. It outlives what
    /// runs from the next start() on to stop(). Subscribers of tracks are then called on it, and may not wait.
    void run_on(nt_ctx* thread) noexcept;

    /// Loads a module and opens a node with a document, which stays the caller's. A node that cannot be opened is
    /// dropped, with one line on the error log and the console that tells why; the graph is as before.
    /// @param module  a name or path, as core_dll_open() takes it
    /// @return whether the graph has the node
    bool add(const char* module, const char* json) noexcept;

    /// Starts the nodes in the order in which they were added. All are tried.
    /// @return whether every node was started by this call: false when one failed, or was started before
    bool start() noexcept;
    /// Stops the started nodes, in the same order. @return whether none of them failed
    bool stop() noexcept;
    /// Stops, closes and unloads all nodes, in the same order. @return whether none failed to stop
    bool close() noexcept;

    /// Text of a module's error code; "" for one that has none. Never null.
    static const char* strerr(int code) noexcept;

    // Each builds the document of its node with the fish_ call of that name, and adds it. @return as add()
    bool add_archive_zelt54(const cinfo_t__* node, const char* ip, int port, int64_t rid, bool audio) noexcept;
    bool add_archive_reader(const cinfo_t__* node, const char* arc_key1, const char* arc_key2, const char* arc_key3,
                            const char* subtype) noexcept;
    bool add_archive_writer(const cinfo_t__* node) noexcept;
    bool add_archive_media(const cinfo_t__* node, const char* path) noexcept;
    bool add_device_media(const cinfo_t__* node, const char* path, int video_stream, int audio_stream, int fps,
                          int speed) noexcept;
    bool add_device_microphone(const cinfo_t__* node, const char* device, const char* const* devices, int sampling_rate,
                               int quality, const char* channel) noexcept;
    bool add_device_sound_detect(const cinfo_t__* node, int nthresh, int width, int height) noexcept;
    bool add_device_sound_mixer(const cinfo_t__* node, const char* codec) noexcept;
    bool add_device_player(const cinfo_t__* node, const char* device, const char* const* devices, int volume) noexcept;
    bool add_device_equalizer(const cinfo_t__* node, const double* bands) noexcept;
    bool add_device_rtmp(const cinfo_t__* node, const char* url) noexcept;
    bool add_device_http(const cinfo_t__* node, const char* url) noexcept;
    bool add_device_rtsp(const cinfo_t__* node, const char* type, const char* ip, int port, const char* id,
                         const char* login, const char* password, const char* protocol) noexcept;
    bool add_device_capture(const cinfo_t__* node, const char* type, const char* device, const char* const* devices,
                            const char* resolution, const char* const* resolutions, const char* format,
                            const char* const* formats) noexcept;
    bool add_device_capture_bt878(const cinfo_t__* node, const char* device, const char* const* devices,
                                  const char* resolution, const char* format) noexcept;
    bool add_device_render(const cinfo_t__* node) noexcept;
    bool add_device_ipcamera(const cinfo_t__* node, const char* model, const char* ip,
                             const char* profile_name) noexcept;
    bool add_device_zelt54(const cinfo_t__* node, const char* ip, int port, int64_t rid, const char* login,
                           const char* hash_password) noexcept;
    bool add_match_time(const cinfo_t__* node) noexcept;
    bool add_synch_av(const cinfo_t__* node, int width, int height, int sps, int nch, int bps) noexcept;
    bool add_decode_audio(const cinfo_t__* node) noexcept;
    bool add_decode_video(const cinfo_t__* node) noexcept;
    bool add_encode_audio(const cinfo_t__* node, const char* codec, int sps, int bps, const char* nch) noexcept;
    bool add_encode_video(const cinfo_t__* node, const char* codec, int width, int height, int bitrate, int fps,
                          int keyint, int quality, const char* proportion) noexcept;
    bool add_encode_video2(const cinfo_t__* node, const char* codec, int width, int height, int bitrate, int fps,
                           int keyint, int quality, const char* proportion) noexcept;
    bool add_export_media(const cinfo_t__* node, const char* path, const char* name, const char* type) noexcept;
    bool add_text_overlay(const cinfo_t__* node, const char* inscription) noexcept;
    bool add_sinhrofazotron(const cinfo_t__* node, const cinfo_t__* audio, const cinfo_t__* video) noexcept;
    bool add_services_wshost() noexcept;
    bool add_server_http(int port, const char* path) noexcept;
    bool add_server_rtmp(int port) noexcept;
    bool add_server_rtsp(int port) noexcept;
    bool add_server_zelt54(int port) noexcept;
    bool add_server_wsdd(int port) noexcept;
    bool add_sender_http(const cinfo_t__* node, const char* id) noexcept;
    bool add_sender_rtmp(const cinfo_t__* node, const char* id) noexcept;
    bool add_sender_rtsp(const cinfo_t__* node, const char* id) noexcept;
    /// Sends a track by RTP to an address.
    bool add_rtpserver(const cinfo_t__* node, const char* ip, int port) noexcept;

    /// Adds the node that plays an archive: the "reader" when the local archive holds the source, else the client of
    /// the server that tab_sources names for it (inet/net_tab.h). The local archive is asked over the profile bus:
    ///     name       "plugin_methods_archive"
    ///     entries    "command" = "call", "plugin" = "archive", "method" = "stat_single", "params" = a JSON object
    ///                whose member "key2" is the source
    ///     answer     JSON. An object or array that is not empty, or true, says that it holds the source
    /// @return as add(); false when nobody holds the source
    bool add_archive(const cinfo_t__* node, const char* source) noexcept;

    /// Adds an encoder whose settings are those of a stream in tab_streams. @return as add(); false without that stream
    bool clone_encode_video(const cinfo_t__* node, const char* id, const char* codec, int bitrate) noexcept;
    bool clone_encode_audio(const cinfo_t__* node, const char* id, const char* codec, int sps, int bps,
                            const char* nch) noexcept;

    Graph(const Graph&) = delete;
    Graph& operator=(const Graph&) = delete;

private:
    struct inside;
    template <class T, class... Args>
    friend T* core::create(const char* file, int line, Args&&... args) noexcept;
    template <class T>
    friend void core::destroy(T* object) noexcept;
    explicit Graph(inside* made) noexcept : inside_(made) {}
    ~Graph();

    inside* inside_;
};

}  // namespace net
