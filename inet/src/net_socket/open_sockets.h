// The open descriptors of the process, and how new ones come to be among them.
#pragma once

#include "platform/socket_api.h"

#include <utility>

namespace net {

inline constexpr int family_ipv4 = 2;
inline constexpr int type_stream = 1;
inline constexpr int type_datagram = 2;
inline constexpr int protocol_tcp = 6;
inline constexpr int protocol_udp = 17;

/// Owns a descriptor until it is given away.
class descriptor {
public:
    explicit descriptor(int fd = -1) noexcept : fd_(fd) {}
    descriptor(descriptor&& other) noexcept : fd_(other.release()) {}
    ~descriptor() {
        if (fd_ >= 0) platform::close_socket(fd_);
    }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;
    descriptor& operator=(descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }

    int get() const noexcept { return fd_; }
    int release() noexcept { return std::exchange(fd_, -1); }
    explicit operator bool() const noexcept { return fd_ >= 0; }

private:
    int fd_;
};

/// Registers one or two sockets in the name of a caller. @return false when memory is out: then neither is.
bool enter_socket(int fd, const char* file, int line) noexcept;
bool enter_sockets(int first, int second, const char* file, int line) noexcept;

/// @return false when it is not registered
bool leave_socket(int fd) noexcept;

/// Takes any one out. @return its descriptor, -1 when none is left
int leave_any_socket() noexcept;

}  // namespace net
