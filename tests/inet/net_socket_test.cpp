#include "inet/net_socket.h"

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

using test::option;
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

    std::string text() const { return {reinterpret_cast<const char*>(data), length}; }
};

/// Datagram sockets of this host and where they are.
struct receiver_t : test::udp_socket {
    receiver_t() {
        EXPECT_EQ(net_udp_listen(*this, "127.0.0.1", 0), 0);
        address = net_socket_near(*this);
    }
    sockaddr_in address;
};

void expect_no_wait(int result) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(socket_get_error_code(), socket_error_would_block);
}

TEST(Registry, StandardStreamsAreLeftOpenAndUnknownSocketsAreClosedWithAWord) {
    test::log_lines log("error,console");
    for (const int fd : {-1, 0, 1, 2})
        net_socket_close(fd);
    EXPECT_NE(std::fputc('\n', stderr), EOF);
    EXPECT_TRUE(log.take().empty());

    const int unknown = net::platform::open_socket(2, 1, 6);
    net_socket_close(unknown);
    const std::string text = "socket_close: unknown socket: " + std::to_string(unknown);
    EXPECT_EQ(log.take(), (std::vector{text, text}));
    EXPECT_EQ(value_of(unknown, option::type), -1);
}

TEST(Options, AreThoseThatEachCallPromises) {
    const test::tcp_socket tcp;
    const test::udp_socket udp, reaching, grouped, sending;
    EXPECT_EQ(net_udp_connect(reaching, "127.0.0.1", 9), 0);
    EXPECT_EQ(net_socket_peer(reaching).sin_port, 0) << "it is not connected";
    net_socket_bind(grouped, "239.255.17.4", 0);
    EXPECT_EQ(net_socket_near(grouped).sin_addr.s_addr, 0U);
    EXPECT_TRUE(socket_multicastInterface(sending, "127.0.0.1"));
    const struct {
        int fd;
        option which;
        int value;
    } cases[] = {
        {tcp, option::keep_alive, 1},     {tcp, option::no_delay, 1},
        {tcp, option::reuse, 1},          {udp, option::reuse, 1},
        {reaching, option::ttl, 255},     {reaching, option::group_ttl, 1},
        {grouped, option::ttl, 255},      {grouped, option::group_ttl, 255},
        {grouped, option::group_loop, 1}, {sending, option::group_interface, static_cast<int>(htonl(loopback))},
    };
    for (const auto& [fd, which, value] : cases)
        EXPECT_EQ(value_of(fd, which), value) << static_cast<int>(which);
    EXPECT_EQ(net_udp_connect(grouped, "239.255.17.4", 1), -1) << "the group is joined already, or cannot be";
    const auto [here, there] = test::socket_pair::open();
    const test::tcp_socket ends[] = {test::tcp_socket(here), test::tcp_socket(there)};
    for (const int fd : {static_cast<int>(tcp), static_cast<int>(udp), here, there})
        EXPECT_FALSE(test::is_inherited(fd));

    ASSERT_EQ(net_socket_set_size(udp, 50000, 0), 0);
    const int factor = value_of(udp, option::receive_room) / 50000;
    EXPECT_TRUE(factor == 1 || factor == 2) << "Linux doubles what is asked";
    for (const auto& [first, second, wins] : {std::array{65536, 0, 65536}, {0, 32768, 32768}, {65536, 16384, 16384}}) {
        EXPECT_EQ(net_socket_set_size(udp, first, second), 0);
        EXPECT_EQ(value_of(udp, option::receive_room), factor * wins);
    }
}

