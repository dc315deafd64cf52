// A camera's session and a viewer's, and the wire between them: what goes in at one end comes out at the other, and
// once the buffers have grown neither end allocates for it.
#include "rtsp_viewer.h"
#include "support/fault.h"

#include "avc/jpeg.h"
#include "core/owned.h"
#include "inet/net_analytics.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using rtsp3::protocol_t;
using test::rtp_packet;
using test::rtsp_owner;
using test::rtsp_viewer;

class RtspLoopback : public test::at_fixed_time {};

/// Carries what waits; @return the allocations that took.
size_t carry(rtsp_viewer& viewer, rtsp_owner& camera) {
    const test::allocation_count count;
    test::exchange(viewer, camera);
    return count.value();
}

/// A picture of several NAL units, the last one longer than a packet.
std::string picture(int number) {
    const std::string start = "\0\0\0\1"s;
    const std::string sets = number % 5 ? "" : start + "\x67sps" + start + "\x68pps";
    return sets + start + (number % 5 ? "\x41" : "\x65") + std::string(3000, static_cast<char>('a' + number));
}

TEST_F(RtspLoopback, BringsPicturesAndSoundOverEveryTransport) {
    for (const auto protocol : {protocol_t::rtp_tcp, protocol_t::rtp_udp, protocol_t::rtp_multicast}) {
        SCOPED_TRACE(protocol);
        rtsp_owner camera;
        rtsp_viewer viewer;
        camera.formats = {av::fcc_h264, av::fcc_pcmu, av::fcc_univ};
        if (protocol == protocol_t::rtp_multicast) camera.group = "239.1.2.3";
        viewer.session->set_protocol(protocol);
        viewer.session->set_parameter_sets(rtsp3::parameter_sets_t::keys);
        ASSERT_EQ(viewer.session->open("rtsp://h/live"), 1);
        test::exchange(viewer, camera);
        ASSERT_TRUE(viewer.session->playing()) << viewer.asked << viewer.events;
        std::string sent = test::nal_units(test::access_unit(2000));
        std::string sound;
        for (int i = 0; i < 12; ++i) {
            camera.time += 40000;
            camera.send(picture(i));
            camera.send(std::string(1600, static_cast<char>('A' + i)), av::fcc_pcmu);
            sent += test::nal_units(picture(i));
            sound += std::string(1600, static_cast<char>('A' + i));
            const size_t allocated = carry(viewer, camera);
            EXPECT_TRUE(allocated == 0 || i < 6) << i;
        }
        viewer.session->flush();
        std::string units;
        std::string heard;
        for (const test::received_t& frame : viewer.frames) {
            if (frame.fcc == av::fcc_h264) units += test::nal_units(frame.data);
            if (frame.fcc == av::fcc_pcmu) heard += frame.data;
            const bool joined_late = protocol == protocol_t::rtp_multicast && &frame == &viewer.frames.front();
            EXPECT_EQ(frame.complete, !joined_late);
        }
        EXPECT_EQ(units, sent);
        EXPECT_EQ(heard, sound);
        EXPECT_EQ(viewer.session->trak(0U)->rtp->lost, 0U);
        EXPECT_GT(camera.session->activity(), 5U);
        // Both tracks are on the server's clock, though only the second had its start announced.
        const size_t last = viewer.frames.size() - 1;
        EXPECT_NEAR(static_cast<double>(viewer.frames[last].ntp_time),
                    static_cast<double>(viewer.frames[last - 1].ntp_time), 1);
    }
}

/// A picture whose tables are all that RTP does not carry.
std::string jpeg_file(uint32_t restart) {
    buf_t out;
    EXPECT_TRUE(jpeg_rtp_header(&out, 1, 640, 360, restart, std::vector<uint8_t>(128, 9), CORE_HERE));
    const std::string header(reinterpret_cast<const char*>(out.data), out.length);
    core_buf_free(&out);
    return header + std::string(4000, 's') + "\xff\xd9";
}

std::string analytics_json(int objects) {
    const std::string object =
        R"({"rectangle":{"type_graphic":3,"id":7,"points":[{"x":100,"y":200},{"x":300,"y":400}]}})";
    std::string all = object;
    while (--objects > 0)
        all += "," + object;
    return R"([{"objects":[)" + all + "]}]";
}

