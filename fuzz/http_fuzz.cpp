// HTTP messages, of both roles, multipart among them. The first byte is the size of the pieces they come in: what is
// reported does not depend on it.
#include "fuzz.h"

#include "net_http/message.h"

namespace {

constexpr uint32_t limit = 200;

class owner final : public net::http::message_owner {
public:
    owner(std::span<const uint8_t> input, size_t piece) : reader_(*this, CORE_HERE) {
        reader_.set_limit(limit);
        reader_.set_types("image/, application/soap+xml");
        buf_t received;
        for (; !input.empty(); input = input.subspan(std::min(piece, input.size()))) {
            const auto size = static_cast<uint32_t>(std::min(piece, input.size()));
            if (!core_buf_read(&received, input.data(), size)) break;
            uint32_t before = 0;
            do {  // an answer lets it go on
                before = received.length;
                reader_.take(received);
                if (reader_.owes_answer()) reader_.answered();
            } while (received.length < before);
            require(received.length <= reader_.room());
        }
        reader_.end(received);
        core_buf_free(&received);
    }

    std::string told;
    bool depends_on_cut = false;

private:
    void on_message(int status, net::http::header_s* header, const buffer_t* body, bool complete) noexcept override {
        require((status == 0) == (header != nullptr) && (!body || (complete && body->size <= limit)));
        told += complete ? "M" : "A";
        told += std::to_string(status);
        if (body) told.append(reinterpret_cast<const char*>(body->data), body->size);
        depends_on_cut |= status == net::http_header_large;
        // A target decides what is answered at once, and what ends the connection.
        const std::string_view target = header && header->uri ? header->uri : "";
        if (!complete && target == "/now") reader_.answered();
        if (target == "/reset") reader_.reset();
        if (target == "/stop") reader_.stop();
    }
    void on_frame(const av::frame_t& frame) noexcept override {
        require(frame.size <= limit + 4096);
        told += "F" + std::to_string(frame.fcc);
        told.append(reinterpret_cast<const char*>(frame.data), frame.size);
    }
    void on_unknown_type(const char* type) noexcept override { told += std::string("U") + type; }
    void on_header_text(std::string_view) noexcept override {}

    net::http::message_reader reader_;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty() || input.size() > 4000) return;
    const owner cut(input.subspan(1), 1 + input[0] % 64U);
    const owner whole(input.subspan(1), input.size());
    require(fuzz::starved || whole.depends_on_cut || cut.told == whole.told);
}
