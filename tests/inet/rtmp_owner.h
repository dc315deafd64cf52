// The owner of an RTMP client session without a socket, and the bytes of a server.
#pragma once

#include "common/variant.h"
#include "core/owned.h"
#include "inet/net_rtmp.h"

#include <bit>
#include <cstdint>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

namespace test {

inline std::string big_endian(uint64_t value, int bytes) {
    std::string out;
    while (bytes-- > 0)
        out += static_cast<char>(value >> (8 * bytes));
    return out;
}

// AMF0

inline std::string name(std::string_view text) { return big_endian(text.size(), 2).append(text); }
inline std::string text(std::string_view text) {
    return text.size() < 65536 ? "\2" + name(text) : ("\x0c" + big_endian(text.size(), 4)).append(text);
}
inline std::string number(double value) { return std::string(1, 0) + big_endian(std::bit_cast<uint64_t>(value), 8); }
inline std::string null() { return "\5"; }
inline std::string object(const std::string& properties) { return "\3" + properties + big_endian(9, 3); }

// Messages, in chunks that are longer than they are.

inline std::string message(uint8_t type, const std::string& body, uint32_t time = 0, uint32_t stream = 1) {
    const bool extended = time >= 0xffffff;
    std::string out =
        "\4" + big_endian(extended ? 0xffffff : time, 3) + big_endian(body.size(), 3) + big_endian(type, 1);
    out += static_cast<char>(stream) + std::string(3, '\0');
    return out + (extended ? big_endian(time, 4) : "") + body;
}
inline std::string command(std::string_view called, double id, const std::string& values) {
    return message(20, text(called) + number(id) + values);
}
inline std::string status(std::string_view called, double id, std::string_view code,
                          std::string_view level = "status") {
    return command(called, id, null() + object(name("level") + text(level) + name("code") + text(code)));
}
/// S0, S1 and S2.
inline std::string hello() { return "\3" + std::string(size_t{2} * 1536, 's'); }
/// From the handshake to where media may come.
inline std::string agreed() {
    return hello() + message(1, big_endian(0x400000, 4)) + status("_result", 1, "NetConnection.Connect.Success") +
           command("_result", 2, null() + number(1));
}

class rtmp_player : public net::IRtmp {
public:
    explicit rtmp_player(const net::rtmp_settings_t& settings = {}, const char* url = "rtmp://h/live/1")
        : session(net::ProtocolRtmp::create(CORE_HERE)) {
        if (!session) return;
        session->init(this);
        if (session->set(settings)) session->parse_url(url);
    }
    virtual ~rtmp_player() = default;
    void feed(std::string_view bytes) {
        buf_t received;
        core_buf_read(&received, bytes.data(), static_cast<uint32_t>(bytes.size()));
        if (session) session->process(&received);
        core_buf_free(&received);
    }
    /// What came, start codes as '|'.
    std::string seen() {
        if (session) session->flush();
        return std::regex_replace(events, std::regex(R"(\0?\0\0\x01)"), "|");
    }

    void on_rtmp_send(net::ProtocolRtmp* from) noexcept override {
        buf_t& out = *from->send_buffer();
        if (!reading) return;
        sent.append(reinterpret_cast<const char*>(out.data), out.length);
        core_buf_ignore(&out, out.length);
    }
    void on_rtmp_playing(net::ProtocolRtmp*) noexcept override { events += "playing "; }
    void on_rtmp_metadata(net::ProtocolRtmp*, const Variant& data) noexcept override {
        events += "about:" + std::to_string(data.MapSize()) + " ";
    }
    void on_rtmp_track(net::ProtocolRtmp*, const net::rtmp_track_t& track) noexcept override {
        events += "[" + std::to_string(track.codec) + (track.fcc ? "" : "?");
        events.append(reinterpret_cast<const char*>(track.config.data), track.config.size);
        events += track.rate ? "@" + std::to_string(track.rate) + "/" + std::to_string(track.channels) + "] " : "] ";
    }
    void on_rtmp_frame(net::ProtocolRtmp*, const av::frame_t& frame, int64_t media_time) noexcept override {
        events.append(reinterpret_cast<const char*>(frame.data), frame.size);
        events += "@" + std::to_string(media_time / 1000) + (frame.key && !frame.rate ? "K" : "");
        events += frame.shown_after ? "+" + std::to_string(frame.shown_after / 1000) + " " : " ";
    }
    void on_rtmp_ended(net::ProtocolRtmp*, net::rtmp_end_t why, const char* words) noexcept override {
        events += "end" + std::to_string(static_cast<int>(why)) + ":" + words + " ";
    }

    core::owned<net::ProtocolRtmp, net::ProtocolRtmp::destroy> session;
    std::string sent;
    std::string events;
    bool reading = true;
};

}  // namespace test
