// Answers to requests, with a header that repeats what stands in theirs, and faults.
#include "net_soap/envelope.h"

#include "common/xml.h"
#include "core/memory.h"
#include "core/owned.h"
#include "core/template.h"
#include "inet/net_soap.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr int text_room = 1024;

/// Elements of an answer's header. A null text is an element that the request does not have.
struct header_elements {
    core::owned_text message_id, reply_to, to, action;
    bool is_complete = true;

    void read(const soap::soap_t& request) noexcept {
        node* const from = request.header;
        message_id = repeat(roxml_get_chld(from, "MessageID", 0), soap::message_id_element);
        reply_to = repeat(roxml_get_chld(roxml_get_chld(from, "ReplyTo", 0), "Address", 0), soap::reply_to_element);
        to = repeat(roxml_get_chld(from, "To", 0), soap::to_element);
        action = answer_to(roxml_get_chld(from, "Action", 0), request.method);
    }

private:
    core::owned_text made(const char* document, std::initializer_list<soap::field> fields) noexcept {
        core::owned_text text(soap::fill(document, fields, CORE_HERE));
        is_complete = is_complete && text;
        return text;
    }

    core::owned_text repeat(node* of, const char* document) noexcept {
        if (!of) return nullptr;
        char text[text_room];
        return made(document, {{"text", roxml_get_content(of, text, text_room, nullptr)}});
    }

    core::owned_text answer_to(node* of, const char* method) noexcept {
        char text[text_room];
        char* const slash = roxml_get_content(of, text, text_room, nullptr) ? std::strrchr(text, '/') : nullptr;
        if (!slash) return nullptr;
        *slash = '\0';
        return made(soap::action_element, {{"prefix", text}, {"method", method}});
    }
};

// The faults, by their numbers.

constexpr char action_failed[] = "The requested SOAP action failed.";

/// `subsubcode` is the name of a fault below its subcode. No place of the document shows it.
constexpr struct row {
    int number;
    const char *code, *subcode, *subsubcode, *reason, *detail;
} faults[] = {
    {1, "env:Receiver", "ter:Action", nullptr, "Action Failed", action_failed},
    {2, "env:Receiver", "ter:Action", "ter:MaxNVTProfiles", "Maximum number reached",
     "The maximum number of supported profiles has been reached."},
    {3, "env:Sender", "ter:InvalidArgVal", nullptr, "Invalid Args", action_failed},
    {0, "", "", nullptr, "", ""},
};

}  // namespace

char* net_soap_response(const soap::soap_t* request, const char* ns, const char* xmlns, const char* tmpl,
                        const param_t* params, const char* file, int line) noexcept {
    const soap::soap_t none{};
    const soap::soap_t& of = request ? *request : none;
    header_elements header;
    header.read(of);
    const core::owned_text body(core_template_parse(tmpl ? tmpl : "", params, CORE_HERE));
    if (!header.is_complete || !body) return nullptr;
    using soap::xml;
    return soap::fill(soap::response,
                      {{"message_id", xml{header.message_id.get()}},
                       {"reply_to", xml{header.reply_to.get()}},
                       {"to", xml{header.to.get()}},
                       {"action", xml{header.action.get()}},
                       {"ns", xml{ns ? ns : "tt"}},
                       {"method", xml{of.method}},
                       {"xmlns", xml{xmlns}},
                       {"xml", xml{body.get()}}},
                      file, line);
}

char* soap_error(int number) noexcept {
    const auto* const closing = std::end(faults) - 1;
    const auto* const found =
        std::find_if(faults, closing, [number](const row& fault) { return fault.number == number; });
    return soap::fill(soap::fault,
                      {{"code", found->code},
                       {"subcode", found->subcode},
                       {"subsubcode", found->subsubcode},
                       {"reason", found->reason},
                       {"detail", found->detail}},
                      CORE_HERE);
}
