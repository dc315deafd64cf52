// Documents that the XML reader takes and refuses, for the tests of the reader alone and beside another one.
#pragma once

#include "support/exact.h"

#include "common/xml.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace test {

struct xml_closer {
    void operator()(node* n) const { roxml_close(n); }
};
using tree = std::unique_ptr<node, xml_closer>;

inline tree parse(std::string_view text, char* error = nullptr, unsigned error_size = 0) {
    const test::exact_bytes bytes(text);
    return tree(roxml_load(bytes.data(), bytes.size(), error, error_size));
}

inline std::string nested(size_t levels) {
    std::string open, close;
    for (size_t i = 0; i < levels; ++i) {
        open += "<a>";
        close += "</a>";
    }
    return open + close;
}

/// An element with so many attributes, each with a name that `name` starts.
inline std::string with_attributes(size_t count, const std::string& name) {
    std::string text = "<a";
    for (size_t i = 0; i < count; ++i)
        text += ' ' + name + std::to_string(i) + "='u'";
    return text + "/>";
}

inline constexpr std::string_view well_formed_documents[] = {
    "<a/>",
    "\xef\xbb\xbf<a></a >",
    "<?xml version='1.0'?><a/>\r\n<!-- - -->  <?p?>",
    "<?xml-stylesheet href='x'?><a/>",
    "<a>1<b>2</b>3<b>4<c/>5</b>6<![CDATA[<&]]]]>7<!-- no -->8<?no no?>9</a>",
    "<a>&lt;&gt;&amp;&quot;&apos;&#65;&#x1F600;&#xd;&#10;</a>",
    "<a x='&#10;&#9;&lt;\"' y=\"a\r\nb\rc\nd\te'>\"/>",
    "<a>1\r\n2\r3\n4<![CDATA[5\r\n6\r]]></a>",
    "<a>\x7f\xc2\x80\xef\xbf\xbd\xf4\x8f\xbf\xbf > ] ]] &#x10FFFF;</a>",
    "<_:x-1.y xmlns:_='u'/>",
    "<a xmlns:xml='http://www.w3.org/XML/1998/namespace' xml:lang='de'/>",
    "<p:a xmlns:p='1' p:x='' x=''><p:a xmlns:p='2' xmlns='3'><a><a xmlns=''/></a></p:a><p:b/></p:a>",
    "<a xmlns:p='u' xmlns:q='u2' p:x='1' q:x='2' x='3'/>",
    "<\xc3\xa9l\xc3\xa9ment \xe6\x97\xa5='1'/>",
};

struct refused_xml {
    std::string text;
    const char* error;  ///< empty: it is taken
};

inline std::vector<refused_xml> refused_documents() {
    return {
        {"", "1:1: root element expected"},
        {"x<a/>", "1:1: root element expected"},
        {" <?xml version='1.0'?><a/>", "1:4: misplaced XML declaration"},
        {"<?xml version='2.0'?><a/>", "1:20: version 1.0 expected"},
        {"<?xml encoding='UTF-8'?><a/>", "1:23: version 1.0 expected"},
        {"<?xml version='1.0' encoding='ISO-8859-1'?><a/>", "1:42: encoding other than UTF-8"},
        {"<?xml version='1.0' standalone='maybe'?><a/>", "1:39: standalone yes or no expected"},
        {"<?xml version='1.0'encoding='UTF-8'?><a/>", "1:20: blank expected"},
        {"<?xml version='1.0", "1:16: value without an end"},
        {"<!DOCTYPE a [<!ENTITY b 'c'>]><a>&b;</a>", "1:1: DOCTYPE is not allowed"},
        {"<a/><b/>", "1:5: text after the root element"},
        {"<a/>x", "1:5: text after the root element"},
        {"<a>\n<b></a>", "2:4: another end tag expected"},
        {"<a></ab>", "1:7: > expected"},
        {"<a></a", "1:7: > expected"},
        {"<a><b/>", "1:8: element without an end"},
        {"<a>text", "1:8: element without an end"},
        {"<a", "1:3: tag without an end"},
        {"<a><", "1:4: name expected"},
        {"<a>< b/></a>", "1:5: name expected"},
        {"<1/>", "1:2: name expected"},
        {"<\xc3\x97/>", "1:2: name expected"},
        {"<a:/>", "1:4: name expected"},
        {"<a x/>", "1:5: = expected"},
        {"<a x=1/>", "1:6: quote expected"},
        {"<a x='1'y='2'/>", "1:9: blank expected"},
        {"<a x='<'/>", "1:7: character that is not allowed"},
        {"<a x='1", "1:8: text without an end"},
        {"<a x='1' x='2'/>", "1:10: attribute given twice"},
        {"<a xmlns:p='u' xmlns:q='u' p:x='1' q:x='2'/>", "1:1: attribute given twice"},
        {"<p:a/>", "1:1: prefix that was not declared"},
        {"<a p:x='1'/>", "1:1: prefix that was not declared"},
        {"<a><b xmlns:p='u'/><p:c/></a>", "1:20: prefix that was not declared"},
        {"<a xmlns:p=''/>", "1:1: prefix without a namespace"},
        {"<a xmlns:xmlns='u'/>", "1:1: xmlns may not be bound"},
        {"<a xmlns='http://www.w3.org/2000/xmlns/'/>", "1:1: xmlns may not be bound"},
        {"<a xmlns:xml='u'/>", "1:1: xml may not be bound anew"},
        {"<a xmlns:p='http://www.w3.org/XML/1998/namespace'/>", "1:1: xml may not be bound anew"},
        {"<a>&nbsp;</a>", "1:4: unknown entity"},
        {"<a>&lt</a>", "1:4: unknown entity"},
        {"<a>&#0;</a>", "1:4: reference to no character"},
        {"<a>&#xD800;</a>", "1:4: reference to no character"},
        {"<a>&#xFFFE;</a>", "1:4: reference to no character"},
        {"<a>&#x110000;</a>", "1:4: reference to no character"},
        {"<a>&#4294967361;</a>", "1:4: reference to no character"},
        {"<a>&#-1;</a>", "1:4: reference to no character"},
        {"<a>&#x;</a>", "1:4: reference to no character"},
        {"<a>&#65", "1:4: reference to no character"},
        {"<a>]]></a>", "1:4: ]]> in text"},
        {"<a><!-- -- --></a>", "1:11: -- in a comment"},
        {"<a><!- x --></a>", "1:4: comment expected"},
        {"<a><![CDAT[]]></a>", "1:4: CDATA expected"},
        {"<a><![CDATA[x]]</a>", "1:20: text without an end"},
        {"<?XML?><a/>", "1:3: misplaced XML declaration"},
        {"<?p:q?><a/>", "1:4: blank expected"},
        {"<a>\x01</a>", "1:4: character that is not allowed"},
        {"<a><!--\x1f--></a>", "1:8: character that is not allowed"},
        {"<a>\xef\xbf\xbe</a>", "1:4: character that is not allowed"},
        {"<a>\xed\xa0\x80</a>", "1:4: not UTF-8"},
        {std::string("<a>\0</a>", 8), "1:4: character that is not allowed"},
        {nested(129), "1:385: nested too deep"},
        {with_attributes(257, "x"), "1:2198: too many attributes"},
        {"<b>" + with_attributes(200, "xmlns:x") + "</b>", ""},
        {"<b xmlns:y='u'>" + with_attributes(256, "xmlns:x") + "</b>", "1:16: too many namespaces"},
    };
}

}  // namespace test
