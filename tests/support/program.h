/// Programs as judges in tests: what a command prints.
#pragma once

#include "support/files.h"
#include "support/scratch.h"

#include <cstdio>
#include <gtest/gtest.h>
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

}  // namespace test
