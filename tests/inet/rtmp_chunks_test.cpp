// Exact bytes of messages and chunks, and what they are read as. Splits and hostile bytes are for the fuzz target.
#include "rtmp/chunks.h"

#include "core/memory.h"
#include "inet/rtmp_serializer.h"
#include "inet/rtmp_tree.h"

#include <gtest/gtest.h>

using namespace inet::rtmp;
using test::hex;
using test::unhex;

namespace {

/// Takes all messages as "channel/type/stream@time:body", with chunk sizes and aborts obeyed.
class owner_t : public chunk_owner {
public:
    explicit owner_t(chunk_reader::settings_t settings = {}) : reader(settings) {}

    take_t on_message_header(const message_t& message) noexcept override {
        return message.type == 8 ? take_t::skip : message.type == 9 ? take_t::refuse : take_t::keep;
    }
    bool on_message(const message_t& message, std::span<const uint8_t> body) noexcept override {
        if (message.type == 1) return reader.set_chunk_size(body[3]);
        if (message.type == 2) reader.abort(body[3]);
        if (message.type == 2) return true;
        std::ostringstream out;
        out << message.channel << '/' << message.type << '/' << message.stream << '@' << message.time << ':'
            << hex(std::string_view(reinterpret_cast<const char*>(body.data()), body.size())) << ' ';
        heard += out.str();
        in_place = body.data() >= first && body.data() < last;
        return true;
    }
    std::string read(const std::string& bytes) {
        first = reinterpret_cast<const uint8_t*>(bytes.data());
        last = first + bytes.size();
        return reader.read({first, last}, *this) ? heard : heard + "refused";
    }

    chunk_reader reader;
    std::string heard;
    const uint8_t* first = nullptr;
    const uint8_t* last = nullptr;
    bool in_place = false;
};

std::string read(const std::string& bytes, chunk_reader::settings_t settings = {}) {
    return owner_t(settings).read(unhex(bytes));
}

struct sent {
    uint32_t channel, time, stream;
    bool absolute;
};

}  // namespace

