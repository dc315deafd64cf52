// Offers and answers (RFC 3264). What a peer describes is read line by line, as the formats of one medium are a list
// here, and the first of them may be one that we do not have.
#include "platform/socket_api.h"
#include "scan.h"
#include "sip/media.h"
#include "sip/message.h"

#include <algorithm>
#include <bitset>
#include <optional>

namespace sip {

namespace {

constexpr std::string_view blanks = " \t";

/// The offer, between its numbers.
constexpr std::string_view offer_head = "v=0\r\no=- 0 0 IN IP4 ";
constexpr std::string_view offer_name = "\r\ns=Norvane-K\r\nc=IN IP4 ";
constexpr std::string_view offer_audio = "\r\nt=0 0\r\nm=audio ";
constexpr std::string_view offer_rtcp = " RTP/AVP 0 101\r\na=rtcp:";
constexpr std::string_view offer_formats =
    "\r\na=rtpmap:0 PCMU/8000\r\na=rtpmap:101 telephone-event/8000\r\na=fmtp:101 0-16\r\n";
constexpr std::string_view plain = "RTP/AVP";
constexpr uint8_t own_video = 96;

/// A medium while it is read.
struct medium_t {
    target_t* target = nullptr;  ///< null: of no interest
    bool video = false;
    bool receives = true;
    bool fragments = false;  ///< the chosen format takes them
    bool mapped = false;     ///< it says what its formats are
    uint32_t line = 0;
    std::bitset<128> formats, h264;  ///< payload types
    sockaddr_in address = {};
    sockaddr_in rtcp_address = {};  ///< 0.0.0.0: the same
    uint32_t port = 0;
    uint32_t rtcp = 0;
};

std::bitset<128> read_formats(std::string_view list) noexcept {
    std::bitset<128> formats;
    while (!list.empty()) {
        const std::optional<uint32_t> pt = scan::number(scan::take(list, ' '));
        if (pt && *pt < formats.size()) formats.set(*pt);
    }
    return formats;
}

// Who wants it encrypted gets nothing.
bool is_plain_rtp(std::string_view profile) noexcept { return profile == plain || profile == "RTP/AVPF"; }

void read_address(std::string_view value, sockaddr_in& address) noexcept {
    address = {};
    if (!value.starts_with("IN IP4 ")) return;
    value = scan::trim(value.substr(7), blanks);
    address.sin_addr = read_dotted(value.substr(0, value.find('/')));
}

class reader {
public:
    described_t read(std::string_view text) noexcept {
        while (!text.empty()) {
            std::string_view line = scan::trim(scan::take(text, '\n'), "\r");
            if (line.size() > 2 && line[1] == '=') take(line[0], line.substr(2));
        }
        finish();
        return described_;
    }

private:
    void take(char type, std::string_view value) noexcept {
        if (type == 'm') start(value);
        if (type == 'c') read_address(value, in_medium_ ? medium_.address : session_);
        if (type == 'a' && (value == "sendonly" || value == "inactive")) receives() = false;
        if (type == 'a' && (value == "sendrecv" || value == "recvonly")) receives() = true;
        if (type == 'a' && medium_.target) attribute(value);
    }

    bool& receives() noexcept { return in_medium_ ? medium_.receives : receives_; }

    void start(std::string_view value) noexcept {
        finish();
        in_medium_ = true;
        medium_ = {};
        medium_.line = ++lines_;
        medium_.address = session_;
        medium_.receives = receives_;
        const std::string_view kind = scan::take(value, ' ');
        medium_.port = scan::decimal(scan::take(value, ' '));
        const std::string_view profile = scan::take(value, ' ');
        if (!is_plain_rtp(profile)) return;
        medium_.formats = read_formats(value);
        medium_.video = kind == "video";
        if (kind == "audio" && !described_.audio.wanted) medium_.target = &described_.audio;
        if (medium_.video && !described_.video.wanted) medium_.target = &described_.video;
        if (kind == "audio" && medium_.target) medium_.target->wanted = medium_.formats[0];
    }

    void attribute(std::string_view value) noexcept {
        if (value.starts_with("rtcp:")) {  // RFC 3605
            medium_.rtcp = scan::decimal(value.substr(5));
            read_address(value.substr(std::min(value.find(' ') + 1, value.size())), medium_.rtcp_address);
        }
        if (!medium_.video) return;
        medium_.mapped = medium_.mapped || value.starts_with("rtpmap:");
        const scan::pair map = scan::split(value.substr(std::min(value.find(':') + 1, value.size())), ' ');
        const uint32_t pt = scan::decimal(map.key);
        const std::string_view said = scan::skip(map.value, blanks);
        if (pt > 127 || !medium_.formats[pt]) return;
        const bool named = value.starts_with("rtpmap:") && scan::same_name(said.substr(0, 10), "H264/90000");
        const bool fragments = value.starts_with("fmtp:") && said.find("packetization-mode=1") != said.npos;
        if (named) medium_.h264.set(pt);
        // The first, or the first that takes fragments, which we send (RFC 6184, 6.3).
        if ((!named || medium_.target->wanted) && (!fragments || !medium_.h264[pt] || medium_.fragments)) return;
        medium_.fragments = fragments;
        medium_.target->wanted = true;
        medium_.target->pt = static_cast<uint8_t>(pt);
    }

