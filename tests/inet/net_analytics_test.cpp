#include "inet/net_analytics.h"

#include "core/owned.h"

#include <gtest/gtest.h>

namespace {

std::string document(const std::string& utc, const std::string& objects) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><tt:MetadataStream "
           "xmlns:tt=\"http://www.onvif.org/ver10/schema\" xmlns:wsnt=\"http://docs.oasis-open.org/wsn/b-2\" "
           "xmlns:tns1=\"http://www.onvif.org/ver10/topics\" ><tt:VideoAnalytics><tt:Frame UtcTime=\"" +
           utc +
           "\"><tt:Transformation><tt:Translate x=\"-1\" y=\"-1\"/><tt:Scale x=\"0.000030517578125\" "
           "y=\"0.000030517578125\"/></tt:Transformation>" +
           objects + "</tt:Frame></tt:VideoAnalytics></tt:MetadataStream>";
}

std::string object(const std::string& id, const std::string& sides, const std::string& center) {
    return "<tt:Object ObjectId=\"" + id + "\"><tt:Appearance><tt:Shape><tt:BoundingBox " + sides +
           "/><tt:CenterOfGravity " + center + "/></tt:Shape></tt:Appearance></tt:Object>";
}

std::string shape(const std::string& points, const std::string& more = "\"type_graphic\": 3") {
    return "\"rectangle\": {" + more + ", \"points\": [" + points + "]}";
}

std::string report(const std::string& shapes) { return R"([{"key2": "x", "objects": [{)" + shapes + "}]}]"; }

const std::string points = R"({"x": 100, "y": 200}, {"x": 300, "y": 400})";
const std::string box = R"(left="100.0" top="65336.0" right="300.0" bottom="65136.0")";
const std::string none = R"(x="0.0" y="0.0")";

}  // namespace

TEST(Analytics, WritesRectanglesAndNothingElse) {
    const std::string plain = shape(points);
    const std::pair<std::string, std::string> cases[] = {
        {report(shape(points, R"("type_graphic": 3, "id": 0)")), object("1", box, none)},
        {report(shape(points, R"("type_graphic": 3, "id": "7")")), object("1", box, none)},
        {report(shape(points, R"("id": -7, "type_graphic": 3)") + ", \"oval\": 1, " + plain),
         object("-7", box, R"(x="200.0" y="65236.0")") + object("1", box, none)},
        {report(shape(R"({"x": -9223372036854775808, "y": 9223372036854775807}, {"x": 1.5}, 5)")),
         object("1", R"(left="-9223372036854775808.0" top="-9223372036854710272.0" right="0.0" bottom="65536.0")",
                none)},
        {"[5, {}, {\"objects\": [null, {" + plain + "}]}, {\"objects\": [{" + plain + "}]}]",
         object("1", box, none) + object("2", box, none)},
        {"{" + report(plain).substr(2), ""},
        {report(shape(points, "\"type_graphic\": 3.0")), ""},
        {report(shape(points, "\"id\": 3")), ""},
        {report("\"rectangle\": {\"type_graphic\": 3}"), ""},
        {report(shape(R"({"x": 1, "y": 2})")), ""},
        {report(shape(R"({"x": 1, "y": 2}, 5)")), ""},
        {report(shape(R"({"x": 1, "y": 2}, {"x": 1, "y": 3})")), ""},
        {report(shape(R"({"x": 1, "y": 2}, {"x": 2, "y": 2})")), ""},
    };
    for (const auto& [json, objects] : cases) {
        const core::owned_text text(net_analytics_convert(json.c_str(), 951782399999999, CORE_HERE));
        EXPECT_EQ(text ? text.get() : "", objects.empty() ? "" : document("2000-02-28T23:59:59.999Z", objects)) << json;
    }
    const core::owned_text leap_day(onvif_convert(report(plain).c_str(), 951782400001000));
    EXPECT_EQ(leap_day.get(), document("2000-02-29T00:00:00.001Z", object("1", box, none)));
}
