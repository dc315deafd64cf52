/// The RTP packets of one frame, cut once for any number of receivers. Only the first bytes of a packet differ between
/// streams. Rtp::pack() writes these bytes in place for its stream. The payload is copied once for all streams, and the
/// packets are those of the stream that packed them last.
///
/// An object belongs to one thread. Once it has grown to the longest frame, it allocates nothing. An object for which
/// there was no memory cuts nothing.
#pragma once

#include "avc/frame.h"
#include "core/api.h"
#include "core/buf.h"
#include "inet/rtp_protocol.h"

#include <cstdint>

struct datagram_t;   // inet/net_socket.h
struct sockaddr_in;  // inet/sockaddr.h

namespace rtp {

class INET_API Packets {
public:
    /// `file` and `line` name what the object allocates; the text is valid until the object ends.
    Packets(const char* file, int line) noexcept;
    ~Packets();
    Packets(const Packets&) = delete;
    Packets& operator=(const Packets&) = delete;

    /// As Rtp::set_all_formats().
    void set_all_formats(bool on) noexcept;

    /// Cuts a frame of one of the formats that Rtp::pack() takes. Drops what was cut before.
    /// @return 1; 0 for null, for a frame that makes no packet, or when memory is out: there are no packets then
    int cut(const av::frame_t* frame) noexcept;

    /// Format of the frame, and the time at which it is shown.
    uint32_t fcc() const noexcept;
    uint64_t time() const noexcept;
    /// 1 for a frame of "META" that is no report: an Rtp without set_all_formats() sends nothing of it.
    int is_document() const noexcept;

    uint32_t count() const noexcept;
    /// Bytes of all packets, without framing.
    uint32_t size() const noexcept;

    /// All packets, each behind its framing of 4 bytes for an RTSP connection (RFC 2326, 10.12). Valid until cut().
    buffer_t interleaved() const noexcept;
    /// Writes the channel into the framing, unless it stands there.
    void set_channel(uint8_t channel) noexcept;

    /// The packets without framing as datagrams to one address, for net_udp_send_batch(): count() of them. The array is
    /// valid until cut(), the address in it until the next call.
    const datagram_t* datagrams(const sockaddr_in& to) noexcept;

    /// Writes the payload type, the numbers, the timestamp and the SSRC of a stream into the packets and counts them
    /// for it. Rtp::pack() does it.
    void stamp(trak_t& trak) noexcept;

private:
    class insides;
    insides* insides_;
};

}  // namespace rtp
