// The owner of an RTSP session as a camera's service is one, noting what it is told and what it would send. Time
// stands.
#pragma once

#include "support/frames.h"

#include "avc/fcc.h"
#include "core/time.h"
#include "inet/rtsp_protocol.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <functional>
#include <regex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace test {

inline uint64_t fixed_clock() { return 1700000000000000; }

/// A seed of a fuzz target, without the byte that says how it is to be fed.
inline std::string dialog(const std::string& seed) { return read_file(INET_TEST_SEEDS + seed).substr(1); }

/// What differs from session to session is made the same: its number, those of its packets, and the nonce.
inline std::string normal(std::string sent) {
    for (const std::string_view name : {"Session: ", "seq=", "nonce=\""}) {
        for (size_t at = 0; (at = sent.find(name, at)) != std::string::npos;) {
            at += name.size();
            size_t end = at;
            while (end < sent.size() && std::isalnum(static_cast<unsigned char>(sent[end])))
                ++end;
            sent.replace(at, end - at, "N");
        }
    }
    return sent;
}

/// A picture of an SPS, a PPS and a slice of `size` bytes.
inline std::string access_unit(size_t size) {
    using namespace std::string_literals;
    return "\0\0\0\1\x67\x42\xc0\x1e\xd9\x01\x40\x7b\x20\0\0\0\1\x68\xce\x3c\x80\0\0\0\1\x65"s + std::string(size, 'Z');
}

/// What the owners of both roles have.
class rtsp_end : public rtsp3::IRtsp {
public:
    rtsp3::Rtsp* session = rtsp3::Rtsp::create(CORE_HERE);
    buf_t received;
    std::function<void(rtsp3::event_t::enum_t)> before;  ///< called first for each event
    bool reading = true;                                 ///< false: the peer takes nothing that waits
    std::string events;                                  ///< numbers, each followed by a blank; rtsp_send left out

    rtsp_end() {
        core_time_set_clock(fixed_clock);
        if (session) session->set_handler(this);
    }
    virtual ~rtsp_end() {
        rtsp3::Rtsp::destroy(session);
        core_buf_free(&received);
    }
    rtsp_end(const rtsp_end&) = delete;
    rtsp_end& operator=(const rtsp_end&) = delete;

    void feed(std::string_view bytes) {
        core_buf_read(&received, bytes.data(), static_cast<uint32_t>(bytes.size()));
        session->process(&received);
    }

protected:
    void note(rtsp3::event_t::enum_t event) {
        if (event != rtsp3::event_t::rtsp_send) events += std::to_string(event) + " ";
        if (before) before(event);
    }
    std::string take_all() {
        buf_t* const out = session->send_buffer();
        std::string bytes(reinterpret_cast<char*>(out->data), out->length);
        core_buf_ignore(out, out->length);
        return bytes;
    }
};

class rtsp_owner : public rtsp_end {
public:
    struct packet_t {
        uint32_t port;
        std::string bytes;
    };

    std::vector<uint32_t> formats{av::fcc_h264, av::fcc_pcmu, av::fcc_meta};
    bool late = false;              ///< answers nothing in an event, but when it is told to
    int owed = -1;                  ///< the event that waits for that
    uint32_t takes_lent = 0;        ///< of what is lent
    std::string sent;               ///< the stream, interleaved packets as "[channel]"
    std::string lent;               ///< what was taken of that
    std::vector<packet_t> packets;  ///< interleaved, and UDP by port
    size_t sends = 0;

    /// What is sent in answer; "{session}" stands for the session's identifier.
    std::string ask(const std::string& text) {
        sent.clear();
        feed(std::regex_replace(text, std::regex("\\{session\\}"), session->session()));
        return sent;
    }
    /// The status of the answer to a request without body, 0 when there is none.
    int status(const std::string& line, const std::string& fields = "") {
        const std::string answer = ask(line + " RTSP/1.0\r\nCSeq: 1\r\n" + fields + "\r\n");
        return answer.size() < 12 ? 0 : std::atoi(answer.substr(9, 3).c_str());
    }
    /// Up to the first frame, all tracks over TCP.
    void play() {
        status("DESCRIBE rtsp://h/live");
        for (uint32_t i = 0; i < session->trak_count(); ++i)
            status(std::string("SETUP rtsp://h/live/") + session->trak(i)->media, "Transport: RTP/AVP/TCP;unicast\r\n");
        status("PLAY rtsp://h/live/");
    }
    int send(const std::string& data, uint32_t fcc = av::fcc_h264) {
        const av::frame_t frame = borrowed(fcc, bytes_of(data), fixed_clock());
        return session->send_frame(&frame);
    }
    /// What waits to be sent.
    std::string waiting() const {
        const buf_t* const out = session->send_buffer();
        return {reinterpret_cast<char*>(out->data), out->length};
    }

    int answer() {
        using rtsp3::event_t;
        switch (std::exchange(owed, -1)) {
            case event_t::open_server: {
                const bool all = std::all_of(formats.begin(), formats.end(), [&](uint32_t fcc) {
                    return session->add_trak(fcc, nullptr, CORE_HERE) != nullptr;
                });
                return all ? session->send_sdp("inet", "test", "camera", 0, 0) : session->send_error(500);
            }
            case event_t::rtsp_setup:
                return session->send_setup(nullptr, 6000);  // multicast is refused
            case event_t::rtsp_play:
                return session->send_play(fixed_clock());
            default:
                return 0;
        }
    }

    void on_rtsp_event(rtsp3::Rtsp* rtsp, rtsp3::event_t::enum_t event) noexcept override {
        using rtsp3::event_t;
        note(event);
        if (event == event_t::open_server || event == event_t::rtsp_setup || event == event_t::rtsp_play) owed = event;
        if (owed == event && !late) answer();
        if (event == event_t::rtsp_play && !late) send(access_unit(2000));
        if (event == event_t::rtsp_send) take();
        if (event == event_t::send_rtp) keep(rtsp->trak()->client_port);
        if (event == event_t::rtsp_rtcp) keep(rtsp->trak()->client_port + 1U);
    }

private:
    void keep(uint32_t port) {
        const buf_t& packet = session->rtp()->packet;
        packets.push_back({port, std::string(reinterpret_cast<char*>(packet.data), packet.length)});
    }
    void take() {
        ++sends;
        const uint32_t count = std::min(takes_lent, session->lent().size);
        lent.append(reinterpret_cast<const char*>(session->lent().data), count);
        session->take_lent(count);
        if (!reading) return;
        std::string bytes = take_all();
        while (bytes.starts_with('$')) {
            const auto at = [&](size_t i) { return static_cast<uint8_t>(bytes[i]); };
            const auto length = static_cast<size_t>(at(2) << 8 | at(3));
            sent += "[" + std::to_string(at(1)) + "]";
            packets.push_back({at(1), bytes.substr(4, length)});
            bytes.erase(0, 4 + length);
        }
        sent += bytes;
    }
};

}  // namespace test
