#include "inet/net_analytics.h"

#include "support/exact.h"

#include "core/memory.h"
#include "core/owned.h"

#include <gtest/gtest.h>
#include <string>

namespace {

constexpr uint64_t time_of_frame = 1448466450042999;  // 2015-11-25T15:47:30.042999 UTC

const std::string head =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><tt:MetadataStream xmlns:tt=\"http://www.onvif.org/ver10/schema\" "
    "xmlns:wsnt=\"http://docs.oasis-open.org/wsn/b-2\" xmlns:tns1=\"http://www.onvif.org/ver10/topics\" >"
    "<tt:VideoAnalytics><tt:Frame UtcTime=\"2015-11-25T15:47:30.042Z\"><tt:Transformation><tt:Translate x=\"-1\" "
    "y=\"-1\"/><tt:Scale x=\"0.000030517578125\" y=\"0.000030517578125\"/></tt:Transformation>";
const std::string tail = "</tt:Frame></tt:VideoAnalytics></tt:MetadataStream>";

const std::string two_points = R"("points": [{"x": 100, "y": 200}, {"x": 300, "y": 400}])";
const std::string typed = R"("type_graphic": 3, )" + two_points;
const std::string box = R"( left="100.0" top="65336.0" right="300.0" bottom="65136.0")";

std::string object(const std::string& id, const std::string& sides, const std::string& x, const std::string& y) {
    return "<tt:Object ObjectId=\"" + id + "\"><tt:Appearance><tt:Shape><tt:BoundingBox" + sides +
           "/><tt:CenterOfGravity x=\"" + x + "\" y=\"" + y + "\"/></tt:Shape></tt:Appearance></tt:Object>";
}

std::string report(const std::string& shapes) {
    return R"([{"key2": "x", "detector_name": "d", "objects": [{)" + shapes + "}]}]";
}

std::string rectangle(const std::string& members) { return "\"rectangle\": {" + members + "}"; }

/// The objects of the document, "null" for none.
std::string convert(const std::string& json) {
    const test::exact_text exact(json);
    const core::owned_text text(net_analytics_convert(exact.get(), time_of_frame, CORE_HERE));
    if (!text) return "null";
    const std::string document = text.get();
    EXPECT_TRUE(document.starts_with(head) && document.ends_with(tail)) << document;
    return document.substr(head.size(), document.size() - head.size() - tail.size());
}

}  // namespace

TEST(Analytics, WritesRectangles) {
    const std::pair<std::string, std::string> cases[] = {
        {rectangle("\"id\": 7, " + typed), object("7", box, "200.0", "65236.0")},
        {rectangle(typed), object("1", box, "0.0", "0.0")},
        {rectangle("\"id\": 0, " + typed), object("1", box, "0.0", "0.0")},
        {rectangle("\"id\": \"7\", " + typed), object("1", box, "0.0", "0.0")},
        {rectangle("\"id\": -7, " + typed) + ", \"oval\": 1, " + rectangle(typed),
         object("-7", box, "200.0", "65236.0") + object("1", box, "0.0", "0.0")},
        {rectangle(R"("id": 1, "type_graphic": 3, "points": [{"x": 1}, {"y": 1, "x": 2}, 5])"),
         object("1", R"( left="1.0" top="65536.0" right="2.0" bottom="65535.0")", "1.5", "65535.5")},
        {rectangle(
             R"("type_graphic": 3, "points": [{"x": -9223372036854775808, "y": 9223372036854775807}, {"x": 1.5}])"),
         object("1", R"( left="-9223372036854775808.0" top="-9223372036854710272.0" right="0.0" bottom="65536.0")",
                "0.0", "0.0")},
    };
    for (const auto& [shapes, objects] : cases)
        EXPECT_EQ(convert(report(shapes)), objects) << shapes;

    const std::string reports =
        "[5, {}, {\"objects\": [null, {" + rectangle(typed) + "}]}, {\"objects\": [{" + rectangle(typed) + "}]}]";
    EXPECT_EQ(convert(reports), object("1", box, "0.0", "0.0") + object("2", box, "0.0", "0.0"));
}

TEST(Analytics, GivesNothingForAnythingElse) {
    const std::string cases[] = {
        "[]",
        "[",
        "[{\"objects\": {}}]",
        "[{\"objects\": [{\"rectangle\": 3}]}]",
        "{" + report(rectangle(typed)).substr(2),
        report("\"Rectangle\": {" + typed + "}"),
        report(rectangle(R"("type_graphic": 2, )" + two_points)),
        report(rectangle(R"("type_graphic": 3.0, )" + two_points)),
        report(rectangle(two_points)),
        report(rectangle(R"("type_graphic": 3)")),
        report(rectangle(R"("type_graphic": 3, "points": [{"x": 1, "y": 2}])")),
        report(rectangle(R"("type_graphic": 3, "points": [{"x": 1, "y": 2}, 5])")),
        report(rectangle(R"("type_graphic": 3, "points": [{"x": 1, "y": 2}, {"x": 1, "y": 3}])")),
        report(rectangle(R"("type_graphic": 3, "points": [{"x": 1, "y": 2}, {"x": 2, "y": 2}])")),
    };
    for (const std::string& json : cases)
        EXPECT_EQ(convert(json), "null") << json;
    const std::string whole = report(rectangle(typed));
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_EQ(convert(whole.substr(0, size)), "null") << size;
}

TEST(Analytics, BothFormsWriteTheTimeInUtc) {
    const std::string json = report(rectangle(typed));
    constexpr std::pair<uint64_t, const char*> times[] = {
        {0, "1970-01-01T00:00:00.000Z"},
        {951782399999999, "2000-02-28T23:59:59.999Z"},
        {951782400001000, "2000-02-29T00:00:00.001Z"},
    };
    for (const auto& [us, utc] : times) {
        const core::owned_text net(net_analytics_convert(json.c_str(), us, "caller.cpp", 5));
        EXPECT_STREQ(core_mem_file(net.get()), "caller.cpp");
        EXPECT_NE(std::string(net.get()).find("UtcTime=\"" + std::string(utc) + "\""), std::string::npos) << utc;
        EXPECT_STREQ(core::owned_text(onvif_convert(json.c_str(), us)).get(), net.get());
    }
}
