// The POST stream of an RTSP tunnel. The first byte of the input says how the rest is cut. Cut or not, the same comes
// out, what is Base64 without cuts comes out as it was encoded, and requests are answered as they are without a tunnel.
#include "fuzz.h"
#include "rtsp/tunnel.h"

#include "common/digest.h"
#include "inet/rtsp_owner.h"

namespace {

constexpr size_t most_input = 32 * 1024;  // what a POST connection may hold before its GET is there

struct decoded_t {
    buf_t bytes;
    int result = 1;

    decoded_t(std::span<const uint8_t> input, size_t piece) {
        buf_t text;
        while (!input.empty() && result > 0) {
            const size_t taken = std::min(piece, input.size());
            core_buf_read(&text, input.data(), static_cast<uint32_t>(taken));
            input = input.subspan(taken);
            result = rtsp3::decode_base64_stream(&text, &bytes, CORE_HERE);
            require(result <= 0 || text.length <= 3);
        }
        core_buf_free(&text);
    }
    std::span<const uint8_t> content() const { return {bytes.data, bytes.length}; }
    ~decoded_t() { core_buf_free(&bytes); }
    decoded_t(const decoded_t&) = delete;
    decoded_t& operator=(const decoded_t&) = delete;
};

/// Without tracks: what is told is the same in every session.
struct owner final : test::rtsp_owner {
    explicit owner(const char* head = "") {
        require(session || fuzz::starved);
        formats.clear();
        if (session) feed(head);
    }
};

/// Serves the bytes of a POST connection, which are to be those of `plain` as Base64, if that is given.
void serve(std::string_view text, size_t piece, const owner* plain) {
    owner get("GET / HTTP/1.0\r\nx-sessioncookie: a\r\n\r\n");
    owner post("POST / HTTP/1.0\r\nx-sessioncookie: a\r\n\r\n");
    if (!get.session || !post.session) return;
    get.sent.clear();
    get.reading = plain;
    const bool late = piece % 2;  // the POST connection came first
    if (!late) require(post.session->join(get.session) || fuzz::starved);
    for (size_t at = 0; at < text.size(); at += piece)
        post.feed(text.substr(at, piece));
    if (late) require(post.session->join(get.session) || fuzz::starved || post.session->closed());
    require(get.waiting().size() <= 130 * 1024 && (post.sent.empty() || fuzz::starved));
    if (fuzz::starved || !plain || plain->session->tunnel_cookie()) return;
    require(get.session->activity() == plain->session->activity() + 1);
    require(get.sent == plain->sent && get.events == "14 " + plain->events);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty()) return;
    const size_t piece = 1 + input[0];
    input = input.subspan(1).first(std::min(input.size() - 1, most_input));
    const decoded_t whole(input, input.size() + 1);
    const decoded_t cut(input, piece);
    require(fuzz::starved || whole.result == cut.result);
    require(fuzz::starved || whole.result <= 0 || std::ranges::equal(whole.content(), cut.content()));

    const core::owned_text text(b64(input.data(), input.size(), CORE_HERE));
    if (!text) return require(fuzz::starved);
    const std::span<const uint8_t> encoded(reinterpret_cast<const uint8_t*>(text.get()), std::strlen(text.get()));
    const decoded_t back(encoded, piece);
    require(fuzz::starved || (back.result == 1 && std::ranges::equal(back.content(), input)));

    const std::string requests = fuzz::text_of(input);
    owner plain;
    if (plain.session) plain.feed(requests);
    serve(text.get(), piece, &plain);
    serve(requests, piece, nullptr);
}
