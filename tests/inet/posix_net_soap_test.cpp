// What the SOAP toolkit writes, read by another reader of XML, and what it makes of hostile requests.
#include "common/xml.h"
#include "core/owned.h"
#include "inet/net_soap.h"

#include <cstring>
#include <expat.h>
#include <gtest/gtest.h>

namespace {

using request_t = core::owned<soap::soap_t, soap_free>;

/// As it is given and as it is read: what XML cannot hold becomes U+FFFD.
const std::string hostile = "<&>\"'\t\n\r]]>&amp;${ns}<!--\xf0\x9f\x8e\xa5\x01\xed\xa0\x80";
const std::string hostile_read = hostile.substr(0, hostile.find('\x01')) + "\ufffd\ufffd\ufffd\ufffd";

/// The places of a document where a hostile text stands, as "name=what follows it", or a number from 40 to 49.
struct places {
    static void start(void* of, const char* name, const char** attributes) {
        static_cast<places*>(of)->text.clear();
        for (; *attributes; attributes += 2)
            static_cast<places*>(of)->add(std::string(name) + '.' + attributes[0], attributes[1]);
    }
    static void end(void* of, const char* name) {
        auto& self = *static_cast<places*>(of);
        self.add(name, std::exchange(self.text, ""));
    }
    static void characters(void* of, const char* piece, int size) {
        static_cast<places*>(of)->text.append(piece, static_cast<size_t>(size));
    }
    void add(const std::string& name, std::string value) {
        const size_t at = value.find(hostile_read);
        if (at != value.npos) value.erase(at, hostile_read.size());
        if (at == value.npos && (value.size() != 2 || value[0] != '4')) return;
        found += name.substr(name.rfind('\n') + 1) + '=' + value + ' ';
    }

