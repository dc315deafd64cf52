#include "sip/message.h"

#include "scan.h"

#include <algorithm>
#include <charconv>
#include <new>

namespace sip {

namespace {

constexpr std::string_view blanks = " \t";

struct reason_t {
    unsigned status;
    const char* text;
};
constexpr reason_t reasons[] = {
    {100, "Trying"},
    {180, "Ringing"},
    {181, "Call Is Being Forwarded"},
    {182, "Queued"},
    {183, "Session Progress"},
    {200, "OK"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Moved Temporarily"},
    {305, "Use Proxy"},
    {380, "Alternative Service"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Timeout"},
    {410, "Gone"},
    {413, "Request Entity Too Large"},
    {414, "Request-URI Too Long"},
    {415, "Unsupported Media Type"},
    {416, "Unsupported URI Scheme"},
    {420, "Bad Extension"},
    {421, "Extension Required"},
    {423, "Interval Too Brief"},
    {480, "Temporarily Unavailable"},
    {481, "Call/Transaction Does Not Exist"},
    {482, "Loop Detected"},
    {483, "Too Many Hops"},
    {484, "Address Incomplete"},
    {485, "Ambiguous"},
    {486, "Busy Here"},
    {487, "Request Terminated"},
    {488, "Not Acceptable Here"},
    {491, "Request Pending"},
    {493, "Undecipherable"},
    {500, "Server Internal Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Server Time-out"},
    {505, "Version Not Supported"},
    {513, "Message Too Large"},
    {600, "Busy Everywhere"},
    {603, "Decline"},
    {604, "Does Not Exist Anywhere"},
    {606, "Not Acceptable"},
};

constexpr const char* methods[] = {"REGISTER", "INVITE",    "ACK",    "BYE",  "CANCEL",
                                   "OPTIONS",  "SUBSCRIBE", "NOTIFY", "INFO", "MESSAGE"};

struct compact_t {
    std::string_view name, compact;
};
constexpr compact_t compacts[] = {
    {"Via", "v"},          {"From", "f"},           {"To", "t"},    {"Call-ID", "i"}, {"Contact", "m"},
    {"Content-Type", "c"}, {"Content-Length", "l"}, {"Event", "o"},
};

/// Behind a display name, in which any character may stand.
std::string_view skip_display(std::string_view address) noexcept {
    address = scan::skip(address, blanks);
    if (!address.starts_with('"')) return address;
    for (size_t i = 1; i < address.size(); ++i) {
        if (address[i] == '\\')
            ++i;
        else if (address[i] == '"')
            return address.substr(i + 1);
    }
    return {};
}

/// The address without its parameters, and the parameters of the field.
void split_address(std::string_view address, std::string_view& uri, std::string_view& parameters) noexcept {
    address = skip_display(address);
    const size_t open = address.find('<');
    const size_t close = address.find('>', open == std::string_view::npos ? 0 : open);
    if (open == std::string_view::npos || close == std::string_view::npos) {
        uri = address.substr(0, address.find(';'));
        parameters = address.substr(uri.size());
    } else {
        uri = address.substr(open + 1, close - open - 1);
        parameters = address.substr(close + 1);
    }
    uri = scan::trim(uri, blanks);
}

std::string_view parameter(std::string_view parameters, std::string_view name) noexcept {
    while (!parameters.empty()) {
        const scan::pair pair = scan::split(scan::take(parameters, ';'), '=');
        if (scan::same_name(scan::trim(pair.key, blanks), name)) return scan::trim(pair.value, blanks);
    }
    return {};
}

bool is_plain(char c) noexcept {
    return static_cast<unsigned char>(c) > ' ' && c != '\x7f' && c != '<' && c != '>' && c != '"';
}

std::string_view plain_part(std::string_view text) noexcept {
    const auto end = std::ranges::find_if_not(text, is_plain);
    return text.substr(0, static_cast<size_t>(end - text.begin()));
}

}  // namespace

const char* reason(unsigned status) noexcept {
    const auto* found = std::ranges::find(reasons, status, &reason_t::status);
    return found == std::end(reasons) ? "" : found->text;
}

const char* known_method(std::string_view method) noexcept {
    const auto* found = std::ranges::find(methods, method);
    return found == std::end(methods) ? "UNKNOWN" : *found;
}

owned_header read(std::string_view head) {
    core::string text(head.begin(), head.end());
    std::ranges::replace(text, '\0', ' ');  // a text would end there
    for (size_t at = text.find("\r\n"); at != core::string::npos && at + 2 < text.size();
         at = text.find("\r\n", at + 2)) {
        if (blanks.find(text[at + 2]) != std::string_view::npos) text[at] = text[at + 1] = ' ';
    }
    owned_header header(http_header_parse(text.data(), static_cast<unsigned>(text.size()), CORE_HERE));
    if (!header) throw std::bad_alloc();
    return header;
}

bool is_named(std::string_view said, std::string_view name) noexcept {
    said = scan::trim(said, blanks);
    if (scan::same_name(said, name)) return true;
    const auto* compact = std::ranges::find(compacts, name, &compact_t::name);
    return compact != std::end(compacts) && scan::same_name(said, compact->compact);
}

std::string_view field(const header_t& header, std::string_view name) noexcept {
    for (value_t* const* each = header.fields; each && *each; ++each)
        if (is_named((*each)->key, name)) return scan::trim(scan::text((*each)->value), blanks);
    return "";
}

via_t top_via(const header_t& header) noexcept {
    via_t via;
    std::string_view text = field(header, "Via");
    const std::string_view top = scan::take(text, ',');
    via.others = scan::trim(text, blanks);
    std::string_view parameters = top;
    std::string_view sent_by = scan::take(parameters, ';');
    const size_t slash = sent_by.rfind('/');
    if (slash == std::string_view::npos) return via;
    sent_by = scan::trim(sent_by.substr(slash + 1), blanks);
    via.transport = sent_by.substr(0, sent_by.find_first_of(blanks));
    sent_by = scan::trim(sent_by.substr(via.transport.size()), blanks);
    const size_t colon = sent_by.starts_with('[') ? sent_by.find(':', sent_by.find(']')) : sent_by.find(':');
    via.host = scan::trim(sent_by.substr(0, colon), blanks);
    if (colon != std::string_view::npos) via.port = scan::decimal(sent_by.substr(colon + 1));
    via.parameters = parameters;
    via.branch = parameter(parameters, "branch");
    via.received = parameter(parameters, "received");
    via.rport = parameter(parameters, "rport");
    via.good = !via.host.empty() && via.port <= 65535;
    return via;
}

// What else stands in the top Via goes back as well: proxies find their way by it (RFC 3261, 8.2.6.2).
void put_vias(core::string& to, const header_t& header, std::string_view received, std::string_view rport) {
    const via_t via = top_via(header);
    core::string more;
    for (std::string_view rest = via.parameters; !rest.empty();) {
        const std::string_view each = scan::trim(scan::take(rest, ';'), blanks);
        const std::string_view name = scan::trim(scan::split(each, '=').key, blanks);
        const bool ours =
            scan::same_name(name, "branch") || scan::same_name(name, "received") || scan::same_name(name, "rport");
        if (!name.empty() && !ours) more.append(";").append(each);
    }
    put(to, "Via",
        {"SIP/2.0/", via.transport, " ", via.host, ":", number_text(via.port),
         via.branch.empty() ? "" : ";branch=", via.branch, ";received=", received, ";rport=", rport, more});
    if (!via.others.empty()) put(to, "Via", {via.others});
    bool top = true;
    for (value_t* const* each = header.fields; each && *each; ++each) {
        if (!is_named((*each)->key, "Via")) continue;
        if (!top) put(to, "Via", {scan::text((*each)->value)});
        top = false;
    }
}

bool read_cseq(const header_t& header, uint32_t& number, std::string_view& method) noexcept {
    const std::string_view text = field(header, "CSeq");
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || number > 0x7fffffff) return false;
    method = scan::trim(text.substr(static_cast<size_t>(end - text.data())), blanks);
    return !method.empty();
}

std::string_view tag_of(std::string_view address) noexcept {
    std::string_view uri, parameters;
    split_address(address, uri, parameters);
    return plain_part(parameter(parameters, "tag"));
}

std::string_view uri_of(std::string_view address) noexcept {
    std::string_view uri, parameters;
    split_address(address, uri, parameters);
    return plain_part(uri);
}

std::string_view place_of(std::string_view address) noexcept {
    std::string_view uri, parameters;
    split_address(address, uri, parameters);
    const size_t colon = uri.find(':');
    const std::string_view scheme = uri.substr(0, colon);
    if (colon == std::string_view::npos || (!scan::same_name(scheme, "sip") && !scan::same_name(scheme, "sips")))
        return {};
    uri.remove_prefix(colon + 1);
    const size_t at = uri.find('@');
    const size_t end = uri.find_first_of(";?", at == std::string_view::npos ? 0 : at);
    return plain_part(uri.substr(0, end));
}

std::string_view user_of(std::string_view address) noexcept {
    std::string_view uri, parameters;
    split_address(address, uri, parameters);
    if (scan::same_name(uri.substr(0, 4), "tel:")) return plain_part(uri.substr(4, uri.find(';') - 4));
    const std::string_view place = place_of(address);
    const size_t at = place.find('@');
    return at == std::string_view::npos ? std::string_view() : place.substr(0, at);
}

// A method, a target and a version, one blank between them (RFC 3261, 7.1).
bool is_request_line(std::string_view head) noexcept {
    head = head.substr(0, head.find('\r'));
    return std::ranges::count(head, ' ') == 2 && head.substr(head.rfind(' ') + 1).starts_with("SIP/");
}

/// Calls `tell` with each option that a request requires and `supported` lacks.
template <class Tell>
void for_each_unsupported(const header_t& header, Tell tell) {
    for (value_t* const* each = header.fields; each && *each; ++each) {
        if (!is_named((*each)->key, "Require")) continue;
        for (std::string_view rest = scan::text((*each)->value); !rest.empty();) {
            const std::string_view option = scan::trim(scan::take(rest, ','), " \t");
            bool known = option.empty();
            for (std::string_view ours = supported; !ours.empty();)
                known = scan::same_name(scan::trim(scan::take(ours, ','), " "), option) || known;
            if (!known) tell(option);
        }
    }
}

unsigned fault_of(const header_t& header) noexcept {
    if (!header.protocol) return 505;
    for (const std::string_view name : {"Via", "From", "To", "Call-ID"})
        if (field(header, name).empty()) return 400;
    for (const std::string_view name : {"From", "To"})
        if (skip_display(field(header, name)).empty()) return 400;  // a quotation mark without its other one
    for (const std::string_view hole : {";;", ";,", ",,", ",;"})
        if (field(header, "Via").find(hole) != std::string_view::npos) return 400;
    uint32_t number = 0;
    std::string_view method;
    if (!top_via(header).good || !read_cseq(header, number, method) || method != scan::text(header.method)) return 400;
    // Fields that may stand once (RFC 4475, 3.3.8).
    for (const std::string_view name : {"From", "To", "Call-ID", "CSeq", "Max-Forwards"}) {
        uint32_t count = 0;
        for (value_t* const* each = header.fields; each && *each; ++each)
            count += is_named((*each)->key, name);
        if (count > 1) return 400;
    }
    const std::string_view uri = scan::text(header.uri);
    const size_t colon = uri.find(':');
    if (uri.empty() || uri.starts_with('<') || colon == std::string_view::npos) return 400;
    const std::string_view scheme = uri.substr(0, colon);
    if (!scan::same_name(scheme, "sip") && !scan::same_name(scheme, "sips")) return 416;
    const bool ignores = method == "CANCEL" || method == "ACK";  // RFC 3261, 8.2.2.3
    bool understood = true;
    for_each_unsupported(header, [&](std::string_view) { understood = false; });
    return ignores || understood ? 0 : 420;
}

core::string unsupported(const header_t& header) {
    core::string out;
    for_each_unsupported(header, [&](std::string_view option) {
        if (!out.empty()) out.append(", ");
        out.append(option);
    });
    return out;
}

core::string join(std::initializer_list<std::string_view> parts) {
    core::string out;
    for (const std::string_view part : parts)
        out.append(part);
    return out;
}

core::string number_text(uint32_t number) {
    char text[16];
    return core::string(text, std::to_chars(std::begin(text), std::end(text), number).ptr);
}

void put(core::string& to, std::string_view name, std::initializer_list<std::string_view> value) {
    to.append(name).append(": ");
    for (const std::string_view part : value)
        for (const char c : part)
            if (c != '\r' && c != '\n' && c != '\0') to.push_back(c);
    to.append("\r\n");
}

void put_body(core::string& to, std::string_view body) {
    put(to, "Content-Length", {number_text(static_cast<uint32_t>(body.size()))});
    to.append("\r\n").append(body);
}

}  // namespace sip
