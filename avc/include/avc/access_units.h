/// Access units of an H.264 byte stream (ITU-T H.264, Annex B) that comes in pieces of any size, for example from a
/// pipe, a file or a serial line.
///
/// An access unit is complete when the next one begins (7.4.1.2.3), or when the stream ends. It is handed over
/// unchanged, from its first start code on, without the zero bytes behind it. Left out are bytes before the first start
/// code, and NAL units at the end of the stream that hold no slice.
///
/// Bounds: memory for one access unit of `limit` bytes and one piece of 64 KiB. A longer unit is left out whole.
///
/// One thread at a time.
#pragma once

#include "core/api.h"
#include "core/buf.h"

#include <cstdint>

namespace av {

class INET_API AccessUnits final {
public:
    /// Takes an access unit. It is valid until the callback returns.
    typedef void (*unit_callback)(void* arg, buffer_t unit);

    /// @param limit  bytes of the longest access unit that is handed over
    explicit AccessUnits(const char* file, int line, uint32_t limit = 8U << 20) noexcept;
    ~AccessUnits();
    AccessUnits(const AccessUnits&) = delete;
    AccessUnits& operator=(const AccessUnits&) = delete;

    /// Takes the next bytes of the stream, and hands over the units that end in them.
    void take(buffer_t bytes, unit_callback unit, void* arg) noexcept;
    /// The stream has ended: hands over the last unit. Bytes taken afterwards begin a new stream.
    void end(unit_callback unit, void* arg) noexcept;

    /// Units left out: longer than the limit, or memory was out. The number grows before the next unit is handed over,
    /// as that unit may build on the missing one.
    uint32_t left_out() const noexcept;

private:
    struct inside;
    inside* inside_;
};

}  // namespace av
