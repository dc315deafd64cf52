// What the Winsock sources share.
#pragma once

#include <climits>
#include <winsock2.h>

namespace net::platform {

/// A socket is an `int` in the interface, -1 for none: a handle of the system, which are small even numbers.
inline SOCKET handle_of(int fd) noexcept { return fd < 0 ? INVALID_SOCKET : static_cast<SOCKET>(fd); }

/// The same back; what does not fit is closed, as if there were no room for it.
inline int descriptor_of(SOCKET handle) noexcept {
    if (handle == INVALID_SOCKET) return -1;
    if (handle <= INT_MAX) return static_cast<int>(handle);
    closesocket(handle);
    WSASetLastError(WSAEMFILE);
    return -1;
}

inline const sockaddr* generic(const sockaddr_in* address) noexcept {
    return reinterpret_cast<const sockaddr*>(address);
}
inline sockaddr* generic(sockaddr_in* address) noexcept { return reinterpret_cast<sockaddr*>(address); }

}  // namespace net::platform
