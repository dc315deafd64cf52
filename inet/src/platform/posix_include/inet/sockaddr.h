/// Brings `sockaddr_in` and `in_addr`: the one public header of which each system has its own.
#pragma once

#include <netinet/in.h>
