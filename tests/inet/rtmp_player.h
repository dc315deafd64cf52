// A player in front of an RTMP server session.
#pragma once

#include "support/files.h"

#include "inet/rtmp_protocol.h"

#include <string>

namespace test {

class rtmp_player : public inet::IRtmp {
public:
    rtmp_player() { session->set_handler(this); }
    ~rtmp_player() { inet::Rtmp::destroy(session); }
    rtmp_player(const rtmp_player&) = delete;
    rtmp_player& operator=(const rtmp_player&) = delete;

    /// A command with null as its object, and three texts.
    static std::string command(const std::string& name, char id, char stream) {
        const auto text = [](const std::string& value) {
            return std::string("\2\0", 2) + static_cast<char>(value.size()) + value;
        };
        std::string body = text(name) + std::string("\0\x40", 2) + static_cast<char>(id << 3) + std::string(6, '\0');
        body += name == "connect" ? std::string("\3\0\0\x09", 4) : "\5" + text("live");
        return std::string("\3\0\0\0\0\0", 6) + static_cast<char>(body.size()) + '\x14' + stream +
               std::string(3, '\0') + body;
    }

    bool say(const std::string& bytes) {
        buf_t received;
        core_buf_read(&received, bytes.data(), static_cast<uint32_t>(bytes.size()));
        const bool taken = session->ProcessBytes(&received);
        core_buf_free(&received);
        return taken;
    }
    /// What was sent since it was asked last.
    std::string sent() {
        buf_t& out = *session->send_buffer();
        std::string bytes(out.data, out.data + out.length);
        core_buf_ignore(&out, out.length);
        return bytes;
    }

    void connect() {
        say("\3" + std::string(2 * 1536, 'x') + command("connect", 1, 0) + command("createStream", 2, 0));
        sent();
    }
    void play() {
        connect();
        say(command("play", 3, 1));
        sent();
    }

    int on_play(inet::Rtmp*, const inet::rtmp::play_t&) noexcept override { return 1; }

    inet::Rtmp* session = inet::Rtmp::create(CORE_HERE);
};

}  // namespace test
