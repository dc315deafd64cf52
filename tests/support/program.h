/// Programs as judges in tests: what a command prints, and a directory for the files that go between.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <span>
#include <stdlib.h>
#include <string>

namespace test {

/// A directory of its own, gone with everything in it at the end.
class temp_dir {
public:
    temp_dir() {
        std::string name = (std::filesystem::temp_directory_path() / "inet-test-XXXXXX").string();
        if (!mkdtemp(name.data())) ADD_FAILURE() << "no directory for temporary files";
        path_ = name;
    }
    ~temp_dir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

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
