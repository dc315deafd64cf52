// The smallest module of a graph: tells whoever listens to its track that it is started, and stopped.
#include "core/owned.h"
#include "core/profile.h"
#include "inet/net_graph.h"
#include "inet/net_node.h"

namespace {

struct heartbeat {
    ~heartbeat() { profile_close(track); }

    net::Node settings;
    profile_ctx* track = nullptr;
};

}  // namespace

INET_PLUGIN void* plugin_open(const param_t* params) noexcept {
    auto* self = core::create<heartbeat>(CORE_HERE);
    char error[100] = "no memory";
    if (self && self->settings.parse(param_get_text(params, "json"), error, sizeof error)) {
        const core::owned_text name(self->settings.bus_name(self->settings.text("out"), CORE_HERE));
        self->track = name ? core_profile_open(name.get(), CORE_HERE) : nullptr;
        if (self->track) return self;
    }
    net_graph_reason("%s", error);
    core::destroy(self);
    return nullptr;
}

INET_PLUGIN int plugin_exec(void* instance, const param_t* params) noexcept {
    const param_t beat[] = {{"text", param_get_text(params, "start") ? "started" : "stopped"}, {}};
    const uint32_t listeners = core_profile_put(static_cast<heartbeat*>(instance)->track, beat);
    return listeners > 0 ? 0 : -41;
}

INET_PLUGIN void plugin_close(void* instance) noexcept { core::destroy(static_cast<heartbeat*>(instance)); }
