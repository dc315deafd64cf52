// Messages of WS-Discovery (April 2005).
#pragma once

#include "net_soap/fill.h"

namespace soap {

// clang-format off

// Peers know these byte for byte: the blanks in the first tag, and a prefix "s" that is not declared.
inline constexpr document probe =
R"(<env:Envelope  xmlns:env="http://www.w3.org/2003/05/soap-envelope")"
    R"(   xmlns:a="http://schemas.xmlsoap.org/ws/2004/08/addressing")"
    R"(   xmlns:d="http://schemas.xmlsoap.org/ws/2005/04/discovery"   ${ns} >
  <env:Header>
    <a:Action s:mustUnderstand="1">http://schemas.xmlsoap.org/ws/2005/04/discovery/Probe</a:Action>
    <a:MessageID>${message_id}</a:MessageID>
    <a:ReplyTo>
      <a:Address>http://schemas.xmlsoap.org/ws/2004/08/addressing/role/anonymous</a:Address>
    </a:ReplyTo>
    <a:To s:mustUnderstand="1">urn:schemas-xmlsoap-org:ws:2005:04:discovery</a:To>
  </env:Header>
  <env:Body>
    <Probe xmlns="http://schemas.xmlsoap.org/ws/2005/04/discovery">
      <d:Types>${type}</d:Types>
    </Probe>
  </env:Body>
</env:Envelope>
)";

inline constexpr document hello =
R"(<env:Envelope  xmlns:env="http://www.w3.org/2003/05/soap-envelope")"
    R"(   xmlns:a="http://schemas.xmlsoap.org/ws/2004/08/addressing")"
    R"(   xmlns:d="http://schemas.xmlsoap.org/ws/2005/04/discovery"   ${ns} >
  <env:Header>
    <a:Action s:mustUnderstand="1">http://schemas.xmlsoap.org/ws/2005/04/discovery/Hello</a:Action>
    <a:MessageID>${message_id}</a:MessageID>
    <a:To s:mustUnderstand="1">urn:schemas-xmlsoap-org:ws:2005:04:discovery</a:To>
  </env:Header>
  <env:Body>
    <d:Hello>
      <a:EndpointReference>
        <a:Address>urn:${urn}</a:Address>
      </a:EndpointReference>
      <d:Types>${type}</d:Types>
      <d:Scopes>${scopes}</d:Scopes>
      <d:XAddrs>${xaddr}</d:XAddrs>
      <d:MetadataVersion>1</d:MetadataVersion>
    </d:Hello>
  </env:Body>
</env:Envelope>
)";

inline constexpr document probe_match = R"(<?xml version="1.0" encoding="UTF-8"?>
<env:Envelope xmlns:env="http://www.w3.org/2003/05/soap-envelope"
              xmlns:wsa="http://schemas.xmlsoap.org/ws/2004/08/addressing"
              xmlns:d="http://schemas.xmlsoap.org/ws/2005/04/discovery"
              xmlns:tds="http://www.onvif.org/ver10/device/wsdl"
              xmlns:dn="http://www.onvif.org/ver10/network/wsdl" ${ns}>
  <env:Header>
    <wsa:Action env:mustUnderstand="true">http://schemas.xmlsoap.org/ws/2005/04/discovery/ProbeMatches</wsa:Action>
    <wsa:MessageID>${message_id}</wsa:MessageID>
    <wsa:RelatesTo>${relates_to}</wsa:RelatesTo>
    <wsa:To env:mustUnderstand="true">http://schemas.xmlsoap.org/ws/2004/08/addressing/role/anonymous</wsa:To>
  </env:Header>
  <env:Body>
    <d:ProbeMatches>
      <d:ProbeMatch>
        <wsa:EndpointReference>
          <wsa:Address>urn:${urn}</wsa:Address>
        </wsa:EndpointReference>
        <d:Types>${type}</d:Types>
        <d:Scopes>${scopes}</d:Scopes>
        <d:XAddrs>${xaddr}</d:XAddrs>
        <d:MetadataVersion>1</d:MetadataVersion>
      </d:ProbeMatch>
    </d:ProbeMatches>
  </env:Body>
</env:Envelope>
)";

// clang-format on

}  // namespace soap
