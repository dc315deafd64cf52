// Answers that owners of a server's session give after their event, and calls that fit nothing.
#include "rtsp_viewer.h"
#include "support/fault.h"

#include "common/digest.h"

#include <gtest/gtest.h>

namespace {

using rtsp3::event_t;
using test::rtsp_owner;
using test::rtsp_viewer;

class RtspLate : public testing::Test {};

/// Answers nothing in an event, but when it is told to.
class late_owner : public rtsp3::IRtsp {
public:
    late_owner() : session(rtsp3::Rtsp::create(CORE_HERE)) {
        if (session) session->set_handler(this);
    }
    ~late_owner() {
        rtsp3::Rtsp::destroy(session);
        core_buf_free(&received);
    }
    late_owner(const late_owner&) = delete;
    late_owner& operator=(const late_owner&) = delete;

    void feed(std::string_view bytes) {
        core_buf_read(&received, bytes.data(), static_cast<uint32_t>(bytes.size()));
        session->process(&received);
    }
    /// What is sent by a call.
    template <class Call>
    std::string by(Call call) {
        sent.clear();
        call();
        return sent;
    }
    int answer() {
        switch (std::exchange(owed, -1)) {
            case event_t::open_server:
                for (const uint32_t fcc : {av::fcc_h264, av::fcc_pcmu})
                    session->add_trak(fcc, nullptr, CORE_HERE);
                return session->send_sdp("inet", "test", "camera", 0, 0);
            case event_t::rtsp_setup:
                return session->send_setup(group, 6000);
            case event_t::rtsp_play:
                return session->send_play(test::fixed_clock());
            default:
                return 0;
        }
    }
    void answer_all() {
        while (owed >= 0)
            answer();
    }
    void on_rtsp_event(rtsp3::Rtsp* rtsp, event_t::enum_t event) noexcept override {
        if (event != event_t::rtsp_send) events += std::to_string(event) + " ";
        if (event == event_t::open_server || event == event_t::rtsp_setup || event == event_t::rtsp_play) owed = event;
        if (event == event_t::rtsp_send) {
            buf_t* const out = rtsp->send_buffer();
            sent.append(reinterpret_cast<char*>(out->data), out->length);
            core_buf_ignore(out, out->length);
        }
        if (at_once) answer();
    }

    rtsp3::Rtsp* session;
    bool at_once = false;
    const char* group = nullptr;
    int owed = -1;
    std::string events;
    std::string sent;
    buf_t received;
};

std::string request(const std::string& line, int cseq, const std::string& fields = "") {
    return line + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq) + "\r\n" + fields + "\r\n";
}

const std::string tcp = "Transport: RTP/AVP/TCP;unicast\r\n";
const std::string describe = request("DESCRIBE rtsp://h/live", 1);
const std::string set_up = request("SETUP rtsp://h/live/video", 2, tcp);
const std::string play = request("PLAY rtsp://h/live/", 3);
const std::string options = request("OPTIONS *", 9);
const std::vector<std::string> dialog = {describe,
                                         set_up,
                                         request("SETUP rtsp://h/live/audio", 22, tcp),
                                         play,
                                         request("GET_PARAMETER *", 4, "Content-Length: 3\r\n") + "abc",
                                         play,
                                         request("SETUP rtsp://h/live/none", 5, tcp),
                                         request("DESCRIBE rtsp://h/other", 6),
                                         request("TEARDOWN *", 7),
                                         options};

std::string normal(const std::string& text) {
    return std::regex_replace(text, std::regex("(Session: |seq=)\\d+"), "$1N");
}

TEST_F(RtspLate, SaysTheSameAsAtOnceHoweverRequestsAndAnswersFollow) {
    std::string all;
    for (const std::string& each : dialog)
        all += each;
    late_owner at_once;
    at_once.at_once = true;
    at_once.feed(all);
    ASSERT_EQ(at_once.session->activity(), dialog.size());
    for (const size_t piece : {all.size(), size_t{1}, size_t{97}}) {
        for (const bool before_next : {true, false}) {
            late_owner late;
            for (size_t at = 0; at < all.size(); at += piece) {
                late.feed(std::string_view(all).substr(at, piece));
                if (before_next) late.answer_all();
            }
            late.answer_all();
            EXPECT_EQ(normal(late.sent), normal(at_once.sent)) << piece << before_next;
            EXPECT_EQ(late.events, at_once.events);
            EXPECT_EQ(late.received.length, 0U);
        }
    }
}

