// Authentication: challenges that a server sends to a client, answers that a client sends to a server.
#include "fuzz.h"

#include "core/memory.h"
#include "inet/net_http_auth.h"

#include <cstring>
#include <string>

namespace {

using fuzz::require;

/// Both clients' calls answer the same challenges, and whatever they answer can be read.
void answer(const char* challenge) {
    char* value = net_http_authenticate("user", "pw", "PLAY", "rtsp://h/a", challenge, CORE_HERE);
    if (!value) return;
    authenticate_ctx* ctx = net_http_authenticate_parse(value, CORE_HERE);
    if (ctx) net_http_authenticate_check(value, "PLAY", "rtsp://h/a", "user", "pw", ctx->realm, ctx->nonce);
    net_http_authenticate_free(ctx);
    core_mfree(value);

    net::http::header_s* header = http_header_request("PLAY", "a", "RTSP/1.0");
    const int answered = header ? http_header_authenticate(header, "user", "pw", "PLAY", "rtsp://h/a", challenge) : 0;
    require((answered == 1 && value_count(header->fields) == 1) || fuzz::starved);
    http_header_free(header);
}

/// Whoever does not know the password does not come in.
void check(const char* value) {
    require(net_http_authenticate_check(value, "PLAY", "/", "user", "long secret", "inet", "5d1f0c") == 0);
    require(net_http_authenticate_check_base(value, "user", "long secret") == 0);
    net_http_authenticate_free(net_http_authenticate_parse(value, CORE_HERE));
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    const std::string text = fuzz::text_of(input);
    answer(text.c_str());
    check(text.c_str());
    check(("Digest username=\"user\", realm=\"inet\", nonce=\"5d1f0c\", uri=\"/\"," + text).c_str());
}
