// The HTTP service beside peers that are slow, stall, or bring an old nonce. Its answers are judged by real clients in
// tests/interop/http_test.py.
#include "media/http_service.h"

#include "http_service/gate.h"
#include "support/frames.h"
#include "support/network_thread.h"
#include "support/sockets.h"
#include "support/threads.h"

#include "avc/fcc.h"
#include "core/thread.h"
#include "core/time.h"
#include "inet/net_http.h"
#include "inet/net_http_auth.h"
#include "media/station.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

/// A browser that says what it is told to.
struct peer {
    explicit peer(uint16_t port) {
        net_tcp_connect(socket, "127.0.0.1", port);
        EXPECT_TRUE(test::await(socket, test::watch::write));
    }
    void say(std::string text) const {
        net_tcp_send_buffer(socket, {reinterpret_cast<uint8_t*>(text.data()), static_cast<uint32_t>(text.size())});
    }
    /// What comes next; empty at the end of the connection.
    std::string hear() const {
        uint8_t room[1024];
        buf_t bytes{room, sizeof room, 0};
        EXPECT_TRUE(test::await(socket, test::watch::read));
        return net_tcp_recv(socket, bytes) > 0 ? std::string(reinterpret_cast<char*>(room), bytes.length) : "";
    }
    const test::tcp_socket socket;
};

TEST(HttpService, ASlowPeerIsClosedAndHasHeldLittle) {
    media::station station;
    auto* const web = media::http_service({.port = 0, .timeout = 1});
    ASSERT_TRUE(station.add(web) && station.start());
    std::string most = "GET / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n";
    for (int i = 0; i < 800; ++i)
        most += "a:b\r\n";
    most += "\r\nffff\r\n" + std::string(60'000, 'x');
    const size_t before = core_mem_bytes();
    size_t most_held = before;
    for (const std::string& begin : {std::string("GET / HTTP/1.1\r\nX: "), most}) {
        const peer slow(web->port());
        slow.say(begin);
        for (int i = 0; i < 1000 && !test::found(slow.socket, test::watch::read, 50'000); ++i) {
            slow.say("x");
            most_held = std::max(most_held, core_mem_bytes());
        }
        EXPECT_EQ(slow.hear(), "");
    }
    EXPECT_GT(most_held, before + 60'000);
    EXPECT_LT(most_held, before + 256 * 1024);
}

TEST(HttpService, APeerThatSaysNoMoreMayBeGoneWhenNothingCanBeSent) {
    media::station station;
    auto* const web = media::http_service({.port = 0, .stall = 1});
    station.add_stream("film");
    ASSERT_TRUE(station.add(web) && station.start());
    const peer last(web->port());
    last.say("GET /film.mjpeg HTTP/1.0\r\n\r\n");
    net::platform::end_output(last.socket);
    EXPECT_TRUE(last.hear().ends_with("--picture\r\n"));
    EXPECT_EQ(web->totals().watching, 1U);
    EXPECT_EQ(last.hear(), "");
}

/// Is sent pictures of one size, each of which begins with its number.
struct viewer {
    explicit viewer(net::nt_ctx* nt) {
        net::http_info info;
        info.arg = this;
        info.on_frame = [](void* arg, net::http_ctx*, const av::frame_t* frame) {
            auto& self = *static_cast<viewer*>(arg);
            self.last = frame->data[2];
            self.came.set();
        };
        ctx = net_http_open(info, nt, CORE_HERE);
    }
    ~viewer() { net_http_close(ctx); }

    net::http_ctx* ctx = nullptr;
    std::atomic<int> last = 0;
    test::event came;
};

TEST(HttpService, APeerThatStallsLosesPicturesAloneAndHoldsOneOfThem) {
    constexpr uint32_t size = 1U << 20;
    constexpr uint8_t count = 32;
    media::station station;
    auto* const web = media::http_service({.port = 0, .stall = 1});
    media::stream* const film = station.add_stream("film", {.bytes = 2 * size});
    ASSERT_TRUE(film->declare(media::kind_t::video, {.fcc = av::fcc_jpeg}));
    ASSERT_TRUE(station.add(web) && station.start());
    const test::network_thread nt;
    viewer good(nt);
    const peer stalled[] = {peer(web->port()), peer(web->port())};
    for (const peer& each : stalled) {
        each.say("GET /film.mjpeg HTTP/1.0\r\n\r\n");
        EXPECT_EQ(each.hear().substr(0, 15), "HTTP/1.1 200 OK");
    }
    net_http_connect(good.ctx, "127.0.0.1", web->port());
    net::http::header_s* request = http_header_request("GET", "/film.mjpeg", "HTTP/1.0");
    net_http_send_message(good.ctx, request, nullptr, 0);
    http_header_free(request);
    while (web->totals().watching != 3)
        core_sleep(1);
    const size_t before = core_mem_bytes();
    std::vector<uint8_t> picture(size, 0xff);
    for (picture[2] = 1; picture[2] <= count; ++picture[2]) {
        av::frame_t frame = test::borrowed(av::fcc_jpeg, picture, picture[2] * 100'000U);
        frame.key = true;
        ASSERT_EQ(film->push(frame), 1);
        ASSERT_TRUE(good.came.wait());
        ASSERT_EQ(good.last, picture[2]);
    }
    // The stream's, the newest, one for each peer, and the input of the viewer.
    EXPECT_LT(core_mem_bytes(), before + 10 * size);
    EXPECT_GT(web->totals().dropped, 0U);
    while (web->totals().watching != 1)
        core_sleep(10);
}

uint64_t clock_now = 0;

TEST(HttpService, AnOldNonceIsToldAsStaleToWhoKnowsThePassword) {
    clock_now = 1'000'000'000;
    core_time_set_clock([] { return clock_now; });
    using media::web::gate;
    const gate door("admin", "right"), before_restart("admin", "right");
    const auto asks = [&](const gate& from, const char* password, bool again = false) {
        net::http::header_s* const request = http_header_request("GET", "/a", "HTTP/1.1");
        const core::owned_text challenge = from.challenge(again);
        EXPECT_EQ(std::string_view(challenge.get()).find("stale=true") != std::string_view::npos, again);
        const core::owned_text answer(
            net_http_authenticate("admin", password, "GET", "/a", challenge.get(), CORE_HERE));
        http_header_put(request, "Authorization", answer.get());
        return request;
    };
    const struct {
        const gate& from;
        const char* password;
        uint64_t later;
        gate::result_t verdict;
    } cases[] = {
        {door, "right", 300, gate::result_t::passes},        {door, "right", 301, gate::result_t::stale},
        {door, "wrong", 0, gate::result_t::refused},         {door, "wrong", 301, gate::result_t::refused},
        {before_restart, "right", 0, gate::result_t::stale}, {before_restart, "wrong", 0, gate::result_t::refused},
    };
    for (const auto& [from, password, later, verdict] : cases) {
        net::http::header_s* request = asks(from, password, later != 0);
        clock_now += later * 1'000'000;
        EXPECT_EQ(door.judge(*request), verdict) << password << later;
        http_header_free(request);
    }
    core_time_set_clock(nullptr);
}

}  // namespace