TEST_F(RtspLate, GoesOnFromInsideAnotherEvent) {
    late_owner owner;
    owner.at_once = true;
    owner.feed(describe +
               request("SETUP rtsp://h/live/video", 2, "Transport: RTP/AVP;unicast;client_port=7000-7001\r\n") + play);
    owner.at_once = false;
    owner.feed(request("SETUP rtsp://h/live/audio", 5, tcp) + options);
    ASSERT_EQ(owner.owed, event_t::rtsp_setup);
    const rtsp3::trak_t* const owed = owner.session->trak();
    ASSERT_EQ(owed, owner.session->trak(1));
    owner.at_once = true;  // in the send_rtp of a picture of the other track
    const std::string picture = test::access_unit(10);
    av::frame_t frame{};
    frame.fcc = av::fcc_h264;
    frame.data = reinterpret_cast<const uint8_t*>(picture.data());
    frame.size = static_cast<uint32_t>(picture.size());
    owner.sent.clear();
    EXPECT_EQ(owner.session->send_frame(&frame), 1);
    EXPECT_NE(owner.sent.find("CSeq: 5\r\n"), std::string::npos);
    EXPECT_NE(owner.sent.find("CSeq: 9\r\nPublic"), std::string::npos) << "what waited is served when it is through";
    EXPECT_TRUE(owed->set_up);
    EXPECT_EQ(owner.session->trak(), nullptr);
}

/// Every answer but the one owed, and that one twice.
TEST_F(RtspLate, SendsNothingThatFitsNothing) {
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
        for (size_t i = 0; i < error; ++i) {
            if (i == owed) continue;
            EXPECT_EQ(owner.by([&] { EXPECT_EQ(calls[i](*owner.session), 0) << i; }), "");
        }
        EXPECT_EQ(owner.answer(), owed < error);
        for (const call_t call : calls)
            EXPECT_EQ(owner.by([&] { EXPECT_EQ(call(*owner.session), 0); }), "");
    }
    EXPECT_TRUE(owner.session->playing());
    // An error is an answer to all; one to PLAY ends what played.
    for (const std::string& each : {play, set_up, describe}) {
        owner.feed(each);
        EXPECT_TRUE(owner.by([&] { EXPECT_EQ(owner.session->send_error(403), 1); }).starts_with("RTSP/1.0 403 "));
        EXPECT_EQ(owner.session->send_error(403), 0);
        EXPECT_FALSE(owner.session->playing());
    }
}

TEST_F(RtspLate, HasOnlyTheCallsOfItsRole) {
    rtsp_viewer viewer;
    viewer.session->open("rtsp://h/live");
    viewer.answer("200 OK", "Public: OPTIONS\r\n");
    viewer.before = [&](event_t::enum_t event) {
        if (event != event_t::open_client) return;
        ASSERT_EQ(viewer.session->trak_count(), 2U);
        EXPECT_EQ(viewer.session->trak(1)->rtp, nullptr);  // cannot be received
        const size_t asked = viewer.asked.size();
        EXPECT_EQ(viewer.session->send_sdp("a", "b", "c", 0, 0), 0);
        EXPECT_EQ(viewer.session->send_play(1), 0);
        EXPECT_EQ(viewer.session->send_error(404), 0);
        EXPECT_EQ(viewer.session->send_setup(nullptr, 7000), 0);
        EXPECT_EQ(viewer.session->set_credentials("admin", "secret"), 0);
        EXPECT_EQ(viewer.session->add_trak(av::fcc_jpeg, nullptr, CORE_HERE), nullptr);
        EXPECT_EQ(viewer.asked.size(), asked);
    };
    viewer.answer("200 OK", "",
                  "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\nm=video 0 RTP/AVP 97\r\n"
                  "a=rtpmap:97 unknown/90000\r\n");
    EXPECT_TRUE(viewer.events.starts_with("0 3 ")) << viewer.events;

    late_owner owner;
    owner.feed(describe);
    owner.answer();
    EXPECT_EQ(owner.by([&] {
        EXPECT_EQ(owner.session->select_trak(0, false), 0);
        EXPECT_EQ(owner.session->send_keep_alive(), 0);
        owner.session->process_play(nullptr);
        owner.session->process_options(nullptr);
        owner.session->flush();
    }),
              "");
    EXPECT_EQ(owner.session->frame(), nullptr);
}

