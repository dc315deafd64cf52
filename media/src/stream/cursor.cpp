// Reading a stream: a number that moves on through the ring, and what was passed over on the way.
#include "stream/inside.h"

#include "core/time.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

namespace media {

namespace {

void show(cursor::inside& in, const slot_t& slot, uint64_t number, entry_t& entry) noexcept {
    avc_frame_drop(&in.shown);
    // The payload is counted: nothing is allocated.
    avc_frame_share(&in.shown, &slot.frame, in.from->file, in.from->line);
    entry = {.frame = in.shown,
             .format = in.shown_format.get() ? &in.shown_format->shown : nullptr,
             .kind = slot.kind,
             .number = number,
             .utc = slot.utc,
             .arrival = slot.arrival};
}

/// What has to be told before the frame itself; read_t::frame when nothing has.
read_t before(cursor::inside& in, const slot_t& slot, uint64_t number, entry_t& entry) noexcept {
    if (slot.gaps != in.gaps_told) {
        in.gaps_told = slot.gaps;
        return read_t::gap;
    }
    uint32_t& generation = in.generations[static_cast<size_t>(slot.kind)];
    in.shown_format = share(slot.format.get());
    if (generation == slot.format->shown.generation) return read_t::frame;
    generation = slot.format->shown.generation;
    entry = {};
    entry.kind = slot.kind;
    entry.format = &in.shown_format->shown;
    entry.number = number;
    return read_t::format;
}

/// To the last key picture that it has not read, or else to the present.
void jump(cursor::inside& in) noexcept {
    const stream::inside& from = *in.from;
    in.next = from.key != no_number && from.key >= in.next ? from.key : std::max(in.next, from.next);
    in.wants_key = true;
}

read_t take(cursor::inside& in, entry_t& entry) noexcept {
    stream::inside& from = *in.from;
    if (in.next < from.first) {
        jump(in);
        return read_t::lost;
    }
    for (; in.next != from.next; ++in.next) {
        const slot_t& slot = from.slot(in.next);
        if (!(only(slot.kind) & in.settings.kinds)) continue;
        const bool picture = slot.kind == kind_t::video;
        if (picture && in.wants_key && !slot.frame.key) continue;
        const read_t first = before(in, slot, in.next, entry);
        if (first != read_t::frame) return first;
        if (picture) in.wants_key = false;
        show(in, slot, in.next++, entry);
        return read_t::frame;
    }
    return from.ended ? read_t::ended : read_t::nothing;
}

void stir(stream::inside& from) noexcept {
    if (from.stirred) from.stirred(from.stirred_arg);
}

}  // namespace

int cursor::open(stream& from, const settings_t& settings) noexcept {
    close();
    stream::inside& in = from.in();
    core::owned_object<inside> made(core::create<inside>(in.file, in.line));
    if (!made) return 0;
    made->from = &in;
    made->held_stream = &from;
    made->settings = settings;
    {
        const std::lock_guard held(in.lock);
        try {
            in.cursors.push_back(made.get());
        } catch (const std::bad_alloc&) {
            return 0;
        }
        in.reserving += settings.reserve != 0;
        made->next = settings.at_key && in.key != no_number ? in.key : in.next;
        made->wants_key = !settings.any;
        made->gaps_told = made->next == in.next ? in.gaps : in.slot(made->next).gaps;
        if (settings.counts && in.readers.fetch_add(1) == 0) stir(in);
    }
    from.keep();
    inside_ = made.release();
    return 1;
}

void cursor::close() noexcept {
    if (!inside_) return;
    told(nullptr, nullptr);
    stream::inside& from = *inside_->from;
    {
        const std::lock_guard held(from.lock);
        std::erase(from.cursors, inside_);
        from.reserving -= inside_->settings.reserve != 0;
        if (inside_->settings.counts && from.readers.fetch_sub(1) == 1) {
            from.demand.idle_since = core_timer();
            stir(from);
        }
    }
    avc_frame_drop(&inside_->shown);
    stream* const held = inside_->held_stream;
    core::destroy(std::exchange(inside_, nullptr));
    stream::drop(held);
}

read_t cursor::next(entry_t& entry) noexcept {
    if (!inside_) return read_t::nothing;
    const std::lock_guard held(inside_->from->lock);
    return take(*inside_, entry);
}

read_t cursor::wait(entry_t& entry, uint32_t milliseconds) noexcept {
    if (!inside_) return read_t::nothing;
    stream::inside& from = *inside_->from;
    std::unique_lock held(from.lock);
    read_t found = take(*inside_, entry);
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    ++from.waiting;
    while (found == read_t::nothing && from.pushed.wait_until(held, until) == std::cv_status::no_timeout)
        found = take(*inside_, entry);
    --from.waiting;
    return found == read_t::nothing ? take(*inside_, entry) : found;
}

void cursor::skip() noexcept {
    if (!inside_) return;
    const std::lock_guard held(inside_->from->lock);
    jump(*inside_);
}

uint64_t cursor::position() const noexcept { return inside_ ? inside_->next : 0; }

uint64_t cursor::behind() const noexcept {
    if (!inside_) return 0;
    const std::lock_guard held(inside_->from->lock);
    return inside_->from->next - std::min(inside_->next, inside_->from->next);
}

int cursor::told(void (*news)(void* arg), void* arg) noexcept {
    if (!inside_) return 0;
    stream::inside& from = *inside_->from;
    const std::lock_guard held(from.news_lock);
    std::erase(from.listeners, inside_);
    inside_->news = news;
    inside_->news_arg = arg;
    if (!news) return 1;
    try {
        from.listeners.push_back(inside_);
        return 1;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

}  // namespace media
