// What answers a Probe, or says Hello.
#include "devices.h"

#include "common/digest.h"
#include "common/xml.h"
#include "core/owned.h"
#include "core/text.h"
#include "core/thread.h"
#include "core/time.h"
#include "inet/net_soap.h"
#include "inet/net_uri.h"
#include "inet/net_wsdd.h"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace viewer {
namespace {

constexpr size_t most_devices = 1000;
constexpr size_t longest_text = 16384;

struct device_t {
    std::string endpoint;
    std::string types;
    std::string scopes;
    std::string addresses;
};

std::string text_at(node* parent, const char* name) {
    const char* text = roxml_get_content(roxml_get_chld(parent, name, 0), nullptr, 0, nullptr);
    std::string out(text ? text : "");
    out.erase(0, out.find_first_not_of(" \t\r\n"));
    return out.substr(0, out.find_last_not_of(" \t\r\n") + 1);
}

/// What stands behind a scope's beginning, such as the name of the device.
std::string scope_of(const std::string& scopes, std::string_view kind) {
    const std::string begin = "onvif://www.onvif.org/" + std::string(kind) + '/';
    const size_t at = scopes.find(begin);
    if (at == scopes.npos) return "-";
    const char* const first = scopes.c_str() + at + begin.size();
    const core::owned_text text(uri_decode_part(first, first + std::strcspn(first, " \t\r\n"), CORE_HERE));
    return text ? text.get() : "-";
}

/// Devices that have been heard of, on the network thread, until the program's own takes them.
class listener {
public:
    listener() {
        wire.user = this;
        wire.on_message = [](net::wsdd_t* d, const char* text, sockaddr_in) {
            static_cast<listener*>(d->user)->take(text);
        };
    }

    std::vector<device_t> news() {
        const std::lock_guard held(lock_);
        return std::exchange(news_, {});
    }

    net::wsdd_t wire;

private:
    void take(const char* text) {
        if (std::strlen(text) > longest_text) return;
        const core::owned<soap::soap_t, soap_free> told(soap_parse(text));
        if (!told || !told->method) return;
        if (std::strcmp(told->method, "Hello") == 0) add(roxml_get_chld(told->body, "Hello", 0));
        node* const matches = roxml_get_chld(told->body, "ProbeMatches", 0);
        for (int i = 0; i < roxml_get_chld_nb(matches); ++i)
            add(roxml_get_chld(matches, nullptr, i));
    }

    void add(node* of) {
        device_t found{text_at(roxml_get_chld(of, "EndpointReference", 0), "Address"), text_at(of, "Types"),
                       text_at(of, "Scopes"), text_at(of, "XAddrs")};
        const bool known = std::ranges::find(endpoints_, found.endpoint) != endpoints_.end();
        if (found.endpoint.empty() || known || endpoints_.size() == most_devices) return;
        endpoints_.push_back(found.endpoint);
        const std::lock_guard held(lock_);
        news_.push_back(std::move(found));
    }

    std::vector<std::string> endpoints_;
    std::mutex lock_;
    std::vector<device_t> news_;
};

/// Devices that send no video are of the second type alone.
void probe(net::wsdd_t& wire) {
    constexpr const char* types[][2] = {
        {"xmlns:dn=\"http://www.onvif.org/ver10/network/wsdl\"", "dn:NetworkVideoTransmitter"},
        {"xmlns:tds=\"http://www.onvif.org/ver10/device/wsdl\"", "tds:Device"}};
    for (const auto& [declaration, type] : types) {
        const core::owned_text id(common_srand(32, CORE_HERE));
        const std::string message = "urn:inet:" + std::string(id ? id.get() : "");
        const core::owned_text text(soap_Probe(message.c_str(), declaration, type));
        net::net_wsdd_announce(wire, text.get());
    }
}

}  // namespace

outcome find_devices(const device_options& settings, std::string& why) {
    network on;
    listener heard;
    int opened = -1;
    on.run([&] { opened = net::net_wsdd_open(heard.wire, on, nullptr, 0, CORE_HERE); });
    if (opened != 0) {
        why = "no socket for the search";
        return outcome::failed;
    }
    table out(settings.json, {20, 20, 48, 48, 40, 0});
    bool any = false;
    unsigned probes = 0;
    const uint64_t begin = core_timer();
    const uint64_t end = begin + settings.seconds * uint64_t{1'000'000};
    for (uint64_t now = begin; now < end && !apps::interrupted(); now = core_timer()) {
        // A datagram may be lost.
        if (probes < 3 && now >= begin + probes * uint64_t{300'000}) {
            probe(heard.wire);
            ++probes;
        }
        for (const device_t& each : heard.news()) {
            any = true;
            out.print({{"name", scope_of(each.scopes, "name")},
                       {"hardware", scope_of(each.scopes, "hardware")},
                       {"addresses", each.addresses},
                       {"endpoint", each.endpoint},
                       {"types", each.types},
                       {"scopes", each.scopes}});
        }
        core_sleep(50);
    }
    on.run([&] { net::net_wsdd_close(heard.wire); });
    if (!any) why = "no device answered";
    return any ? outcome::ok : outcome::nothing_received;
}

}  // namespace viewer