TEST(RtpPair, StandsOnAnEvenPortAndTheOddOneAboveItAndSharesThemWithNobody) {
    std::vector<test::tcp_socket> opened;
    std::set<unsigned> ports;
    buffer in(4);
    for (int i = 0; i < 200; ++i) {
        int fds[2] = {-1, -1};
        ASSERT_EQ(socket_rtp_pair(&fds[0], &fds[1]), 1);
        for (const int fd : fds) {
            const unsigned port = net_socket_get_near_port(opened.emplace_back(fd));
            EXPECT_EQ(port % 2, fd == fds[1]);
            EXPECT_TRUE(ports.insert(port).second && ports.contains(port & ~1u)) << port;
            EXPECT_EQ(net_socket_bind(test::udp_socket(), "0.0.0.0", port), -1) << port;
            expect_no_wait(net_udp_recv(fd, in, nullptr));
        }
    }
}

TEST(Refusals, AreTold) {
    const test::tcp_socket tcp;
    const test::udp_socket udp;
    EXPECT_EQ(net_socket_create(2, 1, 17, CORE_HERE), -1);
    EXPECT_EQ(net_tcp_connect(-1, "127.0.0.1", 80), -2);
    EXPECT_EQ(net_tcp_connect(tcp, "no.such.host.invalid", 80), -2);
    EXPECT_EQ(net_tcp_listen(udp, "127.0.0.1", 0), -1);
    EXPECT_FALSE(socket_joinGroup(udp, "127.0.0.1", "127.0.0.1"));
    EXPECT_FALSE(socket_joinGroup(udp, "239.255.77.2", "203.0.113.77"));
    EXPECT_FALSE(socket_multicastInterface(udp, "203.0.113.77"));
    EXPECT_EQ(net_tcp_connect(tcp, "255.255.255.255", 80), -1);
    const int error = socket_get_error_code();  // Linux finds no way to it, Windows the address unfit
    EXPECT_TRUE(error == socket_error_network_unreachable || error == socket_error_address_not_available) << error;

    const test::udp_socket bound;
    EXPECT_EQ(net_udp_listen(bound, nullptr, 0), 0);
    EXPECT_EQ(net_socket_near(bound).sin_addr.s_addr, 0U);
    // A second time; an address that is not the host's would not do, for Wine binds to any.
    const uint32_t sink = core_log_sink_add(
        "error", [](void*, const log_line_t*) { net::platform::set_last_error(10013); }, nullptr);
    EXPECT_EQ(net_udp_listen(bound, "127.0.0.1", 4242), -1);
    EXPECT_EQ(socket_get_error_code(), socket_error_invalid_argument) << "also after it was reported";
    core_log_sink_rem(sink);
}

TEST(Transfer, ConsumesFromTheFrontAndAppendsAtTheEndUntilThePeerIsGone) {
    test::socket_pair pair;
    buffer out("hello, far end"), in("> ");
    core_buf_resize(&in, 20, CORE_HERE);
    expect_no_wait(net_tcp_recv(pair.there, in));
    EXPECT_EQ(net_tcp_send(pair.here, out), 14);
    EXPECT_EQ(out.length, 0u);
    ASSERT_TRUE(test::await(pair.there, watch::read));
    EXPECT_EQ(net_tcp_recv(pair.there, in), 14);
    EXPECT_EQ(in.text(), "> hello, far end");

    pair.there.close();
    ASSERT_TRUE(test::await(pair.here, watch::read));
    EXPECT_EQ(net_tcp_recv(pair.here, in), 0);
    const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    do
        core_buf_read(&out, "y", 1);
    while (net_tcp_send(pair.here, out) == 1 && std::chrono::steady_clock::now() < patience);
    const int error = socket_get_error_code();
    EXPECT_TRUE(error == socket_error_shut_down || error == socket_error_connection_reset ||
                error == socket_error_connection_aborted)
        << error << ", and no signal";
    EXPECT_EQ(out.text(), "y");
}

