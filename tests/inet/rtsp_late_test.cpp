// Answers that owners of a server's session give after their event, and calls that fit nothing.
#include "rtsp_owner.h"

#include <gtest/gtest.h>

namespace {

using rtsp3::event_t;
using test::rtsp_owner;

struct late_owner : rtsp_owner {
    late_owner() { late = true; }
    void answer_all() {
        while (owed >= 0)
            answer();
    }
};

std::string request(const std::string& line, int cseq, const std::string& fields = "") {
    return line + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq) + "\r\n" + fields + "\r\n";
}

const std::string tcp = "Transport: RTP/AVP/TCP;unicast\r\n";
const std::string describe = request("DESCRIBE rtsp://h/live", 1);
const std::string set_up = request("SETUP rtsp://h/live/video", 2, tcp);
const std::string play = request("PLAY rtsp://h/live/", 3);
const std::string options = request("OPTIONS *", 9);

TEST(RtspLate, SaysTheSameAsAtOnceHoweverRequestsAndAnswersFollow) {
    const std::string all = describe + request("SETUP rtsp://h/live/audio", 2, tcp) +  // no picture goes out with PLAY
                            request("SETUP rtsp://h/live/application", 22, tcp) + play +
                            request("GET_PARAMETER *", 4, "Content-Length: 3\r\n") + "abc" + play +
                            request("SETUP rtsp://h/live/none", 5, tcp) + request("DESCRIBE rtsp://h/other", 6) +
                            request("TEARDOWN *", 7) + options;
    rtsp_owner at_once;
    at_once.feed(all);
    ASSERT_EQ(at_once.session->activity(), 10U);
    for (const size_t piece : {all.size(), size_t{97}}) {
        for (const bool before_next : {true, false}) {
            late_owner late;
            for (size_t at = 0; at < all.size(); at += piece) {
                late.feed(std::string_view(all).substr(at, piece));
                if (before_next) late.answer_all();
            }
            late.answer_all();
            EXPECT_EQ(test::normal(late.sent), test::normal(at_once.sent)) << piece << before_next;
            EXPECT_EQ(late.events, at_once.events);
            EXPECT_EQ(late.received.length, 0U);
        }
    }
}

TEST(RtspLate, GoesOnFromInsideAnotherEvent) {
    rtsp_owner owner;
    owner.feed(describe +
               request("SETUP rtsp://h/live/video", 2, "Transport: RTP/AVP;unicast;client_port=7000-7001\r\n") + play);
    owner.late = true;
    owner.feed(request("SETUP rtsp://h/live/audio", 5, tcp) + options);
    ASSERT_EQ(owner.owed, event_t::rtsp_setup);
    const rtsp3::trak_t* const owed = owner.session->trak();
    ASSERT_EQ(owed, owner.session->trak(1));
    owner.before = [&](event_t::enum_t event) {
        if (event == event_t::send_rtp) owner.answer();
    };
    owner.sent.clear();
    EXPECT_EQ(owner.send(test::access_unit(10)), 1);
    EXPECT_NE(owner.sent.find("CSeq: 5\r\n"), std::string::npos);
    EXPECT_NE(owner.sent.find("CSeq: 9\r\nPublic"), std::string::npos) << "what waited is served when it is through";
    EXPECT_TRUE(owed->set_up);
    EXPECT_EQ(owner.session->trak(), nullptr);
}

