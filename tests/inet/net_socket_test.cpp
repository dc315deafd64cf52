#include "inet/net_socket.h"

#include "support/fault.h"
#include "support/log_lines.h"
#include "support/sockets.h"

#include "core/array.h"
#include "core/owned.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using lines = std::vector<std::string>;
using test::value_of;
using test::watch;

constexpr uint32_t loopback = 0x7f000001;

/// A byte buffer that is released at the end.
struct buffer : buf_t {
    explicit buffer(uint32_t room) { core_buf_resize(this, room, CORE_HERE); }
    explicit buffer(std::string_view text) : buffer(static_cast<uint32_t>(text.size())) {
        core_buf_read(this, text.data(), static_cast<uint32_t>(text.size()));
    }
    ~buffer() { core_buf_free(this); }
    buffer(const buffer&) = delete;
    buffer& operator=(const buffer&) = delete;

    std::string text() const { return {reinterpret_cast<const char*>(data), length}; }
};

/// Two connected sockets with socket_options().
struct connection {
    connection() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(net_socket_pair(0, 0, 0, fds, CORE_HERE), 0);
        here = fds[0];
        there = fds[1];
        EXPECT_TRUE(socket_options(here) && socket_options(there));
    }
    ~connection() {
        net_socket_close(here);
        close_there();
    }
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;
    void close_there() {
        if (there >= 0) net_socket_close(there);
        there = -1;
    }

    int here = -1;
    int there = -1;
};

sockaddr_in local(unsigned short port) {
    sockaddr_in address = {};
    EXPECT_EQ(net_addr_setup(address, "127.0.0.1", port), 0);
    return address;
}

void expect_options(int fd) {
    EXPECT_FALSE(test::is_inherited(fd));
    EXPECT_EQ(value_of(fd, test::option::reuse_address), 1);
}

void expect_tcp_options(int fd) {
    expect_options(fd);
    EXPECT_EQ(value_of(fd, test::option::keep_alive), 1);
    EXPECT_EQ(value_of(fd, test::option::no_delay), 1);
}

void expect_no_wait(int result) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(socket_get_error_code(), socket_error_would_block);
}

TEST(Registry, EverySocketIsNonBlockingAndNotInherited) {
    const test::tcp_socket tcp;
    const test::udp_socket udp;
    expect_tcp_options(tcp);
    expect_options(udp);
    ASSERT_EQ(net_udp_listen(udp, "127.0.0.1", 0), 0);
    buffer in(4);
    expect_no_wait(net_udp_recv(udp, in, nullptr));
    EXPECT_EQ(net_socket_create(2, 1, 17, CORE_HERE), -1);
    EXPECT_EQ(socket_get_error_code(), 10043);
}

TEST(Registry, StandardStreamsAreLeftOpenAndUnknownSocketsAreClosedWithAWord) {
    test::log_lines log("error,console");
    for (const int fd : {-1, 0, 1, 2})
        net_socket_close(fd);
    EXPECT_NE(std::fputc('\n', stderr), EOF);
    EXPECT_EQ(log.take(), lines());

    const int unknown = net::platform::open_socket(2, 1, 6);
    ASSERT_TRUE(test::is_open(unknown));
    net_socket_close(unknown);
    const std::string text = "socket_close: unknown socket: " + std::to_string(unknown);
    EXPECT_EQ(log.take(), (lines{text, text}));
    EXPECT_FALSE(test::is_open(unknown));
}

TEST(Pair, IsATcpConnectionOverLoopbackThatBlocks) {
    int fds[2] = {-1, -1};
    ASSERT_EQ(net_socket_pair(1, 2, 3, fds, CORE_HERE), 0);
    const test::tcp_socket here(fds[0]), there(fds[1]);
    EXPECT_FALSE(test::is_inherited(here) || test::is_inherited(there));
    EXPECT_EQ(net_socket_peer(here).sin_port, net_socket_near(there).sin_port);
    EXPECT_EQ(net_socket_near(here).sin_port, net_socket_peer(there).sin_port);
    EXPECT_EQ(net_socket_peer(here).sin_addr.s_addr, htonl(loopback));
    buffer in(4);
    std::thread late([&there] { EXPECT_EQ(net_udp_send_msg(there, "x", nullptr), 1); });
    EXPECT_EQ(net_tcp_recv(here, in), 1);
    late.join();

    EXPECT_EQ(net_socket_pair(2, 1, 6, nullptr, CORE_HERE), -1);
    EXPECT_EQ(socket_get_error_code(), 10022);
}

