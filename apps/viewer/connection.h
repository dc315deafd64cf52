// A TCP connection to the server on the network thread.
#pragma once

#include "core/buf.h"
#include "inet/net_thread.h"
#include "inet/sockaddr.h"

#include <cstdint>
#include <string>

namespace viewer {

/// Closed when it is deleted, which its owner does not do from inside a call of it.
class connection {
public:
    class owner {
    public:
        virtual void on_connected(connection& from) = 0;
        /// Takes bytes off the front of `received`, which is full when it took none for long: then it is closed.
        virtual void on_received(connection& from, buf_t& received) = 0;
        virtual void on_writable(connection& from) = 0;
        /// The last call: it could not be made, or it is over.
        virtual void on_closed(connection& from) = 0;

    protected:
        ~owner() = default;
    };

    connection(net::nt_ctx* nt, owner& handler) : nt_(nt), owner_(handler) {}
    ~connection() { close(); }
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    /// Starts to connect. @return false when it cannot be.
    bool open(const std::string& address, uint16_t port);
    bool is_connected() const { return connected_; }
    /// Why it cannot be made, or 0: of the socket errors.
    int error() const { return error_; }
    /// Sends what the system takes and drops it from the front; the rest is announced by on_writable().
    void send(buf_t& waiting);
    sockaddr_in local_address() const;
    sockaddr_in peer() const;

private:
    static void on_socket(void* arg, uint32_t events);
    void receive();
    void close();
    void lose();

    net::nt_ctx* nt_;
    owner& owner_;
    int fd_ = -1;
    net::socket_ctx* socket_ = nullptr;
    buf_t received_;
    bool connected_ = false;
    int error_ = 0;
    bool writing_ = true;
};

}  // namespace viewer
