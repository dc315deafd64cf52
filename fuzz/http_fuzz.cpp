// HTTP messages, of both roles, multipart among them. The first byte: the size of the pieces they come in, by its lower
// six bits; the client's role; whether its first request was HEAD. What is reported does not depend on the pieces.
#include "fuzz.h"
#include "net_http/message.h"

namespace {

using net::http::message_reader;

constexpr uint32_t limit = 200;
constexpr uint8_t client = 0x40;
constexpr uint8_t head = 0x80;

class owner final : public net::http::message_owner {
public:
    owner(std::span<const uint8_t> input, size_t piece, uint8_t kind) : reader_(*this, CORE_HERE) {
        const auto role = kind & client ? message_reader::role_t::client : message_reader::role_t::server;
        reader_.reset(role);
        reader_.set_limit(limit);
        reader_.set_types("image/, application/soap+xml");
        if (auto* first = core::create<net::http::expectation>(CORE_HERE)) {
            first->head = kind & head;
            core_buf_read(&first->sent, input.data(), static_cast<uint32_t>(std::min<size_t>(input.size(), 2)));
            reader_.expect(core::owned_object<net::http::expectation>(first));
        }
        buf_t received;
        for (; !input.empty(); input = input.subspan(std::min(piece, input.size()))) {
            const auto size = static_cast<uint32_t>(std::min(piece, input.size()));
            if (!core_buf_read(&received, input.data(), size)) break;
            uint32_t before = 0;
            do {
                before = received.length;
                take(received);
            } while (received.length < before);
            require(received.length <= reader_.room());
        }
        require(!reader_.owes_answer());
        reader_.end({received.data, received.length});
        core_buf_free(&received);
    }

    std::string told;

private:
    void take(buf_t& received) {
        core_buf_ignore(&received, reader_.take({received.data, received.length}));
        if (!reader_.owes_answer()) return;
        reader_.answered();
        reader_.go_on();
    }
    void on_message(int status, net::http::header_s* header, const buffer_t* body, bool complete) noexcept override {
        require((status == 0) == (header != nullptr) && (!body || (complete && body->size <= limit)));
        told += complete ? "M" : "A";
        told += std::to_string(status) + (reader_.awaits_answer() ? "?" : "");
        // A target decides what is answered at once, and what ends the connection.
        const std::string_view target = header && header->uri ? header->uri : "";
        if (!complete && target == "/now") reader_.answered();
        if (target == "/reset") reader_.reset(message_reader::role_t::server);
        if (target == "/stop") reader_.stop();
        const char* const wish = header && !complete ? value_geti(header->fields, "X") : nullptr;
        if (wish && std::strcmp(wish, "split") == 0) told += reader_.split_if_parts() ? "S" : "s";
        if (body) told.append(reinterpret_cast<const char*>(body->data), body->size);
        if (header) told += value_geti(header->fields, "X") ? "X" : "";
    }
    bool on_refused(const net::http::header_s&, net::http::expectation& refused) noexcept override {
        told += "R";
        const bool again = refused.sent.length > 1;
        if (again) reader_.reset(message_reader::role_t::client);
        return again;
    }
    void on_expect() noexcept override { told += "E"; }
    void on_frame(const av::frame_t& frame) noexcept override {
        require(frame.size <= limit);
        told += "F" + std::to_string(frame.fcc);
        if (frame.size == 5) reader_.stop();
        told.append(reinterpret_cast<const char*>(frame.data), frame.size);
    }
    void on_unknown_type(const char* type) noexcept override { told += std::string("U") + type; }
    void on_header_text(std::string_view) noexcept override {}

    message_reader reader_;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty() || input.size() > 16000) return;
    const owner cut(input.subspan(1), 1 + input[0] % 64U, input[0]);
    const owner whole(input.subspan(1), input.size(), input[0]);
    require(fuzz::starved || cut.told == whole.told);
}
