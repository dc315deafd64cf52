// What the XML reader says of a text. posix_xml_test.cpp sets it beside another reader.
#include "common/xml.h"

#include "support/exact.h"

#include "core/memory.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct closer {
    void operator()(node* n) const { roxml_close(n); }
};
using tree = std::unique_ptr<node, closer>;

tree parse(std::string_view text, char* error = nullptr, unsigned error_size = 0) {
    const test::exact_bytes bytes(text);
    return tree(roxml_load(bytes.data(), bytes.size(), error, error_size));
}

node* child(node* of, const char* name, int nth = 0) { return roxml_get_chld(of, name, nth); }

std::string repeated(size_t count, std::string_view part) {
    std::string text;
    for (size_t i = 0; i < count; ++i)
        text += part;
    return text;
}

std::string nested(size_t levels) { return repeated(levels, "<a>") + repeated(levels, "</a>"); }

/// An element with so many attributes, each with a name that `name` starts.
std::string with_attributes(size_t count, const std::string& name) {
    std::string text = "<a";
    for (size_t i = 0; i < count; ++i)
        text += ' ' + name + std::to_string(i) + "='u" + std::to_string(i) + "'";
    return text + "/>";
}

TEST(Xml, FindsTheWayThroughAMessage) {
    const tree document(roxml_load_buf(R"(<s:Envelope xmlns:s="urn:soap" xmlns:a="urn:address"><s:Header>
        <a:Id s:must="1" kind='x &quot;y&quot;'>uuid:1</a:Id></s:Header><s:Body><Scopes xmlns="urn:d"/></s:Body>
        <s:Body/></s:Envelope>)"));
    node* root = child(document.get(), nullptr);
    EXPECT_EQ(roxml_get_name(document.get(), nullptr, 0), nullptr);
    EXPECT_EQ(roxml_get_attr(root, "s"), nullptr) << "a declaration is no attribute";
    EXPECT_STREQ(roxml_get_name(roxml_get_ns(root), nullptr, 0), "s");
    node* body = child(root, "Body", 1);
    EXPECT_EQ(body, child(root, nullptr, 1)) << "the first of that name";
    for (const int nth : {-1, 3})
        EXPECT_EQ(child(root, nullptr, nth), nullptr);
    EXPECT_EQ(child(root, "s:Body"), nullptr);

    node* id = child(child(root, "Header"), "Id");
    EXPECT_STREQ(roxml_get_attr(id, "must"), "1");
    EXPECT_STREQ(roxml_get_attr(id, "kind"), "x \"y\"");
    node* space = roxml_get_ns(child(body, "Scopes"));
    EXPECT_STREQ(roxml_get_name(space, nullptr, 0), "");
    EXPECT_STREQ(roxml_get_content(space, nullptr, 0, nullptr), "urn:d");
    EXPECT_EQ(roxml_get_next_sibling(space), nullptr);
}

TEST(Xml, CopiesTextCutAtWholeCharacters) {
    const tree document = parse("<n\xc3\xa4me xmlns='urn:long'><a xmlns=''/></n\xc3\xa4me>");
    node* root = child(document.get(), nullptr);
    char buf[8] = "x";
    EXPECT_EQ(roxml_get_name(root, buf, 0), nullptr);
    for (const auto& [size, name] : {std::pair(1, ""), {2, "n"}, {3, "n"}, {4, "n\xc3\xa4"}, {6, "n\xc3\xa4me"}})
        EXPECT_STREQ(roxml_get_name(root, buf, size), name);
    EXPECT_NE(roxml_get_content_ns(root, buf, sizeof(buf)), nullptr);
    EXPECT_STREQ(buf, "urn:lon");
    EXPECT_EQ(roxml_get_content_ns(child(root, nullptr), buf, sizeof(buf)), nullptr);
    EXPECT_STREQ(buf, "");
}

/// Place and reason; empty when the text is taken.
std::string refusal_of(const std::string& text) {
    char error[100] = "untouched";
    const tree document = parse(text, error, sizeof(error));
    EXPECT_EQ(document == nullptr, *error != '\0');
    return error;
}

TEST(Xml, RefusesWithThePlaceAndTheReason) {
    const struct {
        std::string text;
        const char* error;  // empty: it is taken
    } cases[] = {
        {"\xef\xbb\xbf<?xml version='1.1' standalone='no' ?><a/>", ""},
        {"", "1:1: root element expected"},
        {" <?xml version='1.0'?><a/>", "1:4: misplaced XML declaration"},
        {"<?xml version='2.0'?><a/>", "1:20: version 1.0 expected"},
        {"<?xml version='1.0' encoding='ISO-8859-1'?><a/>", "1:42: encoding other than UTF-8"},
        {"<?xml version='1.0' standalone='maybe'?><a/>", "1:39: standalone yes or no expected"},
        {"<?xml version='1.0", "1:16: value without an end"},
        {"<!DOCTYPE a [<!ENTITY b 'c'>]><a>&b;</a>", "1:1: DOCTYPE is not allowed"},
        {"<a/><b/>", "1:5: text after the root element"},
        {"<a>\n<b></a>", "2:4: another end tag expected"},
        {"<a", "1:3: tag without an end"},
        {"<a><", "1:4: name expected"},
        {"<\xc3\x97/>", "1:2: name expected"},
        {"<a x/>", "1:5: = expected"},
        {"<a x='1'y='2'/>", "1:9: blank expected"},
        {"<a x='<'/>", "1:7: character that is not allowed"},
        {"<a xmlns:p='u' xmlns:q='u' p:x='1' q:x='2'/>", "1:1: attribute given twice"},
        {"<a><b xmlns:p='u'/><p:c/></a>", "1:20: prefix that was not declared"},
        {"<a xmlns:p=''/>", "1:1: prefix without a namespace"},
        {"<a xmlns:p='http://www.w3.org/XML/1998/namespace'/>", "1:1: xml may not be bound anew"},
        {"<a>&nbsp;</a>", "1:4: unknown entity"},
        {"<a>]]></a>", "1:4: ]]> in text"},
        {"<a><!-- -- --></a>", "1:11: -- in a comment"},
        {"<a><![CDATA[x]]</a>", "1:20: text without an end"},
        {"<a>\xed\xa0\x80</a>", "1:4: not UTF-8"},
        {std::string("<a>\0</a>", 8), "1:4: character that is not allowed"},
        {nested(128), ""},
        {nested(129), "1:385: nested too deep"},
        {with_attributes(256, "x"), ""},
        {with_attributes(257, "x"), "1:2856: too many attributes"},
        {"<b xmlns:y='u'>" + with_attributes(255, "xmlns:x") + "<b xmlns='u'/></b>", ""},
        {"<b xmlns:y='u'>" + with_attributes(256, "xmlns:x") + "</b>", "1:16: too many namespaces"},
        {std::string((64 << 20) + 1, ' '), "text too large"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 80));
        EXPECT_EQ(refusal_of(c.text), c.error);
    }
    EXPECT_EQ(roxml_load_buf(std::prev(std::end(cases))->text.c_str()), nullptr);
    for (const char* none : {"0", "8", "xD800", "xDFFF", "xFFFE", "xFFFF", "x110000", "4294967361", "-1", "x", "65 "})
        EXPECT_EQ(refusal_of(std::string("<a>&#") + none + ";</a>"), "1:4: reference to no character") << none;
}

