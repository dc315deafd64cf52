// Authentication: challenges that a server sends to a client, answers that a client sends to a server.
#include "fuzz.h"

#include "inet/net_http_auth.h"

using owned_answer = test::held<authenticate_ctx, net_http_authenticate_free>;

namespace {

/// Both clients' calls answer the same challenges, and whatever they answer can be read.
void answer(const char* to) {
    const core::owned_text value(net_http_authenticate("user", "pw", "PLAY", "rtsp://h/a", to, CORE_HERE));
    if (!value) return;
    const owned_answer ctx(net_http_authenticate_parse(value.get(), CORE_HERE));
    if (ctx) net_http_authenticate_check(value.get(), "PLAY", "rtsp://h/a", "user", "pw", ctx->realm, ctx->nonce);
    const test::held<net::http::header_s, http_header_free> header(http_header_request("PLAY", "a", "RTSP/1.0"));
    const int answered = http_header_authenticate(header.get(), "user", "pw", "PLAY", "rtsp://h/a", to);
    require((answered == 1 && value_count(header->fields) == 1) || fuzz::starved);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    const std::string text = fuzz::text_of(input);
    answer(text.c_str());
    // Whoever does not know the password does not come in.
    for (const char* start : {"", "Digest username=\"user\", realm=\"inet\", nonce=\"5d1f0c\", uri=\"/\","}) {
        const std::string value = start + text;
        require(!net_http_authenticate_check(value.c_str(), "PLAY", "/", "user", "long secret", "inet", "5d1f0c"));
        require(!net_http_authenticate_check_base(value.c_str(), "user", "long secret"));
        const owned_answer ctx(net_http_authenticate_parse(value.c_str(), CORE_HERE));
    }
}
