#include "media/intake.h"

#include "core/json.h"
#include "core/owned.h"
#include "core/profile.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

namespace media {

namespace {

struct json_release {
    void operator()(json_t* root) const noexcept { yajl_tree_free(root); }
};

void on_bus(void* arg, profile_ctx*, profile_event_t event, const param_t* params) {
    const param_t* const frame = event == profile_put ? param_find(params, "frame") : nullptr;
    if (frame && frame->type == param_data && frame->data)
        static_cast<stream*>(arg)->push(*static_cast<const av::frame_t*>(frame->data));
}

/// What the source of the track tells of it; its `fcc` is 0 when nobody answers.
format_t ask_format(profile_ctx* bus) noexcept {
    const param_t question[] = {{"command", "format"}, {}};
    const core::owned_text answer(profile_request(bus, question, CORE_HERE));
    const std::unique_ptr<json_t, json_release> root(yajl_tree_parse(answer ? answer.get() : "", nullptr, 0));
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
    return found;
}

}  // namespace

int intake::open(const char* track, stream& into, format_t* found) noexcept {
    close();
    bus_ = core_profile_open2(track, &into, on_bus, CORE_HERE);
    if (!bus_) return 0;
    into.keep();
    into_ = &into;
    const format_t format = ask_format(bus_);
    if (found) *found = format;
    if (!format.fcc || into.declare(kind_of(format.fcc), format)) return 1;
    close();
    return 0;
}

void intake::close() noexcept {
    profile_close(bus_);
    stream::drop(std::exchange(into_, nullptr));
}

}  // namespace media
