// A library for the module tests to load.
#include "core/api.h"

extern "C" {
INET_API int fixture_twice(int value) { return 2 * value; }
INET_API int fixture_loads = 0;
// Two of the three functions of a graph's module.
INET_API void* plugin_open(const void*) { return nullptr; }
INET_API void plugin_close(void*) {}
}
