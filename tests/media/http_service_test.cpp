// The HTTP service beside peers that are slow, stall, or bring an old nonce. Its answers are judged by real clients in
// tests/interop/http_test.py.
#include "media/http_service.h"

#include "http_service/gate.h"
#include "support/frames.h"
#include "support/sockets.h"

#include "avc/fcc.h"
#include "core/thread.h"
#include "core/time.h"
#include "inet/net_http_auth.h"
#include "media/station.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using test::player;

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
        const player slow(web->port());
        slow.say(begin);
        for (int i = 0; i < 1000 && !test::found(slow.socket, test::watch::read, 50'000); ++i) {
            slow.say("x");
            most_held = std::max(most_held, core_mem_bytes());
        }
        EXPECT_EQ(slow.ask(), "closed");
    }
    EXPECT_GT(most_held, before + 60'000);
    EXPECT_LT(most_held, before + 256 * 1024);
}

TEST(HttpService, APeerThatSaysNoMoreMayBeGoneWhenNothingCanBeSent) {
    media::station station;
    auto* const web = media::http_service({.port = 0, .stall = 1});
    station.add_stream("film");
    ASSERT_TRUE(station.add(web) && station.start());
    const player last(web->port());
    EXPECT_TRUE(last.ask("GET /film.mjpeg HTTP/1.0\r\n\r\n").ends_with("--picture\r\n"));
    net::platform::end_output(last.socket);
    EXPECT_TRUE(test::found(last.socket, test::watch::read, 60'000'000));
    EXPECT_EQ(last.ask(), "closed");
}

TEST(HttpService, APeerThatStallsLosesPicturesAloneAndHoldsOneOfThem) {
    constexpr uint32_t size = 1U << 20;
    constexpr uint32_t count = 32;
    media::station station;
    auto* const web = media::http_service({.port = 0, .stall = 1});
    media::stream* const film = station.add_stream("film", {.bytes = 2 * size});
    ASSERT_TRUE(film->declare(media::kind_t::video, {.fcc = av::fcc_jpeg}));
    ASSERT_TRUE(station.add(web) && station.start());
    const player good(web->port()), stalled[] = {player(web->port()), player(web->port())};
    for (const player* each : {&good, &stalled[0], &stalled[1]})
        EXPECT_TRUE(each->ask("GET /film.mjpeg HTTP/1.0\r\n\r\n").ends_with("--picture\r\n"));
    const size_t before = core_mem_bytes();
    const std::vector<uint8_t> picture(size, 0xff);
    size_t seen = 0;
    for (uint32_t i = 1; i <= count; ++i) {
        av::frame_t frame = test::borrowed(av::fcc_jpeg, picture, i * 100'000);
        frame.key = true;
        ASSERT_EQ(film->push(frame), 1);
        while (seen < size_t{i} * size) {
            const std::string more = good.ask();
            ASSERT_NE(more, "closed");
            seen += more.size();
        }
    }
    // The stream's, the newest, and one for each peer.
    EXPECT_LT(core_mem_bytes(), before + 7 * size);
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
