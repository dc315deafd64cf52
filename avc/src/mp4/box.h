// Boxes, of which MP4 files are made.
#pragma once

#include "writer.h"

#include <cstdint>

namespace av {

/// A box whose size is filled in at the end of its scope (ISO/IEC 14496-12, 4.2).
class box {
public:
    box(writer& out, const char (&type)[5]) noexcept : out_(out), start_(out.position()) {
        out.u32(0);
        for (int i = 0; i < 4; ++i)
            out.u8(static_cast<uint8_t>(type[i]));
    }
    box(writer& out, const char (&type)[5], uint32_t version, uint32_t flags) noexcept : box(out, type) {
        out.u8(version);
        out.u24(flags);
    }
    ~box() { out_.patch(start_, out_.position() - start_); }
    box(const box&) = delete;
    box& operator=(const box&) = delete;

private:
    writer& out_;
    uint32_t start_;
};

}  // namespace av
