// HTTP connections over real sockets. What one message is is the fuzz target's; here they travel.
#include "inet/net_http.h"

#include "support/fault.h"
#include "support/files.h"
#include "support/network_thread.h"
#include "support/scratch.h"
#include "support/sockets.h"

#include "avc/fcc.h"
#include "inet/net_tcp.h"

#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace {

using net::http_ctx;
using net::http::header_s;

/// An owner of a connection that notes what it is told. What to do about it is added by `then`.
class owner {
public:
    explicit owner(net::nt_ctx* nt) {
        net::http_info info;
        info.arg = this;
        info.on_connect = [](void* arg, http_ctx*) { of(arg).note("connect "); };
        info.on_close = [](void* arg, http_ctx* closed) {
            of(arg).note("close ");
            if (of(arg).reconnects) net_http_connect(closed, "127.0.0.1", of(arg).reconnects);
        };
        info.on_drained = [](void* arg, http_ctx*) { ++of(arg).drained; };
        info.on_accept = [](void* arg, http_ctx*, int fd, const sockaddr_in*, int* keep) {
            *keep = of(arg).accepts && net_http_accept(of(arg).accepts, fd) == 0;
        };
        info.on_frame = [](void* arg, http_ctx*, const av::frame_t* frame) {
            char fcc[5];
            of(arg).note(fcc_str(frame->fcc, fcc) + std::to_string(frame->size) + " ");
        };
        info.on_message = [](void* arg, http_ctx*, int status, header_s* header, const buffer_t* body) {
            const std::string text = body ? std::string(reinterpret_cast<char*>(body->data), body->size) : "";
            of(arg).note(std::to_string(status) + (body ? ":" + text : "") + " ");
            if (of(arg).then) of(arg).then(status, header, text);
        };
        ctx = net_http_open(info, nt, CORE_HERE);
    }
    ~owner() { net_http_close(ctx); }

    void note(const std::string& text) {
        const std::lock_guard held(mutex_);
        told_ += text;
        changed_.notify_all();
    }
    bool hears(const std::string& text) {
        std::unique_lock held(mutex_);
        return changed_.wait_for(held, std::chrono::seconds(5), [&] { return told_.find(text) != std::string::npos; });
    }
    std::string told() {
        const std::lock_guard held(mutex_);
        return told_;
    }

    http_ctx* ctx = nullptr;
    std::atomic<int> drained = 0;
    http_ctx* accepts = nullptr;    ///< takes what this one accepts
    unsigned short reconnects = 0;  ///< the port, when it is closed
    std::function<void(int status, header_s* header, const std::string& body)> then;

private:
    static owner& of(void* arg) { return *static_cast<owner*>(arg); }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::string told_;
};

int answer(http_ctx* ctx, unsigned status, const std::string& body, const char* type = "text/plain") {
    header_s* header = http_header_error("HTTP/1.1", status, static_cast<unsigned>(body.size()), type);
    const int result = net_http_send_message(ctx, header, body.data(), static_cast<unsigned>(body.size()));
    http_header_free(header);
    return result;
}

std::string answer_text(int status, const std::string& reason, const std::string& body, size_t length) {
    return "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\nContent-Length: " + std::to_string(length) +
           "\r\nContent-Type: text/plain\r\n\r\n" + body;
}

