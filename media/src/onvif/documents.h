// What the toolkit (inet/net_soap.h) has no document for.
#pragma once

namespace media::onvif_calls {

// clang-format off

inline constexpr char not_authorized[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<env:Envelope xmlns:env="http://www.w3.org/2003/05/soap-envelope" xmlns:ter="http://www.onvif.org/ver10/error">
  <env:Body>
    <env:Fault>
      <env:Code>
        <env:Value>env:Sender</env:Value>
        <env:Subcode>
          <env:Value>ter:NotAuthorized</env:Value>
        </env:Subcode>
      </env:Code>
      <env:Reason>
        <env:Text xml:lang="en">Sender not Authorized</env:Text>
      </env:Reason>
    </env:Fault>
  </env:Body>
</env:Envelope>
)";

// The device

inline constexpr char system_date_and_time[] = R"(
<tds:SystemDateAndTime>
  <tt:DateTimeType>NTP</tt:DateTimeType>
  <tt:DaylightSavings>false</tt:DaylightSavings>
  <tt:TimeZone>
    <tt:TZ>UTC0</tt:TZ>
  </tt:TimeZone>
  <tt:UTCDateTime>
    <tt:Time>
      <tt:Hour>${hour}</tt:Hour>
      <tt:Minute>${minute}</tt:Minute>
      <tt:Second>${second}</tt:Second>
    </tt:Time>
    <tt:Date>
      <tt:Year>${year}</tt:Year>
      <tt:Month>${month}</tt:Month>
      <tt:Day>${day}</tt:Day>
    </tt:Date>
  </tt:UTCDateTime>
</tds:SystemDateAndTime>
)";

inline constexpr char device_information[] = R"(
<tds:Manufacturer>${manufacturer}</tds:Manufacturer>
<tds:Model>${model}</tds:Model>
<tds:FirmwareVersion>${firmware}</tds:FirmwareVersion>
<tds:SerialNumber>${serial}</tds:SerialNumber>
<tds:HardwareId>${hardware}</tds:HardwareId>
)";

inline constexpr char scope[] = R"(
<tds:Scopes>
  <tt:ScopeDef>Fixed</tt:ScopeDef>
  <tt:ScopeItem>${scope}</tt:ScopeItem>
</tds:Scopes>
)";

inline constexpr char network_interface[] = R"(
<tds:NetworkInterfaces token="${token}">
  <tt:Enabled>true</tt:Enabled>
  ${info}
  <tt:IPv4>
    <tt:Enabled>true</tt:Enabled>
    <tt:Config>
      <tt:Manual>
        <tt:Address>${address}</tt:Address>
        <tt:PrefixLength>${prefix}</tt:PrefixLength>
      </tt:Manual>
      <tt:DHCP>false</tt:DHCP>
    </tt:Config>
  </tt:IPv4>
</tds:NetworkInterfaces>
)";

/// Clients tell devices apart by it.
inline constexpr char interface_info[] = R"(
<tt:Info>
  <tt:HwAddress>%02x:%02x:%02x:%02x:%02x:%02x</tt:HwAddress>
</tt:Info>
)";

inline constexpr char hostname[] = R"(
<tds:HostnameInformation>
  <tt:FromDHCP>false</tt:FromDHCP>
  <tt:Name>${name}</tt:Name>
</tds:HostnameInformation>
)";

// Media

inline constexpr char profile[] = R"(
<trt:${tag} token="${token}" fixed="true">
  <tt:Name>${token}</tt:Name>
  ${configurations}
</trt:${tag}>
)";

inline constexpr char video_source[] = R"(
<trt:VideoSources token="${token}">
  <tt:Framerate>${rate}</tt:Framerate>
  <tt:Resolution>
    <tt:Width>${width}</tt:Width>
    <tt:Height>${height}</tt:Height>
  </tt:Resolution>
</trt:VideoSources>
)";

inline constexpr char video_source_configuration[] = R"(
<${tag} token="${token}">
  <tt:Name>${token}</tt:Name>
  <tt:UseCount>1</tt:UseCount>
  <tt:SourceToken>${token}</tt:SourceToken>
  <tt:Bounds x="0" y="0" width="${width}" height="${height}"/>
</${tag}>
)";

inline constexpr char audio_source[] = R"(
<trt:AudioSources token="${token}">
  <tt:Channels>${channels}</tt:Channels>
</trt:AudioSources>
)";

inline constexpr char audio_source_configuration[] = R"(
<tt:AudioSourceConfiguration token="${token}">
  <tt:Name>${token}</tt:Name>
  <tt:UseCount>1</tt:UseCount>
  <tt:SourceToken>${token}</tt:SourceToken>
</tt:AudioSourceConfiguration>
)";

inline constexpr char audio_encoder_configuration[] = R"(
<tt:AudioEncoderConfiguration token="${token}">
  <tt:Name>${token}</tt:Name>
  <tt:UseCount>1</tt:UseCount>
  <tt:Encoding>${codec}</tt:Encoding>
  <tt:Bitrate>64</tt:Bitrate>
  <tt:SampleRate>${rate}</tt:SampleRate>
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
</tt:AudioEncoderConfiguration>
)";

inline constexpr char jpeg_options[] = R"(
<tt:JPEG>
  ${resolutions}
  <tt:FrameRateRange><tt:Min>1</tt:Min><tt:Max>60</tt:Max></tt:FrameRateRange>
  <tt:EncodingIntervalRange><tt:Min>1</tt:Min><tt:Max>1</tt:Max></tt:EncodingIntervalRange>
</tt:JPEG>
)";

inline constexpr char h264_options[] = R"(
<tt:H264>
  ${resolutions}
  <tt:GovLengthRange><tt:Min>1</tt:Min><tt:Max>600</tt:Max></tt:GovLengthRange>
  <tt:FrameRateRange><tt:Min>1</tt:Min><tt:Max>60</tt:Max></tt:FrameRateRange>
  <tt:EncodingIntervalRange><tt:Min>1</tt:Min><tt:Max>1</tt:Max></tt:EncodingIntervalRange>
  <tt:H264ProfilesSupported>Baseline</tt:H264ProfilesSupported>
  <tt:H264ProfilesSupported>Main</tt:H264ProfilesSupported>
  <tt:H264ProfilesSupported>High</tt:H264ProfilesSupported>
</tt:H264>
)";

inline constexpr char media_uri[] = R"(
<trt:MediaUri>
  <tt:Uri>${uri}</tt:Uri>
  <tt:InvalidAfterConnect>false</tt:InvalidAfterConnect>
  <tt:InvalidAfterReboot>false</tt:InvalidAfterReboot>
  <tt:Timeout>PT0S</tt:Timeout>
</trt:MediaUri>
)";

// clang-format on

}  // namespace media::onvif_calls
