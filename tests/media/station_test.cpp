#include "media/station.h"

#include "support/frames.h"
#include "support/sockets.h"
#include "support/threads.h"

#include "avc/fcc.h"
#include "core/owned.h"
#include "core/thread.h"
#include "media/rtmp_service.h"
#include "media/rtsp_service.h"
#include "media/watcher.h"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace {

using media::claim_t;
using test::player;

/// What begins with "ECHO" comes back, and the connection ends.
struct echo_service final : media::service, net::ITcp {
    uint16_t port() const noexcept override { return port_; }
    void set_port(uint16_t port) noexcept override { port_ = port; }
    claim_t claims(buffer_t first) const noexcept override {
        constexpr std::string_view word = "ECHO";
        const std::string_view text(reinterpret_cast<const char*>(first.data), first.size);
        if (!word.starts_with(text.substr(0, word.size()))) return claim_t::no;
        return text.size() < word.size() ? claim_t::more : claim_t::yes;
    }
    media::part* make_part(media::thread&, media::failure_t*) noexcept override {
        struct nothing final : media::part {};
        return core::create<nothing>(CORE_HERE);
    }
    media::client* take(media::thread&, net::Tcp*& from) noexcept override {
        from->set_handler(this);
        from->show_received();
        return nullptr;
    }
    void on_tcp_received(net::Tcp* tcp, buf_t* received) noexcept override {
        tcp->send({received->data, received->length});
    }
    void on_tcp_closed(net::Tcp*, int) noexcept override {}
    void addresses(const media::stream&, const char*, void (*)(void*, const char*), void*) const noexcept override {}

    uint16_t port_ = 0;
};

/// What it is answered after it has sent all pieces.
std::string answer(uint16_t port, std::initializer_list<std::string> pieces) {
    const player one(port);
    for (const std::string& piece : pieces)
        one.say(piece);
    return one.ask();
}

TEST(Station, ServicesShareAPortByTheFirstBytesOfAConnection) {
    media::station station({.threads = 2});
    auto* echo = core::create<echo_service>(CORE_HERE);
    echo->port_ = test::free_port();
    const uint16_t port = echo->port_;
    ASSERT_TRUE(station.add(media::rtsp_service({.port = port})));
    ASSERT_TRUE(station.add(echo));
    ASSERT_TRUE(station.add(media::rtmp_service({.port = port})));
    ASSERT_TRUE(station.start());
    const std::string much(5000, 'x');
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(answer(port, {"ECHO one"}), "ECHO one");
        EXPECT_EQ(answer(port, {"E", "CHO", ""}).substr(0, 4), "ECHO");
        EXPECT_EQ(answer(port, {"OPTIONS * RT", "SP/1.0\r\nCSeq: 1\r\n\r\n"}).substr(0, 15), "RTSP/1.0 200 OK");
        EXPECT_EQ(answer(port, {"get / HTTP/1.0\r\n", "x-sessioncookie: a\r\n\r\n"}), "closed");
        EXPECT_EQ(answer(port, {"GET / HTTP/1.0\r\nX-SessionCookie: a\r\n\r\n"}).substr(0, 15), "HTTP/1.0 200 OK");
        EXPECT_EQ(answer(port, {"GET / HTTP/1.0\r\nHost: a\r\n\r\n"}), "closed");
        EXPECT_EQ(answer(port, {"\3" + std::string(1536, 'x')}).substr(0, 1), "\3");
        EXPECT_EQ(answer(port, {"EC", much}), "closed");
        EXPECT_EQ(answer(port, {much}), "closed");
    }
    media::station late;
    ASSERT_TRUE(late.add(media::rtsp_service({.port = port})));
    media::failure_t why;
    EXPECT_FALSE(late.start(&why));
    EXPECT_EQ(why.text, "cannot listen on 127.0.0.1:" + std::to_string(port) + ": another program has that port");
    station.stop();
    ASSERT_TRUE(station.start());
    EXPECT_EQ(answer(port, {"ECHO again"}), "ECHO again");
}