TEST_F(RtspLoopback, BringsEveryOtherFormatThatIsSent) {
    constexpr uint64_t period = 40000;
    const auto converted = [](const std::string& json, uint64_t time) {
        const core::owned_text text(net_analytics_convert(json.c_str(), time, CORE_HERE));
        return text ? std::string(text.get()) : std::string();
    };
    const std::string text(3000, 't');
    const struct {
        const char* name;
        uint32_t sent;
        std::string data;
        uint32_t received;
    } cases[] = {
        {"JPEG", av::fcc_jpeg, jpeg_file(0), av::fcc_jpeg},
        {"JPEG with restart markers", av::fcc_jpeg, jpeg_file(5), av::fcc_jpeg},
        {"analytics", av::fcc_meta, analytics_json(20), av::fcc_meta},
        {"text", av::fcc_univ, text, av::fcc_meta},
    };
    for (const auto& c : cases) {
        for (const auto protocol : {protocol_t::rtp_tcp, protocol_t::rtp_udp}) {
            SCOPED_TRACE(testing::Message() << c.name << " " << protocol);
            rtsp_owner camera;
            rtsp_viewer viewer;
            camera.formats = {c.sent};
            viewer.session->set_protocol(protocol);
            viewer.session->open("rtsp://h/live");
            test::exchange(viewer, camera);
            size_t allocated = 0;
            for (int i = 0; i < 4; ++i) {
                camera.time += period;
                ASSERT_EQ(camera.send(c.data, c.sent), 1) << viewer.asked;
                allocated = carry(viewer, camera);
            }
            EXPECT_EQ(allocated, 0U);
            viewer.session->flush();
            ASSERT_EQ(viewer.frames.size(), 4U);
            for (size_t i = 0; i < viewer.frames.size(); ++i) {
                const test::received_t& frame = viewer.frames[i];
                const uint64_t time = test::fixed_clock() + (i + 1) * period;
                EXPECT_EQ(frame.fcc, c.received);
                EXPECT_EQ(frame.data, c.sent == av::fcc_meta ? converted(c.data, time) : c.data);
                EXPECT_TRUE(frame.complete && frame.key);
                EXPECT_EQ(frame.time - viewer.frames[0].time, i * period);
                EXPECT_EQ(frame.media_time - viewer.frames[0].media_time, static_cast<int64_t>(i * period));
                EXPECT_NEAR(static_cast<double>(frame.ntp_time), static_cast<double>(time), 1);
            }
        }
    }
}

TEST_F(RtspLoopback, BringsSoundThatOnlyOthersSend) {
    const std::string any = "\x01\xff\x00$sound"s;
    const struct {
        const char* media;
        uint8_t pt;
        uint32_t fcc;
        std::string before;  ///< of the sound in each packet
        uint32_t rate;
        uint16_t channels;
    } cases[] = {
        {"m=audio 0 RTP/AVP 8\r\n", 8, av::fcc_pcma, "", 8000, 0},
        {"m=audio 0 RTP/AVP 97\r\na=rtpmap:97 G726-32/8000/1\r\n", 97, av::fcc_g726, "", 8000, 1},
        {"m=audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/16000/2\r\na=fmtp:97 config=1410\r\n", 97, av::fcc_mp4a,
         "\0\x10\0\x48"s, 16000, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.media);
        rtsp_viewer viewer;
        viewer.play("v=0\r\n"s + c.media);
        std::vector<std::pair<uint32_t, uint32_t>> described;
        viewer.before = [&](rtsp3::event_t::enum_t event) {
            if (event != rtsp3::event_t::rtsp_frame) return;
            described.emplace_back(viewer.session->frame()->rate, viewer.session->frame()->channels);
        };
        uint64_t allocated = 0;
        std::string expected;
        for (uint16_t i = 1; i <= 5; ++i) {
            if (i == 3) continue;  // sound before and behind a gap is whole
            const std::string sound = any + std::to_string(i);
            const std::string packet = rtp_packet(c.pt, i, c.rate / 50 * i, c.before + sound);
            std::string framed = "$\0"s;
            test::put(framed, packet.size(), 2);
            const test::allocation_count count;
            viewer.feed(framed + packet);
            allocated = count.value();
            expected += sound + "|";
        }
        EXPECT_EQ(allocated, 0U);
        viewer.session->flush();
        std::string heard;
        for (const test::received_t& frame : viewer.frames) {
            EXPECT_TRUE(frame.fcc == c.fcc && frame.complete && frame.key);
            heard += frame.data + "|";
        }
        ASSERT_EQ(heard, expected);
        EXPECT_EQ(described, (std::vector<std::pair<uint32_t, uint32_t>>(4, {c.rate, c.channels})));
        EXPECT_EQ(viewer.frames.back().media_time, 80000);
        EXPECT_EQ(viewer.session->trak(0U)->rtp->lost, 1U);
        EXPECT_EQ(viewer.reports.size(), 1U);
    }
}

}  // namespace
