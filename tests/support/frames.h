// Frames and metadata that borrow their bytes.
#pragma once

#include "support/files.h"

#include "avc/frame.h"

namespace test {

template <class Record = av::frame_t>
Record borrowed(uint32_t fcc, std::span<const uint8_t> bytes, uint64_t time = 0) {
    Record record{};
    record.fcc = fcc;
    record.time = time;
    record.data = bytes.data();
    record.size = static_cast<uint32_t>(bytes.size());
    return record;
}

}  // namespace test
