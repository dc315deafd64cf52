/// SOAP 1.2 for ONVIF devices and WS-Discovery: a request is read as far as its header, its body and the method that it
/// calls; answers, faults and discovery messages are made from fixed documents.
///
/// How a device answers a request:
///
///     soap::soap_t* request = soap_parse(text);
///     if (request && request->method && strcmp(request->method, "GetServices") == 0)
///         answer = net_soap_response(request, "tds", namespaces, "${services}", params, CORE_HERE);
///     soap_free(request);
///
/// Arguments of the functions that make texts:
///     texts        are encoded (xml_encode()) where they are filled in; null is an empty text
///     XML          `caps`, `exts`, `encoders` and namespace declarations (` xmlns:tt="..."`) are filled in as they are
///     names        `tag`, and the prefix of net_soap_response(), are names of XML ("tt:Metadata") and stay as they are
/// A returned text is the caller's, who releases it with core_mfree(). It is null when memory is out.
///
/// Bounds for one request:
///     text         64 MiB, nested 128 levels (common/xml.h); a longer or deeper one has no tree
///     memory       the text, its tree (at most 24 times the text and 1 MiB), the names
///     text read    1023 bytes, method 511 bytes, cut at a whole character
/// Any thread may call any function. A request may be read by several threads at once.
#pragma once

#include "core/api.h"
#include "core/param.h"

#include <cstdint>

struct node;  // common/xml.h

namespace soap {

/// A request. What is null was not there.
struct soap_t {
    char* text;    ///< copy of what was read
    node* xml;     ///< its document; null when the text is not XML
    node* header;  ///< Envelope/Header
    node* body;    ///< Envelope/Body
    char* method;  ///< local name of the first element in the body, such as "GetCapabilities"
    char* ns;      ///< URI of that element's namespace
};

}  // namespace soap

// Requests
// ---------------------------------------------------------------------------------------------------------------------

/// Reads a request. Prefixes of names are not looked at. The envelope may stand inside an element "documentRoot". Of
/// several envelopes there the last one counts.
/// @return the record, also of a text that is not XML; null for null and when memory is out. Release with soap_free().
INET_API soap::soap_t* soap_parse(const char* text) noexcept;

/// Releases a request and its tree; null is ignored.
INET_API void soap_free(soap::soap_t* request) noexcept;

/// Text of an argument: of the first element `name` in the method's element.
/// @return a new text for core_mfree(); null when the element is absent or empty, or when memory is out
INET_API char* net_soap_get_arg(const soap::soap_t* request, const char* name, const char* file, int line) noexcept;

/// Copies the text of `parent`'s first child `name` into `buf`, and the URI of the child's namespace into `nsbuf`, each
/// cut to its size and terminated. What is not there becomes empty. A null buffer is passed over.
/// @return 0
INET_API int soap_get_value(node* parent, const char* name, char* buf, int size, char* nsbuf, int nssize) noexcept;

// Answers
// ---------------------------------------------------------------------------------------------------------------------

/// The answer to a request: the filled template in an element `ns`:<method>Response. The header repeats from that of
/// the request, where they are (WS-Addressing 1.0):
///     - MessageID, as the answer's own id,
///     - the address of ReplyTo,
///     - To,
///     - Action, with "/<method>Response" in place of what follows its last '/'; without a '/' there is none.
/// The prefixes env, enc, xs, xsi, xop, wsa and tt are declared.
/// @param ns      prefix; null is "tt"
/// @param xmlns   further declarations, each with a blank before it; may be null
/// @param tmpl    template of core_template_parse(); null is empty
/// @param params  its values, as they are: callers encode texts (xml_encode())
INET_API char* net_soap_response(const soap::soap_t* request, const char* ns, const char* xmlns, const char* tmpl,
                                 const param_t* params, const char* file, int line) noexcept;

/// A fault. Another number than these gives one with empty texts.
///     1  env:Receiver  ter:Action         Action Failed
///     2  env:Receiver  ter:Action         Maximum number reached
///     3  env:Sender    ter:InvalidArgVal  Invalid Args
INET_API char* soap_error(int number) noexcept;

// WS-Discovery (April 2005)
// ---------------------------------------------------------------------------------------------------------------------
// In Probe and Hello an attribute has the prefix "s", which is not declared. Peers take that, soap_parse() does, too; a
// strict reader of namespaces does not.

