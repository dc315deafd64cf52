// XML from any bytes: every part of what was read can be asked for and is well-formed UTF-8. That it is what another
// reader reads is for posix_xml_test.cpp.
#include "fuzz.h"

#include "common/xml.h"

namespace {

void check_content(node* n) {
    int length = -1;
    const char* text = roxml_get_content(n, nullptr, 0, &length);
    require(length >= 0 && (length > 0) == (text != nullptr));
    const std::string_view whole(text ? text : "", static_cast<size_t>(length));
    fuzz::require_utf8(whole);
    char cut[6];
    for (int size = 1; size <= 6 && text; ++size) {
        fuzz::require_utf8(roxml_get_content(n, cut, size, &length));
        require(whole.starts_with(cut) && std::strlen(cut) == static_cast<size_t>(length));
        require(length + 4 >= std::min(size, static_cast<int>(whole.size()) + 4));
    }
}

void check(node* n) {
    const std::string name = roxml_get_name(n, nullptr, 0);
    require(!name.empty());
    fuzz::require_utf8(name);
    check_content(roxml_get_ns(n));
    check_content(n);
    node* next = roxml_get_chld(n, nullptr, 0);
    for (int i = 0; i < roxml_get_chld_nb(n); ++i, next = roxml_get_next_sibling(next)) {
        require(next && next == roxml_get_chld(n, nullptr, i));
        require(roxml_get_chld(n, roxml_get_name(next, nullptr, 0), 0) != nullptr);
        check(next);
    }
    require(!next);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    char error[64];
    const auto* text = reinterpret_cast<const char*>(input.data());
    node* document = roxml_load(text, static_cast<unsigned>(input.size()), error, sizeof(error));
    require((document != nullptr) == (error[0] == '\0'));
    require(!fuzz::starved || std::string_view(error) == "out of memory");
    if (!document) return;
    require(core_mem_bytes() <= 24 * input.size() + (2 << 20));
    node* root = roxml_get_chld(document, nullptr, 0);
    check(root);
    (void)roxml_get_attr(root, "a");
    roxml_close(root);
}
