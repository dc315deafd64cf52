// What is cut, listed, lent and released. posix_net_dash_test.cpp has it played by ffmpeg.
#include "dash_source.h"
#include "support/fault.h"

#include "core/owned.h"

namespace {

using namespace std::string_literals;

using NetDash = test::DashSource;
using test::dash_base;

/// The decode time that a fragment states, in milliseconds.
uint64_t decode_time(const std::string& fragment) {
    const size_t tfdt = fragment.find("tfdt");
    uint64_t ticks = 0;
    for (size_t i = tfdt + 8; i < tfdt + 16; ++i)
        ticks = ticks << 8 | static_cast<uint8_t>(fragment[i]);
    EXPECT_EQ(ticks % 90, 0U);
    return ticks / 90;
}

TEST_F(NetDash, CutsAtKeyPictures) {
    const struct {
        const char* what;
        std::string pictures;
        std::string segments;
    } cases[] = {
        {"each second", "K0 K1000 K2000 K3000 K4000 K5000", "0+2000 2000+2000 "},
        {"each 3 s", "K0 p1500 K3000 p4500 K6000", "0+3000 3000+3000 "},
        {"not before 2 s", "K0 p1000 K1999.999 p3000 K3999.998", "0+3999 "},
        {"nothing before a key; sound", "p0 p40 S50 K80 S90 p120 S2000 K2080", "0+2000 "},
        {"whole milliseconds", "K0.9 p33.4 K2001.3 p2100 K4001.7 K6001.69", "0+2000 2000+2000 "},
        {"shorter by rounding alone", "K0 K2000.9 K4000.899 K6000.9", "0+2000 2000+4000 "},
        {"outage", "K0 p40 p80 K60000 p60040 K62000", "0+1000 60000+2000 "},
        {"outage, then no key", "K0 p40 p1480 p1520 p60000 p60040 K61000 p61040 K63000", "0+1560 61000+2000 "},
        {"slow pictures", "K0 K5000 K10000 K15000 K20000", "0+5000 5000+5000 10000+5000 15000+5000 "},
        {"clock set back", "K3600000 p3600040 p1000 p1040 K3000 p3040 K5000", "0+2080 2080+2000 "},
        {"clock a little back", "K0 p1000 p900 p950 K2000 K4000", "0+2000 2000+2000 "},
        {"clock set ahead by years", "K0 p40 p999999999999 p1000000000039 K1000000002000 K1000000004000",
         "0+2081 2081+2000 "},
    };
    for (const auto& [what, pictures, segments] : cases) {
        SCOPED_TRACE(what);
        net::dash_ctx* ctx = net_dash_open("token", 0, 0, CORE_HERE);
        put(pictures);
        EXPECT_EQ(times(ctx), segments);
        for (const net::dash_timeline* pair = net_dash_times(ctx); pair && pair->d; ++pair)
            EXPECT_EQ(decode_time(bytes(ctx, std::to_string(pair->t) + ".m4s")), pair->t);
        net_dash_close(ctx);
        now += 30'000'000;
        net::dash::sweep();
    }
}

TEST_F(NetDash, ListsAWindowOf15Seconds) {
    net::dash_ctx* ctx = net_dash_open("token", 0, 0, CORE_HERE);
    EXPECT_EQ(net_dash_property(ctx).profile, 77);
    EXPECT_EQ(net_dash_times(ctx), nullptr);
    EXPECT_EQ(net_dash_segment_video(ctx, "header.m4s"), nullptr);
    put_seconds(0, 18);
    EXPECT_EQ(manifest(ctx), "");
    EXPECT_EQ(net_dash_state(ctx), net::dash_filling);
    net::dash_share held;
    ASSERT_TRUE(net_dash_share(ctx, "0.m4s", &held));
    const std::string first(reinterpret_cast<const char*>(held.info.data), held.info.size);
    EXPECT_EQ(test::read_file("temp/cam-0-0/0.m4s"), first);
    put_seconds(18, 32);
    EXPECT_EQ(bytes(ctx, "28000.m4s"), "");  // no manifest has listed it
    EXPECT_EQ(times(ctx), "14000+2000 16000+2000 18000+2000 20000+2000 22000+2000 24000+2000 26000+2000 28000+2000 ");
    EXPECT_FALSE(std::filesystem::exists("temp/cam-0-0/0.m4s"));
    EXPECT_EQ(bytes(ctx, "0.m4s"), "");
    EXPECT_EQ(std::string_view(first), std::string_view(reinterpret_cast<const char*>(held.info.data), held.info.size));

    const std::string mpd = manifest(ctx);
    for (const char* part :
         {"availabilityStartTime=\"2023-11-14T22:13:20.000Z\"", "publishTime=\"2023-11-14T22:13:51Z\"",
          "timeShiftBufferDepth=\"PT16S\"", "value=\"2023-11-14T22:13:51.000Z\"",
          "\n           <S d=\"2000\" t=\"14000\"/>", "avc1.42000d", "id=\"vcam-0-0\"", "width=\"320\""})
        EXPECT_NE(mpd.find(part), mpd.npos) << part << " in " << mpd;

    EXPECT_NE(bytes(ctx, "28000.m4s"), "");
    const net::dash_segment* segment = net_dash_segment_video(ctx, "14000.m4s");
    ASSERT_NE(segment, nullptr);
    EXPECT_STREQ(segment->path, "./temp/cam-0-0/14000.m4s");
    EXPECT_EQ(net_dash_segment_info(ctx, segment).duration, 2000U);
    EXPECT_EQ(decode_time({reinterpret_cast<const char*>(segment->bytes.data), segment->bytes.length}), 14000U);
    net_dash_segment_close(ctx, segment);
    EXPECT_EQ(net_dash_segment_video(ctx, "0.m4s"), nullptr);
    const net::dash_segment* header = net_dash_segment_video(ctx, "header.m4s");
    EXPECT_EQ(std::string(header->bytes.data + 4, header->bytes.data + 8), "ftyp");
    net_dash_segment_close(ctx, header);
    net_dash_share_release(held.owner);
}

TEST_F(NetDash, OpensAContextForEachTrackAndRange) {
    net::dash_ctx* live = net_dash_open("token", 0, 0, CORE_HERE);
    EXPECT_EQ(net_dash_open("token", 0, 0, CORE_HERE), live);
    EXPECT_EQ(net_dash_search("token"), live);
    EXPECT_EQ(net_dash_find("cam-0-0"), live);
    constexpr uint64_t hour = 3'600'000'000;
    const core::owned<net::dash_ctx, net_dash_close> range(net_dash_open("token", 1, 2, CORE_HERE));
    ASSERT_TRUE(range && range.get() != live);
    EXPECT_EQ(net_dash_state(range.get()), net::dash_failed) << "nobody plays it";
    for (const auto& [token, start, end] : {std::tuple("other", 0ULL, 0ULL),
                                            {"token", 0ULL, 1ULL},
                                            {"token", 2ULL, 1ULL},
                                            {"token", 1ULL, hour + 2},
                                            {"token", UINT64_MAX - 1, UINT64_MAX}})
        EXPECT_EQ(net_dash_open(token, start, end, CORE_HERE), nullptr) << token << start << '-' << end;
    for (const char* id : {"", "a/../../b", "a\\b", "a b", "a&amp;b"}) {
        value_t** row = core_value_put(nullptr, "id", id, CORE_HERE);
        tab_put(tab_tracks, "bad", row, CORE_HERE);
        core_value_free(row);
        EXPECT_EQ(net_dash_open("bad", 0, 0, CORE_HERE), nullptr) << id;
    }
}

TEST_F(NetDash, ReleasesWhatNobodyUsesAfter20Seconds) {
    net::dash_ctx* ctx = net_dash_open("token", 0, 0, CORE_HERE);
    put_seconds(0, 6);
    now += 30'000'000;
    net::dash::sweep();  // it has a user
    EXPECT_NE(bytes(ctx, "0.m4s"), "");
    net_dash_close(ctx);
    for (const bool is_there : {true, false}) {
        now += is_there ? 20'000'000 : 1'000'000;
        net::dash::sweep();
        EXPECT_EQ(std::filesystem::exists("temp/cam-0-0"), is_there);
        net::dash_ctx* found = net_dash_search("token");
        EXPECT_EQ(found != nullptr, is_there);
        net_dash_close(found);
    }
}

TEST_F(NetDash, FollowsChangedParameterSets) {
    net::dash_ctx* old = net_dash_open("token", 0, 0, CORE_HERE);
    put("K0 p40 K2000 p2040 C3000 p3040 C5000 K6000");
    EXPECT_EQ(net_dash_state(old), net::dash_retired);
    EXPECT_EQ(times(old), "0+2000 2000+1000 ");
    net::dash_ctx* second = net_dash_find("cam-0-0-1");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(times(second), "0+2000 2000+1000 ");
    EXPECT_NE(bytes(second, "header.m4s"), bytes(old, "header.m4s"));
    net_dash_close(second);
    now += 60'000'000;
    net::dash::sweep();  // the first one's user, who has not noticed, keeps that and the third
    EXPECT_EQ(net_dash_find("cam-0-0-1"), nullptr);
    net::dash_ctx* third = net_dash_open("token", 0, 0, CORE_HERE);
    EXPECT_STREQ(net_dash_name(third), "cam-0-0-2");
    // Three are kept beside the one that packs, until nobody uses them.
    put("C67000 K68000 C69000 K70000");
    EXPECT_NE(net_dash_find("cam-0-0-3"), nullptr);
    EXPECT_EQ(net_dash_find("cam-0-0-4"), nullptr);
    net_dash_close(old);
    now += 60'000'000;
    net::dash::sweep();
    put("C140000");
    EXPECT_NE(net_dash_find("cam-0-0"), nullptr);
    EXPECT_EQ(net_dash_state(third), net::dash_retired);
}

TEST_F(NetDash, ServesRangesFromTheirFiles) {
    constexpr param_t end[] = {{"end", int64_t{0}}, {}};
    const struct {
        const char* what;
        std::string pictures;
        bool says_end;
        bool at_once;  // whole when the pictures have come
        std::string segments;
    } cases[] = {
        {"silent", "K0 p1000 K2000 p9000 K10000", false, false, "0+2000 2000+2000 4000+1000 "},
        {"a picture behind the end", "K0 p1000 K2000 p3000 K10000.001", false, true, "0+2000 2000+2000 "},
        {"said to end; begins early", "K-4000 p-1 K-9 p1 K1991 p2040", true, true, "0+2000 2000+98 "},
        {"a hole", "K0 p40 K8000 p8040 K10000", true, true, "0+2080 2080+1960 "},
        {"parameter sets change", "K0 p40 K2000 p2040 C3000 K5000", false, true, "0+2000 2000+1000 "},
    };
    const std::string name = "cam-" + std::to_string(dash_base) + '-' + std::to_string(dash_base + 10'000'000);
    for (const auto& [what, pictures, says_end, at_once, segments] : cases) {
        SCOPED_TRACE(what);
        test::archive from(name);
        net::dash_ctx* ctx = net_dash_open("token", dash_base, dash_base + 10'000'000, CORE_HERE);
        ASSERT_NE(ctx, nullptr);
        EXPECT_EQ(from.asked, "play" + std::to_string(dash_base) + "100000");
        put(pictures, from.track);
        if (says_end) core_profile_put(from.track, end);
        EXPECT_EQ(manifest(ctx).empty(), !at_once);
        now += 11'000'000;
        net::dash::sweep();  // a silent one is whole by now, too
        EXPECT_EQ(net_dash_state(ctx), net::dash_ready);
        EXPECT_EQ(times(ctx), segments);
        const net::dash_segment* segment = net_dash_segment_video(ctx, "0.m4s");
        ASSERT_NE(segment, nullptr);
        const std::string file = test::read_file(segment->path);
        EXPECT_EQ(file, std::string(segment->bytes.data, segment->bytes.data + segment->bytes.length));
        net_dash_segment_close(ctx, segment);
        EXPECT_EQ(segment->bytes.data, nullptr);
        net::dash_share one, two;
        ASSERT_TRUE(net_dash_share(ctx, "0.m4s", &one) && net_dash_share(ctx, "0.m4s", &two));
        EXPECT_EQ(one.info.data, two.info.data);
        net_dash_share_release(one.owner);
        EXPECT_EQ(bytes(ctx, "0.m4s"), file);
        net_dash_share_release(two.owner);
        EXPECT_EQ(bytes(ctx, "0.m4s"), file);
        EXPECT_NE(manifest(ctx).find("<Source>2023-11-14T22:13:20Z/2023-11-14T22:13:30Z</Source>"), std::string::npos);
        net_dash_close(ctx);
        now += 30'000'000;
        net::dash::sweep();
        EXPECT_FALSE(std::filesystem::exists("temp/" + name));
    }
}

TEST_F(NetDash, LosesNothingButSegmentsWhenMemoryIsOut) {
    put("p0");  // the bus keeps a block for the name
    EXPECT_GT(test::fail_each_allocation([this] {
                  net::dash_ctx* ctx = net_dash_open("token", 0, 0, CORE_HERE);
                  put_seconds(0, 20);
                  core_mfree(net_dash_manifest(ctx, CORE_HERE));
                  put("C20000 C22000");
                  times(ctx);
                  bytes(ctx, "header.m4s");
                  net_dash_close(ctx);
                  now += 30'000'000;
                  net::dash::sweep();
                  now += 30'000'000;
                  net::dash::sweep();
              }),
              20U);
}

}  // namespace