TEST(HttpRequests, AnswersEachRequestInOrderAlsoWhenThePeerHasSaidAll) {
    const std::string header_flood = "GET / HTTP/1.1\r\nX: " + std::string(5000, 'x');
    const std::string refused = answer_text(400, "Bad Request", "", 0);
    const std::string post = "POST / HTTP/1.1\r\nContent-Type: ", chunked = "Transfer-Encoding: chunked\r\n\r\n";
    const std::string a = "GET /a HTTP/1.1\r\n\r\n", push = "multipart/mixed; boundary=b\r\n";
    const struct {
        std::string request, told, reply;
    } cases[] = {
        {a + "HEAD /b HTTP/1.1\r\n\r\nPOST /c HTTP/1.1\r\nContent-Length: 3\r\nExpect: 100-continue\r\n\r\nxyz",
         "0 0 0 0 0 0:xyz ",
         answer_text(200, "OK", "/a", 2) + answer_text(200, "OK", "", 2) + "HTTP/1.1 100 Continue\r\n\r\n" +
             answer_text(200, "OK", "/cxyz", 5)},
        {"POST /early HTTP/1.1\r\nContent-Length: 3\r\n\r\nabcGET /later HTTP/1.1\r\n\r\n" + a, "0 0 0 later 0 0 ",
         answer_text(403, "Forbidden", "", 0) + answer_text(200, "OK", "later", 5) + answer_text(200, "OK", "/a", 2)},
        {"POST /p HTTP/1.1\r\nContent-Length: 42\r\nContent-Type: " + push +
             "\r\n--b\r\nContent-Type: video/h264\r\n\r\nab--brest" + a + "POST /p HTTP/1.1\r\nContent-Type: " + push +
             "\r\n" + a,
         "0 H2642 0 0 0 0 0 0 0 ",
         answer_text(200, "OK", "/p", 2) + answer_text(200, "OK", "/a", 2) + answer_text(200, "OK", "/p", 2) +
             answer_text(200, "OK", "/a", 2)},
        {"POST / HTTP/1.1\r\nContent-Length: 301\r\nExpect: 100-continue\r\n\r\n", "0 -4 ", refused},
        {"GET / HTTP/1.1\r\nContent-Length: 1\r\n" + chunked, "-1 ", refused},
        {"GET / HTTP/1.0\r\n" + chunked + "0\r\n\r\n", "-1 ", refused},
        {"GET / HTTP/1.1\r\n" + chunked + "1;x\ny\r\na\r\n0\r\n\r\n", "0 -1 ", refused},
        {"GET / HTTP/1.1\r\nX: y\r\n z\r\n\r\n", "-1 ", refused},
        {"GET / HTTP/1.1\r\nContent-Length 1\r\n\r\n", "-1 ", refused},
        {"GET /\r\n\r\n", "-1 ", refused},
        {"HTTP/1.1 200 OK\r\n\r\n", "-1 ", refused},
        {post + "multipart/mixed\r\nContent-Length: 4\r\n\r\n--b-", "-1 ", refused},
        {"GET / HTTP/1.1\nHost: x\n\n", "-1 ", refused},
        {header_flood, "-2 ", refused},
        {"GET /a HTTP/1.1\r\nContent-Type: a/b\r\n\r\n", "0 0 ", answer_text(200, "OK", "/a", 2)},
        {post + "a/b\r\nContent-Length: 2\r\n\r\nab", "0 -3 ", refused},
    };
    for (const auto& [request, told, reply] : cases) {
        const test::network_thread nt;
        owner server(nt);
        net_http_set_limit(server.ctx, 300);
        std::string target;
        bool announced = false;
        server.then = [&](int status, header_s* header, const std::string& body) {
            if (status != 0) {
                answer(server.ctx, 400, "");
                return net_http_finish(server.ctx);
            }
            announced = !announced;
            target = header->uri;
            if (announced && target == "/early") {
                announced = false;
                answer(server.ctx, 403, "");
                EXPECT_EQ(answer(server.ctx, 500, ""), 0);
            }
            if (!announced && target == "/later") server.note("later ");
            if (!announced && target.size() == 2) answer(server.ctx, 200, target + body);
        };
        std::pair<int, int> fds = test::socket_pair::open();
        test::tcp_socket peer(fds.first);
        socket_options(fds.second);
        ASSERT_EQ(net_http_accept(server.ctx, fds.second), 0);
        buf_t out;
        core_buf_read(&out, request.data(), static_cast<uint32_t>(request.size()));
        net_tcp_send(peer, out);
        core_buf_free(&out);
        net::platform::end_output(peer);
        if (reply.find("later") != std::string::npos) {
            EXPECT_TRUE(server.hears("later "));
            answer(server.ctx, 200, "later");
        }
        EXPECT_TRUE(server.hears("close ")) << request;
        std::string received;
        char bytes[4096];
        for (int size = 1; size > 0; received.append(bytes, static_cast<size_t>(std::max(size, 0))))
            size = net::platform::receive_bytes(peer, {reinterpret_cast<uint8_t*>(bytes), sizeof bytes}, nullptr);
        EXPECT_EQ(received, reply) << request;
        EXPECT_EQ(server.told(), told + "close ") << request;
    }
}

TEST(HttpRequests, AnswersWhatCameTogetherTogetherAndAllocatesNothingForIt) {
    const test::network_thread nt;
    owner server(nt);
    char name[] = "Content-Length", two[] = "2";
    value_t length{name, two};
    value_t* fields[] = {&length, nullptr};
    const header_s head{.protocol = "HTTP/1.1", .status = 200, .reason = "OK", .fields = fields};
    server.then = [&, announced = false](int, header_s*, const std::string&) mutable {
        announced = !announced;
        if (!announced) net_http_send_message(server.ctx, &head, "ok", 2);
    };
    const std::pair<int, int> fds = test::socket_pair::open();
    test::tcp_socket peer(fds.first);
    ASSERT_EQ(net_http_accept(server.ctx, fds.second), 0);
    const std::string request = "GET / HTTP/1.1\r\nHost: h\r\n\r\n", requests = request + request;
    const auto exchange = [&] {
        const auto* const bytes = reinterpret_cast<const uint8_t*>(requests.data());
        net::platform::send_bytes(peer, {bytes, requests.size()}, nullptr);
        uint8_t room[4096];
        for (size_t left = 2 * std::string_view("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok").size(); left > 0;) {
            const int size = net::platform::receive_bytes(peer, {room, left}, nullptr);
            ASSERT_GT(size, 0);
            left -= static_cast<size_t>(size);
        }
    };
    exchange();
    const test::allocation_count allocations;
    for (int i = 0; i < 20; ++i)
        exchange();
    EXPECT_EQ(allocations.value(), 0U);
    nt.run([] {});
    EXPECT_EQ(server.drained, 21);
}

