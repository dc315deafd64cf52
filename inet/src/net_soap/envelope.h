// Whole answers: envelopes and what stands in their headers.
#pragma once

#include "net_soap/fill.h"

namespace soap {

// clang-format off

/// Of the header: each is left out where the request has none.
inline constexpr document action_element =
    R"(<wsa:Action env:mustUnderstand="true">${prefix}/${method}Response</wsa:Action>)";
inline constexpr document message_id_element =
    R"(<wsa:MessageID>${text}</wsa:MessageID>)";
inline constexpr document reply_to_element =
    R"(<wsa:ReplyTo env:mustUnderstand="true"><wsa:Address>${text}</wsa:Address></wsa:ReplyTo>)";
inline constexpr document to_element =
    R"(<wsa:To env:mustUnderstand="true">${text}</wsa:To>)";

inline constexpr document response = R"(<?xml version="1.0" encoding="UTF-8"?>
<env:Envelope xmlns:env="http://www.w3.org/2003/05/soap-envelope"
              xmlns:enc="http://www.w3.org/2003/05/soap-encoding"
              xmlns:xs="http://www.w3.org/2001/XMLSchema"
              xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance"
              xmlns:xop="http://www.w3.org/2004/08/xop/include"
              xmlns:wsa="http://www.w3.org/2005/08/addressing"
              xmlns:tt="http://www.onvif.org/ver10/schema"${xmlns}>
  <env:Header>
    ${message_id}
    ${reply_to}
    ${to}
    ${action}
  </env:Header>
  <env:Body>
    <${ns}:${method}Response>
      ${xml}
    </${ns}:${method}Response>
  </env:Body>
</env:Envelope>
)";

/// There is no place for a subcode below the subcode: peers know the faults without.
inline constexpr document fault = R"(<?xml version="1.0" encoding="UTF-8"?>
<env:Envelope xmlns:env="http://www.w3.org/2003/05/soap-envelope"
              xmlns:ter="http://www.onvif.org/ver10/error">
  <env:Body>
    <env:Fault env:encodingStyle="http://www.w3.org/2003/05/soap-encoding">
      <env:Code>
        <env:Value>${code}</env:Value>
        <env:Subcode>
          <env:Value>${subcode}</env:Value>
        </env:Subcode>
      </env:Code>
      <env:Reason>
        <env:Text xml:lang="en">${reason}</env:Text>
      </env:Reason>
      <env:Detail>
        <env:Text xml:lang="en">${detail}</env:Text>
      </env:Detail>
    </env:Fault>
  </env:Body>
</env:Envelope>
)";

inline constexpr document capabilities_response = R"(<?xml version="1.0" encoding="UTF-8"?>
<env:Envelope xmlns:env="http://www.w3.org/2003/05/soap-envelope"
              xmlns:tt="http://www.onvif.org/ver10/schema"
              xmlns:tds="http://www.onvif.org/ver10/device/wsdl">
  <env:Header></env:Header>
  <env:Body>
    <tds:GetCapabilitiesResponse>
      <tds:Capabilities>
        ${caps}
        <tt:Extension>
          ${exts}
        </tt:Extension>
      </tds:Capabilities>
    </tds:GetCapabilitiesResponse>
  </env:Body>
</env:Envelope>
)";

inline constexpr document encoder_options_response = R"(<?xml version="1.0" encoding="UTF-8"?>
<env:Envelope xmlns:env="http://www.w3.org/2003/05/soap-envelope"
              xmlns:tt="http://www.onvif.org/ver10/schema"
              xmlns:trt="http://www.onvif.org/ver10/media/wsdl">
  <env:Body>
    <trt:GetVideoEncoderConfigurationOptionsResponse>
      <trt:Options>
        <tt:QualityRange>
          <tt:Min>0</tt:Min>
          <tt:Max>100</tt:Max>
        </tt:QualityRange>
        ${encoders}
      </trt:Options>
    </trt:GetVideoEncoderConfigurationOptionsResponse>
  </env:Body>
</env:Envelope>
)";

// clang-format on

}  // namespace soap
