/// One HTTP connection (RFC 9112), server or client, on a network thread. It takes received bytes apart into messages.
/// The body of a message is handed to the owner, split into media frames (multipart), or written to a file. The log is
/// named "http".
///
/// A message comes in two calls of on_message with status 0:
///     1. The header is there; nothing of the body has been read. When the owner answers a request here, the body is
///        dropped, and there is no second call
///     2. The message is whole, with its body
/// After the second call nothing more is parsed until the owner has queued an answer to the request. It may take any
/// time. Later requests wait. Answers to requests that came together go out together. "Expect: 100-continue" is
/// answered between the two calls.
///
/// How a body is framed:
///     Content-Length             of all messages
///     Transfer-Encoding chunked  of all messages but those of HTTP/1.0
///     the end of the connection  of a response with neither of the two, when it has "Connection: close", is of
///                                HTTP/1.0 without "Connection: keep-alive", is multipart, split, or written to a file
///     none                       of everything else, and of responses to HEAD, 204 and 304: the second call has no
///                                body
///
/// What becomes of a body, by its Content-Type ("text/plain" when there is none):
///     "text/", "application/json", net_http_set_type()   handed over whole
///     "multipart/", net_http_split()                     part by part to on_frame, then a second call without a body
///     anything else                                      dropped, then on_message with status -3
///     of any type, by net_http_save()                    written to a file, then a second call without a body
///
/// A part of a multipart body ends after its Content-Length, else where the next boundary begins. The Content-Length of
/// a multipart response is not looked at: cameras state one for streams without an end. The frame's data is the body of
/// the part, valid until the callback returns. Its time is time_now(). Its format follows from the part's Content-Type:
///     "image/jpeg"   "JPEG"
///     "video/h264"   "H264"
///     "audio/pcmu"   "PCMU", 8000 samples of 16 bits, one channel
///     anything else  0
///
/// Lines of a header end with CR LF; in the client role those of a whole header may end with LF alone.
///
/// A message without a body has its second call with status 0, whatever its type. A response that is sent with neither
/// length nor coding ends with the connection: no request behind it is read, and a peer that has ended its sending half
/// is still sent all of it. net_http_finish() ends it.
///
/// What is refused with -1:
///     in both roles  lengths that differ; a transfer coding other than "chunked"; chunks that are none; a multipart
///                    body without a boundary; a NUL in the header; more than 8 blank lines before it
///     of requests    a response; a request line without three parts, or of another protocol; a length beside chunks;
///                    a bare CR or LF, a continuation line, or a name that is no token in the header
///     of responses   a request
///
/// Bounds for one peer:
///     header      4096 bytes up to its blank line, likewise of a part
///     body, part  net_http_set_limit(), 8 MiB; downloads and dropped bodies have none
///     chunk line  256 bytes, trailers 4096
///     input       a header and a body
///     answers     16 KiB and one; the next request is read when there is place for its answer
/// The output queue has no bound. on_drained tells when to queue more.
///
/// Any thread may queue, call net_http_close(), and call what comes before there is a connection. All other calls, and
/// every callback, belong to the network thread. A call from another thread that closes a connection waits while a
/// callback of it runs. Do not hold a lock there that the callback takes.
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
    http_malformed = -1,     ///< see above (400)
    http_header_large = -2,  ///< (431)
    http_unknown_type = -3,  ///< the body was dropped for its Content-Type (415)
    http_body_large = -4,    ///< the body is above net_http_set_limit() (413)
    http_not_written = -5,   ///< the file of a download could not be opened or written; it is removed
};

/// Callbacks of an owner. Each may be null. Every function below may be called inside a callback.
struct http_info {
    void* arg = nullptr;
    /// The connection of net_http_connect() is established.
    void (*on_connect)(void* arg, http_ctx* ctx) = nullptr;
    /// A listening connection accepted `fd`. @param keep  1; set it to 0 to have the new socket closed
    void (*on_accept)(void* arg, http_ctx* ctx, int fd, const sockaddr_in* peer, int* keep) = nullptr;
    /// The peer closed the connection, reading failed, or net_http_connect() did.
    void (*on_close)(void* arg, http_ctx* ctx) = nullptr;
    /// A message, or an error. After an error other than -3 nothing more is read, and what comes is dropped.
    /// @param header, body  valid until the callback returns, not to be changed; null when there is none
    void (*on_message)(void* arg, http_ctx* ctx, int status, http::header_s* header, const buffer_t* body) = nullptr;
    /// All that was queued has gone to the system.
    void (*on_drained)(void* arg, http_ctx* ctx) = nullptr;
    /// A part of a multipart body. @param frame  valid until the callback returns
    void (*on_frame)(void* arg, http_ctx* ctx, const av::frame_t* frame) = nullptr;
};

