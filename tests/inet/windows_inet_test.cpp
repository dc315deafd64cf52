#include "core/memory.h"
#include "inet/inet.h"
#include "inet/net_socket.h"

#include <gtest/gtest.h>

// Starting asks for the version twice; were both counted, it would stay up.
TEST(Winsock, IsUpBetweenTheFirstStartAndTheLastStop) {
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(net_socket_create(2, 1, 6, CORE_HERE), -1);
        net_init();
        net_init();
        net_free();
        const int fd = net_socket_create(2, 1, 6, CORE_HERE);
        EXPECT_GE(fd, 3);
        net_socket_close(fd);
        net_free();
    }
}
