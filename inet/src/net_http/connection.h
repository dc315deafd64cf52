// The insides of an HTTP connection: what is sent, and the Tcp between the reader and the peer.
#pragma once

#include "net_http/message.h"
#include "net_http/output.h"

#include "core/log.h"
#include "core/slist.h"
#include "inet/net_socket.h"
#include "inet/net_tcp.h"

#include <atomic>
#include <mutex>
#include <span>

namespace net {

/// A message that waits for its turn: a header and bytes of its own, then a body that is lent.
struct outgoing {
    ~outgoing() { core_buf_free(&own); }

    bool last = false;  ///< the connection ends behind it
    buf_t own;
    http::lent body;
    core::owned_object<http::expectation> expects;  ///< of a request
};
using owned_outgoing = core::owned_object<outgoing>;

/// Every callback of the owner is counted in `calls`. What is closed inside one is released when the last of them has
/// returned; on another thread, who closes waits for that.
struct http_ctx::inside final : ITcp, http::message_owner {
    inside(const http_info& info, nt_ctx* nt, log_ctx* to, slist* list, const char* caller_file,
           int caller_line) noexcept;
    ~inside();
    inside(const inside&) = delete;
    inside& operator=(const inside&) = delete;

    using role_t = http::message_reader::role_t;

    int listen(const char* address, unsigned port) noexcept;
    int accept(int descriptor) noexcept;
    void take(Tcp& from) noexcept;
    void connect(const char* host, unsigned port) noexcept;
    bool set_login(const char* name, const char* secret) noexcept;
    void close() noexcept;
    unsigned second() noexcept;

    /// Null when memory is out.
    core::owned_object<http::download> file_for(const char* directory, const char* name) const noexcept;
    int send(const http::header_s* header, buffer_t text, http::lent body) noexcept;
    int request(const char* method, const char* uri, const void* data, size_t size,
                core::owned_object<http::download> to) noexcept;
    void finish() noexcept;

    http_ctx face;
    const char* file;
    int line;
    log_ctx* log;
    http::message_reader reader;
    std::atomic<Tcp*> tcp = nullptr;

private:
    /// Whether a request waits for its answer. The owner's thread that answers goes from `asked` on.
    enum class answer_t : uint8_t { none, asked, being_queued, queued };

    /// A callback that runs. `of` is its connection.
    class call {
    public:
        call(inside& in, Tcp* of) noexcept;
        ~call();
        call(const call&) = delete;
        call& operator=(const call&) = delete;

    private:
        inside& in_;
        Tcp* before_;
    };

    static void on_accepted(void* arg, int fd, const sockaddr_in* peer) noexcept;
    static void on_failed(void* arg, command_ctx* command) noexcept;

    bool install(Tcp* to, int descriptor) noexcept;
    bool disconnect() noexcept;
    void begin(role_t role, bool keeps_queue) noexcept;
    void leave_old(role_t role) noexcept;
    void open() noexcept;
    owned_outgoing answer_to(const http::header_s& response, http::expectation& refused) noexcept;
    void tell_failed() noexcept;
    void drop_queue() noexcept;
    buffer_t print(const http::header_s& header, std::span<char> room) noexcept;
    owned_outgoing message(buffer_t head, buffer_t text) noexcept;
    int send_request(const http::header_s& header, buffer_t text, http::lent body,
                     core::owned_object<http::expectation> expects) noexcept;
    bool queue(buffer_t head, buffer_t text, http::lent body, bool answers) noexcept;
    bool queue_up(owned_outgoing message, bool answers) noexcept;
    void was_queued(bool answers) noexcept;
    bool busy_here() const noexcept { return !net_nt_need_invoke(face.nt) && busy && busy == tcp; }
    bool add_now(buffer_t head, buffer_t text, http::lent& body) noexcept;

    /// False once the owner has closed the connection, or has opened another one, inside a callback.
    bool is_current(const Tcp* of) const noexcept { return tcp == of; }
    bool has_output() const noexcept { return !out.is_empty() || front || slist_count(waits) > 0; }
    bool gather() noexcept;
    void pump(Tcp* of) noexcept;
    void end_output(Tcp* of) noexcept;
    void note_answer() noexcept;
    bool resume() noexcept;
    void parse(Tcp* of, buf_t& received) noexcept;
    void tidy(Tcp* of, buf_t& received) noexcept;
    void settle(Tcp* of) noexcept;
    bool is_done() const noexcept;
    void lost() noexcept;

    void on_tcp_connected(Tcp* of) noexcept override;
    void on_tcp_received(Tcp* of, buf_t* received) noexcept override;
    void on_tcp_writable(Tcp* of) noexcept override;
    void on_tcp_signalled(Tcp* of) noexcept override;
    int on_tcp_ended(Tcp* of, buf_t* received) noexcept override;
    void on_tcp_closed(Tcp* of, int error) noexcept override;

    void on_message(int status, http::header_s* header, const buffer_t* body, bool complete) noexcept override;
    bool on_refused(const http::header_s& response, http::expectation& refused) noexcept override;
    void on_expect() noexcept override;
    void on_frame(const av::frame_t& frame) noexcept override;
    void on_unknown_type(const char* type) noexcept override;
    void on_header_text(std::string_view text) noexcept override;

    std::mutex connection;  ///< of the next four, which other threads read and change
    bool closed = false;
    tcp_ctx* listener = nullptr;
    command_ctx* failed = nullptr;  ///< tells of a connect that failed at once
    slist* waits;                   ///< to be sent
    std::atomic<answer_t> answer = answer_t::none;
    std::atomic<bool> endless = false;  ///< its body ends with the connection
    core::owned_text user;              ///< of the client, set before it asks
    core::owned_text password;
    char peer_host[net_addr_size] = "";  ///< dotted
    uint16_t peer_port = 0;
    std::atomic<uint32_t> calls = 0;

    // The loop's own.
    bool closed_inside = false;
    bool quiet = false;         ///< a connection is made for a request that is sent again
    Tcp* busy = nullptr;        ///< whose callback runs
    http::output out;           ///< is being sent
    owned_outgoing front;       ///< of what waits: there is no place for it yet
    bool ends = false;          ///< the connection ends behind what is being sent
    bool went = false;          ///< something was sent since on_drained
    bool was_answered = false;  ///< the request at hand
    bool look = false;          ///< the received bytes are to be looked at again
    bool finishing = false;     ///< the sending half has ended
    bool ended = false;         ///< the peer's sending half has
    uint64_t sent_then = 0;     ///< when second() was called
    unsigned unsent = 0;        ///< seconds
    uint32_t taken = 0;         ///< bytes at the front of the received ones that were parsed
    uint32_t waiting = 0;       ///< behind them
    uint32_t room_now = 0;      ///< of the receive buffer
};

}  // namespace net
