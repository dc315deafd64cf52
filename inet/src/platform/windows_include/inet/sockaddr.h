/// Brings `sockaddr_in` and `in_addr`: the one public header of which each system has its own. It stands before
/// windows.h, whose older Winsock it replaces.
#pragma once

#include <winsock2.h>
