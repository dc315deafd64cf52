// The files of the folder page/, which are a part of the program.
#pragma once

#include <cstdint>
#include <span>

namespace camera {

struct page_file {
    const char* name;
    const char* tag;  ///< changes with the bytes
    std::span<const uint8_t> bytes;
};

extern const std::span<const page_file> page_files;

}  // namespace camera
