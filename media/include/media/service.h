/// How a protocol becomes a service of a station. RTSP is one (media/rtsp_service.h). Another protocol needs no change
/// to station, thread or stream.
///
/// Three classes make a service:
///     service    one for the station: its settings, its port, the connections that it claims
///     part       one on each network thread: what its clients there share (ports for UDP, packets cut once)
///     client     one for each connection or call: belongs to one thread and is deleted there
///
/// Life:
///     1. station::add() takes the service over. station::start() calls make_part() on each thread.
///     2. The station accepts a connection to service::port() and gives it to the thread with the fewest clients. Where
///        several services share a port, the station reads the first bytes and asks their claims(), in the order in
///        which they were added, until one answers yes.
///     3. take() makes the client, on that thread. The thread calls serve() when the client is new, when it is due and
///        after thread::wake(), and second() once a second. It deletes a client that is finished(), as soon as no
///        callback runs.
///     4. station::stop() deletes clients, then parts, on their threads. Then it ends the threads, then the services.
///
/// Sending a stream, in two ways:
///     - A client that has not reached the present reads with a cursor of its own.
///     - A client at the present follows. The part registers one reader for each stream with thread::follow(). The
///       reader is called once for each frame, makes what the protocol sends once for all clients, and sends it to all
///       following clients in one loop.
/// A client may change from one way to the other when cursor::position() equals thread::position().
///
/// Bounds for one thread:
///     clients        500, less the places() that clients take beyond one, the places of watchers that run on the
///                    thread (media/watcher.h), and four for each call over SIP (media/sip.h): the thread watches 512
///                    descriptors. One client more replaces the oldest idle() client
///     first bytes    4096 bytes and ten seconds for each connection that is not claimed yet
///
/// All virtual calls come from the thread of the client or part, except port(), claims() and addresses(), which come
/// from any thread. None of them may throw.
#pragma once

#include "core/buf.h"
#include "inet/net_tcp.h"
#include "inet/net_thread.h"
#include "media/api.h"
#include "media/stream.h"

#include <atomic>
#include <cstdint>

namespace media {

class station;
class thread;

/// What is counted on a thread, for the status line. Written by the thread, read by any.
struct counters_t {
    std::atomic<uint32_t> watching = 0;  ///< clients that are sent a stream; counted once a second
    std::atomic<uint64_t> bytes = 0;     ///< sent
    std::atomic<uint64_t> frames = 0;    ///< pictures sent, counted for each client
    std::atomic<uint64_t> dropped = 0;   ///< pictures left out for clients that do not keep up
};

/// A connection, or a call. Made with core::create(), released by delete, as are parts and services.
class MEDIA_API client {
public:
    virtual ~client();
    static void operator delete(void* block) noexcept;

    /// The client is new, due or woken: it sends what there is to send. @param now  core_timer()
    /// @return the core_timer() of its next call; 0 to be called only after thread::wake()
    virtual uint64_t serve(uint64_t now) noexcept = 0;
    /// Called once a second: ends the client when its peer is silent or stalls.
    virtual void second() noexcept = 0;
    /// finish() ends the client. finished() is true once it has ended: it is deleted as soon as no callback runs.
    virtual void finish() noexcept = 0;
    virtual bool finished() const noexcept = 0;
    /// True when it is sent nothing, and may be replaced by another client.
    virtual bool idle() const noexcept = 0;
    /// True when it is sent a stream.
    virtual bool watching() const noexcept = 0;
    /// Number of descriptors that it watches, at most. Asked once.
    virtual uint32_t places() const noexcept { return 1; }

protected:
    client() = default;
    client(const client&) = delete;
    client& operator=(const client&) = delete;
};

/// What a service has on one thread.
class MEDIA_API part {
public:
    virtual ~part();
    static void operator delete(void* block) noexcept;
    /// Once a second.
    virtual void second() noexcept {}
    /// Whether the peers have heard the end of their clients. The station's stop() waits for it, up to three seconds.
    virtual bool settled() const noexcept { return true; }

protected:
    part() = default;
    part(const part&) = delete;
    part& operator=(const part&) = delete;
};

/// Follows a stream on a thread, for all clients of a part.
class MEDIA_API reader {
public:
    /// A frame, or what a cursor tells beside frames. @param entry  valid until the call returns
    virtual void on_entry(read_t what, const entry_t& entry) noexcept = 0;

protected:
    ~reader() = default;
};

/// Whether a connection is a service's.
enum class claim_t : uint8_t { no, yes, more };

class MEDIA_API service {
public:
    virtual ~service();
    static void operator delete(void* block) noexcept;

