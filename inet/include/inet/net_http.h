/// One HTTP connection (RFC 9112), server or client, on a network thread. It frames what is received, hands each message
/// with its body to its owner, splits a multipart body into media frames, or writes a body to a file. The log is named
/// "http".
///
/// A message comes in two calls of on_message with status 0:
///     1. its header is there; nothing of the body has been read. An owner that answers a request here has answered it:
///        the body is dropped, and there is no second call
///     2. it is whole, with its body
/// From the second call on nothing more is parsed until the owner has queued an answer to the request, which may take
/// any time. Requests that come meanwhile wait, and so do their senders. "Expect: 100-continue" is answered between the
/// calls.
///
/// How a body is framed:
///     Content-Length             of all messages
///     Transfer-Encoding chunked  of responses
///     the end of the connection  of a response with "Connection: close" and neither of the two, and of a download
///     none                       of everything else: the second call has no body
///
/// What becomes of it, by its Content-Type ("text/plain" when there is none):
///     "text/", "application/json", net_http_set_type()   handed over whole
///     "multipart/"                                       part by part to on_frame, then a second call without a body
///     anything else                                      dropped, then on_message with status -3
///
/// A part of a multipart body ends behind its Content-Length, else where the next boundary begins. The frame's data is
/// what stands behind the part's header, borrowed for the call; its time is time_now().
///     "image/jpeg"   "JPEG"
///     "video/h264"   "H264"
///     "audio/pcmu"   "PCMU", 8000 samples of 16 bits, one channel
///     anything else  0
///
/// Bounds for one peer:
///     header      4096 bytes up to its blank line, likewise of a part
///     body, part  net_http_set_limit(), 8 MiB; downloads and dropped bodies have none
///     chunk line  256 bytes, trailers 4096
///     input       a header and a body
/// The queue of what is sent has no bound: on_drained tells when to queue more.
///
/// Queueing may be done on any thread. All else, and every callback, belongs to the network thread, but for the calls
/// before a connection is there, and for net_http_close().
#pragma once

#include "avc/frame.h"
#include "core/api.h"
#include "core/buf.h"
#include "inet/net_http_header.h"
#include "inet/net_thread.h"
#include "inet/sockaddr.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace net {

class Tcp;
struct http_ctx;

/// What is reported of a message: `status` of on_message.
enum http_status_t : int {
    http_message = 0,
    http_malformed = -1,     ///< no way to tell where the message ends, or a NUL in its header (400)
    http_header_large = -2,  ///< what was received is dropped (431)
    http_unknown_type = -3,  ///< once the body was dropped (415)
    http_body_large = -4,    ///< (413)
    http_not_written = -5,   ///< the file of a download; it is removed
};

/// Callbacks of an owner; each may be null. Inside each every function below may be called.
struct http_info {
    void* arg = nullptr;
    /// The connection of net_http_connect() is established.
    void (*on_connect)(void* arg, http_ctx* ctx) = nullptr;
    /// A listening connection accepted `fd`. @param keep  1; 0 has the new socket closed
    void (*on_accept)(void* arg, http_ctx* ctx, int fd, const sockaddr_in* peer, int* keep) = nullptr;
    /// The peer closed the connection, reading failed, or net_http_connect() did.
    void (*on_close)(void* arg, http_ctx* ctx) = nullptr;
    /// A message, or an error. @param header, body  valid for the call; null when there is none. After -1 and -4 nothing
    /// more is read
    void (*on_message)(void* arg, http_ctx* ctx, int status, http::header_s* header, const buffer_t* body) = nullptr;
    /// All that was queued has gone to the system.
    void (*on_drained)(void* arg, http_ctx* ctx) = nullptr;
    /// A part of a multipart body. @param frame  valid for the call
    void (*on_frame)(void* arg, http_ctx* ctx, const av::frame_t* frame) = nullptr;
};

/// A connection. Users read it.
struct http_ctx {
    http_info info;
    nt_ctx* nt = nullptr;
    std::atomic<int> fd = -1;  ///< listening, connecting or connected; -1 for none
    struct inside;
    inside* in = nullptr;
};

}  // namespace net

