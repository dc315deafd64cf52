#include "common/xml.h"

#include "support/exact.h"
#include "support/fault.h"
#include "support/linear.h"
#include "xml/tree.h"
#include "xml_documents.h"

#include "core/memory.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace {

using test::nested;
using test::parse;
using test::tree;
using test::with_attributes;

constexpr std::string_view envelope = R"(<?xml version="1.0" encoding="utf-8" standalone='yes' ?>
<!-- discovery --><s:Envelope xmlns:s="http://www.w3.org/2003/05/soap-envelope" xmlns:a="urn:addressing">
 <s:Header><a:MessageID s:mustUnderstand="1" kind='x &quot;y&quot;'>uuid:1</a:MessageID><a:To/></s:Header>
 <s:Body><Probe xmlns="urn:discovery"><Types xmlns:dn="urn:network">dn:Video</Types><Scopes/><x xmlns=""/></Probe>
 </s:Body>
</s:Envelope><?done?>)";

TEST(Xml, FindsTheWayThroughAMessage) {
    const tree document(roxml_load_buf(test::exact_text(envelope).get()));
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(roxml_get_name(document.get(), nullptr, 0), nullptr);
    EXPECT_EQ(roxml_get_chld_nb(document.get()), 1);
    node* root = roxml_get_chld(document.get(), nullptr, 0);
    EXPECT_STREQ(roxml_get_name(root, nullptr, 0), "Envelope");
    EXPECT_EQ(roxml_get_chld_nb(root), 2);
    EXPECT_EQ(roxml_get_chld(root, "Body", 0), roxml_get_chld(root, nullptr, 1));
    EXPECT_EQ(roxml_get_chld(root, "Body", 1), roxml_get_chld(root, nullptr, 1));
    EXPECT_EQ(roxml_get_chld(root, "s:Body", 0), nullptr);
    EXPECT_EQ(roxml_get_chld(root, nullptr, 2), nullptr);
    EXPECT_EQ(roxml_get_chld(root, nullptr, -1), nullptr);
    EXPECT_EQ(roxml_get_next_sibling(roxml_get_chld(root, "Header", 0)), roxml_get_chld(root, "Body", 0));
    EXPECT_EQ(roxml_get_next_sibling(roxml_get_chld(root, "Body", 0)), nullptr);

    node* id = roxml_get_chld(roxml_get_chld(root, "Header", 0), "MessageID", 0);
    EXPECT_STREQ(roxml_get_content(id, nullptr, 0, nullptr), "uuid:1");
    EXPECT_STREQ(roxml_get_attr(id, "mustUnderstand"), "1");
    EXPECT_STREQ(roxml_get_attr(id, "kind"), "x \"y\"");
    EXPECT_EQ(roxml_get_attr(root, "s"), nullptr);

    node* probe = roxml_get_chld(roxml_get_chld(root, "Body", 0), "Probe", 0);
    node* scopes = roxml_get_chld(probe, "Scopes", 0);
    int length = -1;
    EXPECT_EQ(roxml_get_content(scopes, nullptr, 0, &length), nullptr);
    EXPECT_EQ(length, 0);
    node* space = roxml_get_ns(scopes);
    EXPECT_EQ(space, roxml_get_ns(probe));
    EXPECT_STREQ(roxml_get_name(space, nullptr, 0), "");
    EXPECT_STREQ(roxml_get_content(space, nullptr, 0, &length), "urn:discovery");
    EXPECT_EQ(length, 13);
    EXPECT_EQ(roxml_get_next_sibling(space), nullptr);
    EXPECT_STREQ(roxml_get_name(roxml_get_ns(root), nullptr, 0), "s");
    EXPECT_EQ(roxml_get_ns(roxml_get_chld(probe, "x", 0)), nullptr);
}

TEST(Xml, CopiesTextCutAtWholeCharacters) {
    const tree document = parse("<n\xc3\xa4me>a\xe2\x82\xac</n\xc3\xa4me>");
    ASSERT_NE(document, nullptr);
    node* root = roxml_get_chld(document.get(), nullptr, 0);
    constexpr const char* by_room[] = {"", "a", "a", "a", "a\xe2\x82\xac", "a\xe2\x82\xac"};
    for (int size = 1; size <= 6; ++size) {
        std::vector<char> buf(static_cast<size_t>(size), 'x');
        int length = -1;
        EXPECT_EQ(roxml_get_content(root, buf.data(), size, &length), buf.data());
        EXPECT_STREQ(buf.data(), by_room[size - 1]);
        EXPECT_EQ(length, static_cast<int>(std::string_view(buf.data()).size()));
    }
    char buf[8] = "x";
    EXPECT_EQ(roxml_get_content(root, buf, 0, nullptr), nullptr);
    EXPECT_STREQ(roxml_get_name(root, buf, 3), "n");
    EXPECT_EQ(roxml_get_content_ns(root, buf, sizeof(buf)), nullptr);
    EXPECT_STREQ(buf, "");
    const tree spaced = parse("<a xmlns='urn:long'/>");
    EXPECT_NE(roxml_get_content_ns(roxml_get_chld(spaced.get(), nullptr, 0), buf, sizeof(buf)), nullptr);
    EXPECT_STREQ(buf, "urn:lon");
}

