// The POST stream of an RTSP tunnel. The first byte of the input says how the rest is cut. As Base64 the requests are
// answered as they are without a tunnel; what is no Base64 is refused, cut or not.
#include "fuzz.h"

#include "common/digest.h"
#include "inet/rtsp_owner.h"

namespace {

constexpr size_t most_input = 32 * 1024;  // what a POST connection may hold before its GET is there

/// Without tracks: what is told is the same in every session.
struct owner final : test::rtsp_owner {
    explicit owner(const char* head = "") {
        require(session || fuzz::starved);
        formats.clear();
        if (session) feed(head);
    }
};

/// Serves the bytes of a POST connection, which are to be those of `plain` as Base64, if that is given.
/// @return whether they were no Base64
bool serve(std::string_view text, size_t piece, const owner* plain) {
    owner get("GET / HTTP/1.0\r\nx-sessioncookie: a\r\n\r\n");
    owner post("POST / HTTP/1.0\r\nx-sessioncookie: a\r\n\r\n");
    if (!get.session || !post.session) return false;
    get.sent.clear();
    get.reading = plain;
    const bool late = piece % 2;  // the POST connection came first
    if (!late) require(post.session->join(get.session) || fuzz::starved);
    for (size_t at = 0; at < text.size(); at += piece)
        post.feed(text.substr(at, piece));
    if (late) require(post.session->join(get.session) || fuzz::starved || post.session->closed());
    require(get.waiting().size() <= 130 * 1024 && (post.sent.empty() || fuzz::starved));
    if (fuzz::starved || !plain || plain->session->tunnel_cookie()) return post.session->closed();
    require(get.session->activity() == plain->session->activity() + 1);
    require(get.sent == plain->sent && get.events == "14 " + plain->events);
    return post.session->closed();
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty()) return;
    const size_t piece = 1 + input[0];
    input = input.subspan(1).first(std::min(input.size() - 1, most_input));
    const core::owned_text text(b64(input.data(), input.size(), CORE_HERE));
    if (!text) return require(fuzz::starved);
    const std::string requests = fuzz::text_of(input);
    owner plain;
    if (plain.session) plain.feed(requests);
    require(!serve(text.get(), piece, &plain) || fuzz::starved);
    const bool refused = serve(requests, piece, nullptr);
    require(serve(requests, requests.size() + 1, nullptr) == refused || fuzz::starved);
}
