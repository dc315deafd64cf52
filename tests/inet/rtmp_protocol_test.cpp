// What neither players (tests/interop) nor the replay of dialogs judge in an RTMP server session: the handshake, the
// bytes of media, and what is refused. posix_rtmp_handshake_test.cpp sets the digests beside OpenSSL.
#include "inet/rtmp_protocol.h"

#include "rtmp_player.h"
#include "support/frames.h"
#include "support/log_keeper.h"

#include "avc/fcc.h"
#include "core/memory.h"

#include <gtest/gtest.h>
#include <regex>

using namespace std::string_literals;
using inet::Rtmp;
using inet::rtmp::Chunks;
using test::rtmp_player;

namespace {

std::span<const uint8_t> bytes(std::string_view text) { return test::bytes_of(text); }

std::string text(buffer_t bytes) { return {bytes.data, bytes.data + bytes.size}; }

const std::string sps = "\x67\x42\xC0\x0A\xDA\x0F\x0A\x69\xA8\x10";
const std::string pps = "\x68\xCE\x3C\x80";
const std::string code = "\0\0\0\1"s;

std::string key_picture(const std::string& pps_there = pps) {
    return code + sps + code + pps_there + code + "\6sei" + code + "\x65one" + code + "\x65two";
}

/// A header of format 0 on the chunk stream of a kind of media.
std::string header(char channel, size_t size, char type, uint32_t time) {
    const auto low = [](uint32_t value, int count) {
        std::string out;
        for (int i = count - 1; i >= 0; --i)
            out += static_cast<char>(value >> (8 * i));
        return out;
    };
    const bool extended = time >= 0xFFFFFF;
    return channel + low(extended ? 0xFFFFFF : time, 3) + low(static_cast<uint32_t>(size), 3) + type + "\1\0\0\0"s +
           (extended ? low(time, 4) : "");
}
std::string video(const std::string& body, uint32_t time) { return header(6, body.size(), 9, time) + body; }
std::string audio(const std::string& body, uint32_t time) { return header(7, body.size(), 8, time) + body; }

}  // namespace

TEST(RtmpSession, RefusesAndAccepts) {
    const auto message = [](char type, char stream_low, char stream_next) {
        return "\4\0\0\0\0\0\1"s + type + stream_low + stream_next + "\0\0v"s;
    };
    const struct {
        std::string said;
        bool taken;
        const char* logged;
    } cases[] = {
        {message(9, 1, 0), true, ""},
        {message(8, 1, 0), true, ""},
        {message(9, 0, 1), false, "The server doesn't support stream ids bigger than 256"},
        {message(8, 0, 1), false, ""},
        {"\1\0\0"s, false, ""},                                // the three-byte form
        {"\0\xFE\0\0\0\0\0\4\3\0\0\0\0\0\0\0\1"s, true, ""},   // chunk stream 318
        {"\0\xFF\0\0\0\0\0\4\3\0\0\0\0\0\0\0\1"s, false, ""},  // 319
        {"\2\0\0\0\0\0\6\4\0\0\0\0\0\5\0\0\0\0"s, false, "Unable to deserialize message"},
        {"\2\0\0\0\0\0\6\4\0\0\0\0\0\1\0\0\0\0"s, false, "Unable to send rtmp message to application"},  // an event
        {"\2\0\0\0\0\0\4\1\0\0\0\0\0\0\0\0"s, false,
         "Unable to send rtmp message to application"},     // chunks of no byte
        {"\2\0\0\0\0\0\5\3\0\0\0\0\0\0\0\1!"s, false, ""},  // a byte behind the message
        {rtmp_player::command("publish", 4, 1), false, "Unable to send rtmp message to application"},
        {rtmp_player::command("play", 4, 2), false, "rtmp: recv play for unknown stream id: 2"},
        {rtmp_player::command("seek", 4, 1), true, ""},
        {rtmp_player::command("deleteStream", 4, 0), true, ""},
        {rtmp_player::command("FCPublish", 4, 0) + rtmp_player::command("releaseStream", 4, 0), true, ""},
        {rtmp_player::command("onStatus", 4, 0) + rtmp_player::command("checkBandwidth", 4, 0), true, ""},
        {rtmp_player::command("_result", 4, 0) + rtmp_player::command("_error", 4, 0), true, ""},
    };
    for (const auto& [said, taken, logged] : cases) {
        const test::log_keeper log("rtmp");
        rtmp_player player;
        player.connect();
        player.sent();
        EXPECT_EQ(player.say(said), taken) << said;
        EXPECT_EQ(player.sent(), "") << said;
        EXPECT_NE(log.lines.find(logged), std::string::npos) << log.lines;
        EXPECT_EQ(player.session->error(), !taken);
    }
}

