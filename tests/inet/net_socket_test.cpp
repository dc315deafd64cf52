#include "inet/net_socket.h"

#include "support/sockets.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace {

using test::watch;

/// A byte buffer that is released at the end.
struct buffer : buf_t {
    explicit buffer(uint32_t room) { core_buf_resize(this, room, CORE_HERE); }
    explicit buffer(std::string_view text) : buffer(static_cast<uint32_t>(text.size())) {
        core_buf_read(this, text.data(), static_cast<uint32_t>(text.size()));
    }
    ~buffer() { core_buf_free(this); }

    std::string text() const { return {reinterpret_cast<const char*>(data), length}; }
};

/// A datagram socket of this host and where it is.
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

TEST(Refusals, AreToldAndClosingLeavesStandardStreamsOpen) {
    const test::tcp_socket tcp;
    const test::udp_socket udp;
    EXPECT_EQ(net_socket_create(2, 1, 17, CORE_HERE), -1);
    EXPECT_EQ(net_tcp_connect(tcp, "no.such.host.invalid", 80), -2);
    EXPECT_EQ(net_tcp_listen(udp, "127.0.0.1", 0), -1);
    EXPECT_FALSE(socket_joinGroup(udp, "127.0.0.1", "127.0.0.1"));
    EXPECT_EQ(net_udp_listen(udp, "127.0.0.1", 4242), -1) << "a second time";
    EXPECT_EQ(socket_get_error_code(), socket_error_invalid_argument) << "also after it was reported";
    for (const int fd : {-1, 0, 1, 2})
        net_socket_close(fd);
    EXPECT_NE(std::fputc('\n', stderr), EOF);
}

TEST(Datagrams, EachSendIsOneEachReceiveTakesOneAndOneThatFindsNobodyDisturbsNone) {
    receiver_t sender, receiver;
    sockaddr_in nobody = receiver_t().address;
    buffer out("first"), in(8);
    EXPECT_EQ(net_udp_send_msg(receiver, "lost", &nobody), 4);
    EXPECT_EQ(net_udp_send(sender, out, &receiver.address), 5);
    EXPECT_EQ(out.length, 0u);
    EXPECT_EQ(net_udp_send_msg(sender, "a second, too long for it", &receiver.address), 25);
    for (const char* expected : {"first", "a second"}) {
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
    const receiver_t sender, receivers[2];
    ASSERT_EQ(net_socket_set_size(receivers[0], 1 << 18, 0), 0);
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
        const auto count = static_cast<int>(sizes.size()), first = std::min(count, 3);
        const sockaddr_in same = receivers[0].address;
        std::vector<datagram_t> batch;
        for (size_t i = 0; i < sizes.size(); ++i)
            batch.push_back({&bytes[i], sizes[i], i % 2 ? &receivers[0].address : &same});
        ASSERT_EQ(net_udp_send_batch(sender, batch.data(), static_cast<uint32_t>(count)), count);
        ASSERT_EQ(net_udp_recv_batch(receivers[0], in.data(), static_cast<uint32_t>(first)), first);
        ASSERT_EQ(std::max(net_udp_recv_batch(receivers[0], &in[3], 97), 0), count - first);
        for (size_t i = 0; i < sizes.size(); ++i) {
            ASSERT_EQ(in[i].bytes.length, std::min(sizes[i], 8000u)) << i;
            EXPECT_TRUE(std::equal(rooms[i].data(), rooms[i].data() + in[i].bytes.length, &bytes[i])) << i;
            EXPECT_EQ(in[i].from.sin_port, sender.address.sin_port);
        }
    }
    // A run ends where the address changes, and the batch at the one that is refused.
    const auto* const to = &receivers[0].address;
    const datagram_t mixed[] = {{&bytes[1], 9, to}, {&bytes[2], 9, &receivers[1].address}, {bytes.data(), 65536, to}};
    EXPECT_EQ(net_udp_send_batch(sender, mixed, 3), 2);
    EXPECT_EQ(net_udp_send_batch(sender, &mixed[2], 1), -1);
    EXPECT_EQ(socket_get_error_code(), socket_error_message_size);
    for (const int place : {0, 1}) {
        EXPECT_EQ(net_udp_recv_batch(receivers[place], in.data(), 100), 1);
        EXPECT_EQ(rooms[0][0], 1 + place);
    }
}

}  // namespace