TEST(Station, PortsOfAGroupAreFreeAgainWhenItsStreamHasEnded) {
    media::station station;
    auto* const rtsp = media::rtsp_service({.port = 0, .multicast = "239.81.7.4", .multicast_port = 65530});
    ASSERT_TRUE(station.add(rtsp) && station.start());
    for (const char* name : {"first", "second"}) {
        media::stream* const stream = station.add_stream(name);
        ASSERT_TRUE(stream->declare(media::kind_t::audio, {.fcc = av::fcc_pcmu}));
        const std::string url = " rtsp://127.0.0.1/" + std::string(name);
        const auto set_up = [&] {
            const player one(rtsp->port());
            one.ask("DESCRIBE" + url + " RTSP/1.0\r\nCSeq: 1\r\n\r\n");
            return one.ask("SETUP" + url + "/audio RTSP/1.0\r\nCSeq: 2\r\nTransport: RTP/AVP;multicast\r\n\r\n");
        };
        // There is room for one group: the second waits until the first player's end has been seen.
        std::string told;
        for (int i = 0; i < 1000 && !told.starts_with("RTSP/1.0 200"); ++i, core_sleep(10))
            told = set_up();
        EXPECT_NE(told.find("port=65530-65531"), std::string::npos) << told;
        station.remove_stream(stream);
    }
}

TEST(Station, ClientsAndWatchersShareThePlacesOfAThread) {
    media::station station;
    auto* const rtsp = media::rtsp_service({.port = 0});
    ASSERT_TRUE(station.add(rtsp) && station.start());
    net::nt_ctx* const nt = station.thread_at(0).nt();
    const std::string options = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
    media::stream* const into = media::stream::create("fetched", {}, CORE_HERE);
    media::watcher watcher("rtsp://127.0.0.1:1/live", {.transport = media::transport_t::udp, .nt = nt});
    watcher.into(*into);
    net::net_nt_take_places(nt, net::nt_places - 8);
    ASSERT_TRUE(watcher.start());
    const player first(rtsp->port());
    EXPECT_EQ(first.ask(options).substr(0, 15), "RTSP/1.0 200 OK");
    media::watcher late("rtsp://127.0.0.1:1/live", {.nt = nt});
    EXPECT_FALSE(late.start());
    const player second(rtsp->port());
    EXPECT_EQ(second.ask(options).substr(0, 15), "RTSP/1.0 200 OK");
    EXPECT_EQ(first.ask(), "closed");
    watcher.stop();
    EXPECT_TRUE(late.start());
    late.stop();
    EXPECT_EQ(net::net_nt_take_places(nt, 0), net::nt_places - 7);
    media::stream::drop(into);
}

/// Counts the frames of a stream on a thread.
struct follower final : media::reader {
    void on_entry(media::read_t what, const media::entry_t& entry) noexcept override {
        if (what != media::read_t::frame) return;
        if (entry.number != next++) ++missed;
        if (next == wanted) all.set();
    }
    /// On the thread: begins, and ends the next time.
    static void change(media::thread& on, void* arg) {
        auto& self = *static_cast<follower*>(arg);
        if (self.next == 0) on.follow(*self.of, self);
        if (self.next != 0) on.unfollow(*self.of, self);
        self.changed.set();
    }
    media::stream* of = nullptr;
    uint64_t next = 0, wanted = 2000;
    std::atomic<int> missed = 0;
    test::event all, changed;
};

TEST(Station, WhoFollowsMissesNothingThatIsPushedMeanwhile) {
    media::station station;
    media::stream* const stream = station.add_stream("live");
    EXPECT_FALSE(station.add_stream("live"));
    ASSERT_TRUE(station.start());
    follower by;
    by.of = stream;
    ASSERT_TRUE(station.thread_at(0).call(follower::change, &by) && by.changed.wait());
    std::atomic<uint64_t> pushed = 0;
    const auto push = [&] {
        constexpr uint8_t sound[4] = {};
        av::frame_t frame = test::borrowed(av::fcc_pcmu, sound);
        while (pushed++ < by.wanted) {
            frame.time = pushed;
            EXPECT_EQ(stream->push(frame), 1);
        }
    };
    test::on_four_threads(push);
    EXPECT_TRUE(by.all.wait());
    EXPECT_EQ(by.missed, 0);
    EXPECT_TRUE(station.thread_at(0).call(follower::change, &by) && by.changed.wait());
}

TEST(Station, WorkRunsOffTheLoopAndIsDoneOnItsThread) {
    media::station station;
    ASSERT_TRUE(station.start());
    struct context {
        net::nt_ctx* nt;
        std::string steps;
        test::event done;
        static void step(void* arg) {
            auto& self = *static_cast<context*>(arg);
            self.steps += net::net_nt_need_invoke(self.nt) ? "off " : "on ";
        }
    } common{station.thread_at(0).nt(), "", {}};
    const auto done = [](media::thread&, void* arg) {
        context::step(arg);
        static_cast<context*>(arg)->done.set();
    };
    ASSERT_TRUE(station.run(context::step, done, &common, station.thread_at(0)));
    EXPECT_TRUE(common.done.wait());
    EXPECT_EQ(common.steps, "off on ");
}

}  // namespace
