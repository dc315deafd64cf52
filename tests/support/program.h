/// Programs as judges in tests: what a command prints, and the files that go between.
#pragma once

#include "support/scratch.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <span>
#include <string>

namespace test {

/// What a shell command writes to its standard output; a failure of the test when it does not end with 0.
inline std::string run(const std::string& command) {
    std::FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) {
        ADD_FAILURE() << "cannot start: " << command;
        return {};
    }
    std::string out;
    char chunk[65536];
    for (size_t n = 0; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        out.append(chunk, n);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return out;
}

inline void write_file(const std::string& path, std::span<const uint8_t> data) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline std::span<const uint8_t> bytes_of(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace test
