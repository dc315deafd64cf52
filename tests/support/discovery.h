// An owner of a discovery handle that keeps what it hears.
#pragma once

#include "support/network_thread.h"

#include "inet/net_socket.h"
#include "inet/net_wsdd.h"

namespace test {

struct discovery {
    explicit discovery(std::function<void(discovery&)> in_it = [](discovery&) {}) : then(std::move(in_it)) {}
    ~discovery() { net::net_wsdd_close(handle); }

    int open(const network_thread& on, const char* group, unsigned port) {
        return net::net_wsdd_open(handle, on, group, port, CORE_HERE);
    }

    static void on_message(net::wsdd_t* d, const char* text, sockaddr_in from) {
        auto& self = *static_cast<discovery*>(d->user);
        self.heard += std::string(text) + ' ';
        self.from = from;
        self.then(self);
        callback::run(&self.messages);
    }

    std::string heard;
    sockaddr_in from{};
    std::function<void(discovery&)> then;
    callback messages;
    net::wsdd_t handle{this, on_message, nullptr};
};

}  // namespace test
