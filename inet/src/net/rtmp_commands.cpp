// What the client sends.
#include "net/rtmp_session.h"
#include "rtp/packet.h"

#include "core/text.h"

#include <cstdio>
#include <utility>

namespace net::rtmp {

using namespace ::inet::rtmp;
using ::rtp::put16;
using ::rtp::put32;

namespace {

// Chunk streams, as players use them.
constexpr uint32_t control_channel = 2;
constexpr uint32_t command_channel = 3;
constexpr uint32_t play_channel = 8;

constexpr uint16_t control_buffer_length = 3;
constexpr uint16_t control_pong = 7;

}  // namespace

bool kept_settings::set(const rtmp_settings_t& from, const char* file, int line) noexcept {
    static constexpr const char* rtmp_settings_t::*members[text_count] = {
        &rtmp_settings_t::flash_ver, &rtmp_settings_t::swf_url,     &rtmp_settings_t::page_url,
        &rtmp_settings_t::tc_url,    &rtmp_settings_t::application, &rtmp_settings_t::play_path,
    };
    rtmp_settings_t values = from;
    std::array<core::owned_text, text_count> texts;
    for (size_t i = 0; i < text_count; ++i) {
        const char*& text = values.*members[i];
        if (!text) continue;
        texts[i].reset(core_strdup(text, file, line));
        if (!texts[i]) return false;
        text = texts[i].get();
    }
    values_ = values;
    texts_ = std::move(texts);
    return true;
}

std::string_view session::application() const noexcept {
    if (settings->application) return settings->application;
    return target.application ? target.application.get() : "";
}

std::string_view session::play_path() const noexcept {
    if (settings->play_path) return settings->play_path;
    return target.play_path ? target.play_path.get() : "";
}

/// Null for none. @return false when memory is out
bool session::make_tc_url(core::owned_text& out) const noexcept {
    if (settings->tc_url && !*settings->tc_url) return true;
    if (settings->tc_url) {
        out.reset(core_strdup(settings->tc_url, file, line));
        return out != nullptr;
    }
    if (!*target.host) return true;
    char port[8] = "";
    char place[longest_host + 32];
    if (target.port) std::snprintf(port, sizeof port, ":%u", unsigned{target.port});
    std::snprintf(place, sizeof place, "%s://%s%s/", scheme_of(target.protocol), target.host, port);
    out = joined(place, application(), file, line);
    return out != nullptr;
}

bool session::send_packet(uint32_t channel, uint8_t type, uint32_t to, bytes_t body) noexcept {
    if (step < step_t::asking || ended() || body.empty() || body.size() > longest_packet) return false;
    const message_t message = {
        .channel = channel, .type = type, .stream = to, .length = static_cast<uint32_t>(body.size())};
    full_ = output.length + chunked_size(message, first_chunk_size) > most_output;
    if (full_ || !write_message(output, message, {body}, first_chunk_size)) return false;
    news = true;
    return true;
}

// Commands: AMF0 values one behind the other. What did not fit makes the command fail when it is sent.

void session::begin_command(std::string_view name, double id) noexcept {
    body_.IgnoreAll();
    body_whole_ = true;
    put(name);
    put(id);
}

void session::put(std::string_view text) noexcept {
    constexpr size_t longest_short = 0xffff;
    body_whole_ = body_whole_ && (text.size() <= longest_short ? amf_.WriteShortString(body_, text, true)
                                                               : amf_.WriteLongString(body_, text, true));
}

void session::put(double number) noexcept { body_whole_ = body_whole_ && amf_.WriteDouble(body_, number, true); }
void session::put_null() noexcept { body_whole_ = body_whole_ && amf_.WriteNull(body_, true); }
void session::put_name(std::string_view name) noexcept {
    body_whole_ = body_whole_ && amf_.WriteShortString(body_, name, false);
}

void session::put_property(std::string_view name, const char* text) noexcept {
    if (!text) return;
    put_name(name);
    put(std::string_view(text));
}

void session::put_property(std::string_view name, double number) noexcept {
    put_name(name);
    put(number);
}

bool session::send_command(uint32_t channel, uint32_t stream_id) noexcept {
    return body_whole_ && send_packet(channel, message_command, stream_id, body_.Readable());
}

bool session::send_connect_packet() noexcept {
    constexpr uint8_t object = 3;
    constexpr uint8_t object_end[] = {0, 0, 9};
    const rtmp_settings_t& with = *settings.operator->();
    core::owned_text url;
    if (!make_tc_url(url)) return false;
    connect_id_ = ++last_id_;
    begin_command("connect", connect_id_);
    body_whole_ = body_whole_ && body_.ReadFromByte(object);
    put_name("app");
    put(application());
    if (with.nonprivate) put_property("type", "nonprivate");
    put_property("flashVer", with.flash_ver);
    put_property("swfUrl", with.swf_url);
    put_property("tcUrl", url.get());
    if (!with.nonprivate) {
        put_name("fpad");
        body_whole_ = body_whole_ && amf_.WriteBoolean(body_, false, true);
        put_property("capabilities", 15.0);
        put_property("audioCodecs", with.audio_codecs);
        put_property("videoCodecs", with.video_codecs);
        put_property("videoFunction", 1.0);
        put_property("pageUrl", with.page_url);
    }
    if (with.encoding != 0.0 || with.encoding_set) put_property("objectEncoding", with.encoding);
    body_whole_ = body_whole_ && body_.ReadFromBuffer(object_end, sizeof object_end);
    return send_command(command_channel, 0);
}

bool session::send_create_stream() noexcept {
    create_id_ = ++last_id_;
    begin_command("createStream", create_id_);
    put_null();
    return send_command(command_channel, 0);
}

bool session::send_play() noexcept {
    play_id_ = ++last_id_;
    begin_command("play", play_id_);
    put_null();
    put(play_path());
    put(settings->start);
    return send_command(play_channel, stream);
}

bool session::send_ctrl(uint16_t event, uint32_t value, uint32_t time) noexcept {
    uint8_t body[10];
    const bool two = event == control_buffer_length;
    put32(put32(put16(body, event), value), time);
    return send_packet(control_channel, message_user_control, 0, bytes_t(body).first(two ? 10 : 6));
}

bool session::send_pong(uint32_t value) noexcept { return send_ctrl(control_pong, value, 0); }

bool session::send_checkbw() noexcept {
    begin_command("_checkbw", ++last_id_);
    put_null();
    checked_ = send_command(command_channel, 0);
    return checked_;
}

bool session::send_checkbw_result(double id) noexcept {
    begin_command("_result", id);
    put_null();
    put(checks_++);
    return send_command(command_channel, 0);
}

bool session::send_serverbw() noexcept {
    uint8_t body[4];
    put32(body, peer_window_);
    if (!send_packet(control_channel, message_window_ack_size, 0, body)) return false;
    told_window_ = peer_window_;
    return true;
}

}  // namespace net::rtmp