// What takes time with the square of the text would take many minutes.
TEST(Xml, TakesTimeAndMemoryInProportionToTheText) {
    std::string declared = with_attributes(200, "xmlns:n");
    declared.replace(declared.size() - 2, 2, ">");
    const struct {
        std::string start, part, end;
    } cases[] = {
        {"<r>", "<a/>", "</r>"},
        {"<r>", with_attributes(256, "x"), "</r>"},
        {"<r>", with_attributes(255, "xmlns:n"), "</r>"},
        {"<r>", "]", "</r>"},
        {"<r>", "\r&#65;", "</r>"},
        {"<r><![CDATA[", "]]", "]]></r>"},
        {"<r><!--", "- ", "--></r>"},
        {"<r x='", "\xc3\xa9\t", "'/>"},
        {"<", "r", "/>"},
        {"<r ", "   ", "/>"},
        {declared, "<n0:a n0:b=''/>", "</a>"},
    };
    for (const auto& c : cases) {
        const std::string text = c.start + repeated((1 << 20) / c.part.size(), c.part) + c.end;
        const size_t before = core_mem_bytes();
        const tree document = parse(text);
        ASSERT_NE(document, nullptr) << c.part.substr(0, 20);
        EXPECT_LE(core_mem_bytes() - before, 24 * text.size() + (1 << 20)) << c.part.substr(0, 20);
        node* root = child(document.get(), nullptr);
        int found = 0;
        for (int i = 0; i < roxml_get_chld_nb(root); ++i)
            found += child(root, nullptr, i) != nullptr;
        EXPECT_EQ(found, roxml_get_chld_nb(root));
    }
}

}  // namespace