// Some systems take a block of any size as long as they have room for a byte.
TEST(Transfer, AStalledPeerLeavesTheRestInTheBufferAndAnUrgentByteOfItIsNoReasonToWrite) {
    const test::socket_pair pair;
    constexpr uint32_t size = 1 << 20;
    int sent = 0;
    do {
        buffer out(std::string(size, 'x'));
        sent = net_tcp_send(pair.here, out);
        ASSERT_NE(sent, 0);
        EXPECT_EQ(out.length, size - static_cast<unsigned>(std::max(sent, 0)));
    } while (sent > 0);
    expect_no_wait(sent);
    ASSERT_TRUE(test::send_urgent(pair.there));
    watch waited[] = {{.fd = pair.here, .wanted = watch::write, .found = 0}, {.fd = -1, .wanted = 0, .found = 7}};
    EXPECT_EQ(net::platform::wait_sockets(waited, 20'000), 0);
    EXPECT_EQ(waited[0].found | waited[1].found, 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(net::platform::wait_sockets({}, 20'000), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(19)) << "with no socket, too";
}

TEST(Datagrams, EachSendIsOneEachReceiveTakesOneAndOneThatFindsNobodyDisturbsNone) {
    receiver_t sender, receiver;
    sockaddr_in nobody = receiver_t().address;
    buffer out("first"), in(8);
    uint8_t second[] = {'2', 'n', 'd'};
    buffer_t span = {second, sizeof second};
    EXPECT_EQ(net_udp_send_msg(receiver, "lost", &nobody), 4);
    EXPECT_EQ(net_udp_send(sender, out, &receiver.address), 5);
    EXPECT_EQ(out.length, 0u);
    EXPECT_EQ(net_udp_send_buffer(sender, &span, &receiver.address), 3);
    EXPECT_EQ(net_udp_send_msg(sender, "a third, too long for it", &receiver.address), 24);
    for (const char* expected : {"first", "2nd", "a third,"}) {
        sockaddr_in from = {};
        ASSERT_TRUE(test::await(receiver, watch::read));
        EXPECT_EQ(net_udp_recv(receiver, in, &from), static_cast<int>(strlen(expected)));
        EXPECT_EQ(in.text(), expected);
        EXPECT_EQ(from.sin_port, sender.address.sin_port);
    }
    expect_no_wait(net_udp_recv(receiver, in, nullptr));
    EXPECT_EQ(in.length, 0u);
}

// Runs of one size, sizes that grow and shrink, empty ones and more than one call takes: as the packets of pictures
// come, and worse. Each begins with another byte.
TEST(Batch, EveryDatagramArrivesAsItWasGivenAndInOrder) {
    const receiver_t sender, receiver, other;
    ASSERT_EQ(net_socket_set_size(receiver, 1 << 18, 0), 0);
    std::vector<uint8_t> bytes(20000);
    std::ranges::generate(bytes, [value = uint8_t{0}]() mutable { return value++; });
    std::vector<std::array<uint8_t, 8000>> rooms(100);
    std::vector<received_t> in;
    for (auto& room : rooms)
        in.push_back({{room.data(), sizeof room, 0}, {}});
    const std::vector<uint32_t> cases[] = {
        {5},
        {1399, 1400, 1400, 1400, 300},
        {28, 30, 30, 29, 30},
        {0, 0, 7, 7, 0, 7},
        {9000, 8000, 8000, 8000, 8000, 8000, 8000, 8000, 8000, 1},
        std::vector(90, 700u),
    };
    for (const auto& sizes : cases) {
        SCOPED_TRACE(testing::PrintToString(sizes));
        const sockaddr_in same = receiver.address;
        const auto count = static_cast<int>(sizes.size()), first = std::min(count, 3);
        std::vector<datagram_t> batch;
        for (size_t i = 0; i < sizes.size(); ++i)
            batch.push_back({&bytes[i], sizes[i], i % 2 ? &receiver.address : &same});
        ASSERT_EQ(net_udp_send_batch(sender, batch.data(), static_cast<uint32_t>(count)), count);
        ASSERT_EQ(net_udp_recv_batch(receiver, in.data(), static_cast<uint32_t>(first)), first);
        ASSERT_EQ(std::max(net_udp_recv_batch(receiver, &in[3], 97), 0), count - first);
        for (size_t i = 0; i < sizes.size(); ++i) {
            ASSERT_EQ(in[i].bytes.length, std::min(sizes[i], 8000u)) << i;
            EXPECT_TRUE(std::equal(rooms[i].data(), rooms[i].data() + in[i].bytes.length, &bytes[i])) << i;
            EXPECT_EQ(in[i].from.sin_port, sender.address.sin_port);
        }
    }
    expect_no_wait(net_udp_recv_batch(receiver, in.data(), 100));
    const datagram_t both[] = {
        {&bytes[1], 10, &receiver.address}, {&bytes[2], 10, &other.address}, {&bytes[3], 10, &receiver.address}};
    ASSERT_EQ(net_udp_send_batch(sender, both, 3), 3);
    EXPECT_EQ(net_udp_recv_batch(receiver, in.data(), 100), 2);
    EXPECT_EQ(net_udp_recv_batch(other, &in[2], 98), 1);
    EXPECT_TRUE(rooms[0][0] == 1 && rooms[1][0] == 3 && rooms[2][0] == 2);
}

TEST(Batch, StopsAtTheOneThatIsRefused) {
    const receiver_t sender, receiver;
    std::vector<uint8_t> bytes(65536);
    const sockaddr_in* to = &receiver.address;
    const datagram_t batch[] = {{bytes.data(), 3, to}, {bytes.data(), 65536, to}, {bytes.data(), 5, to}};
    EXPECT_EQ(net_udp_send_batch(sender, batch, 3), 1);
    EXPECT_EQ(net_udp_send_batch(sender, batch + 1, 2), -1);
    EXPECT_EQ(socket_get_error_code(), socket_error_message_size);
    EXPECT_EQ(net_udp_send_batch(sender, batch + 2, 1), 1);
    EXPECT_EQ(net_udp_send_batch(sender, nullptr, 0), 0);
}

TEST(Addresses, ConvertBothWays) {
    sockaddr_in address = {};
    ASSERT_EQ(net_addr_setup(address, "10.200.3.4", 554), 0);
    EXPECT_EQ(address.sin_family, 2);
    EXPECT_EQ(address.sin_port, htons(554));
    EXPECT_EQ(address.sin_addr.s_addr, htonl(0x0ac80304));
    char cut[5];
    unsigned port = 0;
    net_addr_ip(address, cut, sizeof cut);
    EXPECT_STREQ(cut, "10.2");
    EXPECT_STREQ(net_socket_straddr(&address, port), "10.200.3.4");
    EXPECT_EQ(port, 554u);
    EXPECT_STREQ(core::owned_text(socket_get_ip(address.sin_addr, CORE_HERE)).get(), "10.200.3.4");
    EXPECT_EQ(net_hostid("10.0.0.255", 5), 25505u);
    EXPECT_EQ(net_hostid("camera", 5), 0u);
    EXPECT_EQ(net_addr_setup(address, "localhost", 1), 0);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(loopback));
}

TEST(Host, ListsTheSameInterfacesInEveryForm) {
    char** texts = net_socket_get_if(CORE_HERE);
    sockaddr_in** addresses = net_socket_get_if_addr(CORE_HERE);
    const core::owned_text first(net_hostip(CORE_HERE));
    ASSERT_EQ(!texts, !addresses);
    EXPECT_STREQ(first.get(), texts ? texts[0] : nullptr);
    size_t count = 0;
    for (; texts && texts[count]; ++count) {
        unsigned port = 1;
        EXPECT_STREQ(texts[count], net_socket_straddr(addresses[count], port));
        EXPECT_NE(ntohl(addresses[count]->sin_addr.s_addr) >> 24, 127u);
        core_mfree(texts[count]);
        core_mfree(addresses[count]);
    }
    EXPECT_LE(count, 10u);
    core_array_free(reinterpret_cast<void**>(texts));
    core_array_free(reinterpret_cast<void**>(addresses));
}

}  // namespace
