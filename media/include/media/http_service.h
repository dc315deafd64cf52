/// HTTP as a service of a station: pages, documents and answers of the program's own under exact paths, and of every
/// stream with JPEG pictures
///     /NAME.mjpeg    multipart/x-mixed-replace, a picture a part; a slow browser is sent the newest one
///     /NAME.jpg      the latest picture; 404 for a stream without JPEG
///
///     media::http_service_t* web = media::http_service({.port = 8080});
///     web->serve("/", page);            // a document
///     web->serve("/state", on_state, this);
///     station.add(web);
///
/// For all of them the service
///     - answers HEAD, and conditional and range requests of documents,
///     - answers 404 for another path, and 405 for another method of a known path,
///     - answers 400 for a request that cannot be read,
///     - answers 413, 415 and 431, and ends the connection.
/// With a user each request needs a Digest answer (RFC 7616, MD5). Open paths need none.
///
/// A path is compared as it is decoded. One with an encoded separator or NUL, bytes that are no UTF-8, or a '%' that
/// begins no code is none.
///
/// Bounds for one peer:
///     request     a header of 4096 bytes, a body of http_settings_t::body
///     silence     http_settings_t::timeout before a header is whole, and before its body is
///     stall       http_settings_t::stall
///     unsent      one answer, or one picture, which is shared by all who are sent it
///     held        256 KiB beside what is unsent, with a body of the usual length
#pragma once

#include "core/buf.h"
#include "inet/net_http_header.h"
#include "media/api.h"
#include "media/service.h"
#include "media/station.h"

#include <cstdint>

namespace media {

/// The texts are copied.
struct http_settings_t {
    uint16_t port = 8080;        ///< 0 lets the system choose
    bool needs_port = true;      ///< false: when the port is taken the station starts without it, and port() is 0
    const char* user = nullptr;  ///< with a password
    const char* password = nullptr;
    uint32_t body = 64 * 1024;  ///< bytes of the longest request body
    unsigned timeout = 30;      ///< seconds of silence after which a connection without a whole request is closed
    unsigned stall = 10;        ///< seconds after which a peer that takes next to nothing is dropped
};

/// Bytes that do not change while the service stands. They are not copied.
struct document_t {
    buffer_t bytes;
    const char* type;                         ///< media type
    const char* etag;                         ///< with its quotes: changes with the bytes
    const char* cache = "no-cache, private";  ///< Cache-Control: kept, and asked for again by its tag
};

/// How an answer goes out. The texts are used during the call alone.
struct http_answer_t {
    unsigned status = 200;
    const char* type = "text/plain; charset=utf-8";
    const char* cache = "no-store";
    const char* field = nullptr;  ///< name of one more field; null for none
    const char* value = nullptr;
};

/// A request, on the network thread of its connection. Valid for the call that shows it.
class MEDIA_API http_exchange {
public:
    virtual const char* method() const noexcept = 0;
    virtual const char* path() const noexcept = 0;   ///< decoded
    virtual const char* query() const noexcept = 0;  ///< behind the '?', as it came; "" for none
    virtual const net::http::header_s& header() const noexcept = 0;
    virtual buffer_t body() const noexcept = 0;
    /// The thread of the connection, and the address at which the peer reached the station, dotted.
    virtual thread& on() const noexcept = 0;
    virtual const char* host() const noexcept = 0;
    /// The peer's own address, dotted: that of the last proxy or router before the station.
    virtual const char* peer() const noexcept = 0;

    /// Has the handler called again ten times a second until it answers: for what is being made on another thread.
    /// header() has no fields then. After 10 s the service answers 503 with Retry-After.
    virtual void later() noexcept = 0;
    /// True in those calls.
    virtual bool was_put_off() const noexcept = 0;

    /// Answers. The bytes are copied. What is neither answered nor put off when the call returns is answered with 500.
    virtual void answer(const http_answer_t& how, buffer_t bytes) noexcept = 0;
    /// The same with bytes that are lent until `release(owner)` is called, once, on any thread.
    virtual void answer_share(const http_answer_t& how, buffer_t bytes, void (*release)(void* owner),
                              void* owner) noexcept = 0;
    /// Answers with a document: If-Match, If-None-Match, Range and If-Range are honoured (RFC 9110, 13 and 14). It has
    /// no date: conditions on one are not looked at.
    virtual void answer_document(const document_t& what) noexcept = 0;

protected:
    ~http_exchange() = default;
};

typedef void (*http_handler_t)(void* arg, http_exchange& asked);

/// Made by http_service().
class MEDIA_API http_service_t : public service {
public:
    /// Has `handler(arg, exchange)` called for a path, which is copied. Before station::start().
    /// @param path     one that ends with "/*" leads to all below it, but what has a path of its own
    /// @param methods  separated by ", "; HEAD goes to the handler as GET does
    /// @param open     needs no user
    /// @return 1; 0 for a path that is taken or has no '/' in front, or when memory is out
    virtual int serve(const char* path, http_handler_t handler, void* arg, const char* methods = "GET, HEAD",
                      bool open = false) noexcept = 0;
    /// Serves a document, whose bytes and texts stay valid as long as the service.
    virtual int serve(const char* path, const document_t& what) noexcept = 0;
    /// This service's share of station::totals(). It is counted at the same moments. Any thread.
    virtual station::totals_t totals() const noexcept = 0;
};

/// @return a service for station::add(); null when memory is out
MEDIA_API http_service_t* http_service(const http_settings_t& settings = {}) noexcept;

}  // namespace media
