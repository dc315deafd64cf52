// Main of every test program: after all tests no block of the runtime may still be held.
#include "core/memory.h"

#include <cstdio>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    const size_t held = core_mem_report(
        [](void*, const mem_site_t* site) {
            std::fprintf(stderr, "held: %s:%d: %zu blocks, %zu bytes\n", site->file, site->line, site->blocks,
                         site->bytes);
        },
        nullptr);
    return result != 0 ? result : held != 0;
}
