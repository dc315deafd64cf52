// Requests: what is read of them, and what they are asked for.
#include "common/xml.h"
#include "core/memory.h"
#include "core/owned.h"
#include "core/text.h"
#include "inet/net_soap.h"

#include <string_view>

namespace {

constexpr int name_room = 512;
constexpr int text_room = 1024;

/// Takes an envelope in place of one before it. @return false when memory is out
bool take_envelope(soap::soap_t& request, node* envelope) noexcept {
    core_mfree(request.method);
    core_mfree(request.ns);
    request.method = request.ns = nullptr;
    request.header = roxml_get_chld(envelope, "Header", 0);
    request.body = roxml_get_chld(envelope, "Body", 0);
    node* const called = roxml_get_chld(request.body, nullptr, 0);
    char name[name_room];
    if (!roxml_get_name(called, name, name_room)) return true;
    request.method = core_strdup(name, CORE_HERE);
    const char* const ns = roxml_get_content(roxml_get_ns(called), nullptr, 0, nullptr);
    request.ns = core_strdup(ns, CORE_HERE);
    return request.method && (request.ns || !ns);
}

bool take_document(soap::soap_t& request) noexcept {
    for (node* at = roxml_get_chld(request.xml, nullptr, 0); at;) {
        const std::string_view name = roxml_get_name(at, nullptr, 0);
        if (name == "Envelope" && !take_envelope(request, at)) return false;
        at = name == "documentRoot" ? roxml_get_chld(at, nullptr, 0) : roxml_get_next_sibling(at);
    }
    return true;
}

}  // namespace

soap::soap_t* soap_parse(const char* text) noexcept {
    if (!text) return nullptr;
    core::owned<soap::soap_t, soap_free> request(core::create<soap::soap_t>(CORE_HERE));
    if (!request) return nullptr;
    request->text = core_strdup(text, CORE_HERE);
    if (!request->text) return nullptr;
    request->xml = roxml_load_buf(request->text);
    return take_document(*request) ? request.release() : nullptr;
}

void soap_free(soap::soap_t* request) noexcept {
    if (!request) return;
    roxml_close(request->xml);
    core_mfree(request->method);
    core_mfree(request->ns);
    core_mfree(request->text);
    core::destroy(request);
}

char* net_soap_get_arg(const soap::soap_t* request, const char* name, const char* file, int line) noexcept {
    if (!request || !name) return nullptr;
    node* const called = roxml_get_chld(request->body, nullptr, 0);
    char text[text_room];
    return core_strdup(roxml_get_content(roxml_get_chld(called, name, 0), text, text_room, nullptr), file, line);
}

int soap_get_value(node* parent, const char* name, char* buf, int size, char* nsbuf, int nssize) noexcept {
    node* const child = name ? roxml_get_chld(parent, name, 0) : nullptr;
    node* const content = roxml_get_content_ns(child, nsbuf, nssize);
    if (buf && !roxml_get_content(content, buf, size, nullptr) && size > 0) *buf = '\0';
    return 0;
}