    void finish() noexcept {
        target_t* const target = medium_.target;
        if (target && medium_.video && !medium_.mapped && medium_.formats[own_video]) {
            target->wanted = true;  // some leave out what their numbers mean
            target->pt = own_video;
        }
        if (!target || !target->wanted) return;
        target->line = medium_.line;
        target->wanted = medium_.port > 0 && medium_.port < 65535;
        if (medium_.rtcp == 0 || medium_.rtcp > 65535) medium_.rtcp = medium_.port + 1;
        target->receives = medium_.receives;
        target->rtp = target->rtcp = medium_.address;
        const bool apart = medium_.rtcp_address.sin_addr.s_addr != 0 && target->rtp.sin_addr.s_addr != 0;
        if (apart) target->rtcp = medium_.rtcp_address;
        target->rtp.sin_family = target->rtcp.sin_family = AF_INET;
        target->rtp.sin_port = net_port(medium_.port);
        target->rtcp.sin_port = net_port(medium_.rtcp);
    }

    static uint16_t net_port(uint32_t port) noexcept {
        uint16_t out;
        const uint8_t bytes[] = {static_cast<uint8_t>(port >> 8), static_cast<uint8_t>(port)};
        std::copy_n(bytes, 2, reinterpret_cast<uint8_t*>(&out));
        return out;
    }

    described_t described_;
    sockaddr_in session_ = {};
    medium_t medium_;
    uint32_t lines_ = 0;
    bool in_medium_ = false;
    bool receives_ = true;  ///< of media that do not say
};

core::string audio_media(uint32_t port, std::string_view profile) {
    return join({"m=audio ", number_text(port), " ", profile, " 0\r\na=rtpmap:0 PCMU/8000\r\n"});
}

core::string video_media(uint32_t port, std::string_view profile, uint8_t pt) {
    const core::string format = number_text(pt);
    return join({"m=video ", number_text(port), " ", profile, " ", format, "\r\na=rtpmap:", format,
                 " H264/90000\r\na=sendrecv\r\n"});
}

}  // namespace

// A name is not looked up: that blocks.
in_addr read_dotted(std::string_view text) noexcept {
    char dotted[net_addr_size] = {};
    if (text.size() >= sizeof dotted) return {};
    std::ranges::copy(text, dotted);
    in_addr address = {};
    return net::platform::parse_address(dotted, address) ? address : in_addr{};
}

core::string dotted(in_addr address) {
    sockaddr_in there = {};
    there.sin_addr = address;
    char text[net_addr_size];
    net_addr_ip(there, text, sizeof text);
    return text;
}

bool is_loopback(in_addr address) noexcept { return reinterpret_cast<const uint8_t*>(&address)[0] == 127; }

described_t read_description(std::string_view text) noexcept { return reader().read(text); }

core::string print_offer(std::string_view address, uint32_t audio, uint32_t video) {
    return join({offer_head, address, offer_name, address, offer_audio, number_text(audio), offer_rtcp,
                 number_text(audio + 1), offer_formats, video_media(video, plain, own_video)});
}

core::string print_answer_sdp(std::string_view user, in_addr own, uint32_t audio, uint32_t video,
                              std::string_view offer) {
    const core::string address = dotted(own);
    const described_t chosen = read_description(offer);
    core::string media;
    uint32_t number = 0;
    while (!offer.empty()) {
        std::string_view line = scan::trim(scan::take(offer, '\n'), "\r");
        if (line.size() < 3 || !line.starts_with("m=")) continue;
        const std::string_view kind = scan::take(line, ' ');
        scan::take(line, ' ');
        const std::string_view profile = line.substr(0, line.find(' '));
        ++number;
        if (chosen.audio.wanted && chosen.audio.line == number) {
            media.append(audio_media(audio, profile));
        } else if (chosen.video.wanted && chosen.video.line == number) {
            // Ours, unless the offer means another format by it.
            const bool taken = read_formats(line.substr(profile.size()))[own_video];
            media.append(video_media(video, profile, taken ? chosen.video.pt : own_video));
        } else {
            media.append(join({kind, " 0 ", line, "\r\n"}));
        }
    }
    if (media.empty()) media = audio_media(audio, plain) + video_media(video, plain, own_video);
    return join(
        {"v=0\r\no=", user, " 0 0 IN IP4 ", address, "\r\ns=Norvane-K\r\nt=0 0\r\nc=IN IP4 ", address, "\r\n", media});
}

}  // namespace sip
