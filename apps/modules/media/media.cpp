// Module "media": plays files into its track, for ever, at their pace.
#include "film.h"
#include "pacer.h"

#include "avc/fcc.h"
#include "core/buf.h"
#include "core/owned.h"
#include "core/profile.h"
#include "core/text.h"
#include "inet/net_graph.h"
#include "inet/net_node.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace {

class player {
public:
    explicit player(const char* json);
    ~player() { stop(); }
    player(const player&) = delete;
    player& operator=(const player&) = delete;

    void start();
    void stop() noexcept;

private:
    static void on_bus(void* arg, profile_ctx* profile, profile_event_t event, const param_t* params);

    std::optional<media_module::track> track_;
    core::owned<profile_ctx, profile_close> bus_;
    std::optional<media_module::pacer::played_t> played_;
    std::shared_ptr<media_module::pacer> pacer_;  ///< while it plays
};

media_module::wanted_t wanted_of(const net::Node& settings) {
    const bool pictures = settings.number("video_stream", 0) > 0;
    const bool sound = settings.number("audio_stream", 0) > 0;
    if (pictures == sound) return media_module::wanted_t::any;
    return pictures ? media_module::wanted_t::pictures : media_module::wanted_t::sound;
}

player::player(const char* json) {
    char error[200];
    net::Node settings;
    if (!settings.parse(json, error, sizeof error)) throw std::runtime_error(error);
    const std::string_view section = settings.section();
    if (std::string_view(settings.type()) != "media" || (section != "archive" && section != "device"))
        throw std::runtime_error("it plays files alone");
    constexpr int64_t most_fps = 240;
    const int64_t fps = std::clamp<int64_t>(settings.number("fps", 0), 0, most_fps);
    track_ = media_module::load_track(settings.text("file"), wanted_of(settings), static_cast<uint32_t>(fps));
    const core::owned_text name(settings.bus_name(settings.text("out"), CORE_HERE));
    bus_.reset(name ? core_profile_open2(name.get(), this, &player::on_bus, CORE_HERE) : nullptr);
    if (!bus_) throw std::bad_alloc();
}

/// Who asks what the track carries is told.
void player::on_bus(void* arg, profile_ctx* profile, profile_event_t event, const param_t* params) {
    const char* command = event == profile_ask ? param_get_text(params, "command") : nullptr;
    if (!command || std::string_view(command) != "format") return;
    const media_module::track& played = *static_cast<const player*>(arg)->track_;
    const av::frame_t& first = played.frame(0);
    const buffer_t config{const_cast<uint8_t*>(played.config().data()), static_cast<uint32_t>(played.config().size())};
    const core::owned_text hex(config.size ? core_buffer_hex(&config, CORE_HERE) : nullptr);
    char fcc[5];
    const core::owned_text answer(core_sprintf(
        CORE_HERE, R"({"fcc": "%s", "width": %u, "height": %u, "rate": %u, "channels": %u, "config": "%s"})",
        fcc_str(first.fcc, fcc), first.width, first.height, first.rate, first.channels, hex ? hex.get() : ""));
    core_profile_answer(profile, answer.get());
}

void player::start() {
    stop();
    played_ = {.of = &*track_, .bus = bus_.get()};
    auto pacer = media_module::pacer::of_this_start();
    pacer->add(*played_);
    pacer_ = std::move(pacer);
}

void player::stop() noexcept {
    if (pacer_) pacer_->remove(*played_);
    pacer_.reset();
}

}  // namespace

INET_PLUGIN void* plugin_open(const param_t* params) noexcept {
    try {
        return std::make_unique<player>(param_get_text(params, "json")).release();
    } catch (const std::exception& reason) {
        net_graph_reason("%s", reason.what());
        return nullptr;
    }
}

INET_PLUGIN int plugin_exec(void* instance, const param_t* params) noexcept {
    auto* self = static_cast<player*>(instance);
    try {
        if (param_get_text(params, "start"))
            self->start();
        else
            self->stop();
        return 0;
    } catch (const std::exception& reason) {
        net_graph_reason("%s", reason.what());
        return -1;
    }
}

INET_PLUGIN void plugin_close(void* instance) noexcept { std::unique_ptr<player>(static_cast<player*>(instance)); }