TEST(Xml, NullIsAnsweredWithNothing) {
    roxml_close(nullptr);
    EXPECT_EQ(roxml_load_buf(nullptr), nullptr);
    EXPECT_EQ(roxml_get_chld(nullptr, "a", 0), nullptr);
    EXPECT_EQ(roxml_get_chld_nb(nullptr), 0);
    EXPECT_EQ(roxml_get_name(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(roxml_get_content(nullptr, nullptr, 0, nullptr), nullptr);
    EXPECT_EQ(roxml_get_ns(nullptr), nullptr);
    EXPECT_EQ(roxml_get_content_ns(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(roxml_get_attr(nullptr, "a"), nullptr);
    EXPECT_EQ(roxml_get_next_sibling(nullptr), nullptr);
}

TEST(Xml, ReadsWhatIsWellFormed) {
    for (const std::string_view text : test::well_formed_documents)
        EXPECT_NE(parse(text), nullptr) << text;
}

TEST(Xml, RefusesWithThePlaceAndTheReason) {
    for (const test::refused_xml& c : test::refused_documents()) {
        char error[100] = "untouched";
        EXPECT_EQ(parse(c.text, error, sizeof(error)) == nullptr, *c.error != '\0') << c.text;
        EXPECT_STREQ(error, c.error) << c.text;
    }
    EXPECT_NE(parse(nested(128)), nullptr);
    EXPECT_NE(parse(with_attributes(256, "x")), nullptr);
}

TEST(Xml, RefusesWhatIsCut) {
    // What stands behind the root element may be missing.
    const size_t whole = envelope.find("<?done?>");
    for (size_t size = 0; size < whole; ++size)
        EXPECT_EQ(parse(envelope.substr(0, size)), nullptr) << size;
    for (size_t size = whole; size < envelope.size(); ++size)
        EXPECT_EQ(parse(envelope.substr(0, size)) != nullptr, size == whole) << size;
}

TEST(Xml, LackOfMemoryIsSaidAndLeavesNothing) {
    const size_t failed = test::fail_each_allocation([] {
        const std::string text = "<a xmlns='u' x='1'>" + std::string(3000, 'x') + nested(100) + "</a>";
        char error[32];
        const tree document = parse(text, error, sizeof(error));
        EXPECT_STREQ(error, document ? "" : "out of memory");
    });
    EXPECT_GE(failed, 6U);
}

TEST(Xml, TakesTimeAndMemoryInProportionToTheText) {
    std::string declared = "<r";
    for (int i = 0; i < 200; ++i)
        declared += " xmlns:n" + std::to_string(i) + "='urn:" + std::to_string(i) + "'";
    declared += '>';
    const struct {
        std::string start, part;
    } cases[] = {
        {"<r>", "<a/>"},
        {"<r>", "<a b=''/>"},
        {"<r>", "<a xmlns=''/>"},
        {"<r>", with_attributes(256, "x")},
        {"<r>", with_attributes(255, "xmlns:n")},
        {"<r>", nested(120)},
        {"<r>", "x<a/>"},
        {"<r>", "]"},
        {"<r>", "\r&#65;"},
        {"<r><![CDATA[", "]]"},
        {"<r><!--", "- "},
        {"<r x='", "\xc3\xa9\t"},
        {"<", "r"},
        {"<r ", "   "},
        {declared, "<n0:a n0:b=''/>"},
    };
    for (const auto& c : cases) {
        const auto text_of = test::repeating(c.start, c.part);
        const auto read = [](const std::string& text) { tree(roxml_load_buf(text.c_str())); };
        EXPECT_TRUE(test::takes_linear_time(text_of, read, 32 << 10)) << c.start.substr(0, 20) << c.part.substr(0, 20);

        const size_t before = core_mem_bytes();
        const std::string text = text_of(128 << 10) + "</r>";
        const tree document(roxml_load_buf(text.c_str()));
        EXPECT_LE(core_mem_bytes() - before, 24 * text.size() + (1 << 20)) << c.part.substr(0, 20);
    }
    // Children by number are as quick at the end as at the start.
    const auto siblings_of = test::repeating("<r>", "<a/>");
    const auto walk = [](const std::string& text) {
        const tree document = parse(text + "</r>");
        node* root = roxml_get_chld(document.get(), nullptr, 0);
        for (int i = 0; i < roxml_get_chld_nb(root); ++i)
            ASSERT_NE(roxml_get_chld(root, nullptr, i), nullptr);
    };
    EXPECT_TRUE(test::takes_linear_time(siblings_of, walk, 64 << 10));
}

TEST(Xml, RefusesWhatIsTooLarge) {
    const std::string large((64 << 20) + 1, ' ');
    char error[32];
    EXPECT_EQ(parse(large, error, sizeof(error)), nullptr);
    EXPECT_STREQ(error, "text too large");
    EXPECT_EQ(roxml_load_buf(large.c_str()), nullptr);
}

}  // namespace
