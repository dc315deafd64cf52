// The XML reader beside expat.
#include "support/exact.h"
#include "support/files.h"
#include "xml/tree.h"

#include <expat.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace {

/// An element as {namespace}name attributes="in order" [own text] (children).
struct printed {
    std::string head, text, children;

    std::string whole() const { return head + '[' + text + "](" + children + ')'; }
};

std::string expanded(std::string_view uri, std::string_view name) {
    return ('{' + std::string(uri) + '}').append(name);
}

std::string_view content_of(node* n) {
    int size = 0;
    const char* text = roxml_get_content(n, nullptr, 0, &size);
    return text ? std::string_view(text, static_cast<size_t>(size)) : "";
}

std::string print(node* n) {
    printed out{expanded(content_of(roxml_get_ns(n)), n->name), std::string(content_of(n)), ""};
    for (uint32_t i = 0; i < n->attribute_count; ++i) {
        const common::xml::attribute& attribute = n->attributes[i];
        out.head += ' ' + expanded(attribute.uri ? attribute.uri : "", attribute.name) + '=' + attribute.value;
    }
    for (node* child = roxml_get_chld(n, nullptr, 0); child; child = roxml_get_next_sibling(child))
        out.children += print(child);
    return out.whole();
}

/// The same of another reader; empty when that refuses the text.
class expat_print {
public:
    static std::string of(std::string_view text) {
        expat_print reading;
        XML_Parser parser = XML_ParserCreateNS(nullptr, separator);
        XML_SetUserData(parser, &reading);
        XML_SetElementHandler(parser, start, end);
        XML_SetCharacterDataHandler(parser, characters);
        const auto status = XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1);
        XML_ParserFree(parser);
        return status == XML_STATUS_OK ? reading.open_.front().children : "";
    }

private:
    static constexpr char separator = '\n';

    static std::string name_of(std::string_view name) {
        const size_t split = name.rfind(separator);
        return split == name.npos ? expanded("", name) : expanded(name.substr(0, split), name.substr(split + 1));
    }
    static void start(void* self, const char* name, const char** attributes) {
        printed element{name_of(name), "", ""};
        for (; *attributes; attributes += 2)
            element.head += ' ' + name_of(attributes[0]) + '=' + attributes[1];
        static_cast<expat_print*>(self)->open_.push_back(element);
    }
    static void end(void* self, const char*) {
        auto& open = static_cast<expat_print*>(self)->open_;
        const std::string whole = open.back().whole();
        open.pop_back();
        open.back().children += whole;
    }
    static void characters(void* self, const char* text, int size) {
        static_cast<expat_print*>(self)->open_.back().text.append(text, static_cast<size_t>(size));
    }

    std::vector<printed> open_{1};
};

/// Ours and the other reader either both refuse a text or read the same. The other one has no bounds, takes every
/// version and other encodings, and reads a DOCTYPE.
void compare(const std::string& text) {
    const test::exact_bytes bytes(text);
    char error[64];
    node* document = roxml_load(bytes.data(), bytes.size(), error, sizeof(error));
    const std::string ours = document ? print(roxml_get_chld(document, nullptr, 0)) : "";
    roxml_close(document);
    const std::string_view reason = error;
    for (const char* own : {"too deep", "DOCTYPE", "other than UTF-8", "version 1.0"})
        if (reason.find(own) != reason.npos) return;
    ASSERT_EQ(ours, expat_print::of(text)) << text << '\n' << reason;
}

TEST(Xml, ReadsAndRefusesWhatAnotherReaderDoes) {
    for (const auto& seed : std::filesystem::directory_iterator(INET_TEST_DATA "/../../fuzz/corpus/xml")) {
        if (seed.path().filename() == "deep") continue;  // at our own bound
        const std::string whole = test::read_file(seed.path().string());
        for (size_t at = 0; at <= whole.size() && !HasFatalFailure(); ++at) {
            const std::string before = whole.substr(0, at);
            const std::string rest = whole.substr(at);
            compare(before);
            for (const char* other : {"", "\r", "x"})
                if (!rest.empty()) compare(before + other + rest.substr(1));
            for (const char* piece :
                 {"<", ">",  "&", "'",     "\"",  "]]>",  "--", "/", "=",    ":",    "!",        "?",
                  " ", "\r", "x", "xmlns", "<a>", "</a>", "&#", ";", "\x01", "\xff", "\xe2\x82", "-"})
                compare(before + piece + rest);
        }
    }
}

}  // namespace