TEST(RtmpSession, AnswersCommands) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"anything", {"_error", "error", "NetConnection.Call.Failed"}},
        {"getStreamLength", {"_result"}},
        {"play", {"\1\0\0\0\0\0\x40\0\0"s, "NetStream.Play.Reset", "NetStream.Play.Start", "|RtmpSampleAccess"}},
    };
    for (const auto& [name, parts] : cases) {
        rtmp_player player;
        player.connect();
        EXPECT_TRUE(player.say(rtmp_player::command(name, 4, 1)));
        const std::string answer = player.sent();
        size_t at = 0;
        for (const std::string& part : parts) {
            at = answer.find(part, at);
            EXPECT_NE(at, std::string::npos) << name << ' ' << part;
        }
    }
    rtmp_player player;
    EXPECT_FALSE(player.session->SendPlayStop());
    player.play();
    EXPECT_TRUE(player.session->SendPlayStop());
    EXPECT_NE(player.sent().find("NetStream.Play.Stop"), std::string::npos);
    EXPECT_FALSE(player.session->playing() || player.session->FeedVideoData(bytes("v").data(), 1, 0));
    EXPECT_TRUE(player.say(rtmp_player::command("play", 4, 1) + rtmp_player::command("connect", 5, 0)));
    EXPECT_FALSE(player.session->playing() || player.say(rtmp_player::command("play", 6, 1)));
}

TEST(RtmpSession, HoldsLittleUntilTheHandshakeIsDone) {
    const size_t before = core_mem_bytes();
    rtmp_player player;
    for (const std::string& said : {"\3"s, std::string(1535, 'x')})
        EXPECT_TRUE(player.say(said));
    EXPECT_LE(core_mem_bytes() - before, 8192U);
    EXPECT_EQ(player.session->waiting(), 0U);
    EXPECT_TRUE(player.say("x") && player.say(std::string(1535, 'y')) && player.session->handshaken());
    EXPECT_LE(core_mem_bytes() - before, 8192U);
    EXPECT_TRUE(player.say("y" + rtmp_player::command("connect", 1, 0)) && player.session->connected());
}

TEST(RtmpSession, EndsWithAPlayerThatDoesNotReadItsAnswers) {
    rtmp_player player;
    player.connect();
    const std::string ping = "\2\0\0\0\0\0\6\4\0\0\0\0\0\6\0\0\0\1"s;
    uint32_t count = 0;
    while (count < 100000 && player.say(ping))
        ++count;
    EXPECT_LE(player.session->waiting(), 68 * 1024U);
    EXPECT_TRUE(player.session->error());
}

TEST(RtmpSession, AcknowledgesEachWindow) {
    rtmp_player player;
    player.connect();
    EXPECT_TRUE(player.say("\2\0\0\0\0\0\4\5\0\0\0\0\0\0\x10\0"s));
    player.sent();
    std::string acks;
    for (int i = 0; i < 300; ++i) {
        EXPECT_TRUE(player.say("\4\0\0\0\0\0\x10\x9\1\0\0\0"s + std::string(16, 'v')));
        acks += player.sent();
    }
    EXPECT_EQ(acks.size(), 300U * 28 / 4096 * 16);
}

