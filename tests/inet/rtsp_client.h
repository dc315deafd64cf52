// The owner of an RTSP session as a client is one. Time stands.
#pragma once

#include "rtsp_owner.h"

namespace test {

struct received_t : av::frame_t {
    std::string bytes;
    int64_t media_time;
    uint64_t ntp_time;
};

inline void put(std::string& out, uint64_t value, int bytes) {
    while (bytes-- > 0)
        out += static_cast<char>(value >> (8 * bytes));
}

class rtsp_client : public rtsp_end {
public:
    std::string asked;           ///< all that was sent but reports
    uint16_t first_port = 7000;  ///< of every track; 0: there is none
    std::vector<received_t> frames;
    std::vector<std::string> reports;  ///< receiver reports, without framing

    /// The answer to the last request.
    void answer(const std::string& status, const std::string& fields = "", const std::string& body = "") {
        const size_t at = asked.rfind("CSeq: ");
        const std::string cseq = asked.substr(at, asked.find("\r\n", at) - at);
        const std::string length = body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n";
        feed("RTSP/1.0 " + status + "\r\n" + cseq + "\r\n" + fields + length + "\r\n" + body);
    }
    /// Up to where SETUP is asked for.
    void describe(const std::string& sdp, const std::string& base = "", const std::string& methods = "") {
        session->open("rtsp://h/live");
        answer("200 OK", methods);
        answer("200 OK", base, sdp);
    }
    /// Up to the first frame of a stream of that description, over TCP unless told otherwise.
    void play(const std::string& sdp, const std::string& info = "", const std::string& base = "",
              const std::string& setup = "Session: 1\r\n") {
        describe(sdp, base);
        for (size_t i = 0; i < rtsp3::max_traks && events.ends_with("3 "); ++i)
            answer("200 OK", setup);
        answer("200 OK", info);
    }
    void rtp(uint8_t channel, const std::string& packet) {
        std::string bytes = packet;
        session->process_rtp(channel, {reinterpret_cast<uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())});
    }
    /// All frames, start codes as '|', each with '@' and the format of sound behind it, 'K' for a key picture, '-' for
    /// a torn one.
    std::string seen() {
        session->flush();
        std::string all;
        for (const received_t& f : frames) {
            const std::string sound = "@" + std::to_string(f.rate) + "/" + std::to_string(f.channels);
            all += f.bytes + (f.rate ? sound : "") + (f.key ? "K" : "") + (f.complete ? " " : "- ");
        }
        return std::regex_replace(all, std::regex(R"(\0?\0\0\x01)"), "|");
    }

    void on_rtsp_event(rtsp3::Rtsp* rtsp, rtsp3::event_t::enum_t event) noexcept override {
        using rtsp3::event_t;
        note(event);
        if (event == event_t::rtsp_setup) rtsp->send_setup(nullptr, first_port);
        if (event == event_t::rtsp_send && reading) {
            const std::string bytes = take_all();
            if (bytes.starts_with('$')) reports.push_back(bytes.substr(4));
            if (!bytes.starts_with('$')) asked += bytes;
        }
        if (event == event_t::rtsp_rtcp) {
            const buf_t& packet = rtsp->rtp()->packet;
            reports.emplace_back(reinterpret_cast<char*>(packet.data), packet.length);
        }
        if (event == event_t::rtsp_frame && rtsp->frame()) {
            const av::frame_t& f = *rtsp->frame();
            frames.push_back({f, std::string(reinterpret_cast<const char*>(f.data), f.size), rtsp->trak()->media_time,
                              rtsp->trak()->ntp_time});
        }
    }
};

inline std::string rtp_packet(uint8_t pt, uint16_t seq, uint32_t time, const std::string& payload, bool marker = true,
                              uint32_t ssrc = 7) {
    std::string packet{'\x80', static_cast<char>(pt | (marker ? 0x80 : 0))};
    put(packet, seq, 2);
    put(packet, time, 4);
    put(packet, ssrc, 4);
    return packet + payload;
}

inline std::string sender_report(uint32_t ssrc, uint32_t ntp_seconds, uint32_t rtp_time) {
    std::string report("\x80\xc8\0\6", 4);
    put(report, ssrc, 4);
    put(report, ntp_seconds, 4);
    put(report, 0, 4);
    put(report, rtp_time, 4);
    return report + std::string(8, '\0');
}

}  // namespace test
