// What the services of a device can do: the blocks of GetCapabilities, the entries of GetServices, the services' own
// capabilities. Their values differ in places: they answer different calls.
#pragma once

#include "net_soap/fill.h"

namespace soap {

// clang-format off

inline constexpr document device_capabilities = R"(
<tt:Device>
  <tt:XAddr>${xaddr}</tt:XAddr>
  <tt:Network>
    <tt:IPFilter>false</tt:IPFilter>
    <tt:ZeroConfiguration>false</tt:ZeroConfiguration>
    <tt:IPVersion6>false</tt:IPVersion6>
    <tt:DynDNS>false</tt:DynDNS>
  </tt:Network>
  <tt:System>
    <tt:DiscoveryResolve>true</tt:DiscoveryResolve>
    <tt:DiscoveryBye>true</tt:DiscoveryBye>
    <tt:RemoteDiscovery>false</tt:RemoteDiscovery>
    <tt:SystemBackup>false</tt:SystemBackup>
    <tt:SystemLogging>false</tt:SystemLogging>
    <tt:FirmwareUpgrade>false</tt:FirmwareUpgrade>
    <tt:SupportedVersions>
      <tt:Major>2</tt:Major>
      <tt:Minor>50</tt:Minor>
    </tt:SupportedVersions>
  </tt:System>
  <tt:IO>
    <tt:InputConnectors>0</tt:InputConnectors>
    <tt:RelayOutputs>0</tt:RelayOutputs>
  </tt:IO>
  <tt:Security>
    <tt:TLS1.1>false</tt:TLS1.1>
    <tt:TLS1.2>false</tt:TLS1.2>
    <tt:OnboardKeyGeneration>true</tt:OnboardKeyGeneration>
    <tt:AccessPolicyConfig>true</tt:AccessPolicyConfig>
    <tt:X.509Token>false</tt:X.509Token>
    <tt:SAMLToken>false</tt:SAMLToken>
    <tt:KerberosToken>false</tt:KerberosToken>
    <tt:RELToken>false</tt:RELToken>
    <tt:Extension>
      <tt:TLS1.0>true</tt:TLS1.0>
    </tt:Extension>
  </tt:Security>
</tt:Device>
)";

inline constexpr document media_capabilities = R"(
<tt:Media>
  <tt:XAddr>${xaddr}</tt:XAddr>
  <tt:StreamingCapabilities>
    <tt:RTPMulticast>false</tt:RTPMulticast>
    <tt:RTP_TCP>true</tt:RTP_TCP>
    <tt:RTP_RTSP_TCP>true</tt:RTP_RTSP_TCP>
  </tt:StreamingCapabilities>
  <tt:Extension>
    <tt:ProfileCapabilities>
      <tt:MaximumNumberOfProfiles>32</tt:MaximumNumberOfProfiles>
    </tt:ProfileCapabilities>
  </tt:Extension>
</tt:Media>
)";

inline constexpr document analytics_capabilities = R"(
<tt:Analytics>
  <tt:XAddr>${xaddr}</tt:XAddr>
  <tt:RuleSupport>false</tt:RuleSupport>
  <tt:AnalyticsModuleSupport>true</tt:AnalyticsModuleSupport>
</tt:Analytics>
)";

inline constexpr document events_capabilities = R"(
<tt:Events>
  <tt:XAddr>${xaddr}</tt:XAddr>
  <tt:WSSubscriptionPolicySupport>false</tt:WSSubscriptionPolicySupport>
  <tt:WSPullPointSupport>false</tt:WSPullPointSupport>
  <tt:WSPausableSubscriptionManagerInterfaceSupport>false</tt:WSPausableSubscriptionManagerInterfaceSupport>
</tt:Events>
)";

inline constexpr document ptz_capabilities = R"(
<tt:PTZ>
  <tt:XAddr>${xaddr}</tt:XAddr>
</tt:PTZ>
)";

inline constexpr document device_io_capabilities = R"(
<tt:DeviceIO>
  <tt:XAddr>${xaddr}</tt:XAddr>
  <tt:VideoSources>${video_sources}</tt:VideoSources>
  <tt:VideoOutputs>${video_outputs}</tt:VideoOutputs>
  <tt:AudioSources>${audio_sources}</tt:AudioSources>
  <tt:AudioOutputs>${audio_outputs}</tt:AudioOutputs>
  <tt:RelayOutputs>${relay_outputs}</tt:RelayOutputs>
</tt:DeviceIO>
)";

/// `before` and `after` are the tags around the capabilities, if there are any.
inline constexpr document service = R"(
<tds:Service>
  <tds:Namespace>${ns}</tds:Namespace>
  <tds:XAddr>${xaddr}</tds:XAddr>
  ${before}${caps}${after}
  <tds:Version>
    <tt:Major>2</tt:Major>
    <tt:Minor>0</tt:Minor>
  </tds:Version>
</tds:Service>
)";

inline constexpr document device_service_capabilities = R"(
<tds:Capabilities>
  <tds:Network IPFilter="true" ZeroConfiguration="true" IPVersion6="false" DynDNS="false"
               Dot11Configuration="false" HostnameFromDHCP="false" NTP="1" DHCPv6="false"/>
  <tds:Security TLS1.0="false" TLS1.1="false" TLS1.2="false"
                X.509Token="false" SAMLToken="false" KerberosToken="false" RELToken="false"
                Dot1X="false" RemoteUserHandling="false" UsernameToken="false" HttpDigest="false"
                MaxUsers="10" MaxUserNameLength="128" MaxPasswordLength="128" SupportedEAPMethods="0"/>
  <tds:System DiscoveryResolve="false" DiscoveryBye="false" RemoteDiscovery="false"
              SystemBackup="false" SystemLogging="false" FirmwareUpgrade="false"
              HttpFirmwareUpgrade="false" HttpSystemBackup="false" HttpSystemLogging="false"
              HttpSupportInformation="false" StorageConfiguration="false"/>
</tds:Capabilities>
)";

inline constexpr document media_service_capabilities = R"(
<trt:Capabilities xmlns:trt="${wsdl}">
  <trt:ProfileCapabilities MaximumNumberOfProfiles="10"/>
  <trt:StreamingCapabilities RTP_RTSP_TCP="true" RTP_TCP="true" RTPMulticast="false"/>
</trt:Capabilities>
)";

inline constexpr document event_service_capabilities = R"(
<tev:Capabilities xmlns:tev="${wsdl}"
                  WSSubscriptionPolicySupport="false"
                  WSPullPointSupport="true"
                  WSPausableSubscriptionManagerInterfaceSupport="false"
                  MaxNotificationProducers="0"
                  MaxPullPoints="1"
                  PersistentNotificationStorage="false"/>
)";

// clang-format on

}  // namespace soap
