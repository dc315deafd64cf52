// The insides of media::onvif: what the calls see, and what they answer with.
#pragma once

#include "http_service/gate.h"
#include "onvif/gate.h"

#include "core/owned.h"
#include "core/text.h"
#include "inet/net_soap.h"
#include "media/onvif.h"

#include <cstdint>
#include <new>
#include <string_view>
#include <utility>

namespace media {

struct onvif::inside {
    inside(station& of, const service& at, const settings_t& told);

    static void on_request(void* arg, http_exchange& asked) noexcept;
    void answer(http_exchange& asked);
    bool admit(const soap::soap_t& request, http_exchange& asked) noexcept;
    /// That of the settings, or one of its own.
    core::string serial() const;
    /// @param service  "device_service" or "media_service"
    core::string address(const char* host, const char* service) const;

    station& streams;
    const service& rtsp;
    http_service_t* web = nullptr;
    core::string manufacturer, model, firmware, hardware, told_serial, name, user, password, without_aac;
    core::vector<core::string> scopes;
    core::vector<std::pair<core::string, core::string>> shown;  ///< film and pictures of the same
    bool multicast;
    web::gate digest;
    onvif_calls::token_gate tokens;
};

namespace onvif_calls {

inline constexpr char device_namespace[] = "http://www.onvif.org/ver10/device/wsdl";
inline constexpr char media_namespace[] = "http://www.onvif.org/ver10/media/wsdl";

enum class side_t : uint8_t { device, media };

/// A call that is being answered.
struct query_t {
    const onvif::inside& in;
    const soap::soap_t& request;
    side_t side;
    const char* host;  ///< at which the caller reached the station

    /// An argument; empty when it is not there.
    core::string argument(const char* name) const {
        const core::owned_text text(net_soap_get_arg(&request, name, CORE_HERE));
        return core::string(text ? text.get() : "");
    }
    /// The envelope around a filled document.
    core::owned_text respond(const char* document, const param_t* params) const;
};

/// @return the envelope; null for an argument that names nothing. Throws std::bad_alloc.
typedef core::owned_text (*answer_t)(const query_t& query);

struct call_t {
    std::string_view method;
    bool is_open;  ///< needs no user
    answer_t answer;
};

/// Null for a call that is not answered.
const call_t* find_device_call(std::string_view method) noexcept;
const call_t* find_media_call(std::string_view method) noexcept;

/// The text, unless memory was out.
inline core::owned_text whole(char* made) {
    if (!made) throw std::bad_alloc();
    return core::owned_text(made);
}

/// A text as it stands in XML.
core::string coded(const char* text);

/// Appends a filled document. The values are XML already.
void append(core::string& out, const char* document, const param_t* params);

}  // namespace onvif_calls
}  // namespace media