TEST(Chunks, AreRead) {
    const std::string five = "01 02 03 04 05";
    const std::pair<std::string, std::string> cases[] = {
        {"03 000010 000001 14 01000000 AA", "3/20/1@16:AA "},
        // Steps: 1 and 2 tell one, 3 repeats it; after an absolute time that is the step.
        {"03 000010 000001 14 01000000 AA 43 000020 000001 12 BB 83 000005 CC C3 DD",
         "3/20/1@16:AA 3/18/1@48:BB 3/18/1@53:CC 3/18/1@58:DD "},
        {"03 000010 000001 14 01000000 AA C3 BB", "3/20/1@16:AA 3/20/1@32:BB "},
        {"43 000007 000001 14 AA", "3/20/0@7:AA "},
        {"00 00 000000 000001 14 00000000 AA 3F 000000 000001 14 00000000 BB", "64/20/0@0:AA 63/20/0@0:BB "},
        {"01 00FF 000000 000001 14 00000000 AA", "319/20/0@0:AA "},
        {"03 000000 000000 14 00000000 03 000000 000001 14 00000000 AA", "3/20/0@0: 3/20/0@0:AA "},
        // Chunks of two bytes; another channel between them.
        {"02 000000 000004 01 00000000 00000002 03 000000 000005 14 00000000 0102 04 000000 000001 14 00000000 AA"
         "C3 0304 C3 05",
         "4/20/0@0:AA 3/20/0@0:0102030405 "},
        // The extended time: on every chunk, or on none but the first; the wrap.
        {"02 000000 000004 01 00000000 00000002 03 FFFFFF 000005 14 00000000 01000000 0102 C3 01000000 0304 C3 "
         "01000000 05",
         "3/20/0@16777216:0102030405 "},
        {"02 000000 000004 01 00000000 00000002 03 FFFFFF 000005 14 00000000 01000000 0102 C3 0304 C3 05",
         "3/20/0@16777216:0102030405 "},
        {"02 000000 000004 01 00000000 00000002 03 FFFFFF 000005 14 00000000 01000000 0102 C3 0100 C3 05",
         "3/20/0@16777216:0102010005 "},
        {"03 FFFFFF 000001 14 00000000 FFFFFFFF AA 83 000005 BB", "3/20/0@4294967295:AA 3/20/0@4:BB "},
        {"03 FFFFFF 000001 14 00000000 00FFFFFF AA", "3/20/0@16777215:AA "},
        // Given up: by an abort, by another message inside; a header that repeats goes on.
        {"02 000000 000004 01 00000000 00000002 03 000000 000005 14 00000000 0102 02 000000 000004 02 00000000 0000 C2"
         "0003 03 000001 000002 14 00000000 AABB",
         "3/20/0@1:AABB "},
        {"02 000000 000004 01 00000000 00000002 03 000000 000005 14 00000000 0102 03 000007 000001 14 00000000 AA",
         "3/20/0@7:AA "},
        {"02 000000 000004 01 00000000 00000002 03 000000 000003 14 00000000 0102 43 000007 000003 14 AA",
         "3/20/0@0:0102AA "},
        {"03 000000 000005 08 00000000" + five + "03 000000 000001 14 00000000 AA", "3/20/0@0:AA "},
        {"03 000000 000005 09 00000000" + five, "refused"},
        {"02 000000 000004 01 00000000 00000000", "refused"},
    };
    for (const auto& [bytes, expected] : cases)
        EXPECT_EQ(read(bytes), expected) << bytes;

    const chunk_reader::settings_t narrow{.ids = 319, .three_byte_ids = false, .max_channels = 2, .max_bytes = 300};
    EXPECT_EQ(read("00 FE 000000 000001 14 00000000 AA", narrow), "318/20/0@0:AA ");
    EXPECT_EQ(read("00 FF 000000 000001 14 00000000 AA", narrow), "refused");
    EXPECT_EQ(read("01", narrow), "refused");
    EXPECT_EQ(read("03 000000 00012D 14 00000000", narrow), "refused");
    EXPECT_EQ(read("03 000000 000000 14 00000000 04 000000 000000 14 00000000 05 000000 000000 14 00000000", narrow),
              "3/20/0@0: 4/20/0@0: refused");
}

TEST(Chunks, OneBoundHoldsOverAllChannels) {
    owner_t owner({.max_bytes = 4096});
    const std::string piece(128, 'a');
    const auto start = [&](const char* channel) { return unhex(channel) + unhex("000000 000F00 14 00000000") + piece; };
    EXPECT_EQ(owner.read(start("03") + start("04")), "");
    for (int i = 0; i < 29 && owner.reader.fault() == chunk_fault_t::none; ++i)
        owner.read(unhex("C3") + piece);
    EXPECT_LE(owner.reader.held(), 4096U);
    EXPECT_EQ(owner.reader.fault(), chunk_fault_t::too_much);

    // A whole message is handed on where it stands; the room of a message that is over serves the next channel.
    owner_t other({.max_bytes = 4096});
    const auto whole = [&](const char* channel) {
        return start(channel) + [&] {
            std::string rest;
            for (int i = 0; i < 29; ++i)
                rest += static_cast<char>(0xC0 | unhex(channel)[0]) + piece;
            return rest;
        }();
    };
    EXPECT_EQ(other.read(whole("03") + whole("04") + whole("05")).size(), 3 * (2 * 3840 + 10));
    EXPECT_FALSE(other.in_place);
    other.read(unhex("03 000000 000001 14 00000000 AA"));
    EXPECT_TRUE(other.in_place);
}