/// A connection. Users read it.
struct http_ctx {
    http_info info = {};
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

/// Serves an accepted socket, which then belongs to the context. The context's earlier socket is closed, and what was
/// queued is dropped.
/// @return 0; -5 for a null context; -1 when memory is out: the socket then still belongs to the caller
INET_API int net_http_accept(net::http_ctx* ctx, int fd) noexcept;

/// As net_http_accept(), for a connection of the same network thread that was accepted elsewhere, with the bytes that
/// it has received. Its handler is replaced. What it has received is parsed after this call. On the network thread.
/// @param from  null on return
/// @return 0; -5 for a null context, -2 for a null connection
INET_API int net_http_take(net::http_ctx* ctx, net::Tcp*& from) noexcept;

/// Connects. on_connect or on_close tells how it ended. What was queued while there was no connection is sent then.
/// @param host  a dotted address, or a name, whose look-up blocks
INET_API void net_http_connect(net::http_ctx* ctx, const char* host, unsigned port) noexcept;

/// Has a request that is refused with 401 sent once more, over a new connection to the same server, with an answer to
/// the challenge (http_header_authorize()). The owner is told of neither the refusal nor the new connection. A refusal
/// is a message like any other where:
///   - it has no challenge that can be answered,
///   - the request was sent once more already,
///   - another request was queued meanwhile, or
///   - the request has a body of net_http_send_share(), or one that was not queued with its header.
/// A copy of each request is held until its response has come. To be called before the first request.
/// @param user  null for none, which is the state at first
/// @return 1; 0 for a null context, and when memory is out
INET_API int net_http_set_login(net::http_ctx* ctx, const char* user, const char* password) noexcept;

// Queueing. Each returns 1, or 0 when nothing was queued:
//   - memory is out,
//   - the bytes with their header pass 4 GiB,
//   - a request's header has 8192 bytes or more, or
//   - a response answers no request, or one that has its answer.
// A response with a header of 8192 bytes or more is sent as a 500 without a body, and the connection then ends. When a
// connection is lost, what was queued for it is dropped before on_close.

/// Queues a message. A response with a status of 200 or more answers the request at hand. To a HEAD request it is sent
/// without the body.
/// @param header  null to queue more bytes of the message before
INET_API int net_http_send_message(net::http_ctx* ctx, const net::http::header_s* header, const void* body,
                                   unsigned size) noexcept;

/// As net_http_send_message(), with `text` and then `body` as its bytes. `text` is copied, `body` is not.
/// @param body     valid until `release` is called
/// @param release  called once with `owner`, on any thread, also when 0 is returned
INET_API int net_http_send_share(net::http_ctx* ctx, const net::http::header_s* header, buffer_t text, buffer_t body,
                                 void (*release)(void* owner), void* owner) noexcept;

/// Queues a request without fields: "GET", HTTP/1.1. No more is told of a multipart body that is being received.
INET_API int net_http_recv(net::http_ctx* ctx, const char* uri) noexcept;

/// As net_http_recv(), for "POST". With data, "Content-Length" and "Content-Type: text/plain" are added.
INET_API int net_http_post(net::http_ctx* ctx, const char* uri, const void* data, size_t size) noexcept;

/// As net_http_recv(). The body of a response with a status of 200 to 299 is written to the file `directory`/`name`,
/// which is replaced. The file is complete at the second call of on_message, which has no body. The file of a broken
/// download is removed. A missing directory is made. A directory that begins with "./" is relative to lib_path().
/// @return as net_http_recv(); -2 for:
///   - a null argument,
///   - a name that is empty, or ends with a dot or a blank,
///   - a name with a separator, a control character, or one of :*?"<>|, or
///   - a name that is a device on Windows, such as "nul.txt" or "COM1"
INET_API int net_http_download(net::http_ctx* ctx, const char* uri, const char* directory, const char* name) noexcept;

/// Has the body of a response written to a file as net_http_download() has it, on the network thread. To be called
/// inside the first call of on_message for that response.
/// @return 1; 0 elsewhere, and when memory is out; -2 as net_http_download()
INET_API int net_http_save(net::http_ctx* ctx, const char* directory, const char* name) noexcept;

/// Has the body of a response of another type split into parts when it begins with a delimiter and the header of a
/// part, as that of servers that do not know their own type. Else it goes where it would have gone. To be called inside
/// the first call of on_message for that response. @return 1; 0 elsewhere, and for a response of type "multipart/"
INET_API int net_http_split(net::http_ctx* ctx) noexcept;

/// Bytes of the latest response that were written to a file. On the network thread.
INET_API uint64_t net_http_saved(const net::http_ctx* ctx) noexcept;

/// Sets the beginnings of further content types whose bodies are handed over whole, separated by ','. Null is none.
INET_API void net_http_set_type(net::http_ctx* ctx, const char* type) noexcept;

/// Sets the bytes of the longest body, and of the longest part of a multipart body: at most 1 GiB.
INET_API void net_http_set_limit(net::http_ctx* ctx, uint32_t bytes) noexcept;

/// Ends the sending half once all queued bytes have been sent. What the peer sends afterwards is dropped. When the peer
/// closes its end, too, on_close comes. net_http_close() ends the connection at once.
INET_API void net_http_finish(net::http_ctx* ctx) noexcept;

/// To be called once a second. @return seconds for which the peer has taken next to nothing of the waiting bytes; when
/// it has ended its sending half, also seconds for which nothing was sent of a response without a length
INET_API unsigned net_http_second(net::http_ctx* ctx) noexcept;

/// Has net_http_close() end the connection with a reset: for a peer that does not read (net::Tcp::give_up()).
INET_API void net_http_give_up(net::http_ctx* ctx) noexcept;

/// Bytes of this connection that were given to the system; 0 without a connection.
INET_API uint64_t net_http_sent(const net::http_ctx* ctx) noexcept;

/// Closes the connection at once, releases the queue, also what is lent, and the context, and nulls the pointer. After
/// the call no callback runs. Called inside a callback, none runs after that one has returned, and what it was given
/// stays valid so long.
INET_API void net_http_close(net::http_ctx*& ctx) noexcept;
