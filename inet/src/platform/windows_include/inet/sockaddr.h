/// Brings `sockaddr_in` and `in_addr`: the one public header of which each system has its own. It stands before
/// windows.h, whose older Winsock it replaces. It leaves the words that windows.h takes for macros as it found them;
/// what needs them (`min`, `IN`) includes winsock2.h first.
#pragma once

#pragma push_macro("min")
#pragma push_macro("max")
#pragma push_macro("near")
#pragma push_macro("far")
#pragma push_macro("IN")
#pragma push_macro("OUT")

#include <winsock2.h>

// Empty, as before, without a word that is popped below.
#undef FAR
#define FAR
#undef NEAR
#define NEAR

#pragma pop_macro("OUT")
#pragma pop_macro("IN")
#pragma pop_macro("far")
#pragma pop_macro("near")
#pragma pop_macro("max")
#pragma pop_macro("min")