TEST(RtmpSession, SendsMediaByItsOwnCalls) {
    rtmp_player player;
    player.play();
    Rtmp& session = *player.session;
    const auto sound = [&](const char* fcc, uint32_t rate, uint32_t channels, uint32_t bits) {
        av::frame_t frame = test::borrowed(av::fcc(reinterpret_cast<const char(&)[5]>(*fcc)), bytes("s"));
        frame.rate = rate;
        frame.channels = channels;
        frame.bits = bits;
        return session.Feed(&frame);
    };
    const std::string config = "\x12\x10";
    const auto* set = bytes(sps).data();
    const struct {
        bool done;
        std::string sent;
    } cases[] = {
        {session.FeedH264Caps(set, 10, bytes(pps).data(), 4, 7),
         video("\x17\0\0\0\0\1\x42\xC0\x0A\xFF\xE1\0\x0A"s + sps + "\1\0\4"s + pps, 7)},
        {session.FeedH264(bytes("\x65k").data(), 2, 0xFFFFFE, 0x10203), video("\x17\1\1\2\3\0\0\0\2\x65k"s, 0xFFFFFE)},
        {session.FeedH264(bytes("\x41p").data(), 2, 0xFFFFFF, 0), video("\x27\1\0\0\0\0\0\0\2\x41p"s, 0xFFFFFF)},
        {session.FeedH264(set, 10, 0, 0), ""},
        {session.FeedAACCaps(bytes(config).data(), 2, 0x1000000), audio("\xAF\0"s + config, 0x1000000)},
        {session.FeedAAC(bytes("a").data(), 1, 0xFFFFFFFF), audio("\xAF\1"s + "a", 0xFFFFFFFF)},
        {session.FeedMP4V(bytes("m").data(), 1, 1, false), video("\x29\1\0\0\0m"s, 1)},
        {sound("PCMU", 8000, 1, 8), audio("\x80s", 0)},
        {sound("PCMU", 44100, 2, 16), audio("\x8Fs", 0)},
        {sound("PCMU", 11025, 1, 0), audio("\x84s", 0)},
        {sound("mp3 ", 48000, 2, 0), audio("\x2Fs", 0)},
    };
    std::string expected;
    for (const auto& each : cases) {
        EXPECT_TRUE(each.done);
        expected += each.sent;
    }
    EXPECT_EQ(player.sent(), expected);
    EXPECT_FALSE(session.FeedH264Caps(set, 3, set, 1, 0) || session.FeedH264Caps(set, 10, set, 0, 0));
    const std::string endless(0xFFFFFF, 'v');
    const test::log_keeper log("rtmp");
    EXPECT_FALSE(session.FeedH264(bytes("\x65" + endless).data(), 0x1000000, 0, 0));
    const std::string picture = key_picture() + code + "\x65" + endless;
    const av::frame_t frames[] = {test::borrowed(av::fcc("META"), bytes("m")),
                                  test::borrowed(av::fcc_h264, bytes(picture)),
                                  test::borrowed(av::fcc_pcmu, bytes(endless))};
    for (const av::frame_t& each : frames)
        EXPECT_FALSE(session.Feed(&each));
    EXPECT_TRUE(std::regex_match(log.lines, std::regex("(.*Unable to send video ){2}.*Unable to send audio ")));
    EXPECT_EQ(player.sent(), "");
}