TEST_F(RtspLate, OffersTheNextAlternativeWhenAGroupIsRefusedLater) {
    const std::string multicast = "RTP/AVP;multicast;port=5000-5001";
    for (const auto& [transport, expected] : {std::pair<std::string, std::string>{multicast, "461 "},
                                              {multicast + "," + multicast, "461 "},
                                              {multicast + ",RTP/AVP/TCP;unicast", "200 "}}) {
        SCOPED_TRACE(transport);
        late_owner owner;
        owner.feed(describe);
        owner.answer();
        owner.feed(request("SETUP rtsp://h/live/video", 2, "Transport: " + transport + "\r\n") + options);
        int refused = 0;
        owner.sent.clear();
        while (owner.owed >= 0)
            refused += owner.answer() == 0;
        EXPECT_EQ(refused, std::count(transport.begin(), transport.end(), 'm')) << "none sent by itself";
        EXPECT_EQ(owner.sent.substr(9, 4), expected);
        EXPECT_NE(owner.sent.find("CSeq: 9\r\nPublic"), std::string::npos);
    }
}

TEST_F(RtspLate, MayEndOrLoseItsTracksWhileAnAnswerIsOwed) {
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
        EXPECT_EQ(closed.by([&] { EXPECT_EQ(closed.answer(), 0); }), "");
        EXPECT_EQ(closed.session->send_error(404), 0);

        late_owner destroyed;
        up_to(destroyed);
        rtsp3::Rtsp::destroy(std::exchange(destroyed.session, nullptr));

        late_owner cleared;
        up_to(cleared);
        cleared.session->clear_traks();
        EXPECT_EQ(cleared.session->trak(), nullptr);
        if (owed != event_t::open_server) {
            EXPECT_EQ(cleared.by([&] { EXPECT_EQ(cleared.answer(), 0); }), "");
            cleared.session->send_error(454);
        } else {
            EXPECT_EQ(cleared.answer(), 1);
        }
        EXPECT_NE(cleared.sent.find("CSeq: 9\r\nPublic"), std::string::npos);

        late_owner opened;
        up_to(opened);
        EXPECT_EQ(opened.session->open("rtsp://h/live"), 1);
        EXPECT_EQ(opened.answer(), 0);
    }
}

TEST_F(RtspLate, BoundsWhatComesMeanwhile) {
    late_owner owner;
    owner.feed(describe);
    for (int i = 0; i < 100; ++i)
        owner.feed(std::string("$\1\0\4\x81\xc9\0\0", 8));
    EXPECT_EQ(owner.session->activity(), 101U) << "reports are no requests";
    owner.feed(options);
    EXPECT_EQ(owner.session->activity(), 101U);
    for (int i = 0; i < 100 && !owner.session->closed(); ++i)
        owner.feed(request("OPTIONS *", 9, "Pad: " + std::string(1000, 'x') + "\r\n"));
    EXPECT_EQ(owner.events, "1 2 ");
    EXPECT_EQ(owner.by([&] { EXPECT_EQ(owner.answer(), 0); }), "");
}

TEST_F(RtspLate, AnswersOnTheGetOfATunnel) {
    late_owner get;
    late_owner post;
    get.feed("GET / HTTP/1.0\r\nx-sessioncookie: a\r\n\r\n");
    post.feed("POST / HTTP/1.0\r\nx-sessioncookie: a\r\n\r\n");
    ASSERT_EQ(post.session->join(get.session), 1);
    const std::string all = describe + set_up + play + options;
    post.feed(core::owned_text(b64(all.data(), all.size(), CORE_HERE)).get());
    get.sent.clear();
    get.answer_all();
    EXPECT_EQ(get.events, "14 1 3 6 ");
    EXPECT_NE(get.sent.find("CSeq: 9\r\nPublic"), std::string::npos);
    EXPECT_EQ(post.sent, "");
}

TEST_F(RtspLate, ServesTheNextRequestWhateverAllocationFails) {
    const size_t failed = test::fail_each_allocation([] {
        late_owner owner;
        if (!owner.session) return;
        for (const std::string& each : dialog) {
            owner.feed(each);
            owner.answer_all();
        }
        core_mem_set_fault(nullptr);
        owner.answer_all();
        owner.sent.clear();
        owner.feed(request("OPTIONS *", 77));
        owner.answer_all();
        EXPECT_NE(owner.sent.find("CSeq: 77\r\nPublic"), std::string::npos);
    });
    EXPECT_GT(failed, 100U);
}

}  // namespace
