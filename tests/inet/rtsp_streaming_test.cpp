// Frames of a running RTSP session on their way out.
#include "rtsp_owner.h"
#include "support/fault.h"

#include <gtest/gtest.h>

namespace {

using test::access_unit;
using test::rtsp_owner;

TEST(RtspStreaming, AllocatesNothingOnceItRunsAndTellsOfAPictureByOneEvent) {
    rtsp_owner owner;
    owner.formats = {av::fcc_h264, av::fcc_jpeg, av::fcc_pcmu, av::fcc_univ};
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
    for (const uint32_t fcc : owner.formats)
        EXPECT_EQ(owner.send(picture, fcc), 1);
    taken = owner.sends = 0;
    const test::allocation_count allocations;
    for (int i = 0; i < 100; ++i)
        owner.send(picture, owner.formats[static_cast<size_t>(i) % 4]);
    EXPECT_EQ(allocations.value(), 0U);
    EXPECT_EQ(owner.sends, 100U);
    EXPECT_GT(taken, 100 * picture.size());
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
    EXPECT_EQ(owner.packets.back().bytes.substr(20, 4), std::string("\0\0\0\3", 4)) << "packets of this stream";
}

TEST(RtspStreaming, SharesAPictureThatWasCutOnce) {
    const std::string picture = access_unit(60000);
    // A report is due.
    const av::frame_t frame = test::borrowed(av::fcc_h264, test::bytes_of(picture), test::fixed_clock() + 3'000'000);
    rtp::Packets packets(CORE_HERE);
    ASSERT_EQ(packets.cut(&frame), 1);
    rtsp_owner alone, whole, part, behind;
    whole.takes_lent = UINT32_MAX;
    part.takes_lent = 30001;
    for (rtsp_owner* owner : {&alone, &whole, &part, &behind}) {
        owner->play();
        owner->reading = false;
        owner->session->trak(0U)->rtp->ssrc = owner->session->trak(0U)->rtp->seq = 1;
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
        EXPECT_TRUE(stream == alone.waiting()) << "the same bytes";
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
    // Of what such a session does not send, the report that is due goes alone.
    const std::string text = "<tt:MetadataStream/>";
    const av::frame_t document = test::borrowed(av::fcc_meta, test::bytes_of(text), frame.time);
    packets.set_all_formats(true);
    ASSERT_EQ(packets.cut(&document), 1);
    whole.lent.clear();
    core_buf_ignore(whole.session->send_buffer(), whole.session->send_buffer()->length);
    whole.session->send_packets(packets);
    EXPECT_TRUE(whole.lent.empty() && whole.waiting().size() == 4 + 28);
}

}  // namespace
