// The door of a port that several services share: reads the first bytes of a connection and finds whose it is.
#pragma once

#include "core/owned.h"
#include "media/service.h"

namespace media {

/// The services of one port, in the order in which they were added.
struct port_services {
    uint16_t port = 0;
    core::vector<service*> services;
    core::vector<service*> visitors;  ///< of other ports, asked first
    net::tcp_ctx* listener = nullptr;
    void* owner = nullptr;  ///< the station
};

/// Gives an accepted connection to its service on this thread, or to the door until it is known. It is closed when
/// there is no place for it.
void receive_at(thread& on, const port_services& port, int fd, const sockaddr_in& peer) noexcept;

}  // namespace media
