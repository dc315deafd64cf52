// A module that is named as the one that plays archives, and does nothing: the tests put the pictures.
#include "inet/net_graph.h"

INET_PLUGIN void* plugin_open(const param_t*) {
    static int instance;
    return &instance;
}
INET_PLUGIN int plugin_exec(void*, const param_t*) { return 0; }
INET_PLUGIN void plugin_close(void*) {}