TEST(RtpPair, StandsOnAnEvenPortAndTheOddOneAboveIt) {
    int rtp = 7;
    EXPECT_EQ(socket_rtp_pair(nullptr, nullptr), -1);
    EXPECT_EQ(socket_rtp_pair(&rtp, nullptr), -1);
    EXPECT_EQ(socket_rtp_pair(nullptr, &rtp), -1);
    EXPECT_EQ(rtp, 7);
    int rtcp = -1;
    ASSERT_EQ(socket_rtp_pair(&rtp, &rtcp), 1);
    const test::tcp_socket held_rtp(rtp), held_rtcp(rtcp);
    EXPECT_EQ(net_socket_get_near_port(rtp) % 2, 0);
    EXPECT_EQ(net_socket_get_near_port(rtcp), net_socket_get_near_port(rtp) + 1);
    buffer in(4);
    expect_no_wait(net_udp_recv(rtp, in, nullptr));
    expect_no_wait(net_udp_recv(rtcp, in, nullptr));
}

TEST(RtpPair, SharesItsPortsWithNobody) {
    constexpr size_t thread_count = 4, pairs_each = 60;
    std::vector<std::vector<int>> opened(thread_count);
    std::vector<std::thread> threads;
    threads.reserve(thread_count);
    for (auto& mine : opened) {
        threads.emplace_back([&mine] {
            for (size_t i = 0; i < pairs_each; ++i) {
                int rtp = -1, rtcp = -1;
                EXPECT_EQ(socket_rtp_pair(&rtp, &rtcp), 1);
                mine.insert(mine.end(), {rtp, rtcp});
            }
        });
    }
    for (auto& thread : threads)
        thread.join();

    test::log_lines expected_complaints("error");
    std::set<unsigned> ports;
    for (const auto& mine : opened) {
        for (const int fd : mine) {
            const unsigned short port = net_socket_get_near_port(fd);
            EXPECT_TRUE(ports.insert(port).second) << port;
            const test::udp_socket intruder;
            EXPECT_EQ(net_socket_bind(intruder, "0.0.0.0", port), -1) << port;
        }
    }
    EXPECT_EQ(ports.size(), 2 * thread_count * pairs_each);
    for (const auto& mine : opened) {
        for (const int fd : mine)
            net_socket_close(fd);
    }
}

TEST(Bind, TellsWhatTheSystemSays) {
    const test::udp_socket socket;
    EXPECT_EQ(net_socket_bind(-1, "127.0.0.1", 0), -1);
    EXPECT_EQ(net_socket_bind(socket, nullptr, 0), -1);
    EXPECT_EQ(net_udp_listen(socket, "no.such.host.invalid", 0), -1);
    EXPECT_EQ(net_udp_listen(socket, nullptr, 0), 0);
    EXPECT_EQ(net_socket_near(socket).sin_addr.s_addr, 0U);
    // A second time; an address that is not the host's would not do, for Wine binds to any.
    test::log_lines log("error,console");
    EXPECT_EQ(net_udp_listen(socket, "127.0.0.1", 4242), -1);
    EXPECT_EQ(socket_get_error_code(), socket_error_invalid_argument);
    const int error = net::platform::system_error();
    const std::string reason = net::platform::system_error_text(error);
    EXPECT_GT(reason.size(), 5U);
    const std::string text =
        "Unable to bind on address: 127.0.0.1:4242; Error was: " + reason + " (" + std::to_string(error) + ")";
    EXPECT_EQ(log.take(), (lines{text, text}));
}

TEST(Bind, AMulticastAddressBindsToAnyAndReachesFar) {
    const test::udp_socket socket;
    const int joined = net_socket_bind(socket, "239.255.17.4", 0);
    EXPECT_EQ(net_socket_near(socket).sin_addr.s_addr, 0U);
    EXPECT_EQ(value_of(socket, test::option::multicast_ttl), 255);
    EXPECT_EQ(value_of(socket, test::option::ttl), 255);
    EXPECT_EQ(value_of(socket, test::option::multicast_loop), 1);
    // Joining the same group twice is refused, which shows the first membership, where the host has a way to it at all.
    const int again = net_udp_connect(socket, "239.255.17.4", 1);
    EXPECT_EQ(again, -1);
    EXPECT_TRUE(joined != 0 || socket_get_error_code() == socket_error_address_in_use);
}

