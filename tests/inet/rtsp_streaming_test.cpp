// Frames of a running RTSP session on their way out.
#include "rtsp_owner.h"
#include "support/fault.h"

#include <array>
#include <gtest/gtest.h>
#include <utility>

namespace {

using test::access_unit;
using test::rtsp_owner;

TEST(RtspStreaming, PutsAPictureIntoTheStreamByOneEvent) {
    rtsp_owner owner;
    owner.play();
    owner.packets.clear();
    owner.sends = 0;
    EXPECT_EQ(owner.send(access_unit(3000)), 1);
    EXPECT_EQ(owner.sends, 1U);
    ASSERT_EQ(owner.packets.size(), 2 + 3U);
    uint16_t seq = 0;
    for (const auto& packet : owner.packets) {
        EXPECT_EQ(packet.port, 0U);
        EXPECT_EQ(static_cast<uint8_t>(packet.bytes[0]), 0x80);
        const auto number =
            static_cast<uint16_t>(static_cast<uint8_t>(packet.bytes[2]) << 8 | static_cast<uint8_t>(packet.bytes[3]));
        EXPECT_TRUE(&packet == &owner.packets.front() || number == static_cast<uint16_t>(seq + 1));
        seq = number;
    }
    EXPECT_EQ(owner.packets[0].bytes.substr(12), access_unit(0).substr(4, 9));
}

TEST(RtspStreaming, AllocatesNothingOnceItRuns) {
    rtsp_owner owner;
    owner.formats = {av::fcc_h264, av::fcc_pcmu, av::fcc_jpeg};
    size_t taken = 0;
    owner.play();
    owner.reading = false;
    owner.before = [&](rtsp3::event_t::enum_t event) {
        if (event != rtsp3::event_t::rtsp_send) return;
        buf_t* out = owner.session->send_buffer();
        taken += out->length;
        core_buf_ignore(out, out->length);
    };
    const std::string picture = access_unit(60000);
    const std::string sound(1600, '\x7f');
    owner.send(picture);
    owner.send(sound, av::fcc_pcmu);
    taken = 0;
    const test::allocation_count allocations;
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(owner.send(picture), 1);
        EXPECT_EQ(owner.send(sound, av::fcc_pcmu), 1);
    }
    EXPECT_EQ(allocations.value(), 0U);
    EXPECT_GT(taken, 100 * (picture.size() + sound.size()));
}

TEST(RtspStreaming, TakesFramesOnlyWhilePlaying) {
    rtsp_owner owner;
    EXPECT_EQ(owner.send(access_unit(10)), 0);
    owner.play();
    EXPECT_EQ(owner.send(access_unit(10)), 1);
    EXPECT_EQ(owner.send("x", av::fcc_jpeg), 0);
    owner.status("PAUSE rtsp://h/live/");
    EXPECT_EQ(owner.send(access_unit(10)), 0);
    owner.status("PLAY rtsp://h/live/");
    EXPECT_EQ(owner.send(access_unit(10)), 1);
    owner.status("TEARDOWN rtsp://h/live/");
    EXPECT_EQ(owner.send(access_unit(10)), 0);
    owner.status("SETUP rtsp://h/live/video", "Transport: RTP/AVP/TCP\r\n");
    EXPECT_EQ(owner.send(access_unit(10)), 0);
    owner.play();
    owner.status("DESCRIBE rtsp://h/live");
    EXPECT_EQ(owner.send(access_unit(10)), 0);
}

TEST(RtspStreaming, PlaysOnWhenAskedTwiceOrSetUpAnew) {
    rtsp_owner owner;
    owner.play();
    const std::string session = owner.session->session();
    EXPECT_EQ(owner.status("PLAY rtsp://h/live/"), 200);
    EXPECT_EQ(owner.status("SETUP rtsp://h/live/video", "Transport: RTP/AVP;unicast;client_port=7000-7001\r\n"), 200);
    EXPECT_EQ(owner.session->session(), session);
    owner.packets.clear();
    EXPECT_EQ(owner.send(access_unit(10)), 1);
    // A stream of its own: three NAL units and the first report.
    ASSERT_EQ(owner.packets.size(), 4U);
    EXPECT_EQ(owner.packets.front().port, 7000U);
    EXPECT_EQ(owner.packets.back().port, 7001U);
    // Tracks taken away while one is set up leave nothing to answer with.
    owner.before = [&](rtsp3::event_t::enum_t event) {
        if (event == rtsp3::event_t::rtsp_setup) owner.session->clear_traks();
    };
    EXPECT_EQ(owner.status("SETUP rtsp://h/live/video", "Transport: RTP/AVP/TCP\r\n"), 0);
    EXPECT_EQ(owner.send(access_unit(10)), 0);
}

TEST(RtspStreaming, LeavesWholePicturesOutForAReaderThatStalls) {
    rtsp_owner owner;
    owner.play();
    owner.reading = false;
    owner.session->set_send_limit(10000);
    EXPECT_EQ(owner.send(access_unit(9000)), 1);
    EXPECT_EQ(owner.send(access_unit(9000)), 1);
    const uint32_t waiting = owner.session->send_buffer()->length;
    EXPECT_EQ(owner.send(access_unit(9000)), 0);
    EXPECT_EQ(owner.session->send_buffer()->length, waiting);
    core_buf_ignore(owner.session->send_buffer(), waiting - 9999);
    EXPECT_EQ(owner.send(access_unit(9000)), 1);
}

TEST(RtspStreaming, KeepsASlowReaderThatStillGetsPictures) {
    rtsp_owner owner;
    owner.play();
    owner.reading = false;
    for (int i = 0; i < 1500; ++i) {
        owner.feed("OPTIONS * RTSP/1.0\r\n\r\n");
        EXPECT_EQ(owner.send(access_unit(10)), 1);
        core_buf_ignore(owner.session->send_buffer(), owner.session->send_buffer()->length - 1);
    }
    EXPECT_FALSE(owner.session->closed());
}