/// @param ns    declarations for the prefixes of `type`
/// @param type  qualified names with blanks between them, such as "dn:NetworkVideoTransmitter"
INET_API char* soap_Probe(const char* message_id, const char* ns, const char* type) noexcept;

/// The answer to a Probe. The prefixes tds and dn are declared.
/// @param relates_to  MessageID of the Probe
/// @param urn         what follows "urn:" in the endpoint's address, such as "uuid:..."
/// @param xaddr       addresses with blanks between them
/// @param scopes      URIs with blanks between them
INET_API char* soap_ProbeMatch(const char* ns, const char* message_id, const char* relates_to, const char* urn,
                               const char* type, const char* xaddr, const char* scopes) noexcept;

INET_API char* soap_Hello(const char* ns, const char* message_id, const char* urn, const char* type, const char* xaddr,
                          const char* scopes) noexcept;

// What a device can do
// ---------------------------------------------------------------------------------------------------------------------
// The fixed values of GetCapabilities and of the services' own capabilities differ in places, as do the calls that they
// answer. `xaddr` is the address of the service.

/// Blocks of GetCapabilities: tt:Device, tt:Media, tt:Analytics, tt:Events, tt:PTZ and tt:DeviceIO.
INET_API char* soap_GetDeviceCapabilities(const char* xaddr) noexcept;
INET_API char* soap_GetMediaCapabilities(const char* xaddr) noexcept;
INET_API char* soap_GetAnalyticsCapabilities(const char* xaddr) noexcept;
INET_API char* soap_GetEventsCapabilities(const char* xaddr) noexcept;
INET_API char* soap_GetPTZCapabilities(const char* xaddr) noexcept;
INET_API char* soap_GetDeviceIOCapabilities(const char* xaddr, int video_sources, int video_outputs, int audio_sources,
                                            int audio_outputs, int relay_outputs) noexcept;

/// The whole answer to GetCapabilities, with an empty header.
/// @param caps  null-terminated array of blocks; null is empty
/// @param exts  blocks for tt:Extension, the same way
INET_API char* soap_GetCapabilitiesResponse(const char* const* caps, const char* const* exts) noexcept;

/// tds:Service, an entry of GetServices.
/// @param ns    URI of the service's namespace
/// @param caps  its capabilities; null leaves their element out
INET_API char* soap_getService(const char* ns, const char* xaddr, const char* caps) noexcept;

/// Capabilities of the services themselves: tds:Capabilities, trt:Capabilities and tev:Capabilities.
/// @param wsdl  URI that the prefix trt or tev is bound to; not empty
INET_API char* soap_DeviceServiceCapabilities() noexcept;
INET_API char* soap_MediaServiceCapabilities(const char* wsdl) noexcept;
INET_API char* soap_EventServiceCapabilities(const char* wsdl) noexcept;

// Configurations
// ---------------------------------------------------------------------------------------------------------------------
// Elements named `tag`, with a token, a name and a use count.

/// A line detector.
INET_API char* soap_getAnalyticsModule(const char* tag, const char* name) noexcept;

/// A configuration without modules and rules.
INET_API char* soap_getVideoAnalyticsConfiguration(const char* tag, const char* token, const char* name,
                                                   int count) noexcept;

/// tt:RecordingConfiguration. Only `name` is used.
INET_API char* soap_getRecordingConfiguration(const char* tag, const char* token, const char* name, int count) noexcept;

/// `analytics` and `count` are not used: analytics are always on, the use count is 0.
INET_API char* soap_getMetadataConfiguration(const char* tag, const char* token, const char* name, bool analytics,
                                             int count) noexcept;

/// tt:PTZConfiguration of the node 1.
INET_API char* soap_PTZConfiguration(const char* token, const char* name, int count) noexcept;

/// @param codec          "JPEG", "MPEG4" or "H264"
/// @param width, height  decimal texts; null is 1920 and 1080
INET_API char* soap_getVideoEncoderConfiguration(const char* tag, const char* token, const char* name,
                                                 const char* codec, const char* width, const char* height) noexcept;

/// The whole answer to GetVideoEncoderConfigurationOptions, without a header.
/// @param encoders  options of the encoders; null is empty
INET_API char* soap_GetVideoEncoderConfigurationOptionsResponse(const char* encoders) noexcept;

/// tt:ResolutionsAvailable, one of an encoder's options.
INET_API char* soap_getResolutionsAvailable(unsigned width, unsigned height) noexcept;
