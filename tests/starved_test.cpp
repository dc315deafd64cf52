// Scenarios in which each allocation fails in turn, for what no fuzz target reaches. A scenario checks what is promised
// for lack of memory and releases everything it got.
#include "support/fault.h"

#include "avc/fcc.h"
#include "avc/frame.h"
#include "common/digest.h"
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

void decode_base64() {
    buf_t out;
    EXPECT_EQ(b64_decode("Zm9v", 4, &out, CORE_HERE), out.length);
    core_buf_free(&out);
}

/// A frame made, shared and copied, each whole or not at all.
void make_frames() {
    constexpr uint8_t lent[] = "lent";
    av::frame_t* made = avc_frame_create(av::fcc_pcmu, 1, lent, 4, CORE_HERE);
    av::frame_t* shared = avc_frame_dup(made, CORE_HERE);
    av::frame_t borrowed{};
    borrowed.data = lent;
    borrowed.size = 4;
    av::frame_t* copied = avc_frame_dup(&borrowed, CORE_HERE);
    for (av::frame_t** frame : {&made, &shared, &copied})
        avc_frame_need(*frame);
    av::meta_t* meta = avc_meta_create(av::fcc_meta, 1, "{}", 2, CORE_HERE);
    avc_meta_need(meta);
}

// inet: sockets, the network thread

// inet: RTP

// inet: RTSP

constexpr scenario_t scenarios[] = {
    // core
    {"Module", open_a_missing_module, 1},
    // common, avc
    {"Base64", decode_base64, 1},
    {"Frame", make_frames, 7},  // the shared one takes its record alone, the others their bytes, too
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
