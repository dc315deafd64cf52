// Before all others: what windows.h takes for macros stays a name.
#include "inet/sockaddr.h"

namespace {
[[maybe_unused]] constexpr int min = 0, max = 1, near = 2, IN = 3;
}

#include "support/sockets.h"

#include <gtest/gtest.h>

namespace {

int socket_option(int fd, int name) {
    int value = 0;
    int size = sizeof value;
    EXPECT_EQ(getsockopt(static_cast<SOCKET>(fd), SOL_SOCKET, name, reinterpret_cast<char*>(&value), &size), 0);
    return value;
}

TEST(Listener, HasItsPortForItselfAndChildrenDoNotInheritWhatItAccepts) {
    const test::tcp_socket listener, thief, client;
    ASSERT_EQ(net_tcp_listen(listener, "127.0.0.1", 0), 0);
    EXPECT_TRUE(socket_option(listener, SO_EXCLUSIVEADDRUSE) && !socket_option(listener, SO_REUSEADDR));
    sockaddr_in address = net_socket_near(listener), peer = {};
    EXPECT_EQ(bind(static_cast<SOCKET>(thief), reinterpret_cast<sockaddr*>(&address), sizeof address), -1);
    EXPECT_EQ(net_socket_accept(listener, &peer, CORE_HERE), -1);
    EXPECT_EQ(socket_get_error_code(), socket_error_would_block);
    ASSERT_EQ(net_tcp_connect(client, "127.0.0.1", net_addr_port(address)), 0);
    ASSERT_TRUE(test::await(listener, test::watch::read));
    const test::tcp_socket accepted(net_socket_accept(listener, &peer, CORE_HERE));
    DWORD flags = HANDLE_FLAG_INHERIT;
    EXPECT_TRUE(GetHandleInformation(reinterpret_cast<HANDLE>(static_cast<SOCKET>(accepted)), &flags));
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0U);
    EXPECT_EQ(peer.sin_port, net_socket_near(client).sin_port);
    EXPECT_EQ(net_socket_peer(accepted).sin_port, peer.sin_port);
}

}  // namespace
