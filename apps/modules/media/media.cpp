// Module "media": plays an H.264 file in Annex B form into its track, for ever, at the pace that its stream tells.
#include "film.h"

#include "core/owned.h"
#include "core/profile.h"
#include "core/thread.h"
#include "core/time.h"
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

    int start() noexcept;
    void stop() noexcept { core_thread_stop(thread_); }

private:
    struct closer {
        void operator()(profile_ctx* profile) const noexcept { profile_close(profile); }
    };

    static void run(void* arg, thread_ctx* self);
    void put(uint64_t number, uint64_t base) const noexcept;

    std::unique_ptr<profile_ctx, closer> track_;
    std::optional<apps::track> film_;
    thread_ctx* thread_ = nullptr;
};

player::player(const char* json) {
    char error[200];
    net::Node settings;
    if (!settings.parse(json, error, sizeof error)) throw std::runtime_error(error);
    const std::string_view section = settings.section();
    if (std::string_view(settings.type()) != "media" || (section != "archive" && section != "device"))
        throw std::runtime_error("it plays files alone");
    constexpr int64_t most_fps = 240;
    const int64_t fps = std::clamp<int64_t>(settings.number("fps", 0), 0, most_fps);
    film_ = apps::load_film(settings.text("file"), static_cast<uint32_t>(fps));
    const core::owned_text name(settings.bus_name(settings.text("out"), CORE_HERE));
    track_.reset(name ? core_profile_open(name.get(), CORE_HERE) : nullptr);
    if (!track_) throw std::bad_alloc();
}

int player::start() noexcept {
    if (!thread_) thread_ = core_thread_start(this, &player::run, nullptr, CORE_HERE);
    return thread_ ? 0 : -1;
}

void player::run(void* arg, thread_ctx* self) {
    const auto& of = *static_cast<const player*>(arg);
    core_thread_setname(self, "media");
    const uint64_t base = time_now();
    const uint64_t began = core_timer();
    for (uint64_t number = 0; !core_thread_iscancel(self); ++number) {
        const uint64_t due = of.film_->time(number);
        for (uint64_t passed = core_timer() - began; passed < due; passed = core_timer() - began) {
            if (core_thread_sleep(self, static_cast<uint32_t>((due - passed + 999) / 1000))) return;
        }
        of.put(number, base);
    }
}

void player::put(uint64_t number, uint64_t base) const noexcept {
    av::frame_t frame = film_->frame(number);
    frame.time = base + film_->time(number) - film_->delay();
    const param_t params[] = {{"frame", static_cast<const void*>(&frame)}, {}};
    core_profile_put(track_.get(), params);
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
    if (param_get_text(params, "start")) return self->start();
    self->stop();
    return 0;
}

INET_PLUGIN void plugin_close(void* instance) noexcept { std::unique_ptr<player>(static_cast<player*>(instance)); }
