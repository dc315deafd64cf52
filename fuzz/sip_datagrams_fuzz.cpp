// The SIP agent fed datagrams and its owner's actions, each ended by a NUL. Whatever comes, what it holds is bounded,
// and what nobody finishes is gone in time.
#include "fuzz.h"

#include "inet/sip_owner.h"

void fuzz_target(std::span<const uint8_t> input) {
    test::sip_owner owner;
    std::string_view rest(reinterpret_cast<const char*>(input.data()), input.size());
    while (!rest.empty()) {
        const size_t end = std::min(rest.find('\0'), rest.size());
        owner.feed(std::string(rest.substr(0, end)));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    if (!owner.sip || !owner.account) return require(fuzz::starved);
    require(owner.sip->requests.size() <= sip::most_requests + sip::most_calls);
    for (const std::string& each : owner.sent)
        require(each.find("\r\n\r\n") != std::string::npos && each.find("SIP/2.0") != std::string::npos);
    for (int i = 0; i < 4; ++i)
        owner.feed("!tick200000");
    for (const auto& each : owner.sip->users)
        require(each->established || each->subscription);
    for (const auto& each : owner.sip->requests)
        require(each->session == owner.account->registration || each->session == owner.account->subscriber ||
                std::string_view(each->method) == "BYE");
}
