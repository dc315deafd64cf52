#include "net_http/output.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

namespace net::http {

namespace {

constexpr uint32_t most_behind = 256;
constexpr uint32_t kept_room = 2 * output::most_gathered;

/// Takes `count` bytes off the front of some runs. @return what is left of `count`
uint32_t skip(buffer_t& run, uint32_t count) noexcept {
    const uint32_t skipped = std::min(count, run.size);
    run = {run.data + skipped, run.size - skipped};
    return count - skipped;
}

/// There is room for it.
void append(buf_t& to, buffer_t bytes) noexcept {
    if (bytes.size > 0) std::memcpy(to.data + to.length, bytes.data, bytes.size);
    to.length += bytes.size;
}

}  // namespace

/// Where more bytes go: in front of the body, or behind it; null when they have to wait.
buf_t* output::place_for(uint64_t size, bool with_body) noexcept {
    if (body_.is_there()) return !with_body && behind_.length + size <= most_behind ? &behind_ : nullptr;
    return front_.length == 0 || front_.length + size <= most_gathered ? &front_ : nullptr;
}

bool output::add(buffer_t head, buffer_t text, lent& body) noexcept {
    const uint64_t size = uint64_t{head.size} + text.size;
    buf_t* const to = place_for(size, body.is_there());
    if (!to || size > UINT32_MAX || !core_buf_respace(to, static_cast<uint32_t>(size), file_, line_)) return false;
    append(*to, head);
    append(*to, text);
    if (body.is_there()) body_.swap(body);
    return true;
}

bool output::add(buf_t& text, lent& body) noexcept {
    if (!is_empty() || text.length <= front_.size) return add({}, {text.data, text.length}, body);
    std::swap(front_, text);
    body_.swap(body);
    return true;
}

uint32_t output::send(Tcp& to) noexcept {
    std::array<buffer_t, 3> runs = {buffer_t{front_.data, front_.length}, body_.bytes(),
                                    buffer_t{behind_.data, behind_.length}};
    uint32_t before = sent_;
    for (buffer_t& each : runs)
        before = skip(each, before);
    const uint32_t count = waiting() > 0 ? to.offer(runs[0], runs[1], runs[2]) : 0;
    sent_ += count;
    if (waiting() == 0) forget();
    return count;
}

/// The release of a body may queue more.
void output::forget() noexcept {
    front_.length = behind_.length = sent_ = 0;
    if (front_.size > kept_room) core_buf_free(&front_);
    const lent gone = std::move(body_);
}

void output::clear() noexcept {
    core_buf_free(&front_);
    core_buf_free(&behind_);
    forget();
}

}  // namespace net::http
