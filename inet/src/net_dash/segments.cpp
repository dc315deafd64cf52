#include "net_dash/segments.h"

#include "net_dash/contexts.h"
#include "report.h"

#include "core/file.h"
#include "core/log.h"
#include "core/time.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

namespace net::dash {

namespace {

constexpr uint64_t window_ms = 15'000;
constexpr std::string_view init_name = "header.m4s";

using owned_file = core::owned<file_ctx, core_fclose>;

block_hold another(const block_hold& of) noexcept {
    if (of) of->holds.fetch_add(1, std::memory_order_relaxed);
    return block_hold(of.get());
}

block_watch watch(const block_hold& of) noexcept {
    of->keeps.fetch_add(1, std::memory_order_relaxed);
    return block_watch(of.get());
}

/// A hold of what is watched; null when nobody has one any more.
block_hold hold_again(const block_watch& of) noexcept {
    uint32_t holds = of ? of->holds.load(std::memory_order_relaxed) : 0;
    while (holds != 0 && !of->holds.compare_exchange_weak(holds, holds + 1, std::memory_order_acquire)) {
    }
    return block_hold(holds != 0 ? of.get() : nullptr);
}

void tell(const segment& made, uint64_t base) noexcept {
    if (!core_log_wanted(log())) return;
    constexpr const char* format = "%Y-%m-%d %H:%M:%S,%s";
    char from[32];
    char to[32];
    time_format(base + made.t * 1000, format, from, sizeof from);
    time_format(base + (made.t + made.d) * 1000, format, to, sizeof to);
    core_log_print(log(), "seg: %s t:%llu d:%u [%s - %s]", made.name, static_cast<unsigned long long>(made.t), made.d,
                   from, to);
}

}  // namespace

dash_info describe(const dash_segment& of) noexcept {
    return {.data = of.bytes.data, .size = of.bytes.length, .mime = of.mime, .duration = of.d};
}

void end_hold(block* held) noexcept {
    if (held->holds.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    core_buf_free(&held->bytes);
    end_watch(held);
}

void end_watch(block* kept) noexcept {
    if (kept->keeps.fetch_sub(1, std::memory_order_acq_rel) == 1) core::destroy(kept);
}

void segment::show(block_hold bytes_of) noexcept {
    held = std::move(bytes_of);
    bytes = held ? held->bytes : buf_t{};
}

void segment::hide() noexcept { show(nullptr); }

segment_list::segment_list(const char* directory, bool in_files) noexcept
    : directory_(directory), in_files_(in_files), lock_(core_lock_create(CORE_HERE)) {}

segment_list::~segment_list() {
    for (segment* each : segments_)
        core::destroy(each);
    core::destroy(opening_.load());
    if (lock_) core_lock_delete(lock_);
}

void segment_list::remove_files() noexcept {
    for (const segment* each : segments_)
        core_fremove(each->path);
}

bool segment_list::set_ready() noexcept {
    const guard_t guard(*this);
    return ready_ = !segments_.empty();
}

segment* segment_list::find(const char* name) noexcept {
    const auto found =
        std::ranges::find_if(segments_, [&](const segment* each) { return std::strcmp(each->name, name) == 0; });
    return found == segments_.end() ? nullptr : *found;
}

bool segment_list::write(const char* path, const buf_t& bytes) noexcept {
    file_ctx* handle = core_fopen(path, "w", CORE_HERE);
    const bool written = handle && core_fwrite(handle, bytes.data, bytes.length) == bytes.length;
    if (handle && core_fclose(handle) && written) {
        written_ += bytes.length;
        return true;
    }
    if (!std::exchange(has_reported_, true)) report("dash: %s cannot be written", path);
    core_fremove(path);
    return false;
}

/// The record of the next segment, at the end of the list: that of the oldest when there are enough.
segment* segment_list::take_record() noexcept {
    if (!in_files_ && total_ > window_ms) {
        std::rotate(segments_.begin(), segments_.begin() + 1, segments_.end());
        ready_ = true;
        total_ -= segments_.back()->d;
        return segments_.back();
    }
    core::owned_object<segment> made(core::create<segment>(CORE_HERE));
    try {
        if (made) segments_.push_back(made.get());
        return made.release();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void segment_list::fill(segment& record, const fragment& cut, block_hold bytes) noexcept {
    std::snprintf(record.name, sizeof record.name, "%llu.m4s", static_cast<unsigned long long>(cut.t));
    std::snprintf(record.path, sizeof record.path, "%s/%s", directory_, record.name);
    record.t = cut.t;
    record.d = cut.d;
    record.sequence = cut.sequence;
    record.created = time_now();
    record.file_size = bytes->bytes.length;
    if (in_files_)
        record.hide();
    else
        record.show(std::move(bytes));
    total_ += cut.d;
}

bool segment_list::append(const fragment& cut, block_hold& bytes) noexcept {
    char path[sizeof(dash_segment::path)];
    std::snprintf(path, sizeof path, "%s/%llu.m4s", directory_, static_cast<unsigned long long>(cut.t));
    // Without its file a segment of the live list is still served.
    if (!write(path, bytes->bytes) && in_files_) return false;
    char gone[sizeof path] = {};
    block_hold free;
    {
        const guard_t guard(*this);
        segment* const record = take_record();
        if (!record) {
            core_con_printf(1, "dash: no free segment");
            std::memcpy(gone, path, sizeof gone);
            free = std::move(bytes);
        } else {
            std::memcpy(gone, record->path, sizeof gone);
            free = in_files_ ? another(bytes) : std::move(record->held);
            fill(*record, cut, std::move(bytes));
            tell(*record, cut.base);
        }
    }
    if (gone[0]) core_fremove(gone);
    // Nobody takes a share of what is not listed: a block that has one holder now keeps to one.
    if (free && free->holds == 1) bytes = std::move(free);
    return std::strcmp(gone, path) != 0;
}

/// The bytes of a segment's file: those that somebody is being sent, or else they are read. The lock is let go
/// meanwhile.
block_hold segment_list::load(guard_t& guard, const char* name) noexcept {
    segment* const found = find(name);
    if (!found) return nullptr;
    if (block_hold shared = hold_again(found->lent)) return shared;
    char path[sizeof found->path];
    std::memcpy(path, found->path, sizeof path);
    const uint32_t size = found->file_size;
    guard.unlock();
    block_hold made(core::create<block>(CORE_HERE));
    const owned_file file(core_fopen(path, "r", CORE_HERE));
    const bool read = made && file && core_buf_resize(&made->bytes, size, CORE_HERE) &&
                      core_fread(file.get(), made->bytes.data, size) == size;
    guard.lock();
    if (!read) return nullptr;
    made->bytes.length = size;
    // A range loses no segment.
    found->lent = watch(made);
    return made;
}

const dash_segment* segment_list::hold(const char* name) noexcept {
    if (name == init_name) return opening_;
    guard_t guard(*this);
    block_hold bytes;
    if (in_files_ && !(bytes = load(guard, name))) return nullptr;
    segment* const found = find(name);
    if (!found) return nullptr;
    if (bytes) found->show(std::move(bytes));
    core_log_print(log(), "send: %s t:%llu d:%u", found->name, static_cast<unsigned long long>(found->t), found->d);
    guard.release();  // stays held
    return found;
}

void segment_list::release(const dash_segment* held) noexcept {
    if (!held || held == opening_) return;
    if (in_files_) {
        if (segment* const found = find(held->name)) found->hide();
    }
    unlock();
}

bool segment_list::share(const char* name, dash_share& out) noexcept {
    if (name == init_name) {
        const opening_segment* const init = opening_;
        if (!init) return false;
        out = {.info = describe(*init), .owner = another(init->held).release()};
        return true;
    }
    guard_t guard(*this);
    block_hold bytes;
    if (in_files_ && !(bytes = load(guard, name))) return false;
    const segment* const found = find(name);
    if (!found || (ready_ && !in_files_ && found->sequence > announced_)) return false;
    if (!bytes) bytes = another(found->held);
    core_log_print(log(), "send: %s t:%llu d:%u", found->name, static_cast<unsigned long long>(found->t), found->d);
    out.info = {.data = bytes->bytes.data, .size = bytes->bytes.length, .mime = found->mime, .duration = found->d};
    out.owner = bytes.release();
    return true;
}

const dash_timeline* segment_list::times() noexcept {
    const guard_t guard(*this);
    if (segments_.empty()) return nullptr;
    try {
        times_.clear();
        times_.reserve(segments_.size() + 1);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    for (const segment* each : segments_) {
        core_log_print(log(), "time: %s t:%llu d:%u", each->name, static_cast<unsigned long long>(each->t), each->d);
        times_.push_back({each->t, each->d});
    }
    times_.push_back({0, 0});
    return times_.data();
}

listing segment_list::list() {
    constexpr size_t line_room = 64;
    listing out;
    const guard_t guard(*this);
    out.total = total_;
    if (!segments_.empty()) announced_ = segments_.back()->sequence;
    out.lines.reserve(segments_.size() * line_room);
    for (const segment* each : segments_) {
        char line[line_room];
        const int size = std::snprintf(line, sizeof line, "\n           <S d=\"%u\" t=\"%llu\"/>", each->d,
                                       static_cast<unsigned long long>(each->t));
        out.lines.append(line, static_cast<size_t>(size));
        out.longest = std::max(out.longest, each->d);
    }
    return out;
}

}  // namespace net::dash

void net_dash_share_release(void* owner) noexcept {
    if (owner) net::dash::end_hold(static_cast<net::dash::block*>(owner));
}
