// Reads datagrams and drops those of the host itself.
#pragma once

#include "core/buf.h"
#include "inet/sockaddr.h"

#include <cstdint>

namespace net {

class wsdd_receiver {
public:
    wsdd_receiver() noexcept = default;
    ~wsdd_receiver();
    wsdd_receiver(const wsdd_receiver&) = delete;
    wsdd_receiver& operator=(const wsdd_receiver&) = delete;

    /// Notes the host's addresses. @return false when memory is out
    bool open(const char* file, int line) noexcept;

    /// Reads one datagram. @return its text, valid until the next call; null when there is none, when it is empty, and
    /// when it comes from the host itself
    const char* receive(int fd, sockaddr_in& from) noexcept;

private:
    bool is_own(const sockaddr_in& address) const noexcept;

    sockaddr_in** own_ = nullptr;  ///< null-terminated
    buf_t room_;
};

}  // namespace net