TEST(Chunks, AreWritten) {
    const std::string body(5, 'a');
    const std::pair<message_t, const char*> cases[] = {
        {{3, 9, 1, 16, 0}, "03 000010 000005 09 01000000 616161 C3 6161"},
        {{64, 9, 0x01020304, 0xFFFFFE, 0}, "0000 FFFFFE 000005 09 04030201 616161 C000 6161"},
        {{318, 9, 1, 0xFFFFFF, 0}, "00FE FFFFFF 000005 09 01000000 00FFFFFF 616161 C0FE 00FFFFFF 6161"},
        {{319, 9, 1, 0x1000000, 0}, "0100FF FFFFFF 000005 09 01000000 01000000 616161 C100FF 01000000 6161"},
        {{65598, 9, 1, 0, 0}, "01FFFE 000000 000005 09 01000000 616161 C1FFFE 6161"},
    };
    for (const auto& [message, expected] : cases) {
        buf_t out;
        const auto* bytes = reinterpret_cast<const uint8_t*>(body.data());
        EXPECT_TRUE(write_message(out, message, {{bytes, 1}, {bytes + 1, 0}, {bytes + 1, 4}}, 3));
        const std::string_view made(reinterpret_cast<const char*>(out.data), out.length);
        EXPECT_EQ(hex(made), hex(unhex(expected)));
        core_buf_free(&out);
    }
    buf_t out;
    EXPECT_FALSE(write_message(out, {65599, 9, 1, 0, 0}, {{reinterpret_cast<const uint8_t*>("a"), 1}}, 3));
    EXPECT_FALSE(write_message(out, {3, 9, 1, 0, 0}, {{reinterpret_cast<const uint8_t*>("a"), 1}}, 0));
}

TEST(RTMPSerializer, ChoosesTheFormat) {
    RTMPSerializer serializer;
    _Channel channel;
    const auto send = [&](sent as, uint32_t chunk_size = 128) {
        Variant message;
        _Header{as.channel, 0, as.time, 0, 3, as.stream, as.absolute}.ToVariant(message["header"]);
        message["ack"] = 0xAABBCCDDU;
        IOBuffer out;
        return serializer.Serialize(channel, message, out, chunk_size) ? hex(out) : "refused";
    };
    const std::pair<sent, const char*> cases[] = {
        {{3, 16, 1, false}, "03 000010 000004 03 01000000 AABBCCDD"},
        {{3, 20, 1, false}, "83 000014 AABBCCDD"},
        {{3, 20, 1, false}, "C3 AABBCCDD"},
        {{3, 0x1000000, 1, false}, "83 FFFFFF 01000000 AABBCCDD"},
        {{3, 0x1000000, 1, false}, "C3 01000000 AABBCCDD"},
        {{3, 20, 1, true}, "03 000014 000004 03 01000000 AABBCCDD"},
        {{3, 20, 2, false}, "03 000014 000004 03 02000000 AABBCCDD"},
    };
    for (const auto& [as, expected] : cases)
        EXPECT_EQ(send(as), hex(unhex(expected)));
    EXPECT_EQ(send({3, 20, 2, true}, 4), hex(unhex("03 000014 000004 03 02000000 AABBCCDD")));
    EXPECT_EQ(send({3, 20, 2, true}, 3), hex(unhex("03 000014 000004 03 02000000 AABBCC C3 DD")));
    EXPECT_EQ(send({65599, 20, 2, true}), "refused");
    EXPECT_EQ(send({3, 20, 2, true}, 0), "refused");
    Variant without;
    without["ack"] = 1U;
    without["header"]["channelId"] = 3U;
    IOBuffer out;
    EXPECT_FALSE(serializer.Serialize(channel, without, out, 128));

    for (const auto& [id, expected] : {std::pair(5U, "616161C56161"), std::pair(64U, "6161616161")}) {
        IOBuffer body;
        body.ReadFromRepeat('a', 5);
        IOBuffer chunked;
        channel = {};
        channel.lastHeader.channelId = id;
        serializer.ChunkBuffer(chunked, body, 3, channel);
        EXPECT_EQ(hex(chunked), expected);
        EXPECT_EQ(channel.sentBytes, 2U);
    }
}

