// The ONVIF metadata stream document (tt:MetadataStream). Each '%' is a place to fill. Clients get it byte for byte:
// there is no white space between the elements.
#pragma once

#include <string_view>

namespace analytics {

/// Filled with the time of the frame. Translate and Scale map 0..65536 to the -1..1 of ONVIF.
inline constexpr std::string_view stream_open =
    R"(<?xml version="1.0" encoding="UTF-8"?>)"
    R"(<tt:MetadataStream xmlns:tt="http://www.onvif.org/ver10/schema")"
    R"( xmlns:wsnt="http://docs.oasis-open.org/wsn/b-2" xmlns:tns1="http://www.onvif.org/ver10/topics" >)"
    R"(<tt:VideoAnalytics>)"
    R"(<tt:Frame UtcTime="%">)"
    R"(<tt:Transformation>)"
    R"(<tt:Translate x="-1" y="-1"/>)"
    R"(<tt:Scale x="0.000030517578125" y="0.000030517578125"/>)"
    R"(</tt:Transformation>)";

/// Filled with the id, left, top, right, bottom, and x and y of the centre.
inline constexpr std::string_view object = R"(<tt:Object ObjectId="%">)"
                                           R"(<tt:Appearance>)"
                                           R"(<tt:Shape>)"
                                           R"(<tt:BoundingBox left="%" top="%" right="%" bottom="%"/>)"
                                           R"(<tt:CenterOfGravity x="%" y="%"/>)"
                                           R"(</tt:Shape>)"
                                           R"(</tt:Appearance>)"
                                           R"(</tt:Object>)";

inline constexpr std::string_view stream_close = R"(</tt:Frame>)"
                                                 R"(</tt:VideoAnalytics>)"
                                                 R"(</tt:MetadataStream>)";

}  // namespace analytics