class NetHttp : public testing::Test {
protected:
    NetHttp() {
        listener.accepts = server.ctx;
        port = test::free_port();
        EXPECT_EQ(net_http_listen(listener.ctx, "127.0.0.1", port), 0);
    }

    test::network_thread nt;
    owner server{nt}, listener{nt}, client{nt};
    unsigned short port = 0;
};

TEST_F(NetHttp, DownloadsToAFileAndSplitsMultipartBodies) {
    const std::string content(3'000'000, 'f');
    const std::string parts =
        "--b\r\nContent-Type: image/jpeg\r\nContent-Length: 4\r\n\r\n\xff\xd8\xff\xd9\r\n--b\r\nContent-Type: "
        "audio/pcmu\r\n\r\nab--b--";
    static std::atomic<int> released;
    released = 0;
    server.then = [&, announced = false](int, header_s* header, const std::string&) mutable {
        announced = !announced;
        const std::string target = header->uri;
        if (announced) return;
        if (target == "/parts") answer(server.ctx, 200, parts, "multipart/x-mixed-replace; boundary=b");
        if (target != "/file") return;
        header_s* head = http_header_error("HTTP/1.1", 200, static_cast<unsigned>(content.size()), "image/png");
        void* const bytes = const_cast<char*>(content.data());
        net_http_send_share(
            server.ctx, head, {}, {static_cast<uint8_t*>(bytes), static_cast<uint32_t>(content.size())},
            [](void*) { ++released; }, nullptr);
        http_header_free(head);
    };
    const test::scratch room;
    const std::string directory = room / "in";
    for (const char* name : {"", "..", "a/b", "a\\b", "c:x", "a\nb", "dot.", "nul.txt", "Com1", "LPT\xc2\xb9.x"})
        EXPECT_EQ(net_http_download(client.ctx, "/file", directory.c_str(), name), -2) << name;
    for (const char* name : {"f.bin", "com"})
        EXPECT_EQ(net_http_download(client.ctx, "/file", directory.c_str(), name), 1);
    // Neither side holds the file.
    static std::atomic<size_t> largest;
    largest = 0;
    core_mem_set_fault([](size_t size, const char*, int) {
        if (size > largest) largest = size;
        return false;
    });
    const size_t held = core_mem_bytes();
    net_http_connect(client.ctx, "127.0.0.1", port);
    EXPECT_TRUE(client.hears("connect 0 0 0 0 "));
    core_mem_set_fault(nullptr);
    EXPECT_LE(largest, 64U * 1024);
    EXPECT_LE(core_mem_bytes(), held + 2 * 64 * 1024);
    for (const char* name : {"/f.bin", "/com"})
        EXPECT_EQ(test::read_file(directory + name), content);
    EXPECT_EQ(released, 2);
    EXPECT_EQ(client.drained, 1);
    EXPECT_EQ(net_http_recv(client.ctx, "/parts"), 1);
    EXPECT_TRUE(client.hears("0 JPEG4 PCMU2 0 ")) << client.told();
    // Half a file is none.
    EXPECT_EQ(net_http_download(client.ctx, "/none", directory.c_str(), "half"), 1);
    nt.run([&] {
        server.then = nullptr;
        constexpr std::string_view begun = "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf";
        net_http_send_message(server.ctx, nullptr, begun.data(), static_cast<unsigned>(begun.size()));
        net_http_finish(server.ctx);
    });
    EXPECT_TRUE(client.hears("close "));
    net_http_close(client.ctx);
    EXPECT_FALSE(std::filesystem::exists(directory + "/half"));
}

