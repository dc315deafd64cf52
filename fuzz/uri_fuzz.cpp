// URIs, their paths, query arguments and percent-coding.
#include "fuzz.h"

#include "core/memory.h"
#include "inet/net_uri.h"

#include <cstring>
#include <string>

namespace {

using fuzz::require;

void split(const char* text) {
    net::uri_s* uri = uri_parse(text, CORE_HERE);
    if (!uri) return;
    require(std::strcmp(uri->text, text) == 0 && uri->port <= 65535);
    require(!uri->host || std::strlen(uri->host) < 256);
    require(!uri->query || *uri->query == '?');
    char out[16];
    for (int index = 0; index < 4; ++index)
        uri_subpath(uri->path, index, out, index * 5);
    uri_get_subpath(uri->path, uri->host, out, sizeof(out));
    uri_free_args(uri_parse_args(uri->query, CORE_HERE));
    uri_free(uri);
}

/// What was encoded is what comes back.
void code(const char* text) {
    char* encoded = uri_encode(text, CORE_HERE);
    char* decoded = uri_decode(encoded, nullptr, CORE_HERE);
    require(fuzz::starved || std::strcmp(decoded, text) == 0);
    core_mfree(encoded);
    core_mfree(decoded);
    core_mfree(uri_decode(text, nullptr, CORE_HERE));
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    const std::string text = fuzz::text_of(input);
    split(text.c_str());
    code(text.c_str());
    uri_free_args(uri_parse_args(text.c_str(), CORE_HERE));
    core_mfree(uri_decode(text.data(), text.data() + text.size(), CORE_HERE));
}
