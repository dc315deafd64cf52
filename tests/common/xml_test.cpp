// What the XML reader says of a text. posix_xml_test.cpp sets it beside another reader.
#include "common/xml.h"

#include "core/memory.h"
#include "core/owned.h"

#include <gtest/gtest.h>

namespace {

using tree = core::owned<node, roxml_close>;

node* child(node* of, const char* name, int nth = 0) { return roxml_get_chld(of, name, nth); }

std::string repeated(size_t count, std::string_view part) {
    std::string text;
    while (count-- > 0)
        text += part;
    return text;
}

/// An element with so many attributes, each with a name that `name` starts; `end` ends its tag.
std::string with_attributes(size_t count, const std::string& name, const char* end = "/>") {
    std::string text = "<a";
    for (size_t i = 0; i < count; ++i)
        text += ' ' + name + std::to_string(i) + "='u" + std::to_string(i) + "'";
    return text + end;
}

TEST(Xml, FindsTheWayThroughAMessage) {
    const tree document(
        roxml_load_buf(R"(<s:a xmlns:s="urn:soap"><b s:kind='&quot;'/><s:c xmlns="urn:d"><d/></s:c><c/></s:a>)"));
    node* root = child(document.get(), nullptr);
    node* body = child(root, "c", 1);
    EXPECT_EQ(body, child(root, nullptr, 1)) << "the first of that name";
    for (node* none : {child(root, nullptr, -1), child(root, nullptr, 3), child(root, "s:c")})
        EXPECT_EQ(none, nullptr);
    EXPECT_EQ(roxml_get_attr(root, "s"), nullptr) << "a declaration is no attribute";
    EXPECT_STREQ(roxml_get_attr(child(root, "b"), "kind"), "\"");
    char copied[6];
    EXPECT_EQ(roxml_get_content_ns(child(body, "d"), copied, sizeof(copied)), child(body, "d"));
    EXPECT_STREQ(copied, "urn:d");
}

/// Place and reason; empty when the text is taken.
std::string refusal_of(const std::string& text) {
    char error[100] = "untouched";
    const tree document(roxml_load(text.data(), static_cast<unsigned>(text.size()), error, sizeof(error)));
    EXPECT_EQ(document == nullptr, *error != '\0');
    return error;
}

TEST(Xml, RefusesWithThePlaceAndTheReason) {
    const std::pair<std::string, const char*> cases[] = {
        {"\xef\xbb\xbf<?xml version='1.1' standalone='no' ?><a/>", ""},
        {"<?xml version='2.0'?><a/>", "1:20: version 1.0 expected"},
        {"<?xml version='1.0' encoding='ISO-8859-1'?><a/>", "1:42: encoding other than UTF-8"},
        {"<!DOCTYPE a [<!ENTITY b 'c'>]><a>&b;</a>", "1:1: DOCTYPE is not allowed"},
        {"<a>\n<b></a>", "2:4: another end tag expected"},
        {"<\xc3\x97/>", "1:2: name expected"},
        {"<a xmlns:p='u' xmlns:q='u' p:x='1' q:x='2'/>", "1:1: attribute given twice"},
        {"<a c='' b='' d='' c=''/>", "1:19: attribute given twice"},
        {"<a>\xed\xa0\x80</a>", "1:4: not UTF-8"},
        {std::string("<a>\0</a>", 8), "1:4: character that is not allowed"},
        {repeated(128, "<a>") + repeated(128, "</a>"), ""},
        {repeated(129, "<a>") + repeated(129, "</a>"), "1:385: nested too deep"},
        {"<b xmlns:y='u'>" + with_attributes(255, "xmlns:x") + with_attributes(256, "x") + "</b>", ""},
        {with_attributes(257, "x"), "1:2856: too many attributes"},
        {"<b xmlns:y='u'>" + with_attributes(256, "xmlns:x") + "</b>", "1:16: too many namespaces"},
        {std::string((64 << 20) + 1, ' '), "text too large"},
    };
    for (const auto& [text, error] : cases)
        EXPECT_EQ(refusal_of(text), error) << text.substr(0, 80);
    for (const char* none : {"0", "8", "xD800", "xDFFF", "xFFFE", "xFFFF", "x110000", "4294967361", "-1", "x", "65 "})
        EXPECT_EQ(refusal_of(std::string("<a>&#") + none + ";</a>"), "1:4: reference to no character");
}

// What takes time with the square of the text would take many minutes.
TEST(Xml, TakesTimeAndMemoryInProportionToTheText) {
    const std::string cases[][3] = {
        {"<r>", "<a/>", "</r>"},
        {"<r>", with_attributes(255, "xmlns:n"), "</r>"},
        {"<r>", "\r&#65;", "</r>"},
        {with_attributes(200, "xmlns:n", ">"), "<n0:a n0:b=''/>", "</a>"},
        {"<r xmlns:p='u'>", with_attributes(255, "p:n"), "</r>"},
    };
    for (const auto& [start, part, end] : cases) {
        const std::string text = start + repeated((1 << 20) / part.size(), part) + end;
        const size_t before = core_mem_bytes();
        const tree document(roxml_load_buf(text.c_str()));
        ASSERT_NE(document, nullptr);
        EXPECT_LE(core_mem_bytes() - before, 24 * text.size() + (1 << 20)) << part.substr(0, 20);
        node* root = child(document.get(), nullptr);
        for (int i = 0; i < roxml_get_chld_nb(root); ++i)
            ASSERT_NE(child(root, nullptr, i), nullptr);
    }
}

}  // namespace
