/// Byte queue with a read cursor. What is read is dropped from the front, what is written goes to the end. A buffer
/// belongs to one thread at a time. It never gives memory back before it ends or is moved from.
#pragma once

#include "core/api.h"
#include "core/buf.h"

#include <cstdint>
#include <span>
#include <string_view>

class INET_API IOBuffer {
public:
    /// Its memory is named after `file` and `line`, which are valid until the buffer ends.
    explicit IOBuffer(const char* file = __builtin_FILE(), int line = __builtin_LINE()) noexcept
        : file_(file), line_(line) {}
    IOBuffer(IOBuffer&& other) noexcept;
    IOBuffer& operator=(IOBuffer&& other) noexcept;
    ~IOBuffer() { core_buf_free(&buf_); }

    /// Bytes between the cursor and the end.
    uint32_t Size() const noexcept { return buf_.length - cursor_; }
    /// The byte under the cursor; valid until the next call that writes. Null only for a buffer that never held a byte.
    const uint8_t* Data() const noexcept { return buf_.data ? buf_.data + cursor_ : nullptr; }
    std::span<const uint8_t> Readable() const noexcept { return {Data(), Size()}; }

    /// Moves the cursor on by `n` bytes, at most to the end.
    void Ignore(uint32_t n) noexcept;
    void IgnoreAll() noexcept { cursor_ = buf_.length = 0; }

    /// These append.
    /// @return false when memory is out or the buffer would pass 2^32 - 1 bytes: nothing is appended then.
    bool ReadFromRepeat(uint8_t byte, uint32_t count) noexcept;
    bool ReadFromByte(uint8_t byte) noexcept;
    /// The bytes may not lie in the buffer.
    bool ReadFromBuffer(const void* bytes, uint32_t length) noexcept;
    bool ReadFromString(std::string_view text) noexcept;

    /// Room for `n` bytes at the end, which Publish() appends once they are written. Valid until the next call.
    /// @return null when memory is out.
    uint8_t* Reserve(uint32_t n) noexcept;
    /// Appends the first `n` bytes of the room that Reserve() gave.
    void Publish(uint32_t n) noexcept { buf_.length += n; }
    /// Takes back what was appended last, until `size` bytes are readable.
    void Truncate(uint32_t size) noexcept;

private:
    buf_t buf_;
    uint32_t cursor_ = 0;
    const char* file_;
    int line_;
};