TEST(RTMPSerializer, ReadsAndWritesBodies) {
    struct {
        uint8_t type;
        const char* bytes;
        const char* tree;  // without the header; "refused"
        const char* written;
    } const cases[] = {
        {1, "00001000", "chunkSize:4096", "00001000"},
        {2, "00000003", "abortMessage:3", "00000003"},
        {3, "00001000", "ack:4096", "00001000"},
        {5, "002625A0", "winAckSize:2.5e+06", "002625A0"},
        {6, "002625A0 02", "peerBw:{kind:2,value:2.5e+06}", "002625A0 02"},
        {6, "002625A0", "refused", ""},
        {4, "0000 00000001", "usrCtrl:{streamId:1,type:0,typeString:'RM_USRCTRL_TYPE_STREAM_BEGIN'}", "0000 00000001"},
        {4, "0003 00000001 00000064",
         "usrCtrl:{buffLen:100,streamId:1,type:3,typeString:'RM_USRCTRL_TYPE_STREAM_SET_BUFFER_LENGTH'}", "refused"},
        {4, "0006 00000001", "usrCtrl:{ping:1,type:6,typeString:'RM_USRCTRL_TYPE_PING_REQUEST'}", "refused"},
        {4, "0007 00000001", "usrCtrl:{pong:1,type:7,typeString:'RM_USRCTRL_TYPE_PING_RESPONSE'}", "0007 00000001"},
        {4, "0020 00000001", "usrCtrl:{type:32,typeString:'RM_USRCTRL_TYPE_UNKNOWN2',unknownU32:1}", "refused"},
        {4, "0005 00000001", "refused", ""},
        {20, "02 0001 61 00 3FF0000000000000", "invoke:{functionName:'a',id:1,isFlex:false}",
         "02 0001 61 00 3FF0000000000000"},
        {17, "00 02 0001 61 00 3FF0000000000000 05 01 01",
         "invoke:{functionName:'a',id:1,isFlex:true,parameters:[#0:null,#1:true]}",
         "00 02 0001 61 00 3FF0000000000000 05 01 01"},
        {20, "02 0001 61 05", "refused", ""},
        {20, "02 0001 61 00 3FF0000000000000 07", "refused", ""},
        {18, "02 0001 61 05", "notify:{params:[#0:'a',#1:null]}", "02 0001 61 05"},
        {15, "07 02 0001 61", "flexStreamSend:{params:[#0:'a'],unknownByte:7}", "07 02 0001 61"},
        {19, "0001 61 00000001 00000002 00000000 01 00000000 04 00000004 0001 62 05 06 00000001 AA",
         "sharedObject:{name:'a',persistence:2,primitives:[#0:{rawLength:0,strType:'SOT_CS_CONNECT',type:1},"
         "#1:{payload:{b:null},rawLength:4,strType:'SOT_SC_UPDATE_DATA',type:4},"
         "#2:{payload:<AA>,rawLength:1,strType:'SOT_BW_SEND_MESSAGE',type:6}],version:1}",
         "0001 61 00000001 00000002 00000000 01 00000000 04 00000004 0001 62 05 06 00000001 AA"},
        {16, "09 0000 00000001 00000002 00000000 0C 00000000",
         "sharedObject:{name:'',persistence:2,primitives:[#0:{rawLength:0,strType:'#unknownSOP(12)',type:12}],version:"
         "1}",
         "00 0000 00000001 00000002 00000000 0C 00000000"},
        {19, "0001 61 00000001 00000002 00000000 04 00000005 0001 62 05", "refused", ""},
        {7, "00000000", "refused", ""},
        {9, "00", "refused", ""},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.bytes);
        RTMPSerializer serializer;
        IOBuffer body;
        body.ReadFromString(unhex(row.bytes));
        Variant message;
        const _Header header{3, 0, 0, body.Size() & max_message_length, row.type, 0, true};
        const bool good = serializer.Deserialize(header, body, message);
        Variant content = message;
        content.RemoveKey("header");
        EXPECT_EQ(good ? test::tree(content) : "refused", good ? '{' + std::string(row.tree) + '}' : row.tree);
        if (!good) continue;
        EXPECT_EQ(body.Size(), 0U);
        _Channel channel;
        IOBuffer out;
        const bool is_written = serializer.Serialize(channel, message, out, 4096);
        out.Ignore(12);
        EXPECT_EQ(is_written ? hex(out) : "refused", is_written ? hex(unhex(row.written)) : row.written);
    }
    EXPECT_EQ(RTMPSerializer::GetUserCtrlTypeString(5), "#unknownUCT(5)");
}