    /// The port that it listens on; 0 for none. Before station::start() 0 may also stand for any port.
    virtual uint16_t port() const noexcept = 0;
    /// Tells the service the port that the system chose, or 0 when there is none for it.
    virtual void set_port(uint16_t port) noexcept = 0;
    virtual bool listens() const noexcept { return true; }
    /// False for one that the station starts without when its port cannot be had. It is then told port 0.
    virtual bool needs_port() const noexcept { return true; }
    /// Whether its claims() are also asked on the ports of other services, before theirs. Its port() is not changed.
    virtual bool visits() const noexcept { return false; }
    /// Tells from the first bytes whether a connection is the service's. `more` asks for more bytes, up to 4096. It is
    /// not called for a service that is alone on its port.
    virtual claim_t claims(buffer_t first) const noexcept = 0;
    /// Called before the threads start. @return 1, or 0 with a reason in `error`
    virtual int open(station& of, failure_t* error) noexcept;
    /// @return null when memory is out, with a reason in `error`
    virtual part* make_part(thread& on, failure_t* error) noexcept = 0;
    /// Makes a client for a connection. The client sets the handler of the connection, then calls Tcp::show_received().
    /// @param from  null on return when the client has taken it
    /// @return null when no client can be made
    virtual client* take(thread& on, net::Tcp*& from) noexcept = 0;
    /// Calls `each` with the address of a stream for every way in which this service offers it.
    /// @param host  name or address by which the client reaches the station
    virtual void addresses(const stream& of, const char* host, void (*each)(void* arg, const char* address),
                           void* arg) const noexcept = 0;

protected:
    service() = default;
    service(const service&) = delete;
    service& operator=(const service&) = delete;
};

/// A network thread of a station, as its clients and parts see it.
class MEDIA_API thread final {
public:
    net::nt_ctx* nt() const noexcept;
    media::station& station() const noexcept;
    /// 0 for the first; the others count up.
    unsigned index() const noexcept;
    counters_t& count() noexcept;
    /// What the service made here; null before make_part() and after its end.
    media::part* part(const service& of) const noexcept;

    /// Takes a client over and serves it. @return 1; 0 when there is no place for it, or when memory is out: it then
    /// still belongs to the caller
    int add(client* taken) noexcept;
    /// Has serve() called before the next wait.
    void wake(client& which) noexcept;
    /// Has finished clients deleted as soon as no callback runs.
    void sweep() noexcept;

    /// Has `by` called for each frame of the stream from now on, before the next wait. The stream is held until
    /// unfollow().
    /// @return 1, or 0 when memory is out
    int follow(stream& which, reader& by) noexcept;
    void unfollow(stream& which, reader& by) noexcept;
    /// Number of the frame that readers of this stream are called for next; 0 when nobody follows it here.
    uint64_t position(const stream& which) const noexcept;

    // Any thread

    /// Has `fn(arg)` called on this thread, in the order of the calls. Calls left when the thread stops are made by the
    /// thread that stops it: nt() is then null. @return 1, or 0 when memory is out: `fn` is then not called
    int call(void (*fn)(thread& on, void* arg), void* arg) noexcept;
    /// Number of clients here and on their way here.
    uint32_t load() const noexcept;

    struct inside;
    inside& in() const noexcept { return *inside_; }

    thread(const thread&) = delete;
    thread& operator=(const thread&) = delete;

private:
    friend class media::station;
    explicit thread(inside* made) noexcept : inside_(made) {}
    ~thread() = default;

    inside* inside_;
};

}  // namespace media
