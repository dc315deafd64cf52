// What the SOAP toolkit writes, read by another reader of XML, and what it makes of hostile requests.
#include "support/held.h"

#include "common/xml.h"
#include "core/owned.h"
#include "inet/net_soap.h"

#include <cstring>
#include <expat.h>
#include <functional>
#include <gtest/gtest.h>

namespace {

using request_t = test::held<soap::soap_t, soap_free>;

constexpr std::string_view hostile = "<&>\"'\t\n\r]]>&amp;${ns}<!--\xc3\xa9";

/// The places of a document where a text of the caller stands, as "name=number", or where a number above 40 does.
struct places {
    static void XMLCALL start(void* of, const char* name, const char** attributes) {
        auto& self = *static_cast<places*>(of);
        self.text.clear();
        for (; *attributes; attributes += 2)
            self.add(std::string(name) + '.' + attributes[0], attributes[1]);
    }
    static void XMLCALL end(void* of, const char* name) {
        auto& self = *static_cast<places*>(of);
        self.add(name, std::exchange(self.text, ""));
    }
    static void XMLCALL characters(void* of, const char* piece, int size) {
        static_cast<places*>(of)->text.append(piece, static_cast<size_t>(size));
    }
    void add(std::string name, std::string value) {
        const size_t at = value.find(hostile);
        if (at != value.npos) value.erase(at, hostile.size());
        if (at == value.npos && (value.size() != 2 || value[0] != '4')) return;
        found += name.substr(name.rfind('\n') + 1) + '=' + value + ' ';
    }

