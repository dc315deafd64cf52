// What is packed, played by ffmpeg.
#include "dash_source.h"
#include "support/program.h"

#include "core/owned.h"

#include <algorithm>

namespace {

using namespace std::string_literals;

using NetDashPlayed = test::DashSource;

/// Access units of 30 s with a key picture each 2 s, at 25 a second.
std::vector<std::string> encode() {
    const std::string stream = test::run(
        "ffmpeg -v error -f lavfi -i testsrc=size=192x108:rate=25 -t 30 -c:v libx264 -preset ultrafast -g 50 "
        "-x264-params aud=1:bframes=0:scenecut=0 -f h264 -");
    std::vector<std::string> units;
    for (size_t at = 0, next = 0; at != stream.npos; at = next) {
        next = stream.find("\0\0\0\1\x09"s, at + 1);
        units.push_back(stream.substr(at, next - at));
    }
    return units;
}

TEST_F(NetDashPlayed, LiveAndRangeAreDemuxedWhole) {
    const std::vector<std::string> units = encode();
    ASSERT_EQ(units.size(), 750U);
    const test::archive from("cam-" + std::to_string(test::dash_base) + '-' +
                             std::to_string(test::dash_base + 29'900'000));
    net::dash_ctx* live = net_dash_open("token", 0, 0, CORE_HERE);
    net::dash_ctx* range = net_dash_open("token", test::dash_base, test::dash_base + 29'900'000, CORE_HERE);
    ASSERT_TRUE(live && range);
    std::string stream;
    uint64_t after = 0;
    for (size_t i = 0; i < units.size(); ++i) {
        const core::owned<av::frame_t, avc_frame_need> frame(
            avc_frame_create(av::fcc_h264, test::dash_base + i * 40'000 + i % 50 % 3 * 7, units[i].data(),
                             static_cast<uint32_t>(units[i].size()), CORE_HERE));
        put(source_, *frame);
        put(from.track, *frame);
        // A player that takes each segment as it is listed.
        manifest(live);
        for (const net::dash_timeline* pair = net_dash_times(live); pair && pair->d; ++pair) {
            if (pair->t < after) continue;
            EXPECT_EQ(pair->t, after);
            after = pair->t + pair->d;
            stream += bytes(live, std::to_string(pair->t) + ".m4s");
        }
    }
    EXPECT_EQ(after, 28'000U);
    test::write_file("live.mp4", test::bytes_of(bytes(live, "header.m4s") + stream));
    const std::string dir = "v"s + net_dash_name(range);
    std::filesystem::rename("temp/"s + net_dash_name(range), dir);
    test::write_file(dir + "/header.m4s", test::bytes_of(bytes(live, "header.m4s")));
    test::write_file("range.mpd", test::bytes_of(manifest(range)));
    // Decode times are continuous: no picture is missing, and none is there twice.
    for (const auto& [name, count] : {std::pair("live.mp4", 700U), {"range.mpd", 748U}}) {
        std::istringstream times(test::run("ffprobe -v error -show_entries packet=dts -of csv=p=0 "s + name));
        uint64_t last = 0, found = 0;
        for (uint64_t dts = 0; times >> dts; last = dts, ++found) {
            times.ignore(8, '\n');
            EXPECT_NEAR(static_cast<double>(dts - last), found > 0 ? 3600 : 0, 92) << found;
        }
        EXPECT_EQ(found, count) << name;
        test::run("ffmpeg -v error -xerror -i "s + name + " -f null -");
    }
}

}  // namespace
