// Frames of a running RTSP session on their way out.
#include "rtsp_owner.h"
#include "support/fault.h"

#include <gtest/gtest.h>

namespace {

using test::access_unit;
using test::rtsp_owner;

TEST(RtspStreaming, AllocatesNothingOnceItRunsAndTellsOfAPictureByOneEvent) {
    rtsp_owner owner;
    owner.play();
    owner.reading = false;
    size_t taken = 0;
    owner.before = [&](rtsp3::event_t::enum_t event) {
        if (event != rtsp3::event_t::rtsp_send) return;
        buf_t* out = owner.session->send_buffer();
        taken += out->length;
        core_buf_ignore(out, out->length);
    };
    const std::string picture = access_unit(60000);
    const std::string sound(800, '\x7f');
    EXPECT_TRUE(owner.send(picture) && owner.send(sound, av::fcc_pcmu));
    taken = owner.sends = 0;
    const test::allocation_count allocations;
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(owner.send(picture) && owner.send(sound, av::fcc_pcmu));
    EXPECT_EQ(allocations.value(), 0U);
    EXPECT_EQ(owner.sends, 200U);
    EXPECT_GT(taken, 100 * (picture.size() + sound.size()));
}

TEST(RtspStreaming, TakesFramesOnlyWhilePlaying) {
    rtsp_owner owner;
    EXPECT_EQ(owner.send(access_unit(10)), 0);
    owner.play();
    const struct {
        const char* request;
        int taken;
    } steps[] = {{"PLAY rtsp://h/live/", 1},     {"PAUSE rtsp://h/live/", 0},      {"PLAY rtsp://h/live/", 1},
                 {"TEARDOWN rtsp://h/live/", 0}, {"SETUP rtsp://h/live/video", 0}, {"PLAY rtsp://h/live/", 1},
                 {"DESCRIBE rtsp://h/live", 0}};
    for (const auto& [request, taken] : steps) {
        EXPECT_EQ(owner.status(request, "Transport: RTP/AVP/TCP\r\n"), 200);
        EXPECT_EQ(owner.send(access_unit(10)), taken) << request;
    }
}

TEST(RtspStreaming, LeavesWholePicturesOutForAReaderThatStalls) {
    rtsp_owner owner;
    owner.play();
    owner.reading = false;
    owner.session->set_send_limit(10000);
    EXPECT_EQ(owner.send(access_unit(9000)), 1);
    EXPECT_EQ(owner.send(access_unit(9000)), 1);
    const uint32_t waiting = owner.session->send_buffer()->length;
    core_buf_ignore(owner.session->send_buffer(), waiting - 10000);
    EXPECT_EQ(owner.send(access_unit(9000)), 0);
    EXPECT_EQ(owner.session->send_buffer()->length, 10000U);
    core_buf_ignore(owner.session->send_buffer(), 1);
    EXPECT_EQ(owner.send(access_unit(9000)), 1);
    for (int i = 0; i < 1500; ++i) {  // a slow one still gets answers and pictures
        core_buf_ignore(owner.session->send_buffer(), owner.session->send_buffer()->length - 1);
        owner.feed("OPTIONS * RTSP/1.0\r\n\r\n");
        EXPECT_EQ(owner.send(access_unit(10)), 1);
    }
    EXPECT_FALSE(owner.session->closed());
}

TEST(RtspStreaming, SendsTracksByTheirOwnTransportAndReportsOnThePacketsClock) {
    rtsp_owner owner;
    owner.status("DESCRIBE rtsp://h/live");
    owner.status("SETUP rtsp://h/live/video", "Transport: RTP/AVP;unicast;client_port=7000-7001\r\n");
    owner.status("SETUP rtsp://h/live/audio", "Transport: RTP/AVP/TCP;unicast;interleaved=8-9\r\n");
    owner.status("PLAY rtsp://h/live/");
    std::string ports;
    owner.send(std::string(1600, 'a'), av::fcc_pcmu);
    owner.send(access_unit(100));
    for (const auto& packet : owner.packets)
        ports += std::to_string(packet.port) + " ";
    // The picture of PLAY with its report, two blocks of sound with theirs, the second picture.
    EXPECT_EQ(ports, "7000 7000 7000 7000 7001 8 8 9 7000 7000 7000 ");
    const std::string& report = owner.packets[4].bytes;
    ASSERT_EQ(report.size(), 28U);
    EXPECT_EQ(report.substr(16, 4), owner.packets[0].bytes.substr(4, 4));
    EXPECT_EQ(report.substr(4, 4), owner.packets[0].bytes.substr(8, 4));
    EXPECT_EQ(owner.session->trak(), nullptr);
    // Set up anew it plays on as a stream of its own: three NAL units and the first report.
    owner.status("SETUP rtsp://h/live/video", "Transport: RTP/AVP/TCP;unicast\r\n");
    owner.packets.clear();
    EXPECT_EQ(owner.send(access_unit(10)), 1);
    ASSERT_EQ(owner.packets.size(), 4U);
    EXPECT_TRUE(owner.packets.front().port == 0 && owner.packets.back().port == 1);
}

std::string without_stamps(std::string stream) {
    for (size_t at = 0; at + 16 <= stream.size();) {
        const size_t length =
            static_cast<size_t>(static_cast<uint8_t>(stream[at + 2]) << 8 | static_cast<uint8_t>(stream[at + 3]));
        // A report is all of the stream's own.
        stream.replace(at + 6, length == 28 ? 26 : 10, length == 28 ? 26 : 10, '.');
        at += 4 + length;
    }
    return stream;
}

TEST(RtspStreaming, SharesAPictureThatWasCutOnce) {
    const std::string picture = access_unit(60000);
    av::frame_t frame = test::frame_of(picture);
    frame.time += 3'000'000;  // a report is due
    rtp::Packets packets(CORE_HERE);
    ASSERT_EQ(packets.cut(&frame), 1);
    rtsp_owner alone, whole, part, behind;
    whole.takes_lent = UINT32_MAX;
    part.takes_lent = 30001;
    for (rtsp_owner* owner : {&alone, &whole, &part, &behind}) {
        owner->play();
        owner->reading = false;
    }
    EXPECT_EQ(alone.session->send_frame(&frame), 1);
    behind.feed("OPTIONS * RTSP/1.0\r\n\r\n");
    const std::string answer = behind.waiting();
    for (rtsp_owner* owner : {&whole, &part, &behind}) {
        owner->sends = 0;
        EXPECT_EQ(owner->session->send_packets(packets), 1);
        EXPECT_EQ(owner->session->lent().size, 0U);
        std::string stream = owner->lent + owner->waiting();
        if (owner == &behind && stream.starts_with(answer)) stream.erase(0, answer.size());
        EXPECT_EQ(without_stamps(stream), without_stamps(alone.waiting()));
    }
    EXPECT_EQ(whole.waiting().size(), 4U + 28) << "the report alone was not lent";
    EXPECT_EQ(whole.sends, 1U);
    EXPECT_EQ(part.sends, 2U) << "what was left is told of";
    for (rtsp_owner* owner : {&whole, &part, &behind})
        core_buf_ignore(owner->session->send_buffer(), owner->session->send_buffer()->length);
    const test::allocation_count allocations;
    EXPECT_EQ(packets.cut(&frame), 1);
    for (rtsp_owner* owner : {&whole, &part, &behind})
        EXPECT_EQ(owner->session->send_packets(packets), 1);
    EXPECT_EQ(allocations.value(), 0U);
}

}  // namespace
