#include "discovery/probe.h"

#include "common/xml.h"
#include "core/text.h"
#include "inet/net_soap.h"

#include <algorithm>
#include <cstring>

namespace media::discovery {

namespace {

/// Whether all words of a list are as `is` wants them.
template <class Is>
bool all_of(std::string_view list, Is is) noexcept {
    constexpr const char* blanks = " \t\r\n";
    for (size_t at = list.find_first_not_of(blanks); at != list.npos; at = list.find_first_not_of(blanks, at)) {
        const std::string_view word = list.substr(at, list.find_first_of(blanks, at) - at);
        if (!is(word)) return false;
        at += word.size();
    }
    return true;
}

/// The reader of XML does not tell what prefixes inside a text stand for.
bool is_own_type(std::string_view name) noexcept {
    const size_t colon = name.find(':');
    if (colon != name.npos) name.remove_prefix(colon + 1);
    return name == "NetworkVideoTransmitter" || name == "Device";
}

/// RFC 3986 by segments. Scheme and host have no case.
bool begins_with(std::string_view scope, std::string_view wanted) noexcept {
    while (wanted.ends_with('/'))
        wanted.remove_suffix(1);
    if (scope.size() < wanted.size() || (scope.size() > wanted.size() && scope[wanted.size()] != '/')) return false;
    const size_t scheme = wanted.find("://");
    const size_t host = scheme == wanted.npos ? 0 : std::min(wanted.find('/', scheme + 3), wanted.size());
    return core_strncasecmp(scope.data(), wanted.data(), host) == 0 &&
           scope.substr(host).starts_with(wanted.substr(host));
}

enum class rule_t : uint8_t { prefix, equal, unknown };

rule_t rule_of(node* scopes) noexcept {
    const char* told = roxml_get_attr(scopes, "MatchBy");
    const std::string_view name = told ? std::string_view(told).substr(std::string_view(told).rfind('/') + 1) : "";
    if (name.empty() || name == "rfc3986" || name == "rfc2396") return rule_t::prefix;
    return name == "strcmp0" ? rule_t::equal : rule_t::unknown;
}

std::string_view text_of(node* parent, const char* name) noexcept {
    const char* text = roxml_get_content(roxml_get_chld(parent, name, 0), nullptr, 0, nullptr);
    return text ? text : "";
}

bool fits(node* probe, std::string_view scopes) noexcept {
    const std::string_view wanted = text_of(probe, "Scopes");
    const rule_t rule = rule_of(roxml_get_chld(probe, "Scopes", 0));
    const auto is_own_scope = [&](std::string_view one) {
        return rule != rule_t::unknown && !all_of(scopes, [&](std::string_view own) {
                   return rule == rule_t::equal ? own != one : !begins_with(own, one);
               });
    };
    return all_of(text_of(probe, "Types"), is_own_type) && all_of(wanted, is_own_scope);
}

}  // namespace

bool read_probe(const char* text, std::string_view scopes, core::string& message_id) {
    if (std::strlen(text) > longest_probe) return false;
    const core::owned<soap::soap_t, soap_free> request(soap_parse(text));
    if (!request || !request->method || std::strcmp(request->method, "Probe") != 0) return false;
    char id[1024];
    if (!roxml_get_content(roxml_get_chld(request->header, "MessageID", 0), id, sizeof id, nullptr)) return false;
    message_id.assign(id);
    return fits(roxml_get_chld(request->body, "Probe", 0), scopes);
}

}  // namespace media::discovery
