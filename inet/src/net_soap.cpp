#include "inet/net_soap.h"

#include "net_soap/capabilities.h"
#include "net_soap/configurations.h"
#include "net_soap/discovery.h"
#include "net_soap/envelope.h"

#include "core/array.h"
#include "core/owned.h"

using soap::fill;
using soap::xml;

namespace {

/// The pieces of a null-terminated array, one behind the other.
class joined {
public:
    explicit joined(const char* const* pieces) noexcept
        : text_(core_array_to_string(const_cast<char* const*>(pieces), CORE_HERE)),
          is_complete_(text_ || !pieces || !*pieces) {}

    bool is_complete() const noexcept { return is_complete_; }
    operator xml() const noexcept { return {text_.get()}; }

private:
    core::owned_text text_;
    bool is_complete_;
};

}  // namespace

char* soap_Probe(const char* message_id, const char* ns, const char* type) noexcept {
    return fill(soap::probe, {{"message_id", message_id}, {"ns", xml{ns}}, {"type", type}}, CORE_HERE);
}

char* soap_ProbeMatch(const char* ns, const char* message_id, const char* relates_to, const char* urn, const char* type,
                      const char* xaddr, const char* scopes) noexcept {
    return fill(soap::probe_match,
                {{"ns", xml{ns}},
                 {"message_id", message_id},
                 {"relates_to", relates_to},
                 {"urn", urn},
                 {"type", type},
                 {"xaddr", xaddr},
                 {"scopes", scopes}},
                CORE_HERE);
}

char* soap_Hello(const char* ns, const char* message_id, const char* urn, const char* type, const char* xaddr,
                 const char* scopes) noexcept {
    return fill(soap::hello,
                {{"ns", xml{ns}},
                 {"message_id", message_id},
                 {"urn", urn},
                 {"type", type},
                 {"xaddr", xaddr},
                 {"scopes", scopes}},
                CORE_HERE);
}

char* soap_GetDeviceCapabilities(const char* xaddr) noexcept {
    return fill(soap::device_capabilities, {{"xaddr", xaddr}}, CORE_HERE);
}

char* soap_GetMediaCapabilities(const char* xaddr) noexcept {
    return fill(soap::media_capabilities, {{"xaddr", xaddr}}, CORE_HERE);
}

char* soap_GetAnalyticsCapabilities(const char* xaddr) noexcept {
    return fill(soap::analytics_capabilities, {{"xaddr", xaddr}}, CORE_HERE);
}

char* soap_GetEventsCapabilities(const char* xaddr) noexcept {
    return fill(soap::events_capabilities, {{"xaddr", xaddr}}, CORE_HERE);
}

char* soap_GetPTZCapabilities(const char* xaddr) noexcept {
    return fill(soap::ptz_capabilities, {{"xaddr", xaddr}}, CORE_HERE);
}

char* soap_GetDeviceIOCapabilities(const char* xaddr, int video_sources, int video_outputs, int audio_sources,
                                   int audio_outputs, int relay_outputs) noexcept {
    return fill(soap::device_io_capabilities,
                {{"xaddr", xaddr},
                 {"video_sources", video_sources},
                 {"video_outputs", video_outputs},
                 {"audio_sources", audio_sources},
                 {"audio_outputs", audio_outputs},
                 {"relay_outputs", relay_outputs}},
                CORE_HERE);
}

char* soap_GetCapabilitiesResponse(const char* const* caps, const char* const* exts) noexcept {
    const joined all_caps(caps);
    const joined all_exts(exts);
    if (!all_caps.is_complete() || !all_exts.is_complete()) return nullptr;
    return fill(soap::capabilities_response, {{"caps", xml(all_caps)}, {"exts", xml(all_exts)}}, CORE_HERE);
}

char* soap_getService(const char* ns, const char* xaddr, const char* caps) noexcept {
    return fill(soap::service,
                {{"ns", ns},
                 {"xaddr", xaddr},
                 {"before", xml{caps ? "<tds:Capabilities>" : nullptr}},
                 {"caps", xml{caps}},
                 {"after", xml{caps ? "</tds:Capabilities>" : nullptr}}},
                CORE_HERE);
}

char* soap_DeviceServiceCapabilities() noexcept { return fill(soap::device_service_capabilities, {}, CORE_HERE); }

char* soap_MediaServiceCapabilities(const char* wsdl) noexcept {
    return fill(soap::media_service_capabilities, {{"wsdl", wsdl}}, CORE_HERE);
}

char* soap_EventServiceCapabilities(const char* wsdl) noexcept {
    return fill(soap::event_service_capabilities, {{"wsdl", wsdl}}, CORE_HERE);
}

char* soap_getAnalyticsModule(const char* tag, const char* name) noexcept {
    return fill(soap::analytics_module, {{"tag", xml{tag}}, {"name", name}}, CORE_HERE);
}

char* soap_getVideoAnalyticsConfiguration(const char* tag, const char* token, const char* name, int count) noexcept {
    return fill(soap::video_analytics_configuration,
                {{"tag", xml{tag}}, {"token", token}, {"name", name}, {"count", count}}, CORE_HERE);
}

char* soap_getRecordingConfiguration(const char*, const char*, const char* name, int) noexcept {
    return fill(soap::recording_configuration, {{"name", name}}, CORE_HERE);
}

char* soap_getMetadataConfiguration(const char* tag, const char* token, const char* name, bool, int) noexcept {
    return fill(soap::metadata_configuration, {{"tag", xml{tag}}, {"token", token}, {"name", name}}, CORE_HERE);
}

char* soap_PTZConfiguration(const char* token, const char* name, int count) noexcept {
    return fill(soap::ptz_configuration, {{"token", token}, {"name", name}, {"count", count}}, CORE_HERE);
}

char* soap_getVideoEncoderConfiguration(const char* tag, const char* token, const char* name, const char* codec,
                                        const char* width, const char* height) noexcept {
    return fill(soap::video_encoder_configuration,
                {{"tag", xml{tag}},
                 {"token", token},
                 {"name", name},
                 {"codec", codec},
                 {"width", width ? width : "1920"},
                 {"height", height ? height : "1080"}},
                CORE_HERE);
}

char* soap_GetVideoEncoderConfigurationOptionsResponse(const char* encoders) noexcept {
    return fill(soap::encoder_options_response, {{"encoders", xml{encoders}}}, CORE_HERE);
}

char* soap_getResolutionsAvailable(unsigned width, unsigned height) noexcept {
    return fill(soap::resolutions_available, {{"width", width}, {"height", height}}, CORE_HERE);
}
