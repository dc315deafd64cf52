/// The station as an ONVIF device (Core, and Media version 1): calls over SOAP at
///     /onvif/device_service
///     /onvif/media_service
/// of an HTTP service. Each stream is a profile, whose token is the name of the stream.
///
///     media::onvif device(station, *rtsp, {.user = "admin", .password = "secret"});
///     media::http_service_t* web = media::http_service({.port = 8080});
///     device.serve(*web);
///     station.add(web);
///
/// What is answered:
///     device  GetSystemDateAndTime, GetDeviceInformation, GetCapabilities, GetServices, GetServiceCapabilities,
///             GetScopes, GetNetworkInterfaces, GetHostname
///     media   GetServiceCapabilities, GetProfiles, GetProfile, GetStreamUri, GetSnapshotUri, GetVideoSources,
///             GetVideoSourceConfigurations, GetVideoEncoderConfigurations, GetVideoEncoderConfiguration,
///             GetVideoEncoderConfigurationOptions, GetMetadataConfigurations, GetAudioSources
/// Another call, and an argument that names nothing, is answered with a fault (soap_error()).
///
/// Users: with one, a call needs either of
///   - a UsernameToken with a digest (WS-Security, UsernameToken Profile 1.0). Its time may be five minutes off. Its
///     nonce serves once.
///   - a Digest answer of HTTP (RFC 7616, MD5).
/// These calls are open, by the access classes of the standard: GetSystemDateAndTime, GetCapabilities, GetServices,
/// GetServiceCapabilities and GetHostname. The others are answered with the fault ter:NotAuthorized: with status 400 to
/// a token, else with 401 and a challenge.
///
/// Addresses name the interface that the request came in on:
///     streams    RTSP, with RTP over UDP, multicast, or inside the RTSP connection. For RTSP over HTTP: the same path
///                at the port of the HTTP service
///     snapshots  of streams with JPEG pictures: /NAME.jpg of the HTTP service
/// A stream whose formats are not known yet, such as a source that nobody watches, is described by the last that was
/// known, else as H264 of 1920 x 1080 with 25 pictures a second. Asking for it fetches nothing. Sound that RTSP does
/// not carry is not told of.
///
/// Bounds:
///     request  those of the HTTP service; while it is answered its tree, which is at most 24 times its text and 1 MiB
///     nonces   16384 that are remembered. Beyond that, tokens as old as the oldest of them are refused
#pragma once

#include "media/api.h"
#include "media/http_service.h"
#include "media/station.h"

namespace media {

class MEDIA_API onvif final {
public:
    /// The texts are copied. A null serial is one made of the host's name and the port of the HTTP service.
    struct settings_t {
        const char* manufacturer = "inet";
        const char* model = "Network camera";
        const char* firmware = "1.0";
        const char* hardware = "software";
        const char* serial = nullptr;
        const char* name = "Camera";
        const char* user = nullptr;  ///< with a password
        const char* password = nullptr;
        bool multicast = false;             ///< RTSP offers it
        const char* without_aac = nullptr;  ///< rtsp_settings_t::without_aac
    };

    /// @param rtsp  outlives this
    onvif(station& of, const service& rtsp, const settings_t& settings) noexcept;
    ~onvif();
    onvif(const onvif&) = delete;
    onvif& operator=(const onvif&) = delete;

    /// Tells that the stream `pictures` has in JPEG what `film` shows: it gives the snapshots of both. Before the
    /// station's start. @return 1; 0 when memory is out
    int show_in_place(const char* film, const char* pictures) noexcept;

    /// Adds the routes to a service, before its station is started. This outlives the station's run.
    /// @return 1; 0 when a path is taken or memory is out
    int serve(http_service_t& by) noexcept;

    // For the discovery of the device. Any thread, after the station's start. The texts are for core_mfree(); null when
    // memory is out.

    /// What follows "urn:" in the address of the endpoint. It stays the same while the serial does.
    char* urn(const char* file, int line) const noexcept;
    /// URIs with blanks between them.
    char* scopes(const char* file, int line) const noexcept;
    /// Address of the device service; null when the HTTP service has no port. @param host  dotted
    char* address(const char* host, const char* file, int line) const noexcept;

    struct inside;

private:
    inside* inside_;
};

}  // namespace media