    std::string text, found;
};

std::string places_of(const std::string& document) {
    places out;
    // The Probe and Hello have a prefix that is not declared.
    const bool is_strict = document.find(" s:mustUnderstand=\"1\"") == document.npos;
    XML_Parser parser = is_strict ? XML_ParserCreateNS(nullptr, '\n') : XML_ParserCreate(nullptr);
    XML_SetUserData(parser, &out);
    XML_SetElementHandler(parser, places::start, places::end);
    XML_SetCharacterDataHandler(parser, places::characters);
    if (XML_Parse(parser, document.data(), static_cast<int>(document.size()), 1) != XML_STATUS_OK)
        out.found = std::string(XML_ErrorString(XML_GetErrorCode(parser))) + ": " + document;
    XML_ParserFree(parser);
    return out.found;
}

TEST(Soap, PutsEachTextWhereItBelongsForAnotherReader) {
    std::string numbered[7];
    const char* t[7];
    for (size_t i = 0; i < 7; ++i)
        t[i] = (numbered[i] = hostile + std::to_string(i)).c_str();
    constexpr char ns[] = "xmlns:x=\"urn:x\"";
    const char* const caps[] = {"<tt:a>41</tt:a>", "<tt:b>42</tt:b>", nullptr};
    const std::pair<char*, const char*> cases[] = {
        {soap_Probe(t[1], ns, t[2]), "a:MessageID=1 d:Types=2 "},
        {soap_Hello(ns, t[1], t[2], t[3], t[4], t[5]),
         "a:MessageID=1 a:Address=urn:2 d:Types=3 d:Scopes=5 d:XAddrs=4 "},
        {soap_ProbeMatch(ns, t[1], t[2], t[3], t[4], t[5], t[6]),
         "MessageID=1 RelatesTo=2 Address=urn:3 Types=4 Scopes=6 XAddrs=5 "},
        {soap_GetDeviceCapabilities(t[1]), "XAddr=1 "},
        {soap_GetMediaCapabilities(t[1]), "XAddr=1 "},
        {soap_GetAnalyticsCapabilities(t[1]), "XAddr=1 "},
        {soap_GetEventsCapabilities(t[1]), "XAddr=1 "},
        {soap_GetPTZCapabilities(t[1]), "XAddr=1 "},
        {soap_GetDeviceIOCapabilities(t[1], 41, 42, 43, 44, 45),
         "XAddr=1 VideoSources=41 VideoOutputs=42 AudioSources=43 AudioOutputs=44 RelayOutputs=45 "},
        {soap_GetCapabilitiesResponse(caps, caps + 1), "a=41 b=42 b=42 "},
        {soap_GetCapabilitiesResponse(nullptr, nullptr), ""},
        {soap_getService(t[1], t[2], caps[0]), "Namespace=1 XAddr=2 a=41 "},
        {soap_DeviceServiceCapabilities(), ""},
        {soap_MediaServiceCapabilities("urn:&\""), ""},
        {soap_EventServiceCapabilities("urn:&\""), ""},
        {soap_getAnalyticsModule("tt:M", t[1]), "M.Name=1 "},
        {soap_getVideoAnalyticsConfiguration("tt:V", t[1], t[2], 41), "V.token=1 Name=2 UseCount=41 "},
        {soap_getRecordingConfiguration("tt:R", t[1], t[2], 41), "Name=2 "},
        {soap_getMetadataConfiguration("tt:M", t[1], t[2], false, 41), "M.token=1 Name=2 "},
        {soap_PTZConfiguration(t[1], t[2], 41), "PTZConfiguration.token=1 Name=2 UseCount=41 "},
        {soap_getVideoEncoderConfiguration("tt:E", t[1], t[2], t[3], t[4], t[5]),
         "E.token=1 Name=2 Encoding=3 Width=4 Height=5 "},
        {soap_GetVideoEncoderConfigurationOptionsResponse(caps[0]), "a=41 "},
        {soap_getResolutionsAvailable(41, 42), "Width=41 Height=42 "},
        {soap_error(2), ""},
    };
    for (const auto& [made, expected] : cases) {
        core::owned_text text(made);
        if (!std::strstr(made, ":Envelope")) {
            const param_t params[] = {{"piece", static_cast<const char*>(made)}, {}};
            text.reset(net_soap_response(nullptr, nullptr, " xmlns:tds=\"urn:tds\"", "${piece}", params, CORE_HERE));
        }
        EXPECT_EQ(places_of(text.get()), expected);
    }
}

TEST(Soap, AnswersWithTheHeaderOfTheRequest) {
    const std::string start =
        R"(<?xml version="1.0" encoding="UTF-8"?><env:Envelope xmlns:env="http://www.w3.org/2003/05/soap-envelope" )"
        R"(xmlns:enc="http://www.w3.org/2003/05/soap-encoding" xmlns:xs="http://www.w3.org/2001/XMLSchema" )"
        R"(xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xmlns:xop="http://www.w3.org/2004/08/xop/include" )"
        R"(xmlns:wsa="http://www.w3.org/2005/08/addressing" xmlns:tt="http://www.onvif.org/ver10/schema" x="">)"
        "<env:Header>";
    const std::string get = "</env:Header><env:Body><tt:GetResponse><a/></tt:GetResponse></env:Body></env:Envelope>";
    const std::string none = "</env:Header><env:Body><tt:Response><a/></tt:Response></env:Body></env:Envelope>";
    const std::pair<const char*, std::string> cases[] = {
        {"<Envelope><Header><To>t</To><Action>u/Get</Action><ReplyTo><Address>r</Address></ReplyTo><MessageID>&amp;1"
         "</MessageID></Header><Body><Get/></Body></Envelope>",
         R"(<wsa:MessageID>&amp;1</wsa:MessageID><wsa:ReplyTo env:mustUnderstand="true"><wsa:Address>r</wsa:Address>)"
         R"(</wsa:ReplyTo><wsa:To env:mustUnderstand="true">t</wsa:To>)"
         R"(<wsa:Action env:mustUnderstand="true">u/GetResponse</wsa:Action>)" +
             get},
        {"\r\n<?xml version='1.0'?><s:Envelope><s:Body><d:Get s:a='1'/></s:Body></s:Envelope>", get},
        {"<documentRoot><a/><Envelope><Header><Action>Get</Action></Header><Body><Get/></Body></Envelope></"
         "documentRoot>",
         get},
        {"<!DOCTYPE a [<!ENTITY b 'c'>]><Envelope><Body><A/></Body></Envelope>", none},
        {"<Envelope/>", none},
    };
    for (const auto& [text, rest] : cases) {
        const request_t request(soap_parse(text));
        const core::owned_text made(net_soap_response(request.get(), nullptr, " x=\"\"", "<a/>", nullptr, CORE_HERE));
        EXPECT_EQ(made.get(), start + rest) << text;
    }
}

TEST(Soap, BoundsWhatARequestCanMakeItHold) {
    std::string deep = "<Envelope><Body>";
    std::string large = "<Envelope><Body><Get><a xmlns='u'>x</a><b>";
    for (int i = 0; i < 10000; ++i)
        deep += "<a>";
    EXPECT_EQ(request_t(soap_parse(deep.c_str()))->xml, nullptr);
    while (large.size() < 1 << 20)
        large += "\xc3\xa9";
    large += "</b></Get></Body></Envelope>";
    const size_t before = core_mem_bytes();
    const request_t taken(soap_parse(large.c_str()));
    EXPECT_LE(core_mem_bytes() - before, 25 * large.size() + (1 << 20));
    const core::owned_text argument(net_soap_get_arg(taken.get(), "b", CORE_HERE));
    EXPECT_EQ(std::strlen(argument.get()), 1022U) << "cut at 1023, between characters";
    char value[4], uri[4];
    EXPECT_EQ(soap_get_value(roxml_get_chld(taken->body, "Get", 0), "a", value, 4, uri, 4), 0);
    EXPECT_EQ(std::string(value) + uri, "xu");
}

TEST(Soap, LeavesOutWhatIsNotGiven) {
    const std::pair<char*, const char*> cases[] = {
        {soap_error(2), "<env:Subcode><env:Value>ter:Action</env:Value></env:Subcode></env:Code>"},
        {soap_error(-1), "<env:Code><env:Value></env:Value>"},
        {soap_getService("n", "x", nullptr), "</tds:XAddr><tds:Version>"},
        {soap_getVideoEncoderConfiguration("tt:a", "b", "c", "H264", nullptr, nullptr),
         "<tt:Width>1920</tt:Width><tt:Height>1080</tt:Height>"},
    };
    for (const auto& [made, piece] : cases)
        EXPECT_NE(std::strstr(core::owned_text(made).get(), piece), nullptr) << piece;
}

}  // namespace
