#include "inet/rtp_reorder.h"

#include "support/fault.h"

#include "inet/rtp_capture.h"

#include <map>
#include <memory>

namespace {

bytes packet(uint16_t seq, size_t size = 40) {
    bytes out = noise(size, seq);
    out[0] = 0x80;
    out[2] = static_cast<uint8_t>(seq >> 8);
    out[3] = static_cast<uint8_t>(seq);
    return out;
}

class window {
public:
    explicit window(uint32_t packets = 8)
        : object(rtp::Reorder::create({packets, 1000}, keep, this, CORE_HERE), rtp::Reorder::destroy) {}

    void push(uint16_t seq, uint64_t now = 1, size_t size = 40) {
        bytes data = packet(seq, size);
        object->push({data.data(), static_cast<uint32_t>(size)}, now);
    }
    void push_all(const std::vector<uint16_t>& numbers) {
        for (const uint16_t number : numbers)
            push(number);
    }
    const rtp::Reorder::counts_t& counts() const { return object->counts(); }

    std::vector<uint16_t> out;
    std::unique_ptr<rtp::Reorder, void (*)(rtp::Reorder*)> object;

private:
    static void keep(void* self, buffer_t data) {
        const bytes got(data.data, data.data + data.size);
        const auto seq = static_cast<uint16_t>(be16(got, 2));
        EXPECT_EQ(got, packet(seq, got.size()));
        static_cast<window*>(self)->out.push_back(seq);
    }
};

using numbers = std::vector<uint16_t>;

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
    EXPECT_EQ(one.counts().given_up, 4U);
}

TEST(RtpReorder, DoesNotWaitWithWhatIsNoPacketOrTooLong) {
    window one;
    one.push_all({1, 4});
    one.push(3, 1, rtp::reorder_packet + 1);
    EXPECT_EQ(one.out, (numbers{1, 3, 4}));
    one.push(6, 1, rtp::reorder_packet);
    bytes data = packet(5);
    one.object->push({data.data(), 11}, 1);
    one.object->push({nullptr, 40}, 1);
    data[0] = 0x40;
    one.object->push({data.data(), 40}, 1);
    EXPECT_EQ(one.out.size(), 3U);
    one.push(5, 1, 12);
    EXPECT_EQ(one.out, (numbers{1, 3, 4, 5, 6}));
}

// A fiftieth of the packets is lost and the others change places: nothing comes twice or backwards, and what the track
// behind the window counts as lost is what was lost.
TEST(RtpReorder, LeavesTheTrackBehindItOnlyRealLosses) {
    uint32_t seed = 7;
    const auto random = [&](uint32_t below) { return (seed = seed * 1664525 + 1013904223) % (below << 8) >> 8; };
    for (const uint32_t spread : {2U, 10U, 31U, 60U}) {
        SCOPED_TRACE(spread);
        constexpr uint32_t count = 70000;
        std::multimap<uint32_t, uint16_t> in{{0, 1}, {count + spread, static_cast<uint16_t>(count)}};
        for (uint32_t i = 2; i < count; ++i) {
            if (random(50)) in.emplace(i + random(spread), static_cast<uint16_t>(i));
        }
        window one(32);
        for (const auto& [place, number] : in)
            one.push(number);
        one.object->flush();
        EXPECT_EQ(one.out.size() + one.counts().late, in.size());
        EXPECT_EQ(one.counts().late > 0, spread > 32);

        rtp::Rtp behind(CORE_HERE);
        const rtp::trak_t* const track = behind.add_trak(0, av::fcc_pcmu);
        for (const uint16_t number : one.out) {
            bytes data = packet(number);
            data[1] = track->pt;
            behind.unpack_rtp({data.data(), static_cast<uint32_t>(data.size())});
        }
        EXPECT_EQ(track->received, one.out.size());
        EXPECT_EQ(track->lost, count - one.out.size());
        EXPECT_EQ(track->late + one.counts().restarts, 0U);
    }
}

TEST(RtpReorder, HoldsWhatItTookAtItsMaking) {
    EXPECT_EQ(test::fail_each_allocation([] {
                  rtp::Reorder::destroy(rtp::Reorder::create(
                      {}, [](void*, buffer_t) {}, nullptr, CORE_HERE));
              }),
              2U);
    EXPECT_EQ(rtp::Reorder::create({}, nullptr, nullptr, CORE_HERE), nullptr);
    const size_t before = core_mem_bytes();
    window one(5);
    EXPECT_LT(core_mem_bytes() - before, 8 * (rtp::reorder_packet + 64) + 512);
    const test::allocation_count count;
    for (uint16_t i = 0; i < 200; ++i) {
        bytes data = packet(static_cast<uint16_t>(i ^ 3));
        one.object->push({data.data(), 40}, i);
    }
    EXPECT_EQ(count.value(), 0U);
    EXPECT_EQ(one.out.size(), 197U);
}

}  // namespace
