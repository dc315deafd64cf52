// What players are told of a context.
#include "net_dash/contexts.h"
#include "net_dash/mpd.h"

#include "core/owned.h"
#include "core/param.h"
#include "core/template.h"
#include "core/time.h"

#include <cstdio>

namespace net::dash {

namespace {

constexpr int64_t update_s = 3;

struct time_text {
    char text[32];

    time_text(uint64_t us, const char* format) noexcept { time_format(us, format, text, sizeof text); }
};

}  // namespace

char* make_manifest(dash_ctx& ctx, const char* file, int line) {
    if (!ctx.segments.is_ready() || ctx.is_retired) return nullptr;
    constexpr const char* seconds = "%Y-%m-%dT%H:%M:%SZ";
    constexpr const char* milliseconds = "%Y-%m-%dT%H:%M:%S.%sZ";
    const opening_segment& opening = *ctx.segments.opening();
    const time_text start(ctx.start, seconds);
    const time_text end(ctx.end, seconds);
    const time_text now(time_now(), seconds);
    const time_text base(opening.base, milliseconds);
    const time_text media_now(ctx.pack.now(), milliseconds);
    const listing list = ctx.segments.list();
    char codec[7];
    std::snprintf(codec, sizeof codec, "%02x%02x%02x", opening.codec[0], opening.codec[1], opening.codec[2]);
    char media_duration[32];
    std::snprintf(media_duration, sizeof media_duration, "%.3f", static_cast<double>(list.total) / 1000.0);
    char length[48] = "";
    if (ctx.is_range())
        std::snprintf(length, sizeof length, " duration=\"%llu\"", static_cast<unsigned long long>(list.total));
    const int64_t longest = (int64_t{list.longest} + 500) / 1000;
    const dash_property_t property = describe(ctx);
    const param_t shown[] = {
        {"token", static_cast<const char*>(ctx.name)},
        {"width", int64_t{property.width}},
        {"height", int64_t{property.height}},
        {"codec", static_cast<const char*>(codec)},
        {"role", ctx.is_range() ? nullptr : dynamic_role},
        {"length", static_cast<const char*>(length)},
        {"timeline", list.lines.c_str()},
        {},
    };
    const core::owned_text pictures(core_template_parse(mpd_pictures, shown, file, line));
    if (!pictures) return nullptr;
    const param_t params[] = {
        {"start_time", start.text},
        {"end_time", end.text},
        {"publish_time", now.text},
        {"availability_start", base.text},
        {"media_now", media_now.text},
        {"shift", static_cast<int64_t>(list.total / 1000)},
        {"delay", longest + update_s + 1},
        {"title", "Norvane-K media MPEG-DASH streaming."},
        {"url", "live"},
        {"token", static_cast<const char*>(ctx.name)},
        {"max_dur", longest},
        {"media_duration", static_cast<const char*>(media_duration)},
        {"pictures", static_cast<const char*>(pictures.get())},
        {},
    };
    char* const text = core_template_parse(ctx.is_range() ? static_mpd : dynamic_mpd, params, file, line);
    if (text) core_log_print(log(), "manifest:%s\n%s", ctx.name, text);
    return text;
}

dash_property_t describe(const dash_ctx& ctx) noexcept {
    const opening_segment* const opening = ctx.segments.opening();
    const bool is_sized = opening && opening->width && opening->height;
    return {.token = ctx.track.token.c_str(),
            .start = ctx.start,
            .end = ctx.end,
            .width = is_sized ? opening->width : ctx.track.width,
            .height = is_sized ? opening->height : ctx.track.height,
            .profile = opening ? opening->codec[0] : ctx.track.profile};
}

}  // namespace net::dash
