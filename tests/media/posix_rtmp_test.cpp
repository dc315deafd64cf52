// Streams over RTMP whose timestamps pass what 24 and 32 bits hold.
#include "support/program.h"

#include "avc/access_units.h"
#include "avc/fcc.h"
#include "core/owned.h"
#include "core/thread.h"
#include "core/time.h"
#include "media/rtmp_service.h"
#include "media/station.h"
#include "media/watcher.h"

#include <atomic>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <thread>

namespace {

constexpr uint64_t step = 40'000;  // microseconds from picture to picture
constexpr uint32_t seconds = 4;

/// Pictures of an encoder, a key picture a second.
std::vector<core::owned<av::frame_t, avc_frame_need>> pictures() {
    const std::string stream = test::run("ffmpeg -v error -f lavfi -i testsrc2=size=160x96:rate=25 -t " +
                                         std::to_string(seconds) + " -c:v libx264 -g 25 -bf 0 -f h264 -");
    std::vector<core::owned<av::frame_t, avc_frame_need>> found;
    av::AccessUnits units(CORE_HERE);
    const auto keep = [](void* arg, buffer_t unit) {
        static_cast<decltype(found)*>(arg)->emplace_back(
            avc_frame_create(av::fcc_h264, 0, unit.data, unit.size, CORE_HERE));
    };
    const auto bytes = test::bytes_of(stream);
    units.take({const_cast<uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())}, keep, &found);
    units.end(keep, &found);
    return found;
}

/// Steps between the decoded pictures that ffmpeg shows, in ticks of a millisecond.
std::set<int64_t> steps_of(const std::string& table, size_t& count) {
    std::istringstream lines(table);
    std::set<int64_t> found;
    int64_t last = -1;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line.front() == '#') continue;
        const int64_t time = std::stoll(line.substr(line.rfind(',', line.find(',', line.find(',') + 1)) + 1));
        if (count++ > 0) found.insert(time - last);
        last = time;
    }
    return found;
}

class Rtmp : public testing::TestWithParam<uint64_t> {};

TEST_P(Rtmp, PlaysOnBeyondTheBoundOfItsTimestamps) {
    const auto clip = pictures();
    media::station station;
    media::stream* const live = station.add_stream("live");
    // The first picture is a second later than the first timestamp: two seconds before the bound.
    auto* const service = media::rtmp_service({.port = 0, .first_timestamp = static_cast<uint32_t>(GetParam() - 3000)});
    ASSERT_TRUE(live && station.add(service) && station.start());
    const std::string url = "rtmp://127.0.0.1:" + std::to_string(service->port()) + "/live";
    std::atomic<bool> over = false;
    std::thread encoder([&] {
        const uint64_t begin = core_timer();
        const uint64_t now = time_now();
        for (size_t i = 0; !over; ++i) {
            for (const uint64_t due = begin + i * step; core_timer() < due;)
                core_sleep(5);
            av::frame_t& picture = *clip[i % clip.size()];
            picture.time = now + i * step;
            live->push(picture);
        }
    });
    std::vector<int64_t> times;
    media::watcher watcher(url.c_str(), {.reconnect = 5, .insist = true, .duration = seconds * 1'000'000});
    watcher.on_frame(
        [](void* arg, const media::watched_t& got) {
            static_cast<std::vector<int64_t>*>(arg)->push_back(got.media_time);
            return 1;
        },
        &times);
    EXPECT_EQ(watcher.start(), 1);
    size_t count = 0;
    const auto steps = steps_of(test::run("ffmpeg -v error -xerror -i " + url + " -t " + std::to_string(seconds) +
                                          " -fps_mode passthrough -f framehash -"),
                                count);
    EXPECT_EQ(count, 25 * seconds);
    EXPECT_EQ(steps, std::set<int64_t>{1});  // pictures
    EXPECT_EQ(watcher.wait(20'000), 1);
    EXPECT_EQ(watcher.status().outcome, media::outcome_t::ok) << watcher.status().text;
    watcher.stop();
    EXPECT_EQ(times.size(), 25 * seconds);
    for (size_t i = 1; i < times.size(); ++i)
        EXPECT_EQ(times[i] - times[i - 1], static_cast<int64_t>(step));
    over = true;
    encoder.join();
    station.stop();
}

INSTANTIATE_TEST_SUITE_P(Bounds, Rtmp, testing::Values(uint64_t{0xFFFFFF}, uint64_t{1} << 32));

}  // namespace
