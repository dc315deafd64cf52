// URIs, their paths, query arguments and percent-coding.
#include "fuzz.h"
#include "uri/reference.h"

#include "inet/net_uri.h"

namespace {

void split(const char* text) {
    net::uri_s* uri = uri_parse(text, CORE_HERE);
    if (!uri) return;
    require(std::strcmp(uri->text, text) == 0 && uri->port <= 65535);
    require((!uri->host || std::strlen(uri->host) < 256) && (!uri->query || *uri->query == '?'));
    char out[16];
    for (int index = 0; index < 4; ++index)
        uri_subpath(uri->path, index, out, index * 5);
    uri_get_subpath(uri->path, uri->host, out, sizeof(out));
    uri_free_args(uri_parse_args(uri->query, CORE_HERE));
    uri_free(uri);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    const std::string text = fuzz::text_of(input);
    split(text.c_str());
    // What was encoded is what comes back.
    const core::owned_text encoded(uri_encode(text.c_str(), CORE_HERE));
    const core::owned_text decoded(uri_decode(encoded.get(), nullptr, CORE_HERE));
    require(fuzz::starved || std::strcmp(decoded.get(), text.c_str()) == 0);
    core_mfree(uri_decode(text.c_str(), nullptr, CORE_HERE));
    // As a part it comes back, too, and what can stand in a request is not coded again.
    const core::owned_text part(uri_decode_part(encoded.get(), nullptr, CORE_HERE));
    require(fuzz::starved || std::strcmp(part.get(), text.c_str()) == 0);
    const core::owned_text sendable(uri_encode_rest(text.c_str(), CORE_HERE));
    const core::owned_text same(sendable ? uri_encode_rest(sendable.get(), CORE_HERE) : nullptr);
    require(fuzz::starved || std::strcmp(same.get(), sendable.get()) == 0);
    const core::owned_text resolved(uri_resolve("http://h/a/b?c", sendable.get(), CORE_HERE));
    require(fuzz::starved || net::uri::is_absolute(resolved.get()));
    uri_free_args(uri_parse_args(text.c_str(), CORE_HERE));
    core_mfree(uri_decode(text.data(), text.data() + text.size(), CORE_HERE));
}
