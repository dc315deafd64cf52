/// Has a device of ONVIF found in its network by WS-Discovery (April 2005, ONVIF Core 7).
///
///     media::onvif device(station, *rtsp, settings);
///     device.serve(*web);
///     station.add(web);
///     station.add(media::discovery_service(device));
///
/// It announces the device with Hello when the station starts and when the host's interfaces change, and answers each
/// Probe that asks for it with ProbeMatches, up to half a second later, as chance has it:
///     types   dn:NetworkVideoTransmitter and tds:Device, compared by their local names. A Probe without types fits
///     scopes  each of the Probe's is the beginning of one of the device's, in whole segments, or with MatchBy strcmp0
///             equal to one. Another MatchBy fits nothing
/// The address in an answer is that of the interface on the link that the Probe came from. A station that is bound to
/// one address tells that alone; one that is bound to the loopback is neither announced nor found. Up to ten interfaces
/// are listened to.
///
/// Bounds:
///     asked     datagrams of 8192 bytes; longer ones are not read
///     answers   4096 bytes each, to hosts of the local link alone, ten a second to one
///     waiting   64 answers, ten to one host
///     memory    256 hosts of the last second
/// A datagram beyond a bound is not answered.
#pragma once

#include "media/api.h"
#include "media/onvif.h"

namespace media {

/// @param device  outlives the station's run
/// @return a service for station::add(), which has no port and no clients; null when memory is out
MEDIA_API service* discovery_service(const onvif& device) noexcept;

}  // namespace media
