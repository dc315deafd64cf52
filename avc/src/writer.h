/// Big-endian bytes appended to a buffer, as ISO media and JPEG want them. Until commit() the buffer is as it was, for
/// whoever reads its length; a writer that memory failed takes nothing more and commits nothing.
#pragma once

#include "core/buf.h"

#include <cstdint>
#include <cstring>
#include <span>

namespace av {

class writer {
public:
    writer(buf_t* out, const char* file, int line) noexcept : out_(out), file_(file), line_(line), at_(out->length) {}

    void u8(uint32_t value) noexcept { big_endian(value, 1); }
    void u16(uint32_t value) noexcept { big_endian(value, 2); }
    void u24(uint32_t value) noexcept { big_endian(value, 3); }
    void u32(uint32_t value) noexcept { big_endian(value, 4); }
    void u64(uint64_t value) noexcept { big_endian(value, 8); }

    void bytes(std::span<const uint8_t> data) noexcept {
        if (data.empty() || !reserve(data.size())) return;
        std::memcpy(out_->data + at_, data.data(), data.size());
        at_ += static_cast<uint32_t>(data.size());
    }

    void zeros(uint32_t count) noexcept {
        if (!reserve(count)) return;
        std::memset(out_->data + at_, 0, count);
        at_ += count;
    }

    /// Makes room ahead, so that what follows grows the buffer no more. @return false when memory is out.
    bool reserve(uint64_t count) noexcept {
        const uint64_t more = at_ - out_->length + count;
        if (failed_ || at_ + count <= out_->size) return !failed_;
        failed_ = more > UINT32_MAX || !core_buf_respace(out_, static_cast<uint32_t>(more), file_, line_);
        return !failed_;
    }

    /// Where the next byte goes, for patch().
    uint32_t position() const noexcept { return at_; }

    /// Writes 32 bits over what stands at a position().
    void patch(uint32_t position, uint32_t value) noexcept {
        if (failed_) return;
        for (uint32_t i = 0; i < 4; ++i)
            out_->data[position + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
    }

    /// Makes the bytes part of the buffer. @return their number, 0 when memory was out.
    uint32_t commit() noexcept {
        if (failed_) return 0;
        const uint32_t written = at_ - out_->length;
        out_->length = at_;
        return written;
    }

private:
    void big_endian(uint64_t value, uint32_t size) noexcept {
        if (!reserve(size)) return;
        for (uint32_t i = size; i > 0; --i)
            out_->data[at_++] = static_cast<uint8_t>(value >> (8 * (i - 1)));
    }

    buf_t* out_;
    const char* file_;
    int line_;
    uint32_t at_;
    bool failed_ = false;
};

}  // namespace av