    std::string text, found;
};

/// With namespaces, prefixes must be declared.
std::string places_of(const std::string& document, bool with_namespaces) {
    places out;
    XML_Parser parser = with_namespaces ? XML_ParserCreateNS(nullptr, '\n') : XML_ParserCreate(nullptr);
    XML_SetUserData(parser, &out);
    XML_SetElementHandler(parser, places::start, places::end);
    XML_SetCharacterDataHandler(parser, places::characters);
    if (XML_Parse(parser, document.data(), static_cast<int>(document.size()), 1) != XML_STATUS_OK)
        out.found = std::string(XML_ErrorString(XML_GetErrorCode(parser))) + ": " + document;
    XML_ParserFree(parser);
    return out.found;
}

using texts = const char* const*;
constexpr char other_ns[] = "xmlns:x=\"urn:x\"";

// The Probe and Hello have a prefix that is not declared; a wsdl is a URI and cannot be any text.
TEST(Soap, PutsEachTextWhereItBelongsForAnotherReader) {
    const struct {
        char* (*make)(texts t);
        const char* places;
    } cases[] = {
        {[](texts t) { return soap_Probe(t[1], other_ns, t[2]); }, "a:MessageID=1 d:Types=2 "},
        {[](texts t) { return soap_Hello(other_ns, t[1], t[2], t[3], t[4], t[5]); },
         "a:MessageID=1 a:Address=urn:2 d:Types=3 d:Scopes=5 d:XAddrs=4 "},
        {[](texts t) { return soap_ProbeMatch(other_ns, t[1], t[2], t[3], t[4], t[5], t[6]); },
         "MessageID=1 RelatesTo=2 Address=urn:3 Types=4 Scopes=6 XAddrs=5 "},
        {[](texts t) { return soap_GetDeviceCapabilities(t[1]); }, "XAddr=1 "},
        {[](texts t) { return soap_GetMediaCapabilities(t[1]); }, "XAddr=1 "},
        {[](texts t) { return soap_GetAnalyticsCapabilities(t[1]); }, "XAddr=1 "},
        {[](texts t) { return soap_GetEventsCapabilities(t[1]); }, "XAddr=1 "},
        {[](texts t) { return soap_GetPTZCapabilities(t[1]); }, "XAddr=1 "},
        {[](texts t) { return soap_GetDeviceIOCapabilities(t[1], 41, 42, 43, 44, 45); },
         "XAddr=1 VideoSources=41 VideoOutputs=42 AudioSources=43 AudioOutputs=44 RelayOutputs=45 "},
        {[](texts) {
             const char* caps[] = {"<tt:a>41</tt:a>", "<tt:b>42</tt:b>", nullptr};
             const char* exts[] = {"<tt:c>43</tt:c>", nullptr};
             return soap_GetCapabilitiesResponse(caps, exts);
         },
         "a=41 b=42 c=43 "},
        {[](texts) { return soap_GetCapabilitiesResponse(nullptr, nullptr); }, ""},
        {[](texts t) { return soap_getService(t[1], t[2], "<tt:a>41</tt:a>"); }, "Namespace=1 XAddr=2 a=41 "},
        {[](texts) { return soap_DeviceServiceCapabilities(); }, ""},
        {[](texts) { return soap_MediaServiceCapabilities("urn:&\""); }, ""},
        {[](texts) { return soap_EventServiceCapabilities("urn:&\""); }, ""},
        {[](texts t) { return soap_getAnalyticsModule("tt:M", t[1]); }, "M.Name=1 "},
        {[](texts t) { return soap_getVideoAnalyticsConfiguration("tt:V", t[1], t[2], 41); },
         "V.token=1 Name=2 UseCount=41 "},
        {[](texts t) { return soap_getRecordingConfiguration("tt:R", t[1], t[2], 41); }, "Name=2 "},
        {[](texts t) { return soap_getMetadataConfiguration("tt:M", t[1], t[2], false, 41); }, "M.token=1 Name=2 "},
        {[](texts t) { return soap_PTZConfiguration(t[1], t[2], 41); }, "PTZConfiguration.token=1 Name=2 UseCount=41 "},
        {[](texts t) { return soap_getVideoEncoderConfiguration("tt:E", t[1], t[2], t[3], t[4], t[5]); },
         "E.token=1 Name=2 Encoding=3 Width=4 Height=5 "},
        {[](texts) { return soap_GetVideoEncoderConfigurationOptionsResponse("<tt:a>41</tt:a>"); }, "a=41 "},
        {[](texts) { return soap_getResolutionsAvailable(41, 42); }, "Width=41 Height=42 "},
        {[](texts) { return soap_error(2); }, ""},
        {[](texts) { return soap_error(4); }, ""},
    };
    std::vector<std::string> numbered;
    std::vector<const char*> pointers;
    for (int i = 0; i < 7; ++i)
        numbered.push_back(std::string(hostile) + std::to_string(i));
    for (const auto& each : numbered)
        pointers.push_back(each.c_str());
    for (const auto& [make, expected] : cases) {
        core::owned_text text(make(pointers.data()));
        ASSERT_NE(text, nullptr);
        const bool is_whole = std::strstr(text.get(), ":Envelope") != nullptr;
        if (!is_whole) {
            const param_t params[] = {{"piece", static_cast<const char*>(text.get())}, {}};
            text.reset(net_soap_response(nullptr, nullptr, " xmlns:tds=\"urn:tds\"", "${piece}", params, CORE_HERE));
        }
        EXPECT_EQ(places_of(text.get(), std::strstr(text.get(), "s:mustUnderstand=\"1") == nullptr), expected);
    }
}

std::string answer(const std::string& request, const char* ns = nullptr) {
    const request_t read(soap_parse(request.c_str()));
    return core::owned_text(net_soap_response(read.get(), ns, nullptr, "<tt:a/>", nullptr, CORE_HERE)).get();
}

TEST(Soap, AnswersWithTheHeaderOfTheRequest) {
    const std::string start =
        R"(<?xml version="1.0" encoding="UTF-8"?><env:Envelope xmlns:env="http://www.w3.org/2003/05/soap-envelope" )"
        R"(xmlns:enc="http://www.w3.org/2003/05/soap-encoding" xmlns:xs="http://www.w3.org/2001/XMLSchema" )"
        R"(xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xmlns:xop="http://www.w3.org/2004/08/xop/include" )"
        R"(xmlns:wsa="http://www.w3.org/2005/08/addressing" xmlns:tt="http://www.onvif.org/ver10/schema"><env:Header>)";
    const std::string get = "</env:Header><env:Body><tt:GetResponse><tt:a/></tt:GetResponse></env:Body></env:Envelope>";
    const std::string none = "</env:Header><env:Body><tt:Response><tt:a/></tt:Response></env:Body></env:Envelope>";
    const std::pair<const char*, std::string> cases[] = {
        {"<Envelope><Header><To>t</To><Action>u/Get</Action><ReplyTo><Address>r</Address></ReplyTo><MessageID>&amp;1"
         "</MessageID></Header><Body><Get/></Body></Envelope>",
         R"(<wsa:MessageID>&amp;1</wsa:MessageID><wsa:ReplyTo env:mustUnderstand="true"><wsa:Address>r</wsa:Address>)"
         R"(</wsa:ReplyTo><wsa:To env:mustUnderstand="true">t</wsa:To>)"
         R"(<wsa:Action env:mustUnderstand="true">u/GetResponse</wsa:Action>)" +
             get},
        {"<s:Envelope><s:Body><d:Get s:a='1'/></s:Body></s:Envelope>", get},
        {"<documentRoot><a/><Envelope><Header><Action>Get</Action></Header><Body><Get/></Body></Envelope></"
         "documentRoot>",
         get},
        {"<Envelope><Body><A/></Body></Envelope><!--", none},
        {"<!DOCTYPE a [<!ENTITY b 'c'>]><Envelope><Body><A/></Body></Envelope>", none},
        {"<Envelope/>", none},
    };
    for (const auto& [request, rest] : cases)
        EXPECT_EQ(answer(request), start + rest) << request;
    EXPECT_NE(answer("<Envelope/>", "tds").find("<tds:Response><tt:a/></tds:Response>"), std::string::npos);
}

TEST(Soap, BoundsWhatARequestCanMakeItHold) {
    std::string deep;
    for (int i = 0; i < 10000; ++i)
        deep += "<a>";
    const request_t refused(soap_parse(("<Envelope><Body>" + deep).c_str()));
    EXPECT_EQ(refused->xml, nullptr);

    const size_t before = core_mem_bytes();
    std::string large = "<Envelope><Body><Get><a xmlns='u'>x</a><b>";
    while (large.size() < 1 << 20)
        large += "\xc3\xa9";
    const request_t taken(soap_parse((large + "</b></Get></Body></Envelope>").c_str()));
    EXPECT_LE(core_mem_bytes() - before, 25 * large.size() + (1 << 20));
    const core::owned_text argument(net_soap_get_arg(taken.get(), "b", CORE_HERE));
    ASSERT_STREQ(taken->method, "Get");
    EXPECT_EQ(std::strlen(argument.get()), 1022U) << "cut at 1023, between characters";
    char value[4];
    char uri[4];
    EXPECT_EQ(soap_get_value(roxml_get_chld(taken->body, "Get", 0), "a", value, 4, uri, 4), 0);
    EXPECT_STREQ(value, "x");
    EXPECT_STREQ(uri, "u");
}

TEST(Soap, LeavesOutWhatIsNotGiven) {
    const core::owned_text fault(soap_error(2));
    EXPECT_NE(std::strstr(fault.get(), "<env:Subcode><env:Value>ter:Action</env:Value></env:Subcode></env:Code>"),
              nullptr);
    const core::owned_text unknown(soap_error(-1));
    EXPECT_NE(std::strstr(unknown.get(), "<env:Code><env:Value></env:Value>"), nullptr);
    const core::owned_text service(soap_getService("n", "x", nullptr));
    EXPECT_EQ(std::strstr(service.get(), "tds:Capabilities"), nullptr);
    const core::owned_text encoder(soap_getVideoEncoderConfiguration("tt:a", "b", "c", "H264", nullptr, nullptr));
    EXPECT_NE(std::strstr(encoder.get(), "<tt:Width>1920</tt:Width><tt:Height>1080</tt:Height>"), nullptr);
}

}  // namespace