/// A connection without a socket. @return null when memory is out. End it with net_http_close().
INET_API net::http_ctx* net_http_open(net::http_info info, net::nt_ctx* nt, const char* file, int line) noexcept;

/// Listens; connections come to on_accept.
/// @return 0; -5 for a null context, or one that has a socket; -2 for a null address or port 0; else as
/// net::net_tcp_create() and net::net_tcp_listen2()
INET_API int net_http_listen(net::http_ctx* ctx, const char* address, unsigned port) noexcept;

/// Serves an accepted socket, which becomes the context's. One that it had before is closed.
/// @return 0; -5 for a null context; -1 when memory is out: the socket is then the caller's still
INET_API int net_http_accept(net::http_ctx* ctx, int fd) noexcept;

/// The same for a connection that was taken elsewhere, with what it has received. Its handler is replaced.
/// @param from  null on return
INET_API int net_http_take(net::http_ctx* ctx, net::Tcp*& from) noexcept;

/// Connects. on_connect or on_close tells how it ended. @param host  a dotted address, or a name, whose look-up blocks
INET_API void net_http_connect(net::http_ctx* ctx, const char* host, unsigned port) noexcept;

// Queueing. Each returns 1, or 0 when memory is out: nothing was queued then. A header of 8192 bytes or more is sent as
// a 500 without a body, and the connection then ends.

/// Queues a message. A response with a status of 200 or more is the answer to the request at hand; to a HEAD request it
/// goes without the body. @param header  may be null: more bytes of the message before
INET_API int net_http_send_message(net::http_ctx* ctx, const net::http::header_s* header, const void* body,
                                   unsigned size) noexcept;

/// The same without copying the body, behind `text`, which is copied. @param release  called once with `owner` when the body is no longer needed, on
/// any thread, also when 0 is returned
INET_API int net_http_send_share(net::http_ctx* ctx, const net::http::header_s* header, buffer_t text, buffer_t body,
                                 void (*release)(void* owner), void* owner) noexcept;

/// Queues a request without fields: "GET", HTTP/1.1. A multipart body that is being received is given up.
INET_API int net_http_recv(net::http_ctx* ctx, const char* uri) noexcept;

/// The same for "POST". With data, "Content-Length" and "Content-Type: text/plain" are added.
INET_API int net_http_post(net::http_ctx* ctx, const char* uri, const void* data, size_t size) noexcept;

/// As net_http_recv(), and the body of a response with a status of 200 to 299 goes to the file `directory`/`name`, which
/// is replaced. It is complete with the second call of on_message, which has no body. A download that breaks off is
/// removed. The directory is made when it is missing; one that begins with "./" is relative to lib_path().
/// @return as net_http_recv(); -2 for a null argument, and for a name that is empty, "." or "..", or has a separator, a
/// ':' or a control character
INET_API int net_http_download(net::http_ctx* ctx, const char* uri, const char* directory, const char* name) noexcept;

/// Beginnings of further content types that are handed over whole, separated by ','; null for none.
INET_API void net_http_set_type(net::http_ctx* ctx, const char* type) noexcept;

/// Bytes of the longest body, and of the longest part of a multipart body.
INET_API void net_http_set_limit(net::http_ctx* ctx, uint32_t bytes) noexcept;

/// Ends the connection when all that was queued has gone: the peer reads to its end, what it still sends is dropped, and
/// on_close comes when it closes its end too. Who has no patience calls net_http_close().
INET_API void net_http_finish(net::http_ctx* ctx) noexcept;

/// Once a second. @return seconds for which the peer has taken next to nothing of what waits for it
INET_API unsigned net_http_second(net::http_ctx* ctx) noexcept;

/// Bytes that the system has taken of this connection.
INET_API uint64_t net_http_sent(const net::http_ctx* ctx) noexcept;

/// Closes the connection without a word, releases what was queued and the context, and nulls the pointer. After the call
/// no callback runs (called in one of them: not after it returns).
INET_API void net_http_close(net::http_ctx*& ctx) noexcept;
