#include "avc/access_units.h"

#include "common/h264.h"
#include "core/owned.h"

#include <algorithm>
#include <cstring>

namespace av {

namespace {

constexpr uint32_t piece = 64 * 1024;
constexpr uint32_t start_code = 3;
constexpr uint32_t nal_head = 2;  ///< bytes of a NAL unit that tell whether it begins an access unit

}  // namespace

struct AccessUnits::inside {
    inside(const char* caller_file, int caller_line, uint32_t most) noexcept
        : file(caller_file), line(caller_line), limit(most) {}
    ~inside() { core_buf_free(&held); }
    inside(const inside&) = delete;
    inside& operator=(const inside&) = delete;

    void add(const uint8_t* bytes, uint32_t size, unit_callback unit, void* arg) noexcept;
    bool find_start_code(uint32_t& at) const noexcept;
    void scan(bool ended, unit_callback unit, void* arg) noexcept;
    void hand_over(uint32_t until, unit_callback unit, void* arg) noexcept;
    uint32_t content_end() const noexcept;
    void compact() noexcept;
    void give_up() noexcept;
    void forget() noexcept;

    const char* file;
    int line;
    uint32_t limit;
    buf_t held;  ///< from `begin` on the unit at hand
    uint32_t begin = 0;
    uint32_t scanned = 0;  ///< from here on start codes may end
    bool begun = false;    ///< a start code was seen: `begin` is that of a unit
    bool has_slice = false;
    bool broken = false;  ///< a part of the unit is missing
    uint32_t left_out = 0;
};

AccessUnits::AccessUnits(const char* file, int line, uint32_t limit) noexcept
    : inside_(core::create<inside>(file, line, file, line, limit)) {}

AccessUnits::~AccessUnits() { core::destroy(inside_); }

uint32_t AccessUnits::left_out() const noexcept { return inside_ ? inside_->left_out : 0; }

void AccessUnits::take(buffer_t bytes, unit_callback unit, void* arg) noexcept {
    if (!inside_) return;
    for (uint32_t at = 0; at < bytes.size; at += piece)
        inside_->add(bytes.data + at, std::min(piece, bytes.size - at), unit, arg);
}

void AccessUnits::end(unit_callback unit, void* arg) noexcept {
    if (!inside_) return;
    inside_->scan(true, unit, arg);
    if (inside_->begun && inside_->has_slice) inside_->hand_over(inside_->held.length, unit, arg);
    inside_->forget();
}

void AccessUnits::inside::add(const uint8_t* bytes, uint32_t size, unit_callback unit, void* arg) noexcept {
    if (!core_buf_respace(&held, size, file, line)) return give_up();
    core_buf_read(&held, bytes, size);
    scan(false, unit, arg);
    compact();
}

/// The next start code that ends at or behind `scanned`. @param at  where it begins
bool AccessUnits::inside::find_start_code(uint32_t& at) const noexcept {
    for (uint32_t from = std::max(scanned, begin + start_code - 1); from < held.length; ++from) {
        const void* const one = std::memchr(held.data + from, 1, held.length - from);
        if (!one) return false;
        from = static_cast<uint32_t>(static_cast<const uint8_t*>(one) - held.data);
        at = from - (start_code - 1);
        if (held.data[at] == 0 && held.data[at + 1] == 0) return true;
    }
    return false;
}

/// Finds where units end, as far as the bytes tell. What a start code is followed by may still be missing.
void AccessUnits::inside::scan(bool ended, unit_callback unit, void* arg) noexcept {
    uint32_t code = 0;
    while (find_start_code(code)) {
        const uint32_t nal = code + start_code;
        if (!ended && held.length - nal < nal_head) {
            scanned = nal - 1;
            return;
        }
        const std::span<const uint8_t> head(held.data + nal, std::min(nal_head, held.length - nal));
        if (!begun) begin = code;
        begun = true;
        if (has_slice && h264_starts_access_unit(head)) hand_over(code, unit, arg);
        has_slice = has_slice || h264_is_slice(h264_nal_type(head));
        scanned = nal;
    }
    scanned = held.length;
}

void AccessUnits::inside::hand_over(uint32_t until, unit_callback unit, void* arg) noexcept {
    uint32_t end = until;
    while (end > begin && held.data[end - 1] == 0)
        --end;
    if (broken || end - begin > limit) {
        ++left_out;
    } else if (unit) {
        unit(arg, {held.data + begin, end - begin});
    }
    begin = until;
    has_slice = broken = false;
}

/// Where what is held for the unit ends, without zero bytes and a start code that is not told yet.
uint32_t AccessUnits::inside::content_end() const noexcept {
    uint32_t end = scanned < held.length ? scanned + 1 - start_code : held.length;
    while (end > begin && held.data[end - 1] == 0)
        --end;
    return end;
}

/// Moves what is left to the front. Of what will not be handed over the end stays, as a start code may begin there, and
/// of the zero bytes behind a unit as many as do not fit into the limit.
void AccessUnits::inside::compact() noexcept {
    constexpr uint32_t tail = start_code + nal_head;
    if (begun && content_end() - begin > limit) broken = true;
    if (broken || !begun) {
        if (held.length - begin > tail) begin = held.length - tail;
    } else if (scanned == held.length && held.length - begin > uint64_t{limit} + tail) {
        scanned = held.length = begin + limit + tail;
    }
    core_buf_ignore(&held, begin);
    scanned -= std::min(scanned, begin);
    begin = 0;
}

/// Without memory: from the next unit on.
void AccessUnits::inside::give_up() noexcept {
    held.length = begin = scanned = 0;
    broken = begun = has_slice = true;
}

void AccessUnits::inside::forget() noexcept {
    held.length = begin = scanned = 0;
    begun = has_slice = broken = false;
}

}  // namespace av
