#include "rtmp/messages.h"

#include "inet/rtmp_serializer.h"

#include <algorithm>
#include <cstdio>

namespace inet::rtmp {

namespace {

Variant message(message_type_t type, uint32_t channel, uint32_t stream) noexcept {
    const _Header header{.channelId = channel, .messageType = type, .streamId = stream, .isAbsolute = true};
    Variant made;
    header.ToVariant(made["header"]);
    return made;
}

Variant control(message_type_t type) noexcept { return message(type, control_channel, 0); }

Variant number_message(message_type_t type, const char* key, uint32_t value) noexcept {
    Variant made = control(type);
    made[key] = value;
    return made;
}

Variant user_control(uint32_t event, const char* key, uint32_t value) noexcept {
    Variant made = control(message_user_control);
    Variant& body = made["usrCtrl"];
    body["type"] = event;
    body[key] = value;
    return made;
}

/// Appends to a caller's room as far as it goes.
class printer {
public:
    printer(char* out, uint32_t size) noexcept : at_(out), left_(size) {}

    void add(std::string_view text) noexcept {
        const size_t count = std::min<size_t>(text.size(), left_ - 1);
        at_ = std::copy_n(text.data(), count, at_);
        left_ -= static_cast<uint32_t>(count);
        *at_ = '\0';
    }
    void add(double number) noexcept {
        char text[32];
        std::snprintf(text, sizeof text, "%.15g", number);
        add(std::string_view(text));
    }
    bool full() const noexcept { return left_ <= 1; }

    // One entry a line, indented by its depth, which the readers of messages bound.
    void add(const Variant& value, std::string_view indent) noexcept;

private:
    void add_map(const Variant& map, std::string_view indent) noexcept;

    char* at_;
    uint32_t left_;
};

void printer::add(const Variant& value, std::string_view indent) noexcept {
    switch (value.Type()) {
        case variant_null:
            return add("null");
        case variant_undefined:
            return add("undefined");
        case variant_bool:
            return add(static_cast<bool>(value) ? "true" : "false");
        case variant_string:
            add("\"");
            add(static_cast<std::string_view>(value));
            return add("\"");
        case variant_map:
        case variant_typed_map:
            return add_map(value, indent);
        default:
            break;
    }
    if (value.IsNumber()) return add(static_cast<double>(value));
    add(value.Type() == variant_byte_array ? "bytes" : value.Type() == variant_lost ? "lost" : "time");
}

void printer::add_map(const Variant& map, std::string_view indent) noexcept {
    constexpr std::string_view blanks = "                                        ";
    const std::string_view deeper = blanks.substr(0, indent.size() + 2);
    add(map.IsArray() ? "[" : "{");
    for (const Variant::Entry& entry : map) {
        if (full()) return;
        add("\n");
        add(deeper);
        if (entry.IsIndex())
            add(static_cast<double>(entry.Index()));
        else
            add(entry.Key());
        add(": ");
        add(entry.value, deeper);
    }
    add(map.IsArray() ? "]" : "}");
}

}  // namespace

Variant chunk_size_message(uint32_t size) noexcept { return number_message(message_chunk_size, "chunkSize", size); }
Variant ack_message(uint32_t bytes) noexcept { return number_message(message_ack, "ack", bytes); }
Variant window_message(uint32_t size) noexcept { return number_message(message_window_ack_size, "winAckSize", size); }

Variant bandwidth_message(uint32_t value, uint32_t kind) noexcept {
    Variant made = control(message_peer_bandwidth);
    Variant& body = made["peerBw"];
    body["value"] = value;
    body["kind"] = kind;
    return made;
}

Variant stream_begin_message(uint32_t stream) noexcept { return user_control(0, "streamId", stream); }
Variant stream_end_message(uint32_t stream) noexcept { return user_control(1, "streamId", stream); }
Variant pong_message(uint32_t value) noexcept { return user_control(7, "pong", value); }

Variant command_message(const char* name, double id, uint32_t stream) noexcept {
    Variant made = message(message_command, stream == 0 ? command_channel : status_channel, stream);
    Variant& body = made["invoke"];
    body["functionName"] = name;
    body["id"] = id;
    body["parameters"][0U].Reset();
    return made;
}

Variant result_message(double id) noexcept { return command_message("_result", id, 0); }

void set_status(Variant& command, const char* level, const char* code, std::string_view description) noexcept {
    Variant& status = command["invoke"]["parameters"][1U];
    status["level"] = level;
    status["code"] = code;
    status["description"] = description;
}

Variant on_status_message(const char* level, const char* code, std::string_view description) noexcept {
    Variant made = command_message("onStatus", 0, media_stream);
    set_status(made, level, code, description);
    return made;
}

Variant sample_access_message() noexcept {
    Variant made = message(message_data, data_channel, media_stream);
    Variant& params = made["notify"]["params"];
    params[0U] = "|RtmpSampleAccess";
    params[1U] = true;
    params[2U] = true;
    return made;
}

bool put_metadata_body(const metadata_t& known, IOBuffer& out) noexcept {
    Variant content;
    Variant& params = content["params"];
    params[0U] = "onMetaData";
    Variant& data = params[1U];
    data["date"] = known.date;
    if (known.video) {
        data["width"] = known.width;
        data["height"] = known.height;
        data["videocodecid"] = "avc1";
    }
    if (known.sound != 0) data["audiocodecid"] = known.sound;
    data.IsArray(true);  // players look for an array
    return RTMPSerializer().SerializeNotify(out, content);
}

void print(const Variant& value, char* out, uint32_t size) noexcept {
    if (size == 0) return;
    *out = '\0';
    printer(out, size).add(value, "");
}

}  // namespace inet::rtmp
