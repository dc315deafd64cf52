/// Head of an HTTP (RFC 9112), RTSP (RFC 2326) or SIP (RFC 3261) message: start line and fields, read from received
/// bytes or built to be sent. The start line tells the protocol.
///
/// Reading never fails on what a peer sends: missing parts stay null or 0, malformed lines are left out. A block is
/// text and ends at its first NUL. A record holds at most http_max_fields fields, and 64 bytes for each beside its
/// text. Field values are printed unchanged: callers keep CR and LF out of them. Another reader may read two kinds of
/// heads differently, so callers that act on a message refuse them: a head with a NUL, and one with Content-Length
/// fields that differ.
///
/// A record belongs to one thread at a time. Calls that build return 1, or 0 when memory is out; the record is then as
/// before.
#pragma once

#include "core/api.h"
#include "core/buf.h"
#include "core/value.h"

#include <cstdint>

namespace net::http {

struct header_s {
    char* method = nullptr;          ///< request method, owned; null for a response
    char* uri = nullptr;             ///< request target as written, owned; null for a response
    const char* protocol = nullptr;  ///< "HTTP/1.0", "HTTP/1.1", "RTSP/1.0" or "SIP/2.0", not owned; null when unknown
    uint32_t status = 0;             ///< status code of a response; 0 marks a request
    const char* reason = nullptr;    ///< reason phrase of a response to send, not owned; never set by the parser
    value_t** fields = nullptr;      ///< (name, value) in order, owned; names keep their case, repeated ones are kept
};

}  // namespace net::http

/// Fields that the parser keeps of one header. Further fields are left out. A header that http_header_find() accepts
/// has no more.
inline constexpr uint32_t http_max_fields = 1366;

// Reading

/// @return the length of the header block at the start of `data`, blank line included; 0 when its end has not come yet;
/// -1 when it is too large: no CR LF CR LF starts at one of the first 4096 positions.
INET_API int http_header_find(buffer_t data) noexcept;
INET_API int http_find_header(const char* data, unsigned size) noexcept;

/// Reads a block. CR and LF before the start line are skipped. A last line without CR LF is ignored. Continuation lines
/// are not joined. "RTSP/1.0 200 OK", and the same for HTTP and SIP, is a response: only `status` is set, to 0 when the
/// number does not fit 32 bits. Anything else is a request: the method up to the first space, the target up to the
/// next. The rest is the protocol when it is exactly one of the four texts. A line with fewer spaces leaves the missing
/// parts null. Field names are unchanged, values lose their leading spaces.
/// @return a new record for http_header_free(); null only when memory is out.
INET_API net::http::header_s* http_header_parse(const char* data, unsigned size, const char* file, int line) noexcept;

/// As http_header_parse(), into a caller's record, which is cleared first. SIP is not recognized, neither in requests
/// nor in responses. @return 1, or 0 with a cleared record when memory is out.
INET_API int http_parse_header(net::http::header_s* header, const char* data, unsigned size) noexcept;

/// Releases what a caller's record owns and zeroes it; null is ignored.
INET_API void http_clear_header(net::http::header_s* header) noexcept;

/// Releases a record of http_header_parse(), _request(), _respond() or _error() and nulls the pointer.
INET_API void http_header_free(net::http::header_s*& header) noexcept;

/// Value of the first field with exactly that name, or null. Where case does not matter: value_geti(header->fields, ..)
INET_API const char* http_header_get_value(const net::http::header_s* header, const char* name) noexcept;

// Building. `protocol` and `reason` are kept as pointers: static texts.

/// A new request or response for http_header_free(); null when memory is out. A null `protocol` of a response is
/// "HTTP/1.1".
INET_API net::http::header_s* http_header_request(const char* method, const char* uri, const char* protocol) noexcept;
INET_API net::http::header_s* http_header_respond(const char* protocol, unsigned status, const char* reason) noexcept;

/// The same in an existing record; its fields stay.
INET_API int http_put_request(net::http::header_s* header, const char* method, const char* uri,
                              const char* protocol) noexcept;
INET_API int http_put_response(net::http::header_s* header, const char* protocol, unsigned status,
                               const char* reason) noexcept;

/// A response with the reason of http_error(), "Content-Length" and, unless `content_type` is null, "Content-Type".
INET_API net::http::header_s* http_header_error(const char* protocol, unsigned status, unsigned content_length,
                                                const char* content_type) noexcept;

/// Appends a field; a null value is an empty one.
INET_API int http_header_put(net::http::header_s* header, const char* name, const char* value) noexcept;
INET_API int http_header_put_uint32(net::http::header_s* header, const char* name, unsigned value) noexcept;
INET_PRINTF(3, 4)
INET_API int http_header_put_format(net::http::header_s* header, const char* name, const char* format, ...) noexcept;

/// Replaces the first field with exactly that name, or appends one.
INET_PRINTF(3, 4)
INET_API int http_header_set(net::http::header_s* header, const char* name, const char* format, ...) noexcept;

/// Appends the first field of `from` whose name equals `name` without regard to case, under the name given here.
/// @return 1 also when there is none
INET_API int http_header_copy(net::http::header_s* to, const char* name, value_t* const* from) noexcept;

// Printing

/// Prints the head, blank line included, cut to `size` - 1 bytes and terminated. The target of a request line is
/// printed with exactly one '/' in front, whether `uri` starts with one or not. Absolute targets cannot be printed.
/// Null parts print as nothing.
/// @return the bytes written, the terminator not counted
INET_API int http_header_sprintf(const net::http::header_s* header, char* out, int size) noexcept;

/// The same as a new text for core_mfree(); null when memory is out.
/// @param target  printed in the request line when the record has no uri, without a '/' in front; null is nothing
INET_API char* http_header_str(const net::http::header_s* header, const char* target, const char* file,
                               int line) noexcept;

// Texts

/// Reason phrase of 200, 400, 401, 403, 404, 461 and 500; "Unknown error" for any other.
INET_API const char* http_error(unsigned status) noexcept;

/// The delimiter "--boundary" of a multipart Content-Type (RFC 2046, 5.1.1), also when the parameter itself starts with
/// '-'. @return a new text for core_mfree(); null when there is no parameter named exactly "boundary".
INET_API char* http_get_boundary(const char* content_type) noexcept;

/// Content type by the extension of a file name, in either case; "application/octet-stream" when it is not known.
INET_API const char* http_get_file_mime(const char* file_name) noexcept;
