// What the streams of a device are configured with.
#pragma once

#include "net_soap/fill.h"

namespace soap {

// clang-format off

inline constexpr document analytics_module = R"(
<${tag} Name="${name}" Type="tt:LineDetector">
  <tt:Parameters>
    <tt:SimpleItem Name="Sensitivity" Value="0"/>
  </tt:Parameters>
</${tag}>
)";

/// No module of the analytics engine is shown: clients are told of none.
inline constexpr document video_analytics_configuration = R"(
<${tag} token="${token}">
  <tt:Name>${name}</tt:Name>
  <tt:UseCount>${count}</tt:UseCount>
  <tt:AnalyticsEngineConfiguration></tt:AnalyticsEngineConfiguration>
  <tt:RuleEngineConfiguration></tt:RuleEngineConfiguration>
</${tag}>
)";

inline constexpr document recording_configuration = R"(
<tt:RecordingConfiguration>
  <tt:Source>
    <tt:SourceId>1000</tt:SourceId>
    <tt:Name>${name}</tt:Name>
    <tt:Location>Location</tt:Location>
    <tt:Description>Descr</tt:Description>
    <tt:Address>adr</tt:Address>
  </tt:Source>
  <tt:Content>Content</tt:Content>
  <tt:MaximumRetentionTime>32</tt:MaximumRetentionTime>
</tt:RecordingConfiguration>
)";

inline constexpr document metadata_configuration = R"(
<${tag} token="${token}">
  <tt:Name>${name}</tt:Name>
  <tt:UseCount>0</tt:UseCount>
  <tt:PTZStatus>
    <tt:Status>false</tt:Status>
    <tt:Position>false</tt:Position>
  </tt:PTZStatus>
  <tt:Events>
    <tt:Filter xmlns:wsnt="http://docs.oasis-open.org/wsn/b-2">
      <wsnt:TopicExpression Dialect="http://www.onvif.org/ver10/tev/topicExpression/ConcreteSet"/>
      <wsnt:MessageContent Dialect="http://www.onvif.org/ver10/tev/messageContentFilter/ItemFilter"/>
    </tt:Filter>
  </tt:Events>
  <tt:Analytics>true</tt:Analytics>
  <tt:Multicast>
    <tt:Address>
      <tt:Type>IPv4</tt:Type>
      <tt:IPv4Address>0.0.0.0</tt:IPv4Address>
      <tt:IPv6Address>0:0:0:0:0:0:0:0</tt:IPv6Address>
    </tt:Address>
    <tt:Port>60000</tt:Port>
    <tt:TTL>64</tt:TTL>
    <tt:AutoStart>false</tt:AutoStart>
  </tt:Multicast>
  <tt:SessionTimeout>PT1M</tt:SessionTimeout>
</${tag}>
)";

/// "Pant" is what the schema of ONVIF calls it.
inline constexpr document ptz_configuration = R"(
<tt:PTZConfiguration token="${token}">
  <tt:Name>${name}</tt:Name>
  <tt:UseCount>${count}</tt:UseCount>
  <tt:NodeToken>1</tt:NodeToken>
  <tt:DefaultAbsolutePantTiltPositionSpace>
    http://www.onvif.org/ver10/tptz/PanTiltSpaces/PositionGenericSpace
  </tt:DefaultAbsolutePantTiltPositionSpace>
  <tt:DefaultAbsoluteZoomPositionSpace>
    http://www.onvif.org/ver10/tptz/ZoomSpaces/PositionGenericSpace
  </tt:DefaultAbsoluteZoomPositionSpace>
  <tt:DefaultRelativePanTiltTranslationSpace>
    http://www.onvif.org/ver10/tptz/PanTiltSpaces/TranslationGenericSpace
  </tt:DefaultRelativePanTiltTranslationSpace>
  <tt:DefaultRelativeZoomTranslationSpace>
    http://www.onvif.org/ver10/tptz/ZoomSpaces/TranslationGenericSpace
  </tt:DefaultRelativeZoomTranslationSpace>
  <tt:DefaultContinuousPanTiltVelocitySpace>
    http://www.onvif.org/ver10/tptz/PanTiltSpaces/VelocityGenericSpace
  </tt:DefaultContinuousPanTiltVelocitySpace>
  <tt:DefaultContinuousZoomVelocitySpace>
    http://www.onvif.org/ver10/tptz/ZoomSpaces/VelocityGenericSpace
  </tt:DefaultContinuousZoomVelocitySpace>
  <tt:DefaultPTZSpeed>
    <tt:PanTilt x="1.000000" y="1.000000" space="http://www.onvif.org/ver10/tptz/PanTiltSpaces/GenericSpeedSpace"/>
    <tt:Zoom x="1.000000" space="http://www.onvif.org/ver10/tptz/ZoomSpaces/ZoomGenericSpeedSpace"/>
  </tt:DefaultPTZSpeed>
  <tt:DefaultPTZTimeout>PT0S</tt:DefaultPTZTimeout>
  <tt:PanTiltLimits>
    <tt:Range>
      <tt:URI>http://www.onvif.org/ver10/tptz/PanTiltSpaces/PositionGenericSpace</tt:URI>
      <tt:XRange>
        <tt:Min>-1.000000</tt:Min>
        <tt:Max>1.000000</tt:Max>
      </tt:XRange>
      <tt:YRange>
        <tt:Min>-1.000000</tt:Min>
        <tt:Max>1.000000</tt:Max>
      </tt:YRange>
    </tt:Range>
  </tt:PanTiltLimits>
  <tt:ZoomLimits>
    <tt:Range>
      <tt:URI>http://www.onvif.org/ver10/tptz/ZoomSpaces/PositionGenericSpace</tt:URI>
      <tt:XRange>
        <tt:Min>0.000000</tt:Min>
        <tt:Max>1.000000</tt:Max>
      </tt:XRange>
    </tt:Range>
  </tt:ZoomLimits>
</tt:PTZConfiguration>
)";

inline constexpr document video_encoder_configuration = R"(
<${tag} token="${token}">
  <tt:Name>${name}</tt:Name>
  <tt:UseCount>1</tt:UseCount>
  <tt:Encoding>${codec}</tt:Encoding>
  <tt:Resolution>
    <tt:Width>${width}</tt:Width>
    <tt:Height>${height}</tt:Height>
  </tt:Resolution>
  <tt:Quality>50.0</tt:Quality>
  <tt:Multicast>
    <tt:Address>
      <tt:Type>IPv4</tt:Type>
      <tt:IPv4Address>0.0.0.0</tt:IPv4Address>
    </tt:Address>
    <tt:Port>0</tt:Port>
    <tt:TTL>1</tt:TTL>
    <tt:AutoStart>false</tt:AutoStart>
  </tt:Multicast>
  <tt:SessionTimeout>PT60S</tt:SessionTimeout>
</${tag}>
)";

/// With its blanks.
inline constexpr document resolutions_available =
    R"(<tt:ResolutionsAvailable>  <tt:Width>${width}</tt:Width>  <tt:Height>${height}</tt:Height>)"
    R"(</tt:ResolutionsAvailable>)";

// clang-format on

}  // namespace soap