/// Every answer but the one owed, and that one twice.
TEST(RtspLate, SendsNothingThatFitsNothing) {
    using call_t = int (*)(rtsp3::Rtsp&);
    static constexpr call_t calls[] = {
        [](rtsp3::Rtsp& to) { return to.send_sdp("a", "b", "c", 0, 0); },
        [](rtsp3::Rtsp& to) { return to.send_setup("239.1.2.3", 6000); },
        [](rtsp3::Rtsp& to) { return to.send_play(1); },
        [](rtsp3::Rtsp& to) { return to.send_error(403); },
    };
    constexpr size_t error = 3;
    const std::string requests[] = {describe, set_up, play, options};
    late_owner owner;
    for (size_t owed = 0; owed < std::size(requests); ++owed) {
        SCOPED_TRACE(requests[owed]);
        owner.feed(requests[owed]);
        owner.sent.clear();
        for (size_t i = 0; i < error; ++i)
            EXPECT_TRUE(i == owed || calls[i](*owner.session) == 0) << i;
        EXPECT_EQ(owner.sent, "");
        EXPECT_EQ(owner.answer(), owed < error);
        owner.sent.clear();
        for (const call_t call : calls)
            EXPECT_EQ(call(*owner.session), 0);
        EXPECT_EQ(owner.sent, "");
    }
    EXPECT_TRUE(owner.session->playing());
    EXPECT_EQ(owner.session->send_keep_alive() + owner.session->select_trak(0, true), 0) << "calls of a client";
    late_owner client;
    client.session->open("rtsp://h/live");
    for (const call_t call : calls)
        EXPECT_EQ(call(*client.session), 0) << "of a server";
    // An error is an answer to all; one to PLAY ends what played.
    for (const std::string& each : {play, set_up, describe}) {
        owner.feed(each);
        EXPECT_EQ(owner.session->send_error(403), 1);
        EXPECT_TRUE(owner.sent.starts_with("RTSP/1.0 403 "));
        owner.sent.clear();
        EXPECT_EQ(owner.session->send_error(403), 0);
        EXPECT_FALSE(owner.session->playing());
    }
}

TEST(RtspLate, OffersTheNextAlternativeWhenAGroupIsRefusedLater) {
    const std::string multicast = "RTP/AVP;multicast;port=5000-5001";
    for (const auto& [transport, expected] : {std::pair<std::string, std::string>{multicast, "461 "},
                                              {multicast + "," + multicast, "461 "},
                                              {multicast + ",RTP/AVP/TCP;unicast", "200 "}}) {
        SCOPED_TRACE(transport);
        late_owner owner;
        for (const std::string& each : {describe, set_up}) {
            owner.feed(each);
            owner.answer();
        }
        owner.feed(request("SETUP rtsp://h/live/video", 2, "Transport: " + transport + "\r\n") + options);
        int refused = 0;
        owner.sent.clear();
        while (owner.owed >= 0)
            refused += owner.answer() == 0;
        EXPECT_EQ(refused, std::count(transport.begin(), transport.end(), 'm')) << "none sent by itself";
        EXPECT_EQ(owner.sent.substr(9, 4), expected);
        EXPECT_NE(owner.sent.find("CSeq: 9\r\nPublic"), std::string::npos);
        EXPECT_EQ(owner.status("PLAY rtsp://h/live/"), expected == "461 " ? 455 : 0) << "nor is it set up as it was";
    }
}

TEST(RtspLate, MayEndOrLoseItsTracksWhileAnAnswerIsOwed) {
    for (const int owed : {event_t::open_server, event_t::rtsp_setup, event_t::rtsp_play}) {
        SCOPED_TRACE(owed);
        const auto up_to = [&](late_owner& owner) {
            for (const std::string& each : {describe, set_up, play}) {
                owner.feed(each);
                if (owner.owed == owed) break;
                owner.answer();
            }
            owner.feed(request("TEARDOWN *", 7) + options);
            ASSERT_EQ(owner.owed, owed);
        };
        late_owner closed;
        up_to(closed);
        closed.session->close();
        closed.sent.clear();
        EXPECT_EQ(closed.answer() + closed.session->send_error(404), 0);
        EXPECT_EQ(closed.sent, "");

        late_owner cleared, destroyed;  // at the end of its scope
        up_to(destroyed);
        up_to(cleared);
        cleared.session->clear_traks();
        EXPECT_EQ(cleared.session->trak(), nullptr);
        EXPECT_EQ(cleared.answer(), owed == event_t::open_server);
        cleared.session->send_error(454);
        EXPECT_NE(cleared.sent.find("CSeq: 9\r\nPublic"), std::string::npos);
    }
}

TEST(RtspLate, BoundsWhatComesMeanwhile) {
    late_owner owner;
    owner.feed(describe);
    owner.feed(std::string("$\1\0\4\x81\xc9\0\0", 8) + options);
    EXPECT_EQ(owner.session->activity(), 2U) << "the report is taken, the request waits";
    for (int i = 0; i < 100 && !owner.session->closed(); ++i)
        owner.feed(request("OPTIONS *", 9, "Pad: " + std::string(1000, 'x') + "\r\n"));
    EXPECT_EQ(owner.events, "1 2 ");
    EXPECT_EQ(owner.answer(), 0);
}

}  // namespace
