// The XML reader beside expat.
#include "support/files.h"
#include "xml/tree.h"

#include "core/owned.h"

#include <cstring>
#include <expat.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <span>

namespace {

/// A name and the attributes in order, each name behind its namespace and a line end as the other reader gives it.
struct printed {
    std::string head, text, children;

    std::string whole() const { return '<' + head + "> [" + text + "](" + children + ')'; }
};

std::string expanded(const char* uri, const char* name) { return uri ? std::string(uri) + '\n' + name : name; }

const char* content_of(node* n) { return roxml_get_content(n, nullptr, 0, nullptr); }

std::string print(node* n) {
    const char* text = content_of(n);
    printed out{expanded(content_of(roxml_get_ns(n)), n->name), text ? text : "", ""};
    for (const auto& attribute : std::span(n->attributes, n->attribute_count))
        out.head += ' ' + expanded(attribute.uri, attribute.name) + '=' + attribute.value;
    for (node* child = roxml_get_chld(n, nullptr, 0); child; child = roxml_get_next_sibling(child))
        out.children += print(child);
    return out.whole();
}

using stack = std::vector<printed>;

/// The same by the other reader; empty when that refuses the text.
std::string print_by_expat(const std::string& text) {
    const auto start = [](void* open, const char* name, const char** attributes) {
        printed element{name, "", ""};
        for (; *attributes; attributes += 2)
            element.head += std::string(" ") + attributes[0] + '=' + attributes[1];
        static_cast<stack*>(open)->push_back(element);
    };
    const auto end = [](void* of, const char*) {
        auto& open = *static_cast<stack*>(of);
        const std::string whole = open.back().whole();
        open.pop_back();
        open.back().children += whole;
    };
    stack open(1);
    XML_Parser parser = XML_ParserCreateNS(nullptr, '\n');
    XML_SetUserData(parser, &open);
    XML_SetElementHandler(parser, start, end);
    XML_SetCharacterDataHandler(parser, [](void* of, const char* characters, int size) {
        static_cast<stack*>(of)->back().text.append(characters, static_cast<size_t>(size));
    });
    const auto status = XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1);
    XML_ParserFree(parser);
    return status == XML_STATUS_OK ? open.front().children : "";
}

/// Both refuse a text or read the same; the other one has no bounds, takes more encodings and versions and a DOCTYPE.
void compare(const std::string& text) {
    char error[64];
    const core::owned<node, roxml_close> document(
        roxml_load(text.data(), static_cast<unsigned>(text.size()), error, sizeof(error)));
    for (const char* own : {"too deep", "DOCTYPE", "other than UTF-8", "version 1.0"})
        if (std::strstr(error, own)) return;
    const std::string ours = document ? print(roxml_get_chld(document.get(), nullptr, 0)) : "";
    ASSERT_EQ(ours, print_by_expat(text)) << text << '\n' << error;
}

TEST(Xml, ReadsAndRefusesWhatAnotherReaderDoes) {
    for (const auto& seed : std::filesystem::directory_iterator(INET_TEST_SEEDS "xml")) {
        if (seed.path().filename() == "deep") continue;  // at our own bound
        const std::string whole = test::read_file(seed.path().string());
        for (size_t at = 0; at <= whole.size() && !HasFatalFailure(); ++at) {
            const std::string before = whole.substr(0, at);
            compare(before);
            for (const char* other : {"", "\r", "x"})
                if (at < whole.size()) compare(before + other + whole.substr(at + 1));
            for (const char* piece :
                 {"<", ">",  "&", "'",     "\"",  "]]>",  "--", "/", "=",    ":",    "!",        "?",
                  " ", "\r", "x", "xmlns", "<a>", "</a>", "&#", ";", "\x01", "\xff", "\xe2\x82", "-"})
                compare(before + piece + whole.substr(at));
        }
    }
}

}  // namespace
