/// Brings `sockaddr_in` and `in_addr` of this system: the one public header that knows which one that is.
/// On Windows it stands before windows.h, whose older Winsock it replaces.
#pragma once

#ifdef _WIN32
#include <winsock2.h>
#else
#include <netinet/in.h>
#endif