TEST_F(NetHttp, KnowsWhatEachResponseAnswers) {
    const struct {
        std::string responses, told;
    } cases[] = {
        {"HTTP/1.1 100 C\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: "
         "2\r\n\r\nok",
         "0 0 0 -5 "},
        {"HTTP/1.1 404 No\r\n\r\nHTTP/1.1 404 No\r\nContent-Length: 2\r\n\r\nno", "0 0 0 0 "},
        {"HTTP/1.1 204 No\r\nContent-Type: a/b\r\n\r\nHTTP/1.1 404 No\ncontent-length: 2\n\nnoHTTP/1.0 200 "
         "OK\r\n\r\nold",
         "0 0 0 0 0 0:old "},
        {"GET / HTTP/1.1\r\n\r\n", "-1 "},
    };
    const test::scratch room;
    const std::string no_directory = room / "file";
    test::write_file(no_directory, {});
    for (const auto& [responses, told] : cases) {
        owner fresh(nt);
        header_s* head = http_header_request("HEAD", "/", "HTTP/1.1");
        EXPECT_EQ(net_http_send_message(fresh.ctx, head, nullptr, 0), 1);
        EXPECT_EQ(net_http_download(fresh.ctx, "/", no_directory.c_str(), "f"), 1);
        EXPECT_EQ(net_http_recv(fresh.ctx, "/"), 1);
        http_header_free(head);
        net_http_connect(fresh.ctx, "127.0.0.1", port);
        EXPECT_TRUE(fresh.hears("connect "));
        nt.run([&] {
            net_http_send_message(server.ctx, nullptr, responses.data(), static_cast<unsigned>(responses.size()));
            net_http_finish(server.ctx);
        });
        EXPECT_TRUE(fresh.hears("close "));
        EXPECT_EQ(fresh.told(), "connect " + told + "close ");
    }
}

TEST_F(NetHttp, SendsWhatIsRefusedOnceMore) {
    server.then = [&, announced = false](int, header_s* header, const std::string& body) mutable {
        announced = !announced;
        if (announced) return;
        const char* const told = value_geti(header->fields, "Authorization");
        server.note(std::string(told ? told : "none") + body + ";");
        header_s* head = http_header_error("HTTP/1.1", told && body == "right" ? 200 : 401, 0, nullptr);
        http_header_put(head, "WWW-Authenticate", "Basic realm=x");
        net_http_send_message(server.ctx, head, nullptr, 0);
        http_header_free(head);
    };
    client.then = [&](int, header_s* header, const std::string&) { client.note(std::to_string(header->status) + " "); };
    EXPECT_EQ(net_http_set_login(client.ctx, "u", "p"), 1);
    net_http_connect(client.ctx, "127.0.0.1", port);
    for (const char* body : {"right", "wrong"}) {
        const std::string status = body == std::string("right") ? "200 " : "401 ";
        EXPECT_EQ(net_http_post(client.ctx, "/", body, 5), 1);
        EXPECT_TRUE(client.hears("0 " + status + "0 " + status)) << client.told();
        EXPECT_TRUE(server.hears(std::string("none") + body + ";"));
        EXPECT_TRUE(server.hears(std::string("Basic dTpw") + body + ";"));
    }
    EXPECT_EQ(client.told(), "connect 0 200 0 200 0 401 0 401 ");
}

TEST_F(NetHttp, TellsOfEveryEndOnceAndMayBeClosedInEveryCallback) {
    net_http_connect(client.ctx, "no such host.invalid", 80);
    EXPECT_TRUE(client.hears("close "));
    EXPECT_EQ(client.told(), "close ");
    net_http_connect(client.ctx, "127.0.0.1", test::free_port());
    EXPECT_TRUE(client.hears("close close "));
    nt.run([&] { listener.accepts = nullptr; });
    net_http_connect(client.ctx, "127.0.0.1", port);
    EXPECT_TRUE(client.hears("close close connect close "));
    nt.run([&] { listener.accepts = server.ctx; });
    server.then = [&](int, header_s* header, const std::string&) {
        net_http_close(server.ctx);
        server.note(header->uri);
    };
    net_http_connect(client.ctx, "127.0.0.1", port);
    EXPECT_EQ(net_http_post(client.ctx, "/", "x", 1), 1);
    EXPECT_TRUE(client.hears("connect close connect close "));
    EXPECT_EQ(server.told(), "0 /");
    EXPECT_EQ(net_http_accept(nullptr, 5), -5);
    EXPECT_EQ(net_http_listen(client.ctx, nullptr, 80), -2);
    EXPECT_EQ(net_http_listen(client.ctx, "127.0.0.1", 0), -2);
}

TEST_F(NetHttp, MayBeClosedOnAnotherThreadWhileItReconnectsInACallback) {
    nt.run([&] { listener.accepts = nullptr; });
    for (int i = 0; i < 60; ++i) {
        owner fresh(nt);
        fresh.reconnects = i % 2 ? port : test::free_port();
        net_http_connect(fresh.ctx, i % 3 ? "127.0.0.1" : "no such host.invalid", port);
        EXPECT_TRUE(fresh.hears("close "));
    }
}

}  // namespace
