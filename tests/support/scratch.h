// A directory of its own for a test's files.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace test {

class scratch {
public:
    scratch() : path_(std::filesystem::temp_directory_path() / "inet_test_XXXXXX") {
        if (!mkdtemp(path_.data())) std::abort();
    }
    scratch(const scratch&) = delete;
    scratch& operator=(const scratch&) = delete;
    ~scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    /// Path of a file in the directory.
    std::string operator/(const char* name) const { return path_ + '/' + name; }

private:
    std::string path_;
};

}  // namespace test
