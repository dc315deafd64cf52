// Failing every allocation of a scenario in turn.
#pragma once

#include "core/memory.h"

#include <atomic>
#include <cstddef>
#include <gtest/gtest.h>

namespace test {

namespace fault_state {
inline std::atomic<size_t> countdown{0};
inline std::atomic<bool> hit{false};

inline bool fails(size_t, const char*, int) {
    // The count stays at 0 when it is used up, so exactly one allocation fails.
    size_t left = countdown.load();
    while (left != 0 && !countdown.compare_exchange_weak(left, left - 1)) {
    }
    if (left != 1) return false;
    hit = true;
    return true;
}
}  // namespace fault_state

/// Counts the allocations of all threads while it lives. One at a time in a process.
class allocation_count {
public:
    allocation_count() {
        count = 0;
        core_mem_set_fault([](size_t, const char*, int) {
            ++count;
            return false;
        });
    }
    ~allocation_count() { core_mem_set_fault(nullptr); }
    allocation_count(const allocation_count&) = delete;
    allocation_count& operator=(const allocation_count&) = delete;

    size_t value() const { return count; }

private:
    static inline std::atomic<size_t> count{0};
};

/// Lets the n-th allocation from its making on fail, that one alone, until it ends. One at a time in a process.
class failing_allocation {
public:
    explicit failing_allocation(size_t nth) {
        fault_state::hit = false;
        fault_state::countdown = nth;
        core_mem_set_fault(fault_state::fails);
    }
    ~failing_allocation() { core_mem_set_fault(nullptr); }
    failing_allocation(const failing_allocation&) = delete;
    failing_allocation& operator=(const failing_allocation&) = delete;

    /// Whether the allocation came and failed.
    bool hit() const { return fault_state::hit; }
};

/// Runs a scenario again and again, with its first allocation failing, then its second, and so on until it makes none
/// more. The scenario checks what is promised for lack of memory and releases everything it got: after each run no more
/// blocks may be held than before.
/// @return how many allocations were made to fail; a test expects more than 0, or nothing was shown.
template <class Scenario>
size_t fail_each_allocation(Scenario scenario, size_t limit = 100000) {
    for (size_t nth = 1; nth <= limit; ++nth) {
        SCOPED_TRACE(testing::Message() << "allocation " << nth << " fails");
        const size_t held = core_mem_blocks();
        bool hit = false;
        {
            const failing_allocation fault(nth);
            scenario();
            hit = fault.hit();
        }
        EXPECT_EQ(core_mem_blocks(), held);
        if (!hit) return nth - 1;
        if (testing::Test::HasFailure()) return nth;
    }
    ADD_FAILURE() << "the scenario never ran without a failure";
    return limit;
}

}  // namespace test
