// Scenarios in which each allocation fails in turn, for what no fuzz target reaches. A scenario checks what is promised
// for lack of memory and releases everything it got.
#include "support/fault.h"

#include "core/module.h"

#include <gtest/gtest.h>

namespace {

struct scenario_t {
    const char* name;
    void (*run)();
    size_t allocations;  ///< of which at least so many are made to fail
};

// core

void open_a_missing_module() { EXPECT_EQ(core_dll_open("no such module", nullptr, CORE_HERE), nullptr); }

// common, avc

// inet: sockets, the network thread

// inet: RTP

// inet: RTSP

constexpr scenario_t scenarios[] = {
    // core
    {"Module", open_a_missing_module, 1},
    // common, avc
    // inet: sockets, the network thread
    // inet: RTP
    // inet: RTSP
};

class Starved : public testing::TestWithParam<scenario_t> {};

TEST_P(Starved, KeepsItsPromisesAndHoldsNothing) {
    size_t nth = 0;
    for (bool hit = true; hit && !HasFailure();) {
        SCOPED_TRACE(testing::Message() << "allocation " << ++nth << " fails");
        const size_t held = core_mem_blocks();
        const test::failing_allocation fault(nth);
        GetParam().run();
        hit = fault.hit();
        EXPECT_EQ(core_mem_blocks(), held);
    }
    EXPECT_GT(nth, GetParam().allocations);
}

INSTANTIATE_TEST_SUITE_P(, Starved, testing::ValuesIn(scenarios), [](const auto& tested) { return tested.param.name; });

}  // namespace
