/// URIs of any scheme: splitting, path segments, query arguments and percent-coding. The splitter knows no scheme and
/// no default port, and does not validate. Any thread.
///
/// Every text is a block of its own. A record takes at most twice the bytes of its text. A query argument takes at most
/// 128 bytes beside its texts. When memory is out the result is null.
#pragma once

#include "core/api.h"

#include <cstdint>

namespace net {

/// Parts of a URI; what is absent is null, a port 0.
struct uri_s {
    char* text;      ///< the whole input
    char* user;      ///< before the first ':' of the user-info, or all of it
    char* password;  ///< behind that ':'
    char* host;      ///< null as well when it has 256 characters or more
    uint32_t port;   ///< 0 as well when the number is 65536 or more
    char* path;      ///< behind the first '/' after the host, up to the first '?'
    char* query;     ///< from the first '?' to the end, '?' included
};

/// One query argument.
struct uri_arg_s {
    char* name;   ///< as written
    char* value;  ///< percent-decoded; null without '='
};

}  // namespace net

/// Characters of the longest query argument that is read; longer ones are left out.
inline constexpr uint32_t uri_max_arg = 1023;
/// Query arguments that are read; those after them are left out.
inline constexpr uint32_t uri_max_args = 1024;

/// Splits a URI. The user-info ends at the first '@' anywhere after "://". The host ends at the first ':' or '/'.
/// Without a '/' after the host, path and query stay null. When the first '?' stands before that '/', the path stays
/// null. Without "://" there are only a path, after the first '/' or from the start, and a query.
/// @return a new record for uri_free(); null for null and when nothing follows "://".
INET_API net::uri_s* uri_parse(const char* text, const char* file, int line) noexcept;
INET_API void uri_free(net::uri_s* uri) noexcept;

/// Copies the part of `path` after the first `prefix` and one '/' directly behind that. It is cut to `size` - 1
/// characters and terminated. @return `out`; null when an argument is null, `size` is below 1, the prefix does not
/// occur or nothing follows it.
INET_API char* uri_get_subpath(const char* path, const char* prefix, char* out, int size) noexcept;

/// Copies the segment after the index-th '/' (0: before the first) up to the next '/'. It is cut and terminated in the
/// same way.
/// @return `out`; null when an argument is null, `size` is below 1 or there is no such segment.
INET_API char* uri_subpath(const char* path, int index, char* out, int size) noexcept;

/// Reads "?name=value&flag": leading '?' are skipped, arguments end at '&', behind which ' ' and '&' are skipped.
/// @return a null-terminated array for uri_free_args(); null when there is none.
INET_API net::uri_arg_s** uri_parse_args(const char* query, const char* file, int line) noexcept;
INET_API void uri_free_args(net::uri_arg_s** args) noexcept;

/// Decodes a range, to the end of the text when `end` is null: '+' is a space, %XX a byte, %uXXXX a character as UTF-8
/// (as many of its four digits as are hexadecimal). %uD83D%uDE00, the two halves of a character in UTF-16, are one
/// character, a half alone is U+FFFD. Any other '%' stays as it is. %00 gives a NUL, which ends the result for its
/// reader.
/// @return a new text for core_mfree(); null for null.
INET_API char* uri_decode(const char* begin, const char* end, const char* file, int line) noexcept;

/// Decodes %XX alone, as in a path or a user-info: '+' stands for itself there. As uri_decode() otherwise.
INET_API char* uri_decode_part(const char* begin, const char* end, const char* file, int line) noexcept;

/// Encodes every byte but A-Z, a-z, 0-9 and ! ' ( ) * . ~ as '%' and two upper-case digits, '-' and '_' included.
/// @return a new text for core_mfree(), empty for an empty one; null for null.
INET_API char* uri_encode(const char* text, const char* file, int line) noexcept;

/// Encodes what cannot stand in a request: spaces, controls, and bytes above 0x7e. What is coded stays as it is.
/// @return as uri_encode()
INET_API char* uri_encode_rest(const char* text, const char* file, int line) noexcept;

/// Encodes a path: all bytes but A-Z, a-z, 0-9, '/' and - . _ ~ ! $ & ' ( ) * + , ; = : @ (RFC 3986, 3.3).
/// @return as uri_encode()
INET_API char* uri_encode_path(const char* text, const char* file, int line) noexcept;

/// Resolves a reference, such as a Location, against an absolute URI (RFC 3986, 5.2).
/// @return a new text for core_mfree(); null for null, and for a base without "://".
INET_API char* uri_resolve(const char* base, const char* reference, const char* file, int line) noexcept;
