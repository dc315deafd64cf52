// Requests: read, asked for arguments, and answered with a document that our own strict reader takes, with the ids of the
// request.
#include "fuzz.h"

#include "common/xml.h"
#include "inet/net_soap.h"

using request_t = test::held<soap::soap_t, soap_free>;
using tree = test::held<node, roxml_close>;

namespace {

std::string text_at(node* n) {
    char text[1024];
    return n && roxml_get_content(n, text, sizeof text, nullptr) ? text : "";
}

/// What does not fit is cut between characters.
void check_value(node* parent, const char* name) {
    const std::vector<char> untouched(8, '#');
    for (int size = 1; size < 8; ++size) {
        std::vector<char> text(untouched), ns(untouched);
        soap_get_value(parent, name, text.data(), size, ns.data(), size);
        for (const auto& each : {text, ns}) {
            fuzz::require_utf8(each.data());
            require(std::strlen(each.data()) < static_cast<size_t>(size) && each[static_cast<size_t>(size)] == '#');
        }
    }
}

void check_answer(const soap::soap_t& request, const char* argument) {
    const param_t params[] = {{"argument", argument}, {}};
    const core::owned_text text(
        net_soap_response(&request, nullptr, " xmlns:x=\"urn:x\"", "<x:a>${argument}</x:a><x:b/>", params, CORE_HERE));
    if (!text) return require(fuzz::starved);
    const tree document(roxml_load(text.get(), static_cast<unsigned>(std::strlen(text.get())), nullptr, 0));
    if (!document) return require(fuzz::starved);
    const request_t answer(soap_parse(text.get()));
    if (!answer || !answer->xml) return require(fuzz::starved);
    require(answer->method == std::string(request.method ? request.method : "") + "Response");
    require(std::strcmp(answer->ns, "http://www.onvif.org/ver10/schema") == 0);
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
    require(request->body || !request->method);
    node* const called = roxml_get_chld(request->body, nullptr, 0);
    for (const char* name : {"Category", "Types"}) {
        check_value(called, name);
        const core::owned_text argument(net_soap_get_arg(request.get(), name, CORE_HERE));
        require(fuzz::starved || text_at(roxml_get_chld(called, name, 0)) == (argument ? argument.get() : ""));
        const core::owned_text encoded(xml_encode(argument.get(), CORE_HERE));
        check_answer(*request, encoded.get());
    }
}