TEST(UdpConnect, NeitherConnectsNorNeedsAPort) {
    const test::udp_socket socket;
    EXPECT_EQ(net_udp_connect(socket, "127.0.0.1", 9), 0);
    EXPECT_EQ(net_socket_peer(socket).sin_port, 0);
    EXPECT_EQ(value_of(socket, test::option::ttl), 255);
    EXPECT_EQ(value_of(socket, test::option::multicast_ttl), 1);
    EXPECT_EQ(net_udp_connect(socket, "no.such.host.invalid", 9), -1);
    EXPECT_EQ(net_udp_connect(socket, nullptr, 9), -1);
}

TEST(SetSize, IsAlwaysTheReceiveBuffer) {
    const test::udp_socket socket;
    const int sending = value_of(socket, test::option::send_buffer);
    ASSERT_EQ(net_socket_set_size(socket, 50000, 0), 0);
    const int factor = value_of(socket, test::option::receive_buffer) / 50000;
    EXPECT_TRUE(factor == 1 || factor == 2) << "Linux doubles what is asked";
    const struct { int first, second, wins; } cases[] = {{65536, 0, 65536}, {0, 32768, 32768}, {65536, 16384, 16384}};
    for (const auto& [first, second, wins] : cases) {
        EXPECT_EQ(net_socket_set_size(socket, first, second), 0);
        EXPECT_EQ(value_of(socket, test::option::receive_buffer), factor * wins);
    }
    EXPECT_EQ(value_of(socket, test::option::send_buffer), sending);
    EXPECT_EQ(net_socket_set_size(-1, 0, 1), -1);
}

TEST(Tcp, ConnectsListensAndAccepts) {
    const test::tcp_socket listener, client;
    EXPECT_EQ(net_tcp_listen(listener, "no.such.host.invalid", 0), -2);
    EXPECT_EQ(net_tcp_listen(listener, nullptr, 0), -2);
    ASSERT_EQ(net_tcp_listen(listener, "127.0.0.1", 0), 0);
    expect_no_wait(net_socket_accept(listener, nullptr, CORE_HERE));

    ASSERT_EQ(net_tcp_connect(client, "localhost", net_socket_get_near_port(listener)), 0);
    ASSERT_TRUE(test::await(listener, watch::read));
    sockaddr_in peer = {};
    const test::tcp_socket accepted(net_socket_accept(listener, &peer, CORE_HERE));
    ASSERT_GE(accepted, 3);
    EXPECT_EQ(net_addr_port(peer), net_socket_get_near_port(client));
    expect_tcp_options(accepted);
    buffer in(4);
    expect_no_wait(net_tcp_recv(accepted, in));
    EXPECT_EQ(net_socket_get_error(client), 0);
}

TEST(Tcp, RefusedArgumentsAndStartsAreTold) {
    const test::tcp_socket socket;
    const test::udp_socket datagrams;
    test::log_lines log("error,console");
    EXPECT_EQ(net_tcp_connect(-1, "127.0.0.1", 80), -2);
    EXPECT_EQ(net_tcp_connect(socket, "no.such.host.invalid", 80), -2);
    EXPECT_EQ(log.take(), lines());

    EXPECT_EQ(net_tcp_connect(socket, "255.255.255.255", 80), -1);
    // Linux and Wine find no way to it, Windows itself finds the address unfit.
    const int error = socket_get_error_code();
    EXPECT_TRUE(error == socket_error_network_unreachable || error == socket_error_address_not_available) << error;
    const std::string connecting =
        "Unable connect socket " + std::to_string(socket) + " to: 255.255.255.255:80, e = " + std::to_string(error);
    EXPECT_EQ(log.take(), (lines{connecting, connecting}));

    EXPECT_EQ(net_tcp_listen(datagrams, "127.0.0.1", 0), -1);
    const std::string listening = "Unable to put the socket in listening mode: 127.0.0.1:0";
    EXPECT_EQ(log.take(), (lines{listening, listening}));
}

TEST(Transfer, ConsumesFromTheFrontAndAppendsAtTheEnd) {
    const connection c;
    buffer out("hello, far end"), in(20);
    expect_no_wait(net_tcp_recv(c.there, in));
    EXPECT_EQ(net_tcp_send(c.here, out), 14);
    EXPECT_EQ(out.length, 0u);
    core_buf_read(&in, "> ", 2);
    ASSERT_TRUE(test::await(c.there, watch::read));
    EXPECT_EQ(net_tcp_recv(c.there, in), 14);
    EXPECT_EQ(in.text(), "> hello, far end");
}

