// What a player says: messages, and the commands among them.
#include "rtmp/login.h"
#include "rtmp/messages.h"
#include "rtmp/session.h"

#include "core/text.h"

#include <algorithm>

namespace inet {

namespace {

using namespace rtmp;

constexpr uint32_t bandwidth = 2500000;
constexpr uint32_t dynamic_limit = 2;
constexpr uint32_t max_chunk_size = 0x7FFFFFFF;

const Variant& parameter(const Variant& message, uint32_t index) noexcept {
    return message["invoke"]["parameters"][index];
}

double id_of(const Variant& message) noexcept { return static_cast<double>(message["invoke"]["id"]); }

/// Empty for what the player has left out.
std::string_view text_of(const Variant& value) noexcept {
    const auto text = static_cast<std::string_view>(value);
    return text.data() ? text : std::string_view("");
}

double number_or(const Variant& value, double otherwise) noexcept {
    return value.IsNumber() ? static_cast<double>(value) : otherwise;
}

}  // namespace

bool Rtmp::insides::serve(Variant& message) noexcept {
    switch (static_cast<uint32_t>(message["header"]["messageType"])) {
        case message_chunk_size:
            return serve_chunk_size(message);
        case message_abort:
            return serve_abort(message);
        case message_ack:
            acknowledged = static_cast<uint32_t>(message["ack"]);
            return true;
        case message_user_control:
            return serve_control(message);
        case message_window_ack_size:
            return serve_window(message);
        case message_command_amf3:
        case message_command:
            return door.ProcessInvoke(message);
        case message_peer_bandwidth:
        case message_data_amf3:
        case message_data:
        case message_shared_object_amf3:
        case message_shared_object:
            return true;
        default:
            return false;
    }
}

bool Rtmp::insides::serve_control(Variant& message) noexcept {
    const Variant& event = message["usrCtrl"];
    switch (static_cast<uint32_t>(event["type"])) {
        case 6:
            return send(pong_message(static_cast<uint32_t>(event["ping"])));
        case 0:
        case 3:
        case 4:
        case 7:
        case 31:
        case 32:
            return true;
        default:
            return false;
    }
}

bool Rtmp::insides::serve_chunk_size(Variant& message) noexcept {
    const auto size = static_cast<uint32_t>(message["chunkSize"]);
    return size <= max_chunk_size && reader_.set_chunk_size(std::min(size, max_message_length));
}

bool Rtmp::insides::serve_window(Variant& message) noexcept {
    window_ = static_cast<uint32_t>(message["winAckSize"]);
    return true;
}

bool Rtmp::insides::serve_abort(Variant& message) noexcept {
    reader_.abort(static_cast<uint32_t>(message["abortMessage"]));
    return true;
}

bool Rtmp::insides::invoke(Variant& message) noexcept {
    using command_t = bool (Rtmp::*)(Variant&) noexcept;
    static constexpr struct {
        std::string_view name;
        command_t serve;  // null: accepted, without an answer
    } commands[] = {
        {"connect", &Rtmp::ProcessInvokeConnect},
        {"createStream", &Rtmp::ProcessInvokeCreateStream},
        {"publish", &Rtmp::ProcessInvokePublish},
        {"play", &Rtmp::ProcessInvokePlay},
        {"pauseRaw", &Rtmp::ProcessInvokePause},
        {"pause", &Rtmp::ProcessInvokePause},
        {"seek", nullptr},
        {"closeStream", &Rtmp::ProcessInvokeCloseStream},
        {"releaseStream", nullptr},
        {"deleteStream", &Rtmp::ProcessInvokeCloseStream},
        {"_result", &Rtmp::ProcessInvokeResult},
        {"_error", &Rtmp::ProcessInvokeResult},
        {"onStatus", nullptr},
        {"FCPublish", nullptr},
        {"getStreamLength", &Rtmp::ProcessInvokeGetStreamLength},
        {"onBWDone", nullptr},
        {"checkBandwidth", nullptr},
    };
    const std::string_view name = text_of(message["invoke"]["functionName"]);
    if (core_log_wanted(log)) {
        char tree[8192];
        print(message, tree, sizeof tree);
        core_log_print(log, "%u: <protocol>ProcessInvoke: %d %.*s\n%s", id,
                       static_cast<int>(static_cast<uint32_t>(message["invoke"]["id"])), static_cast<int>(name.size()),
                       name.data(), tree);
    }
    const auto* found = std::ranges::find_if(commands, [&](const auto& each) { return each.name == name; });
    if (found == std::end(commands)) return door.ProcessInvokeGeneric(message);
    return !found->serve || (door.*found->serve)(message);
}

bool Rtmp::insides::reject(double number, const char* description) noexcept {
    Variant error = command_message("_error", number, 0);
    set_status(error, "error", "NetConnection.Connect.Rejected", description);
    return send(error);
}

bool Rtmp::insides::connect(Variant& message) noexcept {
    const Variant& wishes = parameter(message, 0);
    const auto keep = [&](core::owned_text& text, const char* key) {
        const std::string_view value = text_of(wishes[key]);
        text.reset(core_strndup(value.data(), value.size(), file, line));
        return text != nullptr;
    };
    // A second connect begins anew: what it refuses must not stay open by the first one.
    close_stream();
    connected = created_ = false;
    if (!keep(app_, "app") || !keep(tc_url_, "tcUrl")) return false;
    if (gated_ && !door.AuthenticateInboundAdobe(message)) return !failed;
    if (handler && !handler->on_connect(&door, app_.get(), tc_url_.get()))
        return reject(id_of(message), "Connection refused");

    Variant result = result_message(id_of(message));
    result["invoke"]["parameters"][0U]["capabilities"] = 31;
    set_status(result, "status", "NetConnection.Connect.Success", "Connection succeeded");
    result["invoke"]["parameters"][1U]["objectEncoding"] = 0;  // whatever the player can read: commands are AMF0
    connected = send(window_message(bandwidth)) && send(bandwidth_message(bandwidth, dynamic_limit)) &&
                send(stream_begin_message(0)) && send(result);
    return connected;
}

bool Rtmp::insides::authenticate(Variant& message) noexcept {
    char description[512];
    switch (login::check(app_ ? app_.get() : "", user_.get(), password_.get(), description)) {
        case login::result_t::passed:
            return true;
        case login::result_t::refused:
            reject(id_of(message), description);
            return false;
    }
    return false;
}

bool Rtmp::insides::set_credentials(const char* user, const char* password) noexcept {
    user_.reset(user ? core_strdup(user, file, line) : nullptr);
    password_.reset(user ? core_strdup(password ? password : "", file, line) : nullptr);
    gated_ = user != nullptr;
    return !gated_ || (user_ && password_);
}

bool Rtmp::insides::create_stream(Variant& message) noexcept {
    if (!connected) return false;
    created_ = true;
    Variant result = result_message(id_of(message));
    result["invoke"]["parameters"][1U] = static_cast<double>(media_stream);
    return send(result);
}

bool Rtmp::insides::raise_chunk_size() noexcept {
    if (chunk_size_ >= media_chunk_size) return true;
    if (!send(chunk_size_message(media_chunk_size))) return false;
    chunk_size_ = media_chunk_size;
    return true;
}

bool Rtmp::insides::play(Variant& message) noexcept {
    const auto stream = static_cast<uint32_t>(message["header"]["streamId"]);
    if (!created_ || stream != media_stream) {
        core_log_print(log, "%u: rtmp: recv play for unknown stream id: %u", id, stream);
        return false;
    }
    const std::string_view name = text_of(parameter(message, 1));
    const core::owned_text copy(core_strndup(name.data(), name.size(), file, line));
    if (!copy || !raise_chunk_size()) return false;
    const play_t wish{.app = app_.get(),
                      .tc_url = tc_url_.get(),
                      .name = copy.get(),
                      .start = number_or(parameter(message, 2), -2),
                      .length = number_or(parameter(message, 3), -1)};
    core_log_print(log, "%u: Play request for stream name `%s`. Start: %.0f; length: %.0f", id, wish.name, wish.start,
                   wish.length);
    playing = paused = false;
    own_chunks_.reset();
    head_sent_ = 0;
    if (!handler || !handler->on_play(&door, wish))
        return send(on_status_message("error", "NetStream.Play.StreamNotFound", name));
    playing = send(stream_begin_message(media_stream)) &&
              send(on_status_message("status", "NetStream.Play.Reset", name)) &&
              send(on_status_message("status", "NetStream.Play.Start", name)) && send(sample_access_message());
    return playing;
}

bool Rtmp::insides::pause(Variant& message) noexcept {
    const bool wanted = static_cast<bool>(parameter(message, 1));
    if (!playing) return true;
    paused = wanted;
    if (handler) handler->on_pause(&door, wanted);
    if (wanted) return send(on_status_message("status", "NetStream.Pause.Notify", "Paused"));
    return send(stream_begin_message(media_stream)) &&
           send(on_status_message("status", "NetStream.Unpause.Notify", "Goes on"));
}

bool Rtmp::insides::close_stream() noexcept {
    if (!playing) return true;
    playing = paused = false;
    if (handler) handler->on_close(&door);
    return true;
}

bool Rtmp::insides::stop_play() noexcept {
    if (!playing) return false;
    playing = paused = false;
    return send(stream_end_message(media_stream)) && send(on_status_message("status", "NetStream.Play.Stop", "Ended"));
}

bool Rtmp::insides::stream_length(Variant& message) noexcept {
    Variant result = result_message(id_of(message));
    result["invoke"]["parameters"][1U] = 0.0;
    if (send(result)) return true;
    log_line("Unable to send message to client");
    return false;
}

bool Rtmp::insides::unknown(Variant& message) noexcept {
    if (core_log_wanted(log)) {
        char tree[8192];
        print(message, tree, sizeof tree);
        core_log_print(log, "%u: Default implementation of ProcessInvokeGeneric: Request: %s", id, tree);
    }
    Variant error = command_message("_error", id_of(message), 0);
    set_status(error, "error", "NetConnection.Call.Failed", "Unknown command");
    return send(error);
}

}  // namespace inet
