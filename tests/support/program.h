/// Programs as judges in tests: what a command prints.
#pragma once

#include "support/files.h"
#include "support/scratch.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>

namespace test {

/// What a shell command writes to its standard output; the test fails when it does not end with 0.
inline std::string run(const std::string& command) {
    std::FILE* pipe = popen(command.c_str(), "r");
    std::string out;
    char chunk[65536];
    for (size_t n = 0; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        out.append(chunk, n);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return out;
}

}  // namespace test
