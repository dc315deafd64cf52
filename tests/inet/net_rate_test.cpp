// Rate meters over a clock that the test moves.
#include "inet/net_rate.h"

#include "core/time.h"

#include <gtest/gtest.h>

namespace {

uint64_t now;

class NetRate : public testing::Test {
protected:
    NetRate() {
        now = 5'000'000;
        core_time_set_clock([] { return now; });
    }
    ~NetRate() override { core_time_set_clock(nullptr); }
};

TEST_F(NetRate, MeansCountFromTheStart) {
    tool::Bps bits;
    tool::Fps frames;
    bits.add(1000);
    frames.tick();
    EXPECT_EQ(bits.get(), 0U);
    EXPECT_EQ(frames.get(), 0.0);
    now += 500'000;
    EXPECT_EQ(bits.get(), 16000U);
    EXPECT_EQ(frames.get(), 2.0);
    EXPECT_EQ(bits.available(125), 0U);  // eight times the rate is no more than the bytes
    EXPECT_EQ(bits.available(32000), 1000U);
    EXPECT_EQ(bits.available(126), 0xffffffffU - 992);  // modulo 2^32
}

TEST_F(NetRate, SlidesBySecondsAndHalvesTowardsTheNewRate) {
    net::bps_t meter;
    bps_add(meter, 1000);
    now += 1'000'000;
    EXPECT_EQ(bps_get(meter), 0U);  // a second is not over until more than it has passed
    now += 250'000;
    EXPECT_EQ(bps_get(meter), 800U);
    EXPECT_EQ(meter.pending, 200U);
    now += 1'750'000;  // two seconds into the period
    bps_add(meter, 200);
    EXPECT_EQ(bps_get(meter), 500U);
    EXPECT_EQ(meter.pending, 0U);
}

TEST_F(NetRate, ABudgetThatWasNotUsedStays) {
    struct step_t {
        uint64_t passes;
        unsigned commits, available;
    };
    // Limit 1000. An exhausted second moves the period on by one, seen from the next call on.
    constexpr step_t steps[] = {{0, 0, 1000},      {0, 600, 0},         {500'000, 0, 0xffffffffU - 99},
                                {500'000, 0, 400}, {0, 400, 1000},      {500'000, 0, 500},
                                {0, 0, 500},       {2'500'000, 0, 3000}};
    net::bandwidth_t budget;
    EXPECT_EQ(bandwidth_available(budget), 0xffffffffU);
    bandwidth_commit(budget, 5);
    EXPECT_EQ(budget.used, 0U);
    bandwidth_set(budget, 8007);
    for (const step_t& step : steps) {
        now += step.passes;
        bandwidth_commit(budget, step.commits);
        EXPECT_EQ(bandwidth_available(budget), step.available) << &step - steps;
    }
}

}  // namespace
