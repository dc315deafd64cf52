// The POST stream of an RTSP tunnel. The first byte of the input says how the rest is cut. Cut or not, the same comes
// out, and what is Base64 without cuts comes out as it was encoded.
#include "fuzz.h"
#include "rtsp/tunnel.h"

#include "common/digest.h"
#include "core/owned.h"
#include "inet/rtsp_protocol.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace {

using fuzz::require;

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

void feed(rtsp3::Rtsp* session, std::span<const uint8_t> bytes) {
    buf_t data;
    core_buf_read(&data, bytes.data(), static_cast<uint32_t>(bytes.size()));
    session->process(&data);
    core_buf_free(&data);
}

void serve(std::span<const uint8_t> input, size_t piece) {
    static constexpr char get_head[] = "GET / HTTP/1.0\r\nx-sessioncookie: a\r\n\r\n";
    static constexpr char post_head[] = "POST / HTTP/1.0\r\nx-sessioncookie: a\r\n\r\n";
    rtsp3::Rtsp* get = rtsp3::Rtsp::create(CORE_HERE);
    rtsp3::Rtsp* post = rtsp3::Rtsp::create(CORE_HERE);
    if (!get || !post) {
        rtsp3::Rtsp::destroy(get);
        rtsp3::Rtsp::destroy(post);
        return require(fuzz::starved);
    }
    feed(get, {reinterpret_cast<const uint8_t*>(get_head), sizeof get_head - 1});
    feed(post, {reinterpret_cast<const uint8_t*>(post_head), sizeof post_head - 1});
    require(post->join(get) || fuzz::starved);
    for (size_t at = 0; at < input.size(); at += piece)
        feed(post, input.subspan(at, std::min(piece, input.size() - at)));
    require(get->send_buffer()->length <= 130 * 1024);
    rtsp3::Rtsp::destroy(get);
    rtsp3::Rtsp::destroy(post);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty()) return;
    const size_t piece = 1 + input[0];
    input = input.subspan(1);
    const decoded_t whole(input, input.size() + 1);
    const decoded_t cut(input, piece);
    require(fuzz::starved || whole.result == cut.result);
    require(fuzz::starved || whole.result <= 0 || std::ranges::equal(whole.content(), cut.content()));

    const core::owned_text text(b64(input.data(), input.size(), CORE_HERE));
    if (!text) return require(fuzz::starved);
    const decoded_t back({reinterpret_cast<const uint8_t*>(text.get()), std::strlen(text.get())}, piece);
    require(fuzz::starved || (back.result == 1 && std::ranges::equal(back.content(), input)));
    serve(input, piece);
}