// Offers whole blocks until one is refused: some systems take one of any size as long as they have room for a byte.
void fill(int fd) {
    constexpr uint32_t size = 1 << 20;
    const std::string bytes(size, 'x');
    buffer out(bytes);
    int sent = 0;
    do {
        core_buf_ignore(&out, out.length);
        core_buf_read(&out, bytes.data(), size);
        sent = net_tcp_send(fd, out);
        ASSERT_NE(sent, 0);
        EXPECT_EQ(out.length, size - static_cast<unsigned>(std::max(sent, 0)));
    } while (sent > 0);
    expect_no_wait(sent);
}

TEST(Transfer, AStalledPeerLeavesTheRestInTheBuffer) {
    const connection c;
    fill(c.here);
}

TEST(Wait, AnUrgentByteOfAStalledPeerIsNoReasonToWrite) {
    const connection c;
    fill(c.here);
    ASSERT_TRUE(test::send_urgent(c.there));
    watch waited = {.fd = c.here, .wanted = watch::write, .found = 0};
    EXPECT_EQ(net::platform::wait_sockets({&waited, 1}, 20'000), 0);
    EXPECT_EQ(waited.found, 0);
}

TEST(Wait, LastsWithNoSocketToo) {
    watch unwatched = {.fd = -1, .wanted = 0, .found = 7};
    for (const size_t count : {0, 1}) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(net::platform::wait_sockets({&unwatched, count}, 20'000), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(19));
    }
    EXPECT_EQ(unwatched.found, 0);
}

TEST(Transfer, APeerThatIsGoneIsAnErrorAndNoSignal) {
    connection c;
    c.close_there();
    buffer out("x");
    ASSERT_TRUE(test::await(c.here, watch::read));
    buffer in(4);
    EXPECT_EQ(net_tcp_recv(c.here, in), 0);
    EXPECT_EQ(net_tcp_send(c.here, out), 1);
    const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    do
        core_buf_read(&out, "y", 1);
    while (net_tcp_send(c.here, out) == 1 && std::chrono::steady_clock::now() < patience);
    const int error = socket_get_error_code();
    EXPECT_TRUE(error == socket_error_shut_down || error == socket_error_connection_reset ||
                error == socket_error_connection_aborted)
        << error;
    EXPECT_EQ(out.text(), "y");
}

TEST(Datagrams, EachSendIsOneAndEachReceiveTakesOne) {
    const test::udp_socket sender, receiver;
    ASSERT_EQ(net_udp_listen(receiver, "127.0.0.1", 0), 0);
    ASSERT_EQ(net_udp_listen(sender, "127.0.0.1", 0), 0);
    sockaddr_in to = local(net_socket_get_near_port(receiver));
    buffer out("first"), in(8);
    uint8_t second[] = {'2', 'n', 'd'};
    buffer_t span = {second, sizeof second};
    EXPECT_EQ(net_udp_send(sender, out, &to), 5);
    EXPECT_EQ(out.length, 0u);
    EXPECT_EQ(net_udp_send_buffer(sender, &span, &to), 3);
    EXPECT_EQ(net_udp_send_msg(sender, "a third, too long for it", &to), 24);
    EXPECT_EQ(net_udp_send_buffer(sender, nullptr, &to), -2);
    EXPECT_EQ(net_udp_send_msg(sender, nullptr, &to), -2);

    for (const char* expected : {"first", "2nd", "a third,"}) {
        sockaddr_in from = {};
        ASSERT_TRUE(test::await(receiver, watch::read));
        EXPECT_EQ(net_udp_recv(receiver, in, &from), static_cast<int>(strlen(expected)));
        EXPECT_EQ(in.text(), expected);
        EXPECT_EQ(net_addr_port(from), net_socket_get_near_port(sender));
    }
    EXPECT_EQ(net_udp_recv(receiver, in, nullptr), -1);
    EXPECT_EQ(in.length, 0u);
}

TEST(Datagrams, OneThatFindsNobodyDoesNotDisturbTheNextReceive) {
    const test::udp_socket socket;
    ASSERT_EQ(net_udp_listen(socket, "127.0.0.1", 0), 0);
    unsigned short nobody = 0;
    {
        const test::udp_socket gone;
        ASSERT_EQ(net_udp_listen(gone, "127.0.0.1", 0), 0);
        nobody = net_socket_get_near_port(gone);
    }
    sockaddr_in to = local(nobody), self = local(net_socket_get_near_port(socket));
    EXPECT_EQ(net_udp_send_msg(socket, "lost", &to), 4);
    EXPECT_EQ(net_udp_send_msg(socket, "kept", &self), 4);
    buffer in(8);
    ASSERT_TRUE(test::await(socket, watch::read));
    EXPECT_EQ(net_udp_recv(socket, in, nullptr), 4);
    EXPECT_EQ(in.text(), "kept");
}

/// Sizes of the datagrams that arrive, whose bytes must be `i`, `i + 1`, ... for the i-th of the batch.
std::vector<uint32_t> received_sizes(int fd, size_t count, std::vector<uint8_t>& marks) {
    std::vector<uint32_t> sizes;
    buffer in(65536);
    while (sizes.size() < count && test::await(fd, watch::read) && net_udp_recv(fd, in, nullptr) >= 0) {
        sizes.push_back(in.length);
        if (in.length) marks.push_back(in.data[0]);
        for (uint32_t i = 1; i < in.length; ++i)
            if (in.data[i] != static_cast<uint8_t>(in.data[0] + i)) return {};
    }
    return sizes;
}

// Runs of one size, sizes that grow and shrink, and empty ones: as the packets of pictures come, and worse.
TEST(Batch, EveryDatagramArrivesAsItWasGivenAndInOrder) {
    const test::udp_socket sender, receiver, other;
    ASSERT_EQ(net_udp_listen(receiver, "127.0.0.1", 0), 0);
    ASSERT_EQ(net_udp_listen(other, "127.0.0.1", 0), 0);
    ASSERT_EQ(net_socket_set_size(receiver, 1 << 18, 0), 0);
    const sockaddr_in to = local(net_socket_get_near_port(receiver));
    const sockaddr_in same = to, else_to = local(net_socket_get_near_port(other));
    std::vector<uint8_t> bytes(20000);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<uint8_t>(i);

    std::vector<std::vector<uint32_t>> cases = {{},
                                                {5},
                                                {1399, 1400, 1400, 1400, 300},
                                                {28, 30, 30, 29, 30},
                                                {0, 0, 7, 7, 0, 7},
                                                {9000, 9000, 9000, 9000, 9000, 9000, 9000, 1}};
    cases.emplace_back(90, 700u);  // more segments than one message carries
    cases.emplace_back(60, 1u);
    for (const auto& sizes : cases) {
        std::vector<datagram_t> batch;
        for (size_t i = 0; i < sizes.size(); ++i)
            batch.push_back({&bytes[i], sizes[i], i % 2 ? &to : &same});
        SCOPED_TRACE(testing::PrintToString(sizes));
        ASSERT_EQ(net_udp_send_batch(sender, batch.data(), static_cast<uint32_t>(batch.size())),
                  static_cast<int>(sizes.size()));
        std::vector<uint8_t> marks;
        EXPECT_EQ(received_sizes(receiver, sizes.size(), marks), sizes);
        size_t next = 0;
        for (size_t i = 0; i < sizes.size(); ++i) {
            if (sizes[i]) {
                EXPECT_EQ(marks.at(next++), bytes[i]);
            }
        }
    }

    const datagram_t both[] = {{&bytes[1], 10, &to}, {&bytes[2], 10, &else_to}, {&bytes[3], 10, &to}};
    ASSERT_EQ(net_udp_send_batch(sender, both, 3), 3);
    std::vector<uint8_t> here, there;
    EXPECT_EQ(received_sizes(receiver, 2, here).size() + received_sizes(other, 1, there).size(), 3u);
    EXPECT_EQ(here, (std::vector<uint8_t>{1, 3}));
    EXPECT_EQ(there, std::vector<uint8_t>{2});
}

TEST(Batch, IsReceivedAsFarAsItIsThere) {
    const test::udp_socket sender, receiver;
    ASSERT_EQ(net_udp_listen(sender, "127.0.0.1", 0), 0);
    ASSERT_EQ(net_udp_listen(receiver, "127.0.0.1", 0), 0);
    sockaddr_in to = local(net_socket_get_near_port(receiver));
    std::vector<std::array<uint8_t, 1400>> rooms(100);
    std::vector<received_t> batch;
    batch.reserve(rooms.size());
    for (auto& room : rooms)
        batch.push_back({{room.data(), sizeof room, 0}, {}});
    expect_no_wait(net_udp_recv_batch(receiver, batch.data(), 100));

    std::vector<uint8_t> bytes(9000);
    for (uint32_t i = 0; i < 90; ++i) {
        bytes[0] = static_cast<uint8_t>(i);
        buffer_t datagram{bytes.data(), i == 7 ? 0 : i == 8 ? 9000 : 1 + i};
        ASSERT_GE(net_udp_send_buffer(sender, &datagram, &to), 0);
    }
    ASSERT_EQ(net_udp_recv_batch(receiver, batch.data(), 5), 5);
    ASSERT_EQ(net_udp_recv_batch(receiver, batch.data() + 5, 95), 85);
    for (uint32_t i = 0; i < 90; ++i) {
        EXPECT_EQ(batch[i].bytes.length, i == 7 ? 0 : i == 8 ? 1400 : 1 + i);
        EXPECT_TRUE(i == 7 || rooms[i][0] == i);
        EXPECT_EQ(net_addr_port(batch[i].from), net_socket_get_near_port(sender));
    }
    EXPECT_EQ(net_udp_recv_batch(receiver, nullptr, 1), -2);
    EXPECT_EQ(net_udp_recv_batch(receiver, nullptr, 0), 0);
}

TEST(Batch, StopsAtTheOneThatIsRefused) {
    const test::udp_socket sender, receiver;
    ASSERT_EQ(net_udp_listen(receiver, "127.0.0.1", 0), 0);
    const sockaddr_in to = local(net_socket_get_near_port(receiver));
    std::vector<uint8_t> bytes(65536);
    const datagram_t batch[] = {{bytes.data(), 3, &to}, {bytes.data(), 65536, &to}, {bytes.data(), 5, &to}};
    EXPECT_EQ(net_udp_send_batch(sender, batch, 3), 1);
    EXPECT_EQ(net_udp_send_batch(sender, batch + 1, 2), -1);
    EXPECT_EQ(socket_get_error_code(), socket_error_message_size);
    EXPECT_EQ(net_udp_send_batch(sender, batch + 2, 1), 1);
    EXPECT_EQ(net_udp_send_batch(sender, nullptr, 1), -2);
    EXPECT_EQ(net_udp_send_batch(sender, nullptr, 0), 0);
}

TEST(Multicast, GoesOutOnTheInterfaceNamed) {
    const test::udp_socket sender;
    EXPECT_TRUE(socket_multicastInterface(sender, "127.0.0.1"));
    EXPECT_EQ(static_cast<uint32_t>(value_of(sender, test::option::multicast_interface)), htonl(loopback));
    EXPECT_TRUE(socket_multicastInterface(sender, "0.0.0.0"));
    for (const char* bad : {static_cast<const char*>(nullptr), "", "lo", "203.0.113.77"})
        EXPECT_FALSE(socket_multicastInterface(sender, bad));
}

TEST(Multicast, IsJoinedOnTheInterfaceNamed) {
    constexpr const char* group = "239.255.77.1";
    const test::udp_socket receiver;
    ASSERT_EQ(net_udp_listen(receiver, nullptr, 0), 0);
    ASSERT_TRUE(socket_joinGroup(receiver, group, "127.0.0.1"));
    const test::udp_socket sender;
    ASSERT_TRUE(socket_multicastInterface(sender, "127.0.0.1"));
    sockaddr_in to = {};
    ASSERT_EQ(net_addr_setup(to, group, net_socket_get_near_port(receiver)), 0);
    EXPECT_EQ(net_udp_send_msg(sender, "news", &to), 4);
    EXPECT_TRUE(test::await(receiver, watch::read));
    for (const char* bad : {static_cast<const char*>(nullptr), "", "all-hosts.mcast.net", "127.0.0.1"})
        EXPECT_FALSE(socket_joinGroup(receiver, bad, "127.0.0.1"));
    for (const char* bad : {static_cast<const char*>(nullptr), "lo", "203.0.113.77"})
        EXPECT_FALSE(socket_joinGroup(receiver, "239.255.77.2", bad));
}

TEST(Addresses, ConvertBothWays) {
    sockaddr_in address = {};
    ASSERT_EQ(net_addr_setup(address, "10.200.3.4", 554), 0);
    EXPECT_EQ(address.sin_family, 2);
    EXPECT_EQ(address.sin_port, htons(554));
    char text[net_addr_size], cut[5];
    net_addr_ip(address, text, sizeof text);
    net_addr_ip(address, cut, sizeof cut);
    EXPECT_STREQ(text, "10.200.3.4");
    EXPECT_STREQ(cut, "10.2");
    net_addr_ip(address, nullptr, 0);
    unsigned port = 0;
    EXPECT_STREQ(net_socket_straddr(&address, port), "10.200.3.4");
    EXPECT_EQ(port, 554u);
    EXPECT_EQ(net_socket_straddr(nullptr, port), nullptr);
    EXPECT_EQ(port, 0u);
    EXPECT_STREQ(core::owned_text(socket_get_ip(address.sin_addr, CORE_HERE)).get(), "10.200.3.4");

    EXPECT_EQ(net_addr_setup(address, "localhost", 1), 0);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(loopback));
    EXPECT_EQ(net_addr_setup(address, "no.such.host.invalid", 1), -1);
    EXPECT_EQ(net_addr_setup(address, nullptr, 1), -1);
    EXPECT_EQ(net_socket_near(-1).sin_family, 0);
    EXPECT_EQ(net_socket_get_near_port(-1), 0);
}

TEST(Host, Identifies) {
    EXPECT_EQ(net_hostid("10.0.0.7", 5), 705u);
    EXPECT_EQ(net_hostid("10.0.0.255", 0), 25500u);
    EXPECT_EQ(net_hostid(nullptr, 5), 0u);
    EXPECT_EQ(net_hostid("camera", 5), 0u);
    EXPECT_EQ(core::owned_text(net_hostname(CORE_HERE)).get(), test::host_name());
}

template <class T>
void release(T** items) {
    for (T** item = items; item && *item; ++item)
        core_mfree(*item);
    core_array_free(reinterpret_cast<void**>(items));
}

TEST(Host, ListsTheSameInterfacesInEveryForm) {
    char** texts = net_socket_get_if(CORE_HERE);
    sockaddr_in** addresses = net_socket_get_if_addr(CORE_HERE);
    const core::owned_text first(net_hostip(CORE_HERE));
    const uint32_t count = core_array_length(reinterpret_cast<void**>(texts));
    ASSERT_EQ(core_array_length(reinterpret_cast<void**>(addresses)), count);
    EXPECT_LE(count, 10u);
    for (uint32_t i = 0; i < count; ++i) {
        unsigned port = 1;
        EXPECT_STREQ(texts[i], net_socket_straddr(addresses[i], port));
        EXPECT_EQ(port, 0U);
        EXPECT_NE(ntohl(addresses[i]->sin_addr.s_addr) >> 24, 127u);
    }
    EXPECT_STREQ(first.get(), count ? texts[0] : nullptr);
    release(texts);
    release(addresses);
}

TEST(Memory, WhenItIsOutNothingStaysOpenOrHeld) {
    const auto open_before = test::open_sockets();
    const size_t failed = test::fail_each_allocation([&] {
        int fds[2] = {-1, -1};
        const test::tcp_socket socket;
        EXPECT_TRUE(socket >= 0 || socket_get_error_code() == socket_error_no_buffers);
        const test::tcp_socket listener;
        const int paired = net_socket_pair(2, 1, 6, fds, CORE_HERE);
        EXPECT_TRUE(paired == 0 || socket_get_error_code() == socket_error_no_buffers);
        const test::tcp_socket here(fds[0]), there(fds[1]);
        if (socket >= 0 && net_tcp_listen(listener, "127.0.0.1", 0) == 0) {
            net_tcp_connect(socket, "127.0.0.1", net_socket_get_near_port(listener));
            const test::tcp_socket accepted(net_socket_accept(listener, nullptr, CORE_HERE));
        }
        int rtp = -1, rtcp = -1;
        socket_rtp_pair(&rtp, &rtcp);
        const test::tcp_socket held_rtp(rtp), held_rtcp(rtcp);
        release(net_socket_get_if(CORE_HERE));
        release(net_socket_get_if_addr(CORE_HERE));
        core_mfree(net_hostip(CORE_HERE));
        core_mfree(net_hostname(CORE_HERE));
    });
    EXPECT_GE(failed, 8u);
    EXPECT_EQ(test::open_sockets(), open_before);
}

}  // namespace
