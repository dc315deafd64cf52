/// Brings `sockaddr_in` and `in_addr` of this system: the one public header that knows which one that is.
#pragma once

#ifdef _WIN32
#include <winsock2.h>
#else
#include <netinet/in.h>
#endif
