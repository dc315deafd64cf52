/// Basic and Digest authentication (RFC 2617, MD5) for HTTP, RTSP and SIP: a client's answers to challenges, and the
/// reading and checking of answers on the server's side. Any thread.
#pragma once

#include "core/api.h"
#include "inet/net_http_header.h"

// Client. A challenge is the value of a WWW-Authenticate or Proxy-Authenticate field. It is read in a simple way:
//   - A challenge that contains "Basic" anywhere is answered with Basic. Else one that contains "Digest" is answered
//     with Digest (MD5, whatever algorithm it names).
//   - Parameters are read from the seventh character on. A name is known when a known name begins with it.
//   - A quoted value may hold commas. It is taken unchanged from between the quotes. Without a proper end it ends
//     before the last character in front of the next ','.
//   - A null user or password counts as empty, a null challenge as "Basic ".
//   - Each answer has a new client nonce of 16 letters and digits, and the nonce count 00000001.
// The RTSP session reads challenges by RFC 7235 and RFC 7616, see inet/rtsp_protocol.h.

/// The value for an Authorization field. When the challenge has a qop, the answer has it, too: "auth" when the list has
/// it, else the value as received. The answer then also has an opaque, which is empty when the challenge has none.
/// @return a new text for core_mfree(); null when the challenge names neither scheme, is a Digest one without realm or
///         nonce, or memory is out.
INET_API char* net_http_authenticate(const char* user, const char* password, const char* method, const char* uri,
                                     const char* challenge, const char* file, int line) noexcept;

/// Appends an "Authorization" field with the Basic value. @return 1, or 0 when memory is out.
INET_API int http_header_authenticate_base(net::http::header_s* header, const char* user,
                                           const char* password) noexcept;

/// Appends the answer to a challenge: Basic as "Authorization", Digest, always without qop, as "Proxy-Authorization".
/// @return 1, or 0 when there is no answer (as net_http_authenticate()); the header is then as before.
INET_API int http_header_authenticate(net::http::header_s* header, const char* user, const char* password,
                                      const char* method, const char* uri, const char* challenge) noexcept;

/// Appends an "Authorization" field to a request: the answer to the WWW-Authenticate fields of a response, read by RFC
/// 7235 and RFC 7616. The first Digest challenge that can be computed is answered, else a Basic one.
/// @return 1; 0 when there is neither, or memory is out: the request is then as before
INET_API int http_header_authorize(net::http::header_s* request, const net::http::header_s* refusal, const char* user,
                                   const char* password) noexcept;

// Server

/// Parameters of a Digest answer; those that are missing are null.
struct authenticate_ctx {
    char* uri;
    char* username;
    char* realm;
    char* nonce;
    char* response;
};

/// Reads the value of an Authorization field, in the same simple way as challenges are read.
/// @return null for null, for a text without "Digest", or when memory is out. Release with
/// net_http_authenticate_free().
INET_API authenticate_ctx* net_http_authenticate_parse(const char* value, const char* file, int line) noexcept;
INET_API void net_http_authenticate_free(authenticate_ctx* ctx) noexcept;

/// Checks the value of an Authorization field against one user. The value is read by the grammar of RFC 7616, 3.4:
/// quoted values may hold commas and escaped characters, and names are compared without case. Refused are values above
/// 4096 bytes, a parameter given twice, and bytes outside the grammar.
///
/// The request passes when all of these hold:
///   - username is `user`; realm and nonce are those issued,
///   - uri is `target`, or one is the absolute form of the other,
///   - algorithm is MD5 or missing,
///   - the response is right by RFC 2617: without qop, or with qop=auth, nc and cnonce.
/// The time taken does not depend on how much of the response is right.
/// @param method  of the request, as received
/// @param target  of the request, as received
/// @param nonce   as issued in the challenge; the caller decides how long it is accepted
/// @return 1 to let the request pass; else 0, also when an argument is null or memory is out.
INET_API int net_http_authenticate_check(const char* value, const char* method, const char* target, const char* user,
                                         const char* password, const char* realm, const char* nonce) noexcept;

/// Checks a Basic answer (RFC 7617). Not for a server that issued a Digest challenge.
INET_API int net_http_authenticate_check_base(const char* value, const char* user, const char* password) noexcept;