TEST(RtmpChunks, BeginWithAHeadAndRepeatItForNewParameterSets) {
    Chunks chunks(CORE_HERE);
    rtmp_player player;
    player.play();
    const auto cut = [&](const std::string& unit, uint64_t time, uint32_t shown_after = 0) {
        av::frame_t frame = test::borrowed(av::fcc_h264, bytes(unit), time);
        frame.shown_after = shown_after;
        return chunks.cut(&frame);
    };
    EXPECT_EQ(cut(code + "\x41", 0), 0);
    EXPECT_EQ(chunks.head().size, 0U);
    chunks.set_start(1000000);
    const std::string slices =
        video("\x17\1\0\0\x50\0\0\0\4\x65one"s, 40) + video("\x17\1\0\0\x50\0\0\0\4\x65two"s, 40);
    EXPECT_EQ(cut(key_picture(), 1040000, 80000), 1);
    EXPECT_EQ(text(chunks.bytes()), slices);
    const std::string first = text(chunks.head());
    for (const char* key : {"onMetaData\x08", "width", "height", "videocodecid\x02", "avc1", "1970-01-01 00:00:01.040"})
        EXPECT_NE(first.find(key), std::string::npos) << key;
    EXPECT_TRUE(first.ends_with(video("\x17\0\0\0\0\1\x42\xC0\x0A\xFF\xE1\0\x0A"s + sps + "\1\0\4"s + pps, 40)));

    EXPECT_TRUE(player.session->Feed(chunks, nullptr));
    EXPECT_EQ(player.sent(), first + slices);
    EXPECT_TRUE(player.session->Feed(chunks, nullptr));
    EXPECT_EQ(player.sent(), slices);
    EXPECT_EQ(cut(key_picture(pps + "!"), 1080000), 1);
    buffer_t lent;
    EXPECT_TRUE(player.session->Feed(chunks, &lent));
    EXPECT_TRUE(player.sent().ends_with(pps + "!") && text(lent) == text(chunks.bytes()));

    chunks.set_whole_pictures(true);
    EXPECT_EQ(cut(key_picture(), 500000), 1);
    EXPECT_EQ(text(chunks.bytes()), video("\x17\1\0\0\0\0\0\0\4\x65one\0\0\0\4\x65two"s, 0));
}

TEST(RtmpChunks, KeepTheTimeOfLongStreams) {
    constexpr uint64_t start = 1448466450000000;
    Chunks chunks(CORE_HERE);
    chunks.set_start(start);
    for (const uint64_t ms : {0xFFFFFEULL, 0xFFFFFFULL, 0xFFFFFFFFULL, 0x100000000ULL, 0x100000028ULL}) {
        const av::frame_t frame = test::borrowed(av::fcc("mp3 "), bytes("s"), start + 1000 * ms);
        EXPECT_EQ(chunks.cut(&frame), 1);
        EXPECT_EQ(text(chunks.bytes()), audio("\x2Es", static_cast<uint32_t>(ms)));
    }
    // A message above the chunk size repeats the time on the chunk that continues it.
    const std::string large(inet::rtmp::media_chunk_size, 's');
    const av::frame_t frame = test::borrowed(av::fcc("mp3 "), bytes(large), start + 0x1000000000);
    EXPECT_EQ(chunks.cut(&frame), 1);
    const uint32_t time = chunks.timestamp();
    EXPECT_GE(time, 0xFFFFFFU);
    EXPECT_EQ(text(chunks.bytes()).substr(16 + large.size()), "\xC7" + header(7, 0, 8, time).substr(12) + "s");
}

TEST(RtmpStreamName, IsSoughtFromTheWholePathToItsEnd) {
    const struct {
        const char *app, *url, *name;
        std::vector<std::string> names;
    } cases[] = {
        {"live", "rtmp://h/live", "", {"live"}},
        {"live?key=1", "rtmp://h/live?key=1", "", {"live"}},
        {"app", "rtmp://h/app", "mp4:live?x=/y", {"app/live", "live"}},
        {"", "rtmp://h:1/", "live", {"live"}},
        {"", "rtmp://h/yard/north", nullptr, {"yard/north", "north"}},
        {"a/b/", "", "/c%20d/e", {"a/b/c d/e", "b/c d/e", "c d/e", "e"}},
        {nullptr, nullptr, nullptr, {}},
    };
    for (const auto& [app, url, name, names] : cases) {
        const inet::rtmp::play_t play{.app = app, .tc_url = url, .name = name, .start = -2, .length = -1};
        char out[32];
        uint32_t which = 0;
        for (const std::string& each : names)
            EXPECT_EQ(inet::rtmp::stream_name(play, which++, out, sizeof out) > 0 ? out : "", each);
        EXPECT_EQ(inet::rtmp::stream_name(play, which, out, sizeof out), 0U);
    }
}
