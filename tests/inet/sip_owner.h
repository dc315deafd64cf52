// A SIP agent whose wire keeps what is sent, driven by messages and actions alone.
#pragma once

#include "sip/agent.h"

#include "core/time.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace test {

class sip_owner {
public:
    explicit sip_owner(int transport = net::sip_udp) {
        core_time_set_clock([] { return now; });
        net::sip_info info{nullptr, this, on_call, on_account, on_dtmf};
        sip = net_sip_open(&info, CORE_HERE);
        if (!sip) return;
        sip->make_wire = [](net::Sip& agent, net::sip_account&) {
            auto made = sip::make<kept_wire>(agent, *static_cast<sip_owner*>(agent.info.user));
            return core::owned_object<sip::wire>(made.release());
        };
        net_addr_setup(from, "10.0.0.9", 5060);
        account = net_sip_register_over(sip, transport, "bob", "secret", "10.0.0.1", 0, CORE_HERE);
        if (account) account->local_tag = "ours";  // the same for all, or they would take the same bytes differently
    }
    ~sip_owner() {
        net_sip_close(sip);
        core_time_set_clock(nullptr);
        core_log_sink_rem(quiet_);
    }
    sip_owner(const sip_owner&) = delete;
    sip_owner& operator=(const sip_owner&) = delete;

    /// A message, or an action of the owner, such as "!accept". In a message $B stands for the branch and $N for the
    /// number of our last request, of its method where it is an answer, $T for our tag, $I for its Call-ID and $H for
    /// Via, From, To and Call-ID of a peer.
    void feed(std::string text) {
        if (!sip || !account) return;
        if (text.starts_with('!')) return act(text.substr(1));
        sip->take_datagram(*account, expand(std::move(text)), from);
    }
    void act(const std::string& what) {
        if (what == "invite") party = net_sip_invite(account, nullptr, "alice", this, nullptr);
        if (what == "subscribe") net_sip_subscribe(account, "alice");
        if (what == "unsubscribe") net_sip_unsubscribe(account, "alice");
        if (what == "mode1") net_sip_set_dtmf(sip, 1);
        if (what.starts_with("tick")) sip->tick(now += std::stoul("0" + what.substr(4, 6)) * 1000);
        if (!party) return;
        if (what == "accept") net_sip_accept(party, this, nullptr);
        if (what == "decline") net_sip_decline(std::exchange(party, nullptr));
        if (what == "bye") net_sip_bye(party);
        if (what == "digit") net_sip_dtmf(net_sip_user_session(party), 20);
    }
    std::string expand(std::string text) {
        const std::string headers =
            "Via: SIP/2.0/UDP 10.0.0.9:5060;branch=z9hG4bKpeer\r\nMax-Forwards: 70\r\n"
            "From: <sip:alice@10.0.0.1>;tag=atag\r\nTo: <sip:bob@10.0.0.1>\r\nCall-ID: c1\r\n";
        replace(text, "$H", headers);
        const bool response = text.starts_with("SIP");
        const std::string method = response ? between(text, "$N ", "\r") : "";
        const std::string& to = response && asked_as.contains(method) ? asked_as[method] : asked;
        replace(text, "$B", between(to, "branch=", ";"));
        replace(text, "$I", between(to, "Call-ID: ", "\r"));
        replace(text, "$N", between(to, "CSeq: ", " "));
        replace(text, "$T", account->local_tag.c_str());
        return text;
    }
    static std::string between(const std::string& text, const std::string& before, const std::string& behind) {
        const size_t at = text.find(before);
        if (at == std::string::npos) return "";
        const size_t begin = at + before.size();
        return text.substr(begin, text.find(behind, begin) - begin);
    }

    net::Sip* sip = nullptr;
    net::sip_account* account = nullptr;
    net::sip_user* party = nullptr;               ///< of the last call
    std::string asked;                            ///< the request that we sent last, but ACK
    bool by_server = false;                       ///< it brings what comes
    bool hangs_up = false;                        ///< also a call that has ended, while it is told
    std::map<std::string, std::string> asked_as;  ///< the last of each method
    std::string story;                            ///< first lines of what was sent, and events
    std::vector<std::string> sent;
    sockaddr_in from = {};
    static inline uint64_t now = 1'600'000'000'000'000;

private:
    struct kept_wire final : sip::wire {
        explicit kept_wire(sip_owner& of) : owner(of) {}
        void send(std::string_view bytes, const sockaddr_in*) noexcept override {
            owner.sent.emplace_back(bytes);
            owner.story += std::string(bytes.substr(0, bytes.find(bytes.starts_with("SIP") ? '\r' : ' '))) + "|";
            if (bytes.starts_with("SIP") || bytes.starts_with("ACK")) return;
            owner.asked = owner.asked_as[std::string(bytes.substr(0, bytes.find(' ')))] = bytes;
        }
        uint32_t local_port() const noexcept override { return 5062; }
        in_addr local_address() const noexcept override {
            sockaddr_in near{};
            net_addr_setup(near, "1.2.3.4", 0);
            return near.sin_addr;
        }
        bool is_server(const sockaddr_in&) const noexcept override { return owner.by_server; }
        bool is_up() const noexcept override { return true; }
        void stop() noexcept override {}
        sip_owner& owner;
    };

    static void on_call(void* user, net::sip_user* party, uint32_t event) {
        auto& self = *static_cast<sip_owner*>(user);
        self.story += "call" + std::to_string(event) + "|";
        if (event == net::sip_call_incoming) self.party = party;
        const bool over = event == 2 || event == 4 || event == 5 || event == 8;
        if (over && party == self.party) self.party = nullptr;
        if (over && self.hangs_up) net_sip_bye(party);
    }
    static void on_account(void* user, void*, uint32_t event, const char*) {
        static_cast<sip_owner*>(user)->story += "account" + std::to_string(event) + "|";
    }
    static void on_dtmf(void* user, net::sip_user*, int code) {
        static_cast<sip_owner*>(user)->story += "digit" + std::to_string(code) + "|";
    }
    static void replace(std::string& text, const std::string& what, const std::string& by) {
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size()))
            text.replace(at, what.size(), by);
    }

    const uint32_t quiet_ = core_log_sink_add(
        "console", [](void*, const log_line_t*) {}, nullptr);
};

}  // namespace test
