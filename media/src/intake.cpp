#include "media/intake.h"

#include "core/json.h"
#include "core/owned.h"
#include "core/profile.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace media {

namespace {

void on_bus(void* arg, profile_ctx*, profile_event_t event, const param_t* params) {
    const param_t* const frame = event == profile_put ? param_find(params, "frame") : nullptr;
    if (frame && frame->type == param_data && frame->data)
        static_cast<stream*>(arg)->push(*static_cast<const av::frame_t*>(frame->data));
}

/// What the source of the track tells of it; its `fcc` is 0 when nobody answers.
/// @param config  holds its configuration, for the caller to release
format_t ask_format(profile_ctx* bus, buffer_t& config) noexcept {
    const param_t question[] = {{"command", "format"}, {}};
    const core::owned_text answer(profile_request(bus, question, CORE_HERE));
    const core::owned<json_t, yajl_tree_free> root(yajl_tree_parse(answer ? answer.get() : "", nullptr, 0));
    const auto number = [&](const char* name) {
        return static_cast<uint32_t>(std::clamp<int64_t>(json_integer(json_get(root.get(), name), 0), 0, UINT32_MAX));
    };
    format_t found;
    const char* const fcc = json_text(json_get(root.get(), "fcc"));
    if (fcc && std::strlen(fcc) == sizeof found.fcc) std::memcpy(&found.fcc, fcc, sizeof found.fcc);
    found.width = number("width");
    found.height = number("height");
    found.rate = number("rate");
    found.channels = number("channels");
    const char* const hex = json_text(json_get(root.get(), "config"));
    if (hex && *hex && core_buffer_unhex(&config, hex, CORE_HERE)) found.config = config;
    return found;
}

}  // namespace

int intake::open(const char* track, stream& into, format_t* found) noexcept {
    close();
    bus_ = core_profile_open2(track, &into, on_bus, CORE_HERE);
    if (!bus_) return 0;
    into.keep();
    into_ = &into;
    buffer_t config{};
    format_t format = ask_format(bus_, config);
    const bool declared = !format.fcc || into.declare(kind_of(format.fcc), format);
    core_buffer_free(&config);
    format.config = {};
    if (found) *found = format;
    if (!declared) close();
    return declared ? 1 : 0;
}

void intake::close() noexcept {
    profile_close(bus_);
    stream::drop(std::exchange(into_, nullptr));
}

}  // namespace media
