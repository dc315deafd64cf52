#include "media/stream.h"

#include "stream/inside.h"

#include "avc/fcc.h"
#include "core/text.h"
#include "core/time.h"
#include "inet/net_analytics.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <utility>

namespace media {

namespace {

constexpr uint64_t second = 1'000'000;  ///< microseconds
constexpr uint64_t shortest_hold = 2 * second;
constexpr uint32_t fewest_frames = 16;
constexpr uint32_t most_frames = 1U << 16;

std::atomic<uint64_t> streams_made = 0;

}  // namespace

void tell(failure_t* error, const char* format, ...) noexcept {
    if (!error) return;
    va_list args;
    va_start(args, format);
    std::vsnprintf(error->text, sizeof error->text, format, args);
    va_end(args);
}

stream::inside::inside(const char* caller_file, int caller_line) noexcept
    : file(caller_file),
      line(caller_line),
      id(++streams_made),
      ring(core::place{caller_file, caller_line}),
      config(core::place{caller_file, caller_line}),
      cursors(core::place{caller_file, caller_line}),
      listeners(core::place{caller_file, caller_line}) {}

stream::inside::~inside() {
    for (slot_t& each : ring)
        each.clear();
}

stream* stream::create(const char* name, const limits_t& limits, const char* file, int line) noexcept {
    core::owned_object<inside> made(core::create<inside>(file, line, file, line));
    if (!made) return nullptr;
    made->name.reset(core_strdup(name ? name : "", file, line));
    if (!made->name) return nullptr;
    made->limits = limits;
    try {
        made->ring.resize(std::bit_ceil(std::clamp(limits.frames, fewest_frames, most_frames)));
        void* block = core_malloc(sizeof(stream), file, line);
        if (!block) return nullptr;
        return ::new (block) stream(made.release());
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void stream::keep() noexcept { inside_->users.fetch_add(1, std::memory_order_relaxed); }

void stream::drop(stream* held) noexcept {
    if (!held || held->inside_->users.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    core::destroy(held->inside_);
    core_mfree(held);
}

uint64_t stream::id() const noexcept { return inside_->id; }
const char* stream::name() const noexcept { return inside_->name.get(); }

int stream::declare(kind_t kind, const format_t& format) noexcept {
    return kind_of(format.fcc) == kind ? declare(&format, 1) : 0;
}

int stream::declare(const format_t* formats, uint32_t count) noexcept {
    inside& in = *inside_;
    int done = 1;
    {
        const std::lock_guard held(in.lock);
        for (uint32_t i = 0; i < count; ++i)
            done &= formats[i].fcc && in.declare(formats[i]) ? 1 : 0;
    }
    in.news();
    return done;
}

bool stream::inside::declare(const format_t& format) noexcept {
    const auto index = static_cast<size_t>(kind_of(format.fcc));
    try {
        const format_share& before = formats[index];
        const format_t known = before ? before->shown : format_t{};
        const format_t wanted = complete(format, known, config);
        if (before && same_format(known, wanted)) return true;
        format_share made = make_format(wanted, known.generation + 1, file, line);
        if (!made) return false;
        formats[index] = std::move(made);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// What is held for nobody, and what is beyond the bounds.
void stream::inside::evict_first() noexcept {
    slot_t& oldest = slot(first);
    bytes -= oldest.frame.size;
    oldest.clear();
    if (first == key) key = no_number;
    ++first;
}

bool stream::inside::is_reserved(uint64_t number, uint64_t age) const noexcept {
    return std::ranges::any_of(
        cursors, [&](const cursor::inside* each) { return number >= each->next && age < each->settings.reserve; });
}

void stream::inside::evict(uint64_t now) noexcept {
    while (first != next) {
        const slot_t& oldest = slot(first);
        const uint64_t age = now - oldest.arrival;
        const bool beyond = bytes > limits.bytes || age > limits.time;
        const bool wanted = first >= key || age < shortest_hold || (reserving != 0 && is_reserved(first, age));
        if (!beyond && wanted) return;
        evict_first();
    }
}

// A copy with the parameter sets in front, for readers that come in here.
bool stream::inside::share_with_sets(const av::frame_t& frame, const format_t& format, av::frame_t& out) {
    core::vector<uint8_t> joined(core::place{file, line});
    if (size_t{format.config.size} + frame.size > limits.bytes) return false;
    joined.reserve(size_t{format.config.size} + frame.size);
    joined.assign(format.config.data, format.config.data + format.config.size);
    joined.insert(joined.end(), frame.data, frame.data + frame.size);
    av::frame_t whole = frame;
    whole.data = joined.data();
    whole.size = static_cast<uint32_t>(joined.size());
    whole.payload = nullptr;
    return avc_frame_share(&out, &whole, file, line) != 0;
}

// What is held of a frame: its payload, complete for who begins here, and its format.
bool stream::inside::shape(const av::frame_t& frame, kind_t kind, slot_t& out) noexcept {
    try {
        format_share& now = formats[static_cast<size_t>(kind)];
        const format_t known = now ? now->shown : format_t{};
        const learned_t learned = learn(frame, known, config);
        if (learned.lacks_sets && known.config.size == 0) return false;
        if (!now || !same_format(known, learned.format)) {
            format_share made = make_format(learned.format, known.generation + 1, file, line);
            if (!made) return false;
            now = std::move(made);
        }
        const bool shared = learned.lacks_sets ? share_with_sets(frame, now->shown, out.frame)
                                               : avc_frame_share(&out.frame, &frame, file, line) != 0;
        if (shared) out.format = share(now.get());
        return shared;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

int stream::push(const av::frame_t& frame, const timing_t& timing) noexcept {
    const bool fits = frame.data && frame.size <= inside_->limits.bytes;
    if (fits && frame.fcc == av::fcc_meta && net_analytics_is_report(frame.data, frame.size))
        return take_report(frame, timing);
    if (frame.payload || !frame.data || frame.size > inside_->limits.bytes) return take(frame, timing);
    // Borrowed bytes are copied before anybody waits.
    av::frame_t own;
    if (!avc_frame_share(&own, &frame, inside_->file, inside_->line)) return 0;
    const int taken = take(own, timing);
    avc_frame_drop(&own);
    return taken;
}

int stream::take_report(const av::frame_t& frame, const timing_t& timing) noexcept {
    const inside& in = *inside_;
    const core::owned_text json(core_strndup(reinterpret_cast<const char*>(frame.data), frame.size, in.file, in.line));
    if (!json) return 0;
    const core::owned_text text(net_analytics_convert(json.get(), frame.time, in.file, in.line));
    format_t known;
    if (!text && format(kind_t::meta, &known, nullptr)) return known.fcc == frame.fcc ? 1 : 0;
    if (!text) return declare(kind_t::meta, {.fcc = frame.fcc});
    av::frame_t* document = avc_frame_create(frame.fcc, frame.time, text.get(),
                                             static_cast<uint32_t>(core_strlen(text.get())), in.file, in.line);
    const int taken = document ? take(*document, timing) : 0;
    avc_frame_need(document);
    return taken;
}

int stream::take(const av::frame_t& frame, const timing_t& timing) noexcept {
    inside& in = *inside_;
    const kind_t kind = kind_of(frame.fcc);
    const bool video = kind == kind_t::video;
    {
        const std::lock_guard held(in.lock);
        const uint64_t now = core_timer();
        const bool fits = frame.data && frame.size > 0 && frame.size <= in.limits.bytes;
        const format_record* known = in.format(kind);
        const bool wanted = !in.ended && fits && (!known || known->shown.fcc == frame.fcc);
        slot_t taken;
        if (!wanted || (video && in.wants_key && !frame.key) || !in.shape(frame, kind, taken)) {
            ++in.refused;
            return 0;
        }
        taken.kind = kind;
        uint64_t time = frame.time;
        if (timing.of_display && frame.fcc == av::fcc_h264) {
            const auto shown = static_cast<int64_t>(frame.time);
            const int64_t decoded = in.decoding.take(shown, taken.format->reordered);
            time = static_cast<uint64_t>(decoded);
            taken.frame.shown_after = static_cast<uint32_t>(std::max<int64_t>(shown - decoded, 0));
        }
        taken.frame.time = in.clock.take(kind, time, now);
        taken.utc = timing.utc;
        taken.arrival = now;
        taken.gaps = in.gaps;
        if (in.next - in.first == in.ring.size()) in.evict_first();
        if (video && frame.key) in.key = in.next;
        if (video) in.wants_key = false;
        in.bytes += taken.frame.size;
        in.slot(in.next++) = std::move(taken);
        in.evict(now);
        if (in.waiting) in.pushed.notify_all();
    }
    in.news();
    return 1;
}

// Who comes while the source is away waits for it, and is not shown what was long ago.
void stream::gap() noexcept {
    const std::lock_guard held(inside_->lock);
    ++inside_->gaps;
    inside_->wants_key = true;
    inside_->key = no_number;
    inside_->clock.gap();
    inside_->decoding.gap();
}

void stream::end() noexcept {
    {
        const std::lock_guard held(inside_->lock);
        inside_->ended = true;
        inside_->pushed.notify_all();
    }
    inside_->news();
}

void stream::inside::news() noexcept {
    const std::lock_guard held(news_lock);
    for (const cursor::inside* each : listeners)
        each->news(each->news_arg);
}

int stream::format(kind_t kind, format_t* out, buf_t* config) const noexcept {
    const std::lock_guard held(inside_->lock);
    const format_record* record = inside_->format(kind);
    if (!record || !out) return 0;
    *out = record->shown;
    out->config = {};
    const buffer_t& bytes = record->shown.config;
    if (!config || bytes.size == 0) return 1;
    config->length = 0;
    if (core_buf_read(config, bytes.data, bytes.size) != bytes.size) return 0;
    out->config = {config->data, config->length};
    return 1;
}

int stream::ready() const noexcept {
    const std::lock_guard held(inside_->lock);
    bool any = false;
    for (const format_share& each : inside_->formats) {
        if (!each) continue;
        if (each->shown.fcc == av::fcc_h264 && each->shown.config.size == 0) return 0;
        any = true;
    }
    return any ? 1 : 0;
}

double stream::rate() const noexcept {
    inside& in = *inside_;
    const std::lock_guard held(in.lock);
    uint32_t steps = 0;
    const slot_t* newest = nullptr;
    uint64_t span = 0;
    for (uint64_t number = in.next; number != in.first; --number) {
        const slot_t& each = in.slot(number - 1);
        if (each.kind != kind_t::video) continue;
        if (!newest) newest = &each;
        if (each.gaps != newest->gaps || &each == newest) continue;
        ++steps;
        span = newest->frame.time - each.frame.time;
    }
    return span ? steps * 1e6 / static_cast<double>(span) : 0;
}

uint64_t stream::now() const noexcept {
    const std::lock_guard held(inside_->lock);
    return inside_->clock.at(core_timer());
}

status_t stream::status() const noexcept {
    const inside& in = *inside_;
    const std::lock_guard held(in.lock);
    return {.pushed = in.next,
            .refused = in.refused,
            .held = static_cast<uint32_t>(in.next - in.first),
            .held_bytes = static_cast<uint32_t>(in.bytes),
            .cursors = static_cast<uint32_t>(in.cursors.size()),
            .key = static_cast<uint8_t>(in.key != no_number),
            .ended = static_cast<uint8_t>(in.ended)};
}

void stream::on_demand(void (*wanted)(void* arg, int yes), void* arg, uint64_t linger) noexcept {
    const std::lock_guard calls(inside_->demand_lock);
    const std::lock_guard held(inside_->lock);
    inside_->demand = {.wanted = wanted, .arg = arg, .linger = linger};
    if (inside_->stirred) inside_->stirred(inside_->stirred_arg);
}

void end_demand(stream& of) noexcept {
    const std::lock_guard calls(of.in().demand_lock);
    demand_t due;
    {
        const std::lock_guard held(of.in().lock);
        due = of.in().demand;
        of.in().demand.told = false;
    }
    if (due.wanted && due.told) due.wanted(due.arg, 0);
}

// Decided under the lock, told outside of it.
uint64_t settle_demand(stream& of, uint64_t now) noexcept {
    stream::inside& in = of.in();
    const std::lock_guard calls(in.demand_lock);
    demand_t due;
    uint64_t again = 0;
    {
        const std::lock_guard held(in.lock);
        demand_t& demand = in.demand;
        if (!demand.wanted) return 0;
        const bool wanted = in.readers.load() != 0 || (demand.idle_since && now < demand.idle_since + demand.linger);
        if (wanted && in.readers.load() == 0) again = demand.idle_since + demand.linger;
        if (wanted == demand.told) return again;
        demand.told = wanted;
        due = demand;
    }
    due.wanted(due.arg, due.told ? 1 : 0);
    return again;
}

}  // namespace media
