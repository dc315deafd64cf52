// The sockets belong to the first thread. What is to be sent waits in a list for a command that is ordered for the time
// of the earliest.
#include "media/discovery.h"

#include "discovery/part.h"
#include "discovery/probe.h"

#include "common/digest.h"
#include "core/text.h"
#include "core/time.h"
#include "inet/net_soap.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <utility>

namespace media {

namespace discovery {

namespace {

constexpr uint64_t second_us = 1'000'000;
constexpr uint64_t longest_delay = second_us / 2;  // APP_MAX_DELAY
constexpr size_t longest_answer = 4096;
constexpr size_t most_waiting = 64;
constexpr ptrdiff_t most_waiting_of_host = 10;
constexpr const char* types = "dn:NetworkVideoTransmitter tds:Device";
constexpr const char* declarations =
    "xmlns:dn=\"http://www.onvif.org/ver10/network/wsdl\" xmlns:tds=\"http://www.onvif.org/ver10/device/wsdl\"";

uint64_t random_delay() noexcept {
    uint32_t number = 0;
    common_random(&number, sizeof number);
    return number % longest_delay;
}

bool same(const net_link_t& one, const net_link_t& other) noexcept {
    return one.address.s_addr == other.address.s_addr && one.prefix == other.prefix;
}

bool is_on(const net_link_t& link, in_addr host) noexcept {
    const uint32_t other = ntohl(link.address.s_addr ^ host.s_addr);
    return link.prefix > 0 && static_cast<uint32_t>(std::countl_zero(other)) >= link.prefix;
}

}  // namespace

bool pacer::allows(in_addr host, uint64_t now) noexcept {
    const auto last = [](const host_t& each) { return each.sent[(each.next + most_sent - 1) % most_sent]; };
    host_t* found = std::ranges::find_if(
        hosts_, [&](const host_t& each) { return last(each) != 0 && each.address.s_addr == host.s_addr; });
    if (found == hosts_.end()) {
        found = std::ranges::min_element(hosts_, {}, last);
        if (last(*found) != 0 && now - last(*found) < second_us) return false;
        *found = {.address = host};
    }
    uint64_t& oldest = found->sent[found->next];
    if (oldest != 0 && now - oldest < second_us) return false;
    oldest = now;
    found->next = (found->next + 1) % most_sent;
    return true;
}

core::owned_text new_uuid() noexcept {
    uint8_t d[16];
    common_random(d, sizeof d);
    d[6] = static_cast<uint8_t>((d[6] & 0x0f) | 0x40);  // of random bytes (RFC 9562, 5.4)
    d[8] = static_cast<uint8_t>((d[8] & 0x3f) | 0x80);
    return core::owned_text(
        core_sprintf(CORE_HERE, "uuid:%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", d[0], d[1],
                     d[2], d[3], d[4], d[5], d[6], d[7], d[8], d[9], d[10], d[11], d[12], d[13], d[14], d[15]));
}

part_t::part_t(thread& on, const onvif& device) noexcept : thread_(on), device_(device) {
    sockaddr_in bound{};
    if (net_addr_setup(bound, on.station().bind(), 0) == 0) bound_ = bound.sin_addr;
    wire_.user = this;
    wire_.on_message = [](net::wsdd_t* wire, const char* text, sockaddr_in from) {
        try {
            static_cast<part_t*>(wire->user)->on_message(text, from);
        } catch (const std::bad_alloc&) {
            // It is asked again.
        }
    };
    if (on.index() != 0) return;
    net_nt_command_set(on.nt(), alarm_, this,
                       [](void* arg, net::command_ctx*) { static_cast<part_t*>(arg)->send_due(); });
    read_links();
    open();
}

part_t::~part_t() {
    net_wsdd_close(wire_);
    net_nt_command_destroy(alarm_);
}

/// @return whether they have changed
bool part_t::read_links() noexcept {
    std::array<net_link_t, most_links> now{};
    const uint32_t count = net_socket_get_links(now.data(), now.size());
    const auto known = std::span(links_).first(link_count_);
    if (std::ranges::equal(known, std::span(now).first(count), same)) return false;
    links_ = now;
    link_count_ = count;
    return true;
}

bool part_t::reaches(const net_link_t& link) const noexcept {
    return bound_.s_addr == 0 || bound_.s_addr == link.address.s_addr;
}

/// The handle reads its own addresses when it is opened.
void part_t::open() noexcept {
    net_wsdd_close(wire_);
    is_announced_ = false;
    const auto links = std::span(links_).first(link_count_);
    if (std::ranges::any_of(links, [&](const net_link_t& each) { return reaches(each); }))
        net_wsdd_open(wire_, thread_.nt(), nullptr, 0, CORE_HERE);
}

/// The port of the HTTP service is known a moment after the start.
void part_t::second() noexcept {
    if (!alarm_) return;
    if (read_links()) open();
    const core::owned_text address(is_announced_ || !wire_.priv ? nullptr : device_.address("", CORE_HERE));
    if (!address) return;
    try {
        announce();
        is_announced_ = true;
    } catch (const std::bad_alloc&) {
        // Once more in a second.
    }
}

void part_t::announce() {
    core::string addresses;
    for (const net_link_t& each : std::span(links_).first(link_count_)) {
        const core::owned_text host(reaches(each) ? socket_get_ip(each.address, CORE_HERE) : nullptr);
        const core::owned_text address(host ? device_.address(host.get(), CORE_HERE) : nullptr);
        if (address) addresses.append(addresses.empty() ? "" : " ").append(address.get());
    }
    const core::owned_text urn(device_.urn(CORE_HERE));
    const core::owned_text scopes(device_.scopes(CORE_HERE));
    const core::owned_text id = new_uuid();
    const core::owned_text message(id ? core_sprintf(CORE_HERE, "urn:%s", id.get()) : nullptr);
    core::owned_text text(soap_Hello(declarations, message.get(), urn.get(), types, addresses.c_str(), scopes.get()));
    if (!urn || !scopes || !message || !text) throw std::bad_alloc();
    order({core_timer() + random_delay(), {}, true, std::move(text)});
}

void part_t::on_message(const char* text, const sockaddr_in& from) {
    const auto links = std::span(links_).first(link_count_);
    const auto link = std::ranges::find_if(
        links, [&](const net_link_t& each) { return reaches(each) && is_on(each, from.sin_addr); });
    const auto of_host = std::ranges::count_if(
        waiting_, [&](const waiting_t& each) { return each.to.sin_addr.s_addr == from.sin_addr.s_addr; });
    if (link == links.end() || waiting_.size() >= most_waiting || of_host >= most_waiting_of_host) return;
    const core::owned_text scopes(device_.scopes(CORE_HERE));
    core::string asked;
    if (!scopes || !read_probe(text, scopes.get(), asked)) return;
    const core::owned_text urn(device_.urn(CORE_HERE));
    const core::owned_text host(socket_get_ip(link->address, CORE_HERE));
    const core::owned_text address(host ? device_.address(host.get(), CORE_HERE) : nullptr);
    const core::owned_text id = new_uuid();
    const core::owned_text message(id ? core_sprintf(CORE_HERE, "urn:%s", id.get()) : nullptr);
    if (!urn || !address || !message) return;
    core::owned_text match(
        soap_ProbeMatch(nullptr, message.get(), asked.c_str(), urn.get(), types, address.get(), scopes.get()));
    if (!match || std::strlen(match.get()) > longest_answer) return;
    order({core_timer() + random_delay(), from, false, std::move(match)});
}

void part_t::order(waiting_t one) {
    waiting_.push_back(std::move(one));
    send_due();
}

void part_t::send_due() noexcept {
    const uint64_t now = core_timer();
    for (const waiting_t& each : waiting_) {
        if (each.due > now) continue;
        if (each.to_all)
            net_wsdd_announce(wire_, each.text.get());
        else if (pace_.allows(each.to.sin_addr, now))
            net_wsdd_send(wire_, each.text.get(), each.to);
    }
    std::erase_if(waiting_, [&](const waiting_t& each) { return each.due <= now; });
    const auto next = std::ranges::min_element(waiting_, {}, &waiting_t::due);
    if (next != waiting_.end()) net_nt_command_at(alarm_, next->due);
}

namespace {

class service_t final : public service {
public:
    explicit service_t(const onvif& device) noexcept : device_(device) {}

    uint16_t port() const noexcept override { return 0; }
    void set_port(uint16_t) noexcept override {}
    bool listens() const noexcept override { return false; }
    claim_t claims(buffer_t) const noexcept override { return claim_t::no; }
    part* make_part(thread& on, failure_t* error) noexcept override {
        part* const made = core::create<part_t>(CORE_HERE, on, device_);
        if (!made) tell(error, "out of memory");
        return made;
    }
    client* take(thread&, net::Tcp*&) noexcept override { return nullptr; }
    void addresses(const stream&, const char*, void (*)(void* arg, const char* address),
                   void*) const noexcept override {}

private:
    const onvif& device_;
};

}  // namespace
}  // namespace discovery

service* discovery_service(const onvif& device) noexcept {
    return core::create<discovery::service_t>(CORE_HERE, device);
}

}  // namespace media