TEST(RtspStreaming, TakesAPictureBackThatFindsNoMemory) {
    rtsp_owner owner;
    owner.play();
    owner.reading = false;
    core_buf_resize(owner.session->send_buffer(), 0, CORE_HERE);
    const size_t failed = test::fail_each_allocation([&] {
        const int sent = owner.send(access_unit(20000));
        const uint32_t waiting = owner.session->send_buffer()->length;
        EXPECT_TRUE(sent ? waiting > 20000 : waiting == 0) << waiting;
        core_mem_set_fault(nullptr);
        core_buf_resize(owner.session->send_buffer(), 0, CORE_HERE);
    });
    EXPECT_GT(failed, 1U);
}

TEST(RtspStreaming, SendsTracksByTheirOwnTransport) {
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
    EXPECT_EQ(owner.session->trak(), nullptr);
}

/// A viewer of a frame that is cut once for all: takes up to `takes` bytes of each offer of packets it is lent.
class shared_viewer : public rtsp_owner {
public:
    explicit shared_viewer(const char* transport = "RTP/AVP/TCP;unicast") {
        play(transport);
        reading = false;
        packets.clear();
        before = [this](rtsp3::event_t::enum_t event) {
            if (event != rtsp3::event_t::rtsp_send) return;
            ++sends;
            const uint32_t count = std::min(takes, session->lent().size);
            append(session->lent().data, count);
            session->take_lent(count);
        };
    }
    /// What waits in the send buffer, too.
    void take_rest() {
        buf_t* const waiting = session->send_buffer();
        append(waiting->data, waiting->length);
        core_buf_ignore(waiting, waiting->length);
    }

    uint32_t takes = UINT32_MAX;
    std::string stream;

private:
    void append(const uint8_t* bytes, uint32_t count) { stream.append(reinterpret_cast<const char*>(bytes), count); }
};

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
    av::frame_t frame{};
    frame.fcc = av::fcc_h264;
    frame.time = test::fixed_clock() + 3'000'000;  // a report is due
    frame.data = reinterpret_cast<const uint8_t*>(picture.data());
    frame.size = static_cast<uint32_t>(picture.size());
    shared_viewer alone;
    EXPECT_EQ(alone.session->send_frame(&frame), 1);
    alone.take_rest();

    rtp::Packets packets(CORE_HERE);
    ASSERT_EQ(packets.cut(&frame), 1);
    shared_viewer whole, part, none, behind;
    part.takes = 30001;
    none.takes = 0;
    behind.takes = 0;
    behind.feed("OPTIONS * RTSP/1.0\r\n\r\n");
    const std::string answer(reinterpret_cast<char*>(behind.session->send_buffer()->data),
                             behind.session->send_buffer()->length);
    for (shared_viewer* viewer : {&whole, &part, &none, &behind}) {
        viewer->sends = 0;
        EXPECT_EQ(viewer->session->send_packets(packets), 1);
        EXPECT_EQ(viewer->session->lent().size, 0U);
    }
    EXPECT_EQ(whole.session->send_buffer()->length, 4U + 28) << "the report alone was not lent";
    EXPECT_EQ(whole.sends, 1U);
    EXPECT_EQ(part.sends, 2U) << "what was left is told of";
    for (shared_viewer* viewer : {&whole, &part, &none, &behind}) {
        viewer->take_rest();
        if (viewer == &behind) {
            EXPECT_EQ(viewer->stream.substr(0, answer.size()), answer);
            viewer->stream.erase(0, answer.size());
        }
        EXPECT_EQ(without_stamps(viewer->stream), without_stamps(alone.stream));
    }
    const test::allocation_count allocations;
    EXPECT_EQ(packets.cut(&frame), 1);
    for (shared_viewer* viewer : {&whole, &part, &none, &behind})
        EXPECT_EQ(viewer->session->send_packets(packets), 1);
    EXPECT_EQ(allocations.value(), 0U);
}

TEST(RtspStreaming, LeavesOutOrEndsWhatFindsNoMemoryForItsRest) {
    av::frame_t frame{};
    const std::string picture = access_unit(30000);
    frame.fcc = av::fcc_h264;
    frame.time = test::fixed_clock();
    frame.data = reinterpret_cast<const uint8_t*>(picture.data());
    frame.size = static_cast<uint32_t>(picture.size());
    for (const uint32_t taken : {0U, 100U, UINT32_MAX}) {
        bool hit = true;
        for (size_t nth = 1; hit; ++nth) {
            SCOPED_TRACE(nth);
            shared_viewer viewer;
            viewer.takes = taken;
            core_buf_resize(viewer.session->send_buffer(), 0, CORE_HERE);
            const test::failing_allocation fault(nth);
            rtp::Packets packets(CORE_HERE);
            const bool sent = packets.cut(&frame) && viewer.session->send_packets(packets);
            hit = fault.hit();
            viewer.take_rest();
            EXPECT_TRUE(sent ? viewer.stream.size() > 30000 : viewer.stream.size() <= taken);
            EXPECT_EQ(viewer.session->closed(), !sent && !viewer.stream.empty());
        }
    }
}

TEST(RtspStreaming, ReportsOnTheClockOfThePackets) {
    rtsp_owner owner;
    owner.play();
    const std::string& report = owner.packets.back().bytes;
    ASSERT_EQ(report.size(), 28U);
    EXPECT_EQ(report.substr(16, 4), owner.packets.front().bytes.substr(4, 4));
    EXPECT_EQ(report.substr(4, 4), owner.packets.front().bytes.substr(8, 4));
}

}  // namespace
