#include "inet/rtp_reorder.h"

#include "support/fault.h"

#include "inet/rtp_owner.h"

#include <memory>

namespace {

using numbers = std::vector<uint16_t>;

class window {
public:
    explicit window(uint32_t packets = 8)
        : object(rtp::Reorder::create({packets, 1000}, keep, this, CORE_HERE), rtp::Reorder::destroy) {}

    void push(uint16_t seq, uint64_t now = 1, size_t size = 40) {
        bytes data = packet_of(seq, size);
        object->push({data.data(), static_cast<uint32_t>(size)}, now);
    }
    void push_all(const numbers& all) {
        for (const uint16_t number : all)
            push(number);
    }
    const rtp::Reorder::counts_t& counts() const { return object->counts(); }

    numbers out;
    std::unique_ptr<rtp::Reorder, void (*)(rtp::Reorder*)> object;

private:
    static bytes packet_of(uint16_t seq, size_t size) { return packet(seq, noise(size - 12, seq)); }
    static void keep(void* self, buffer_t data) {
        const bytes got(data.data, data.data + data.size);
        const auto seq = static_cast<uint16_t>(be16(got, 2));
        EXPECT_TRUE(got == packet_of(seq, got.size())) << seq;
        static_cast<window*>(self)->out.push_back(seq);
    }
};

TEST(RtpReorder, DeliversInOrderWhatComesInReach) {
    struct {
        const char* name;
        numbers in, out;
        uint32_t late, repeated, given_up, restarts;
    } const cases[] = {
        {"two swapped", {1, 3, 2, 4}, {1, 2, 3, 4}, 0, 0, 0, 0},
        {"as far as the window reaches", {1, 9, 8, 7, 6, 5, 4, 3, 2}, {1, 2, 3, 4, 5, 6, 7, 8, 9}, 0, 0, 0, 0},
        {"one missing", {1, 3, 4, 5, 6, 7, 8, 9, 10}, {1, 3, 4, 5, 6, 7, 8, 9, 10}, 0, 0, 1, 0},
        {"over the wrap", {65534, 1, 65535, 0, 2}, {65534, 65535, 0, 1, 2}, 0, 0, 0, 0},
        {"twice", {1, 1, 3, 3, 2, 3}, {1, 2, 3}, 2, 1, 0, 0},
        {"too late", {10, 30, 11, 31, 9}, {10}, 2, 0, 13, 0},
        {"a stray number", {10, 9000, 11}, {10, 11}, 1, 0, 0, 0},
        {"a new start", {5000, 5002, 7, 8, 9, 5003}, {5000, 5002, 8, 9}, 2, 0, 1, 1},
    };
    for (const auto& [name, in, out, late, repeated, given_up, restarts] : cases) {
        SCOPED_TRACE(name);
        window one;
        one.push_all(in);
        EXPECT_EQ(one.out, out);
        EXPECT_EQ(one.counts().late, late);
        EXPECT_EQ(one.counts().repeated, repeated);
        EXPECT_EQ(one.counts().given_up, given_up);
        EXPECT_EQ(one.counts().restarts, restarts);
    }
}

TEST(RtpReorder, WaitsNoLongerThanItMay) {
    window one;
    one.push(1, 100);
    EXPECT_EQ(one.object->due(), 0U);
    one.push(3, 200);
    one.push(6, 500);
    EXPECT_EQ(one.object->due(), 1200U);
    one.object->expire(1199);
    EXPECT_EQ(one.out, numbers{1});
    one.object->expire(1200);
    EXPECT_EQ(one.out, (numbers{1, 3}));
    one.push(8, 1500);  // a packet sees to it as well
    EXPECT_EQ(one.out, (numbers{1, 3, 6}));
    one.object->flush();
    EXPECT_EQ(one.out, (numbers{1, 3, 6, 8}));
    EXPECT_EQ(one.object->due(), 0U);
    one.push(16, 2000);  // the last place of the window
    one.object->expire(3000);
    EXPECT_EQ(one.out.back(), 16);
    EXPECT_EQ(one.counts().given_up, 11U);
}

TEST(RtpReorder, DoesNotWaitWithWhatIsNoPacketOrTooLong) {
    window one;
    one.push_all({1, 4});
    one.push(3, 1, rtp::reorder_packet + 1);
    EXPECT_EQ(one.out, (numbers{1, 3, 4}));
    one.push(6, 1, rtp::reorder_packet);
    bytes data = packet(5, {});
    one.object->push({data.data(), 11}, 1);
    one.object->push({nullptr, 12}, 1);
    data[0] = 0x40;
    one.object->push({data.data(), 12}, 1);
    EXPECT_EQ(one.out.size(), 3U);
    one.push(5, 1, 12);
    EXPECT_EQ(one.out, (numbers{1, 3, 4, 5, 6}));
}

// Packets change places in every way that the window reaches, over the wrap, and one in fifty is lost: nothing comes
// twice or backwards, what the track behind the window counts as lost is what was lost, and nothing is allocated.
TEST(RtpReorder, LeavesTheTrackBehindItOnlyRealLosses) {
    window one(32);
    one.push(59999);
    uint32_t lost = 0;
    const test::allocation_count count;
    for (uint32_t i = 60000; i < 70000; ++i) {
        const uint32_t number = i ^ (i >> 5 & 31);
        if (number % 50 == 7)
            ++lost;
        else
            one.push(static_cast<uint16_t>(number));
    }
    EXPECT_EQ(count.value(), 0U);
    one.object->flush();
    EXPECT_EQ(one.counts().late + one.counts().restarts, 0U);
    rtp_owner behind(av::fcc_pcmu);
    for (const uint16_t number : one.out)
        behind.take(packet(number, {1}));
    EXPECT_EQ(behind.track->received, 10001 - lost);
    EXPECT_EQ(behind.track->lost, lost);
    EXPECT_EQ(behind.track->late, 0U);
}

TEST(RtpReorder, HoldsTheWindowAndNoMore) {
    for (const auto& [asked, packets] : {std::pair{1U, 2U}, {5U, 8U}, {1000U, 256U}}) {
        const size_t before = core_mem_bytes();
        const window one(asked);
        const size_t held = core_mem_bytes() - before;
        EXPECT_GE(held, packets * rtp::reorder_packet);
        EXPECT_LT(held, packets * (rtp::reorder_packet + 64) + 512);
    }
}

}  // namespace
