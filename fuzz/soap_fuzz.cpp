// Requests and Probes: read, asked for arguments, and answered with a document that our own strict reader takes, with
// the ids of the request.
#include "fuzz.h"

#include "common/xml.h"
#include "inet/net_soap.h"

using request_t = core::owned<soap::soap_t, soap_free>;
using tree = core::owned<node, roxml_close>;

namespace {

std::string text_at(node* n) {
    char text[1024];
    return n && roxml_get_content(n, text, sizeof text, nullptr) ? text : "";
}

/// What does not fit is cut between characters.
void check_value(node* parent, int size) {
    std::vector<char> text(8, '#'), ns(8, '#');
    soap_get_value(parent, "Types", text.data(), size, ns.data(), size);
    for (const auto& each : {text, ns}) {
        fuzz::require_utf8(each.data());
        require(std::strlen(each.data()) < static_cast<size_t>(size) && each[static_cast<size_t>(size)] == '#');
    }
}

void check_answer(const soap::soap_t& request, const char* argument) {
    const core::owned_text encoded(xml_encode(argument, CORE_HERE));
    const param_t params[] = {{"argument", static_cast<const char*>(encoded.get())}, {}};
    const core::owned_text text(
        net_soap_response(&request, nullptr, nullptr, "<tt:a>${argument}</tt:a>", params, CORE_HERE));
    const auto size = static_cast<unsigned>(text ? std::strlen(text.get()) : 0);
    const tree document(roxml_load(text.get(), size, nullptr, 0));
    const request_t answer(soap_parse(text.get()));
    if (fuzz::starved) return;
    require(document && answer->method == std::string(request.method ? request.method : "") + "Response");
    for (const char* name : {"MessageID", "To"}) {
        node* const asked = roxml_get_chld(request.header, name, 0);
        node* const answered = roxml_get_chld(answer->header, name, 0);
        require((asked == nullptr) == (answered == nullptr) && text_at(asked) == text_at(answered));
    }
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    const request_t request(soap_parse(fuzz::text_of(input).c_str()));
    if (!request) return require(fuzz::starved);
    require(request->xml || (!request->header && !request->body && !request->method && !request->ns));
    node* const called = roxml_get_chld(request->body, nullptr, 0);
    for (int size = 1; size < 8; ++size)
        check_value(called, size);
    const core::owned_text types(net_soap_get_arg(request.get(), "Types", CORE_HERE));
    require(fuzz::starved || text_at(roxml_get_chld(called, "Types", 0)) == (types ? types.get() : ""));
    check_answer(*request, types.get());
}
