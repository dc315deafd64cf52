// What a connection sends to the relay, with one other user bound and subscribed. The first byte says how the rest is
// cut: everybody hears the same however it is. What is heard is made of whole messages, each with its length.
#include "fuzz.h"
#include "sip/framing.h"
#include "sip/relay.h"

namespace {

struct hall {
    hall() {
        for (const char* name : {"anna", "boris", "clara"})
            users = core_value_put(users, name, nullptr, CORE_HERE);
    }
    ~hall() {
        core_value_free(users);
        core_log_sink_rem(quiet);
    }

    /// What both hear, when the bytes come in such pieces.
    std::string hear(std::string_view bytes, size_t piece) const {
        sip::relay relay(users, CORE_HERE);
        relay.expect(2);
        sip::party speaker, boris;
        speaker.local = boris.local = speaker.peer = boris.peer = "127.0.0.1";
        speaker.route = boris.route = "<sip:127.0.0.1;lr>";
        for (const std::string_view method : {"REGISTER", "SUBSCRIBE"})
            relay.take(boris, std::string(method) + " sip:a SIP/2.0\r\nFrom: <sip:boris@a>\r\n\r\n");
        std::string held;
        for (size_t at = 0; at < bytes.size() && !speaker.lost; at += piece) {
            held += bytes.substr(at, piece);
            held.erase(0, relay.take(speaker, held));
            require(held.size() < sip::max_header + sip::max_body);
        }
        std::string heard = std::to_string(speaker.lost);
        for (sip::party* each : {&speaker, &boris}) {
            require(each->out.length <= sip::relay::most_output);
            const std::string_view out(reinterpret_cast<const char*>(each->out.data), each->out.length);
            for (std::string_view rest = out; !rest.empty();) {
                const sip::piece_t message = sip::cut(rest, false);
                const bool alive = message.what == sip::cut_t::skipped && rest.starts_with("\r\n");
                require(alive || (message.what == sip::cut_t::message && !message.bad_length));
                rest.remove_prefix(message.used);
            }
            heard += '|';
            heard += out;
            relay.forget(*each);
        }
        return heard;
    }

    const uint32_t quiet = core_log_sink_add(
        "console,error", [](void*, const log_line_t*) {}, nullptr);
    value_t** users = nullptr;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty()) return;
    const hall here;
    const std::string bytes = fuzz::text_of(input.subspan(1));
    try {
        const std::string whole = here.hear(bytes, bytes.size() + 1), cut = here.hear(bytes, 1 + input[0]);
        require(whole == cut || fuzz::starved);
    } catch (const std::bad_alloc&) {
        require(fuzz::starved);
    }
}
