// Counting allocations, and failing every one of a scenario in turn.
#pragma once

#include "core/memory.h"

#include <atomic>
#include <cstddef>
#include <gtest/gtest.h>

namespace test {

/// Counts the allocations of all threads while it lives and fails the n-th, that one alone. One at a time in a process.
class failing_allocation {
public:
    explicit failing_allocation(size_t nth) {
        fails = nth;
        count = 0;
        core_mem_set_fault([](size_t, const char*, int) { return ++count == fails; });
    }
    ~failing_allocation() { core_mem_set_fault(nullptr); }
    failing_allocation(const failing_allocation&) = delete;
    failing_allocation& operator=(const failing_allocation&) = delete;

    /// Whether the allocation came and failed.
    bool hit() const { return count >= fails; }
    size_t value() const { return count; }

private:
    static inline std::atomic<size_t> count = 0, fails = 0;
};

/// The same, and none fails.
struct allocation_count : failing_allocation {
    allocation_count() : failing_allocation(0) {}
};

/// Runs a scenario again and again, with its first allocation failing, then its second, and so on until it makes none
/// more. The scenario checks what is promised for lack of memory and releases everything it got: after each run no more
/// blocks may be held than before.
/// @return how many allocations were made to fail; a test expects more than 0, or nothing was shown.
template <class Scenario>
size_t fail_each_allocation(Scenario scenario) {
    for (size_t nth = 1;; ++nth) {
        SCOPED_TRACE(testing::Message() << "allocation " << nth << " fails");
        const size_t held = core_mem_blocks();
        const failing_allocation fault(nth);
        scenario();
        EXPECT_EQ(core_mem_blocks(), held);
        if (!fault.hit() || testing::Test::HasFailure()) return nth - 1;
    }
}

}  // namespace test
