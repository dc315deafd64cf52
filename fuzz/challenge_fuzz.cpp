// Authentication: challenges that a server of RTSP, HTTP or RTMP sends to a client, answers that a client sends to a
// server.
#include "auth/challenge.h"
#include "fuzz.h"
#include "watcher/rtmp_login.h"

#include "inet/net_http_auth.h"

using owned_answer = core::owned<authenticate_ctx, net_http_authenticate_free>;

namespace {

/// Both clients' calls answer the same challenges, and whatever they answer can be read.
void answer(const char* to) {
    const core::owned_text value(net_http_authenticate("user", "pw", "PLAY", "rtsp://h/a", to, CORE_HERE));
    if (!value) return;
    const owned_answer ctx(net_http_authenticate_parse(value.get(), CORE_HERE));
    if (ctx) net_http_authenticate_check(value.get(), "PLAY", "rtsp://h/a", "user", "pw", ctx->realm, ctx->nonce);
    const core::owned<net::http::header_s, http_header_free> header(http_header_request("PLAY", "a", "RTSP/1.0"));
    const int answered = http_header_authenticate(header.get(), "user", "pw", "PLAY", "rtsp://h/a", to);
    require((answered == 1 && value_count(header->fields) == 1) || fuzz::starved);
}

/// A session's client answers with one line of text what it says it can answer.
void answer_as_meant(const char* to) {
    const core::owned<net::http::header_s, http_header_free> header(http_header_respond("RTSP/1.0", 401, "No"));
    if (!http_header_put(header.get(), "WWW-Authenticate", to)) return;
    auth::challenge taken;
    const bool is_taken = taken.take(header.get());
    require(is_taken == taken.is_taken());
    for (int i = 0; taken.is_taken() && i < 2; ++i) {
        const core::owned_text value(taken.answer("us\"er", "pw", "PLAY", "rtsp://h/a"));
        require(value || fuzz::starved);
        const std::string_view text(value ? value.get() : "");
        require(std::none_of(text.begin(), text.end(), [](char c) { return c >= 0 && c < ' '; }));
    }
}

/// What an RTMP server says with its refusal.
void answer_rtmp(const std::string& to) {
    const core::owned_text value = media::fetch::rtmp_login("authmod=adobe " + to, "user", "pw");
    require(!value || std::string_view(value.get()).starts_with("?authmod=adobe&user=user"));
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    const std::string text = fuzz::text_of(input);
    answer(text.c_str());
    answer_as_meant(text.c_str());
    answer_rtmp(text);
    // Whoever does not know the password does not come in.
    for (const char* start : {"", "Digest username=\"user\", realm=\"inet\", nonce=\"5d1f0c\", uri=\"/\","}) {
        const std::string value = start + text;
        require(!net_http_authenticate_check(value.c_str(), "PLAY", "/", "user", "long secret", "inet", "5d1f0c"));
        require(!net_http_authenticate_check_base(value.c_str(), "user", "long secret"));
        const owned_answer ctx(net_http_authenticate_parse(value.c_str(), CORE_HERE));
    }
}
