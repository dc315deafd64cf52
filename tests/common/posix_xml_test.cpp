// The XML reader beside expat.
#include "xml/tree.h"
#include "xml_documents.h"

#include "common/xml.h"

#include <algorithm>
#include <array>
#include <expat.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using test::parse;
using test::tree;

/// An element as {namespace}name attributes="in order" [own text] (children).
struct printed {
    std::string head, text, children;

    std::string whole() const { return head + '[' + text + "](" + children + ')'; }
};

std::string expanded(const char* uri, const char* name) { return '{' + std::string(uri ? uri : "") + '}' + name; }

std::string print(node* n) {
    const char* text = roxml_get_content(n, nullptr, 0, nullptr);
    printed out{expanded(roxml_get_content(roxml_get_ns(n), nullptr, 0, nullptr), roxml_get_name(n, nullptr, 0)),
                text ? text : "", ""};
    for (uint32_t i = 0; i < n->attribute_count; ++i)
        out.head += ' ' + expanded(n->attributes[i].uri, n->attributes[i].name) + '=' + n->attributes[i].value;
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
        if (split == std::string_view::npos) return expanded(nullptr, std::string(name).c_str());
        return expanded(std::string(name.substr(0, split)).c_str(), std::string(name.substr(split + 1)).c_str());
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

/// Ours and the other reader either both refuse a text or read the same.
void compare(const std::string& text) {
    const tree ours = parse(text);
    ASSERT_EQ(ours ? print(roxml_get_chld(ours.get(), nullptr, 0)) : "", expat_print::of(text)) << text;
}

TEST(Xml, ReadsAndRefusesWhatAnotherReaderDoes) {
    for (const std::string_view text : test::well_formed_documents)
        compare(std::string(text));
    for (const test::refused_xml& c : test::refused_documents()) {
        // The other reader has no bounds of depth and number, and knows other encodings and versions.
        const std::string_view reason = c.error;
        if (!reason.ends_with("deep") && reason.find("too many") == reason.npos &&
            reason.find("DOCTYPE") == reason.npos && reason.find("other than") == reason.npos &&
            !c.text.starts_with("<?xml version='2.0'"))
            compare(c.text);
    }
}

/// Documents from a grammar, and faults put into them.
class document_maker {
public:
    std::string make() {
        const std::string text = element(0);
        return pick(4) == 0 ? text : mutate(text);
    }

private:
    size_t pick(size_t count) { return random_() % count; }
    template <size_t N>
    std::string any(const std::array<const char*, N>& of) {
        return of[pick(N)];
    }

    std::string name() {
        static constexpr std::array names = {"a", "b", "p:a", "p:b", "q:a", "xml:c", "\xc3\xa4", "_x-1"};
        return any(names);
    }
    std::string attribute() {
        static constexpr std::array plain = {" x='1'",       " y=\"a&lt;'\"",  " p:x=''",       " q:x='&#65;\t'",
                                             " xmlns='u'",   " xmlns=''",      " xmlns:p='u'",  " xmlns:p='v'",
                                             " xmlns:q='u'", " xml:lang='de'", "\n\tz = '\r\n'"};
        return any(plain);
    }
    std::string content(size_t depth) {
        static constexpr std::array plain = {
            "text",     " \r\n", "&amp;",        "&#x20AC;", "<![CDATA[<]]>",    "<!-- c -->",
            "<?pi x?>", "]]",    "\xe2\x82\xac", ">",        "\xf0\x9f\x98\x80", "\r"};
        return pick(3) == 0 && depth < 6 ? element(depth + 1) : any(plain);
    }
    std::string element(size_t depth) {
        const std::string tag = name();
        std::string text = '<' + tag;
        // The root binds the prefixes most of the time.
        if (depth == 0 && pick(8) > 0) text += " xmlns:p='u' xmlns:q='w'";
        for (size_t i = pick(3); i > 0; --i)
            text += attribute();
        if (pick(5) == 0) return text + "/>";
        text += '>';
        for (size_t i = pick(6); i > 0; --i)
            text += content(depth);
        return text + "</" + tag + '>';
    }
    std::string mutate(std::string text) {
        static constexpr std::array pieces = {"<",   ">",    "&",  "'", "\"",   "]]>",  "--",       "/",
                                              "=",   ":",    "!",  "?", " ",    "\r",   "x",        "xmlns",
                                              "<a>", "</a>", "&#", ";", "\x01", "\xff", "\xe2\x82", "-"};
        for (size_t i = 1 + pick(2); i > 0; --i) {
            const size_t at = pick(text.size() + 1);
            if (pick(2) == 0) text.erase(at, 1 + pick(4));
            if (pick(2) == 0) text.insert(std::min(at, text.size()), any(pieces));
        }
        return text;
    }

    std::mt19937 random_{20};
};

TEST(Xml, AgreesWithAnotherReaderOnRandomAndSpoiltDocuments) {
    document_maker documents;
    size_t accepted = 0;
    constexpr size_t rounds = 10000;
    for (size_t i = 0; i < rounds; ++i) {
        const std::string text = documents.make();
        accepted += parse(text) != nullptr;
        compare(text);
        if (HasFatalFailure()) return;
    }
    // Neither nearly all nor nearly none, or little was compared.
    EXPECT_GT(accepted, rounds / 5);
    EXPECT_LT(accepted, rounds * 4 / 5);
}

}  // namespace
