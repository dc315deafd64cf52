// The SIP agent fed the bytes of a TCP connection, in pieces as long as the first byte says: the same is answered and
// told however they are cut.
#include "fuzz.h"
#include "sip/framing.h"

#include "inet/sip_owner.h"

namespace {

std::string story(std::string_view input, size_t piece) {
    test::sip_owner owner(net::sip_tcp);
    if (!owner.sip || !owner.account) return "";
    const std::string bytes = owner.expand(std::string(input));
    std::string held;
    for (size_t at = 0; at < bytes.size() && owner.account->wire; at += piece) {
        held += bytes.substr(at, piece);
        while (owner.account->wire) {
            const uint32_t used = owner.sip->take_stream(*owner.account, held, owner.from);
            require(used <= held.size());
            if (used == 0) break;
            held.erase(0, used);
        }
        require(held.size() <= sip::max_header + sip::max_body + piece);
    }
    return owner.story;
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty()) return;
    const std::string bytes = fuzz::text_of(input.subspan(1));
    const std::string whole = story(bytes, bytes.size() + 1);
    const std::string pieces = story(bytes, 1 + input[0] % 64);
    require(fuzz::starved || whole == pieces);
}
