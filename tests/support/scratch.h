// A directory of its own for a test's files.
#pragma once

#include <filesystem>
#include <random>
#include <string>

namespace test {

class scratch {
public:
    scratch() {
        path_ = std::filesystem::temp_directory_path() / ("inet_test_" + std::to_string(std::random_device()()));
        std::filesystem::create_directory(path_);
    }
    scratch(const scratch&) = delete;
    scratch& operator=(const scratch&) = delete;
    ~scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    /// Path of a file in the directory.
    std::string operator/(const char* name) const { return path_.string() + '/' + name; }

private:
    std::filesystem::path path_;
};

}  // namespace test
