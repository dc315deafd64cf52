/// Basic and Digest authentication (RFC 2617, MD5) for HTTP, RTSP and SIP: a client's answers to challenges, and the
/// reading and checking of answers on the server's side. Any thread.
#pragma once

#include "core/api.h"
#include "inet/net_http_header.h"

// Client. A challenge is the value of a WWW-Authenticate or Proxy-Authenticate field. One that contains "Basic"
// anywhere is answered with Basic, else one that contains "Digest" with Digest (MD5, whatever algorithm it names). Its
// parameters are read from the seventh character on. A name counts when one of the known ones begins with it. A quoted
// value may hold commas, and is taken as it stands between the quotes; one that does not end as it should ends before
// the last character in front of the next ','. A null user or password counts as empty, a null challenge as "Basic ".
// Every answer is computed afresh: a new client nonce of 16 letters and digits, nonce count 00000001. The RTSP session
// reads challenges as RFC 7235 and RFC 7616 mean them, see inet/rtsp_protocol.h.

/// The value for an Authorization field, with qop when the challenge has it: "auth" of a list that has it, else the
/// value as received. A missing opaque is then answered with an empty one.
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

/// Checks the value of an Authorization field against the one user that may pass. The value is read by the grammar of
/// RFC 7616, 3.4: quoted values may hold commas and escaped characters, names are compared without case; a parameter
/// given twice, or bytes outside the grammar, refuse it. Values above 4096 bytes are refused.
///
/// It passes when username is `user`, realm and nonce are those issued, uri is `target` (or one is the absolute form of
/// the other), algorithm is MD5 or missing, and the response is right: as RFC 2617 computes it without qop, or with
/// qop=auth, nc and cnonce. The time taken does not tell how much of the response was right.
/// @param method  of the request, as received
/// @param target  of the request, as received
/// @param nonce   as issued in the challenge; how long it is good is the caller's rule
/// @return 1 to let the request pass; else 0, also when an argument is null or memory is out.
INET_API int net_http_authenticate_check(const char* value, const char* method, const char* target, const char* user,
                                         const char* password, const char* realm, const char* nonce) noexcept;

/// The same for a Basic answer (RFC 7617). A server that issued a Digest challenge does not offer this.
INET_API int net_http_authenticate_check_base(const char* value, const char* user, const char* password) noexcept;
