#include "common/iobuffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

IOBuffer::IOBuffer(IOBuffer&& other) noexcept
    : buf_(std::exchange(other.buf_, {})),
      cursor_(std::exchange(other.cursor_, 0)),
      file_(other.file_),
      line_(other.line_) {}

IOBuffer& IOBuffer::operator=(IOBuffer&& other) noexcept {
    std::swap(buf_, other.buf_);
    std::swap(cursor_, other.cursor_);
    return *this;
}

void IOBuffer::Ignore(uint32_t n) noexcept {
    cursor_ += std::min(n, Size());
    if (cursor_ == buf_.length) IgnoreAll();
}

uint8_t* IOBuffer::Reserve(uint32_t n) noexcept {
    if (n > buf_.size - buf_.length || !buf_.data) {
        // What was read makes room first, when that costs no more than what is then free.
        if (cursor_ > 0 && cursor_ >= Size()) {
            core_buf_ignore(&buf_, cursor_);
            cursor_ = 0;
        }
        if (n > UINT32_MAX - buf_.length || !core_buf_respace(&buf_, std::max(n, 1U), file_, line_)) return nullptr;
    }
    return buf_.data + buf_.length;
}

bool IOBuffer::ReadFromRepeat(uint8_t byte, uint32_t count) noexcept {
    uint8_t* const room = Reserve(count);
    if (!room) return false;
    std::memset(room, byte, count);
    Publish(count);
    return true;
}

bool IOBuffer::ReadFromByte(uint8_t byte) noexcept { return ReadFromRepeat(byte, 1); }

bool IOBuffer::ReadFromBuffer(const void* bytes, uint32_t length) noexcept {
    uint8_t* const room = Reserve(length);
    if (!room) return false;
    if (length > 0) std::memcpy(room, bytes, length);
    Publish(length);
    return true;
}

bool IOBuffer::ReadFromString(std::string_view text) noexcept {
    return text.size() <= UINT32_MAX && ReadFromBuffer(text.data(), static_cast<uint32_t>(text.size()));
}

void IOBuffer::Truncate(uint32_t size) noexcept {
    if (size < Size()) buf_.length = cursor_ + size;
}
