// The calls of the device service.
#include "onvif/documents.h"
#include "onvif/inside.h"

#include "common/xml.h"
#include "core/time.h"
#include "inet/net_socket.h"

#include <algorithm>
#include <array>

namespace media::onvif_calls {

namespace {

/// The clock is the host's.
core::owned_text get_system_date_and_time(const query_t& query) {
    tm now{};
    core_timeUtc(time_now(), &now);
    const param_t params[] = {{"hour", int64_t{now.tm_hour}},
                              {"minute", int64_t{now.tm_min}},
                              {"second", int64_t{now.tm_sec}},
                              {"year", int64_t{now.tm_year} + 1900},
                              {"month", int64_t{now.tm_mon} + 1},
                              {"day", int64_t{now.tm_mday}},
                              {}};
    return query.respond(system_date_and_time, params);
}

core::owned_text get_device_information(const query_t& query) {
    const onvif::inside& in = query.in;
    const core::string manufacturer = coded(in.manufacturer.c_str());
    const core::string model = coded(in.model.c_str());
    const core::string firmware = coded(in.firmware.c_str());
    const core::string hardware = coded(in.hardware.c_str());
    const core::string serial = coded(in.serial().c_str());
    const param_t params[] = {{"manufacturer", manufacturer.c_str()}, {"model", model.c_str()},
                              {"firmware", firmware.c_str()},         {"serial", serial.c_str()},
                              {"hardware", hardware.c_str()},         {}};
    return query.respond(device_information, params);
}

/// Without a category those of all.
core::owned_text get_capabilities(const query_t& query) {
    node* const call = roxml_get_chld(query.request.body, query.request.method, 0);
    bool any = false;
    bool device = false;
    bool media = false;
    for (int i = 0; i < roxml_get_chld_nb(call); ++i) {
        node* const each = roxml_get_chld(call, nullptr, i);
        const char* text = roxml_get_content(each, nullptr, 0, nullptr);
        if (std::string_view(roxml_get_name(each, nullptr, 0)) != "Category" || !text) continue;
        const std::string_view category = text;
        any = true;
        device = device || category == "All" || category == "Device";
        media = media || category == "All" || category == "Media";
    }
    if (any && !device && !media) return nullptr;
    const auto made_for = [&](const char* service, char* (*make)(const char*)) {
        return whole(make(query.in.address(query.host, service).c_str()));
    };
    core::owned_text blocks[2];
    if (!any || device) blocks[0] = made_for("device_service", soap_GetDeviceCapabilities);
    if (!any || media) blocks[1] = made_for("media_service", soap_GetMediaCapabilities);
    const char* all[3] = {};
    size_t count = 0;
    for (const auto& each : blocks)
        if (each) all[count++] = each.get();
    return whole(soap_GetCapabilitiesResponse(all, nullptr));
}

core::owned_text get_services(const query_t& query) {
    const core::string wanted = query.argument("IncludeCapability");
    const bool with = wanted == "true" || wanted == "1";
    const core::owned_text device(with ? whole(soap_DeviceServiceCapabilities()) : nullptr);
    const core::owned_text media(with ? whole(soap_MediaServiceCapabilities(media_namespace)) : nullptr);
    core::string services(
        whole(soap_getService(device_namespace, query.in.address(query.host, "device_service").c_str(), device.get()))
            .get());
    services +=
        whole(soap_getService(media_namespace, query.in.address(query.host, "media_service").c_str(), media.get()))
            .get();
    const param_t params[] = {{"services", services.c_str()}, {}};
    return query.respond("${services}", params);
}

core::owned_text get_service_capabilities(const query_t& query) {
    const core::owned_text made = whole(soap_DeviceServiceCapabilities());
    const param_t params[] = {{"capabilities", static_cast<const char*>(made.get())}, {}};
    return query.respond("${capabilities}", params);
}

core::owned_text get_scopes(const query_t& query) {
    core::string scopes;
    for (const core::string& each : query.in.scopes) {
        const core::string uri = coded(each.c_str());
        const param_t params[] = {{"scope", uri.c_str()}, {}};
        append(scopes, scope, params);
    }
    const param_t params[] = {{"scopes", scopes.c_str()}, {}};
    return query.respond("${scopes}", params);
}

core::owned_text get_network_interfaces(const query_t& query) {
    std::array<net_link_t, 10> links{};
    const uint32_t count = net_socket_get_links(links.data(), links.size());
    core::string interfaces;
    for (uint32_t i = 0; i < count; ++i) {
        const core::owned_text address = whole(socket_get_ip(links[i].address, CORE_HERE));
        const core::owned_text token = whole(core_sprintf(CORE_HERE, "if%u", i));
        uint8_t id[6];
        core::owned_text info;
        if (net_socket_get_hardware(links[i].address, id))
            info = whole(core_sprintf(CORE_HERE, interface_info, id[0], id[1], id[2], id[3], id[4], id[5]));
        const param_t params[] = {{"token", static_cast<const char*>(token.get())},
                                  {"info", static_cast<const char*>(info.get())},
                                  {"address", static_cast<const char*>(address.get())},
                                  {"prefix", int64_t{links[i].prefix}},
                                  {}};
        append(interfaces, network_interface, params);
    }
    const param_t params[] = {{"interfaces", interfaces.c_str()}, {}};
    return query.respond("${interfaces}", params);
}

core::owned_text get_hostname(const query_t& query) {
    const core::owned_text told(net_hostname(CORE_HERE));
    const core::string name = coded(told ? told.get() : "");
    const param_t params[] = {{"name", name.c_str()}, {}};
    return query.respond(hostname, params);
}

constexpr call_t calls[] = {
    {"GetSystemDateAndTime", true, get_system_date_and_time},
    {"GetDeviceInformation", false, get_device_information},
    {"GetCapabilities", true, get_capabilities},
    {"GetServices", true, get_services},
    {"GetServiceCapabilities", true, get_service_capabilities},
    {"GetScopes", false, get_scopes},
    {"GetNetworkInterfaces", false, get_network_interfaces},
    {"GetHostname", true, get_hostname},
};

}  // namespace

const call_t* find_device_call(std::string_view method) noexcept {
    const auto* found = std::ranges::find(calls, method, &call_t::method);
    return found == std::end(calls) ? nullptr : found;
}

}  // namespace media::onvif_calls
