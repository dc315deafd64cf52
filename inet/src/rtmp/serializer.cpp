#include "rtmp/amf.h"
#include "rtmp/chunks.h"

#include "inet/rtmp_serializer.h"

#include <algorithm>
#include <string>
#include <utility>

namespace inet::rtmp {

namespace {

using amf::budget_t;
using amf::input_t;
using amf::output_t;

// --- Tables ---

struct user_control_t {
    uint16_t type;
    const char* name;
    const char* first;   // key of its u32
    const char* second;  // of another one; null when there is none
    bool written;
};

constexpr user_control_t user_controls[] = {
    {0, "RM_USRCTRL_TYPE_STREAM_BEGIN", "streamId", nullptr, true},
    {1, "RM_USRCTRL_TYPE_STREAM_EOF", "streamId", nullptr, true},
    {2, "RM_USRCTRL_TYPE_STREAM_DRY", "streamId", nullptr, true},
    {3, "RM_USRCTRL_TYPE_STREAM_SET_BUFFER_LENGTH", "streamId", "buffLen", false},
    {4, "RM_USRCTRL_TYPE_STREAM_IS_RECORDED", "streamId", nullptr, true},
    {6, "RM_USRCTRL_TYPE_PING_REQUEST", "ping", nullptr, false},
    {7, "RM_USRCTRL_TYPE_PING_RESPONSE", "pong", nullptr, true},
    {31, "RM_USRCTRL_TYPE_UNKNOWN1", "unknownU32", nullptr, false},
    {32, "RM_USRCTRL_TYPE_UNKNOWN2", "unknownU32", nullptr, false},
};

const user_control_t* user_control(uint32_t type) noexcept {
    const auto found = std::find_if(std::begin(user_controls), std::end(user_controls),
                                    [type](const user_control_t& row) { return row.type == type; });
    return found == std::end(user_controls) ? nullptr : found;
}

constexpr const char* primitives[] = {
    nullptr,
    "SOT_CS_CONNECT",
    "SOT_CS_DISCONNECT",
    "SOT_CS_SET_ATTRIBUTE",
    "SOT_SC_UPDATE_DATA",
    "SOT_SC_UPDATE_DATA_ACK",
    "SOT_BW_SEND_MESSAGE",
    "SOT_SC_STATUS",
    "SOT_SC_CLEAR_DATA",
    "SOT_SC_DELETE_DATA",
    "SOT_CSC_DELETE_DATA",
    "SOT_SC_INITIAL_DATA",
};

// Whether the payload of a primitive is names and values.
bool has_pairs(uint32_t primitive) noexcept { return primitive == 3 || primitive == 4 || primitive == 11; }

// The name, or what stands for an unknown number. Empty when memory is out.
std::string name_or(const char* name, const char* unknown, uint32_t number) noexcept {
    try {
        return name ? std::string(name) : unknown + std::to_string(number) + ')';
    } catch (...) {
        return {};
    }
}

const char* body_key(uint32_t type) noexcept {
    switch (type) {
        case message_chunk_size:
            return "chunkSize";
        case message_abort:
            return "abortMessage";
        case message_ack:
            return "ack";
        case message_user_control:
            return "usrCtrl";
        case message_window_ack_size:
            return "winAckSize";
        case message_peer_bandwidth:
            return "peerBw";
        case message_data_amf3:
            return "flexStreamSend";
        case message_shared_object_amf3:
        case message_shared_object:
            return "sharedObject";
        case message_command_amf3:
        case message_command:
            return "invoke";
        case message_data:
            return "notify";
        default:
            return nullptr;
    }
}

// --- Reading ---

bool read_u32(input_t& in, Variant& out) noexcept {
    if (!in.has(4)) return false;
    out = in.u32();
    return true;
}

// Values up to the end of the body, at 0, 1, ...
bool read_values(input_t& in, Variant& out, budget_t& budget) {
    out.IsArray(true);
    bool good = true;
    for (uint32_t i = 0; good && in.has(1); ++i) {
        Variant* const item = out.Append(i);
        good = item && amf::read_amf0(in, *item, budget, 1);
    }
    out.Settle();
    return good && out.IsMap();
}

bool read_name(input_t& in, std::string_view& out, budget_t& budget) noexcept {
    return in.has(2) && in.text(in.u16(), out) && budget.take(0, out.size());
}

bool read_payload(input_t in, bool pairs, Variant& out, budget_t& budget) {
    if (!pairs) {
        std::string_view bytes;
        in.text(in.left(), bytes);
        out = bytes;
        out.IsByteArray(true);
        return budget.take(1, bytes.size()) && out.Type() == variant_byte_array;
    }
    out.IsArray(false);
    bool good = true;
    while (good && in.has(1)) {
        std::string_view name;
        Variant* const item = read_name(in, name, budget) ? out.Append(name) : nullptr;
        good = item && amf::read_amf0(in, *item, budget, 3);
    }
    out.Settle();
    return good && out.IsMap();
}

bool read_primitive(input_t& in, Variant& out, budget_t& budget) {
    if (!in.has(5) || !budget.take(4, 0)) return false;
    const uint8_t type = in.u8();
    const uint32_t length = in.u32();
    std::string_view payload;
    if (!in.text(length, payload)) return false;
    out["type"] = type;
    out["strType"] = RTMPSerializer::GetSOPrimitiveString(type);
    out["rawLength"] = length;
    if (length == 0) return out.IsMap();
    const input_t inside({reinterpret_cast<const uint8_t*>(payload.data()), payload.size()});
    return read_payload(inside, has_pairs(type), out["payload"], budget) && out.IsMap();
}

// Runs a reader of a body that is a map.
template <class Work>
bool read_map(IOBuffer& body, Variant& message, Work work) noexcept {
    return amf::read_from(body, [&](input_t& in) {
        budget_t budget = budget_t::of_message(in.left());
        return work(in, budget) && message.IsMap();
    });
}

// --- Writing ---

// Values at 0, 1, ...; nothing for a value that is no map.
bool write_values(output_t& out, const Variant& values) noexcept {
    return std::all_of(values.begin(), values.end(), [&](const Variant::Entry& entry) {
        return !entry.IsIndex() || amf::write_amf0(out, entry.value, 1);
    });
}

bool write_name(output_t& out, std::string_view name) noexcept {
    return name.size() <= UINT16_MAX && out.u16(static_cast<uint16_t>(name.size())) && out.text(name);
}

bool write_invoke(output_t& out, const Variant& message) noexcept {
    const auto name = static_cast<std::string_view>(message["functionName"]);
    return out.u8(0x02) && write_name(out, name) && out.u8(0x00) && out.f64(static_cast<double>(message["id"])) &&
           write_values(out, message["parameters"]);
}

bool write_payload(IOBuffer& bytes, const Variant& payload) noexcept {
    return amf::write_to(bytes, [&](output_t& out) {
        if (!payload.IsMap()) return out.text(static_cast<std::string_view>(payload));
        return std::all_of(payload.begin(), payload.end(), [&](const Variant::Entry& entry) {
            amf::name_room_t room;
            return write_name(out, amf::name_of(entry, room)) && amf::write_amf0(out, entry.value, 3);
        });
    });
}

bool write_primitive(output_t& out, const Variant& primitive, IOBuffer& bytes) noexcept {
    bytes.IgnoreAll();
    return write_payload(bytes, primitive["payload"]) &&
           out.u8(static_cast<uint8_t>(static_cast<uint32_t>(primitive["type"]))) && out.u32(bytes.Size()) &&
           out.text({reinterpret_cast<const char*>(bytes.Data()), bytes.Size()});
}

bool write_shared_object(output_t& out, const Variant& message) noexcept {
    if (!write_name(out, static_cast<std::string_view>(message["name"]))) return false;
    if (!out.u32(static_cast<uint32_t>(message["version"]))) return false;
    if (!out.u32(static_cast<uint32_t>(message["persistence"])) || !out.u32(0)) return false;
    IOBuffer bytes;
    const Variant& all = message["primitives"];
    return std::all_of(all.begin(), all.end(),
                       [&](const Variant::Entry& entry) { return write_primitive(out, entry.value, bytes); });
}

bool write_body(output_t& out, uint32_t type, const Variant& body) noexcept {
    switch (type) {
        case message_chunk_size:
        case message_abort:
        case message_ack:
        case message_window_ack_size:
            return out.u32(static_cast<uint32_t>(body));
        case message_user_control: {
            const user_control_t* const row = user_control(static_cast<uint32_t>(body["type"]));
            return row && row->written && out.u16(row->type) && out.u32(static_cast<uint32_t>(body[row->first]));
        }
        case message_peer_bandwidth:
            return out.u32(static_cast<uint32_t>(body["value"])) &&
                   out.u8(static_cast<uint8_t>(static_cast<uint32_t>(body["kind"])));
        case message_data_amf3:
            return out.u8(static_cast<uint8_t>(static_cast<uint32_t>(body["unknownByte"]))) &&
                   write_values(out, body["params"]);
        case message_data:
            return write_values(out, body["params"]);
        case message_shared_object_amf3:
            return out.u8(0) && write_shared_object(out, body);
        case message_shared_object:
            return write_shared_object(out, body);
        case message_command_amf3:
            return out.u8(0) && write_invoke(out, body);
        case message_command:
            return write_invoke(out, body);
        default:
            return false;
    }
}

bool write_body_to(IOBuffer& out, uint32_t type, const Variant& body) noexcept {
    return amf::write_to(out, [&](output_t& to) { return write_body(to, type, body); });
}

// The header of the first chunk of a message, and what the channel will have sent.
uint32_t first_format(const _Channel& channel, const _Header& header) noexcept {
    const _Header& last = channel.lastHeader;
    if (channel.streamId != header.streamId || header.isAbsolute) return 0;
    if (last.messageType != header.messageType || last.messageLength != header.messageLength) return 1;
    return last.timestamp == header.timestamp ? 3 : 2;
}

}  // namespace

// --- Headers ---

void _Header::ToVariant(Variant& out) const noexcept {
    out.Reset();
    out["headerType"] = headerType;
    out["channelId"] = channelId;
    out["timestamp"] = timestamp;
    out["messageLength"] = uint32_t{messageLength};
    out["messageType"] = uint32_t{messageType};
    out["streamId"] = streamId;
    out["isAbsolute"] = isAbsolute;
}

bool _Header::FromVariant(const Variant& from) noexcept {
    static constexpr const char* keys[] = {"headerType",  "channelId", "timestamp", "messageLength",
                                           "messageType", "streamId",  "isAbsolute"};
    if (!std::all_of(std::begin(keys), std::end(keys), [&](const char* key) { return from.HasKey(key); })) return false;
    headerType = static_cast<uint32_t>(from["headerType"]);
    channelId = static_cast<uint32_t>(from["channelId"]);
    timestamp = static_cast<uint32_t>(from["timestamp"]);
    messageLength = static_cast<uint32_t>(from["messageLength"]) & max_message_length;
    messageType = static_cast<uint32_t>(from["messageType"]) & 0xFF;
    streamId = static_cast<uint32_t>(from["streamId"]);
    isAbsolute = static_cast<bool>(from["isAbsolute"]);
    return true;
}

RTMPSerializer::RTMPSerializer(const RTMPSerializer& other) noexcept : amf0_(other.amf0_), amf3_(other.amf3_) {}

RTMPSerializer& RTMPSerializer::operator=(const RTMPSerializer& other) noexcept {
    amf0_ = other.amf0_;
    amf3_ = other.amf3_;
    return *this;
}

// --- Bodies that come ---

bool RTMPSerializer::Deserialize(const _Header& header, IOBuffer& body, Variant& message) noexcept {
    message.Reset();
    header.ToVariant(message["header"]);
    const char* const key = body_key(header.messageType);
    if (!key) return false;
    Variant& content = message[key];
    const auto read = [&] {
        switch (header.messageType) {
            case message_user_control:
                return DeserializeUsrCtrl(body, content);
            case message_peer_bandwidth:
                return DeserializePeerBW(body, content);
            case message_data_amf3:
                return DeserializeFlexStreamSend(body, content);
            case message_shared_object_amf3:
                return DeserializeFlexSharedObject(body, content);
            case message_shared_object:
                return DeserializeSharedObject(body, content);
            case message_data:
                return DeserializeNotify(body, content);
            case message_command_amf3:
            case message_command:
                content["isFlex"] = header.messageType == message_command_amf3;
                return DeserializeInvoke(body, content);
            default:
                return DeserializeAbortMessage(body, content);  // one number
        }
    };
    return read() && message.IsMap() && message["header"].MapSize() == 7;
}

bool RTMPSerializer::DeserializeAbortMessage(IOBuffer& body, Variant& message) noexcept {
    return amf::read_from(body, [&](input_t& in) { return read_u32(in, message); });
}

bool RTMPSerializer::DeserializePeerBW(IOBuffer& body, Variant& message) noexcept {
    return read_map(body, message, [&](input_t& in, budget_t&) {
        if (!in.has(5)) return false;
        message["value"] = in.u32();
        message["kind"] = in.u8();
        return true;
    });
}

bool RTMPSerializer::DeserializeUsrCtrl(IOBuffer& body, Variant& message) noexcept {
    return read_map(body, message, [&](input_t& in, budget_t&) {
        if (!in.has(2)) return false;
        const uint16_t type = in.u16();
        message["type"] = type;
        message["typeString"] = GetUserCtrlTypeString(type);
        const user_control_t* const row = user_control(type);
        return row && read_u32(in, message[row->first]) && (!row->second || read_u32(in, message[row->second]));
    });
}

bool RTMPSerializer::DeserializeNotify(IOBuffer& body, Variant& message) noexcept {
    return read_map(body, message,
                    [&](input_t& in, budget_t& budget) { return read_values(in, message["params"], budget); });
}

bool RTMPSerializer::DeserializeFlexStreamSend(IOBuffer& body, Variant& message) noexcept {
    return read_map(body, message, [&](input_t& in, budget_t& budget) {
        if (!in.has(1)) return false;
        message["unknownByte"] = in.u8();
        return read_values(in, message["params"], budget);
    });
}

bool RTMPSerializer::DeserializeInvoke(IOBuffer& body, Variant& message) noexcept {
    return read_map(body, message, [&](input_t& in, budget_t& budget) {
        if (static_cast<bool>(std::as_const(message)["isFlex"])) {
            if (!in.has(1)) return false;
            in.skip(1);
        }
        std::string_view name;
        if (!in.marker(0x02) || !read_name(in, name, budget)) return false;
        if (!in.marker(0x00) || !in.has(8)) return false;
        message["functionName"] = name;
        message["id"] = in.f64();
        return !in.has(1) || read_values(in, message["parameters"], budget);
    });
}

bool RTMPSerializer::DeserializeFlexSharedObject(IOBuffer& body, Variant& message) noexcept {
    if (body.Size() == 0) return false;
    body.Ignore(1);
    return DeserializeSharedObject(body, message);
}

bool RTMPSerializer::DeserializeSharedObject(IOBuffer& body, Variant& message) noexcept {
    return read_map(body, message, [&](input_t& in, budget_t& budget) {
        std::string_view name;
        if (!read_name(in, name, budget) || !in.has(12)) return false;
        message["name"] = name;
        message["version"] = in.u32();
        message["persistence"] = in.u32();
        in.skip(4);
        Variant& all = message["primitives"];
        all.IsArray(true);
        for (uint32_t i = 0; in.has(1); ++i) {
            if (!read_primitive(in, all[i], budget)) return false;
        }
        return all.IsMap();
    });
}

// --- Bodies that go ---

bool RTMPSerializer::SerializeInvoke(IOBuffer& out, const Variant& message) noexcept {
    return write_body_to(out, message_command, message);
}

bool RTMPSerializer::SerializeNotify(IOBuffer& out, const Variant& message) noexcept {
    return write_body_to(out, message_data, message);
}

bool RTMPSerializer::SerializeFlexStreamSend(IOBuffer& out, const Variant& message) noexcept {
    return write_body_to(out, message_data_amf3, message);
}

bool RTMPSerializer::SerializeAck(IOBuffer& out, unsigned int value) noexcept {
    return amf::write_to(out, [&](output_t& to) { return to.u32(value); });
}

bool RTMPSerializer::SerializeUsrCtrl(IOBuffer& out, const Variant& message) noexcept {
    return write_body_to(out, message_user_control, message);
}

bool RTMPSerializer::SerializeClientBW(IOBuffer& out, const Variant& message) noexcept {
    return write_body_to(out, message_peer_bandwidth, message);
}

bool RTMPSerializer::SerializeSharedObject(IOBuffer& out, const Variant& message) noexcept {
    return write_body_to(out, message_shared_object, message);
}

// --- Messages that go ---

bool RTMPSerializer::Serialize(_Channel& channel, Variant& message, IOBuffer& out, uint32_t chunkSize) noexcept {
    _Header header;
    const Variant& tree = message;
    if (!header.FromVariant(tree["header"]) || header.channelId >= channel_ids || chunkSize == 0) return false;
    const char* const key = body_key(header.messageType);
    if (!key || !tree.HasKey(key)) return false;
    body_.IgnoreAll();
    if (!write_body_to(body_, header.messageType, tree[key]) || body_.Size() > max_message_length) return false;
    header.messageLength = body_.Size() & max_message_length;
    message["header"]["messageLength"] = body_.Size();

    const uint32_t format = first_format(channel, header);
    const message_t plain{header.channelId, header.messageType, header.streamId, header.timestamp, body_.Size()};
    const bool good = amf::write_to(out, [&](output_t& to) {
        uint8_t head[max_chunk_header];
        std::string_view left(reinterpret_cast<const char*>(body_.Data()), body_.Size());
        for (uint32_t with = format; !left.empty(); with = 3) {
            const uint32_t size = put_chunk_header(head, with, plain, header.timestamp);
            const std::string_view piece = left.substr(0, chunkSize);
            if (!to.text({reinterpret_cast<const char*>(head), size}) || !to.text(piece)) return false;
            left.remove_prefix(piece.size());
        }
        return true;
    });
    if (!good) return false;
    channel.sentBytes = 0;
    if (body_.Size() == 0) return true;
    header.headerType = format;
    channel.absoluteTime = format == 0 ? header.timestamp : channel.absoluteTime + header.timestamp;
    channel.streamId = header.streamId;
    channel.lastHeader = header;
    return true;
}

void RTMPSerializer::ChunkBuffer(IOBuffer& out, IOBuffer& body, uint32_t chunkSize, _Channel& channel) noexcept {
    if (chunkSize == 0) return;
    const uint32_t id = channel.lastHeader.channelId;
    const bool good = amf::write_to(out, [&](output_t& to) {
        std::string_view left(reinterpret_cast<const char*>(body.Data()), body.Size());
        while (!left.empty()) {
            const std::string_view piece = left.substr(0, chunkSize);
            left.remove_prefix(piece.size());
            if (!to.text(piece)) return false;
            if (!left.empty() && id < 64 && !to.u8(static_cast<uint8_t>(0xC0 | id))) return false;
        }
        return true;
    });
    if (!good) return;
    for (uint32_t left = body.Size(); left > 0;) {
        left -= std::min(left, chunkSize);
        channel.sentBytes += left;
    }
    body.IgnoreAll();
}

std::string RTMPSerializer::GetUserCtrlTypeString(unsigned short type) noexcept {
    const user_control_t* const row = user_control(type);
    return name_or(row ? row->name : nullptr, "#unknownUCT(", type);
}

std::string RTMPSerializer::GetSOPrimitiveString(unsigned char code) noexcept {
    return name_or(code < std::size(primitives) ? primitives[code] : nullptr, "#unknownSOP(", code);
}

}  // namespace inet::rtmp
