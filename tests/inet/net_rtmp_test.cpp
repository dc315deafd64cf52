#include "inet/net_rtmp.h"

#include "rtmp_owner.h"
#include "support/network_thread.h"
#include "support/sockets.h"

#include <gtest/gtest.h>

namespace {

using namespace test;
using std::string;

constexpr uint8_t audio = 8, video = 9, data = 18, aggregate = 22;
const string config = string("\x01\x42\xc0\x1e\xff\xe1\0\x03gSS\x01\0\x02hP", 16);  // SPS "gSS", PPS "hP"

string sequence(const string& record = config) { return message(video, string("\x17\0\0\0\0", 5) + record); }
string nal(const string& bytes, int length_size = 4) { return big_endian(bytes.size(), length_size) + bytes; }
/// A message of a picture: '1' for a key frame, '2' for another one.
string picture(char kind, const string& nals, uint32_t time, int shown_after = 0) {
    return message(
        video, string{static_cast<char>(kind << 4 | 7), 1} + big_endian(static_cast<uint32_t>(shown_after), 3) + nals,
        time);
}
string sound(const string& body, uint32_t time = 0) { return message(audio, body, time); }
/// A message inside another one.
string tag(uint8_t type, const string& body, uint32_t time) {
    return big_endian(type, 1) + big_endian(body.size(), 3) + big_endian(time & 0xffffff, 3) +
           big_endian(time >> 24, 1) + big_endian(0, 3) + body + big_endian(11 + body.size(), 4);
}
/// A text of 1000 characters, and references to it.
string repeats(int count) {
    string out = "\x11\x09" + big_endian((0x8000 | (count >> 6) << 8 | (count & 0x3f) << 1) + 1, 2) + '\1';
    out += "\6\x8f\x51" + string(1000, 'a');
    while (--count > 0)
        out += string("\6\0", 2);
    return out;
}

}  // namespace

TEST(RtmpClient, ReadsUrls) {
    const string longest(255, 'h');
    const std::pair<string, string> cases[] = {
        {"rtmp://h/live/1?key=a/b", "0 h 0 live 1?key=a/b"},
        {"RTMPE://h:80/a/b/c", "2 h 80 a b/c"},
        {"rtmpt://h/a", "1 h 0 a "},
        {"rtmpte://h", "3 h 0  "},
        {"rtmps://h:65535/", "4 h 65535  "},
        {"rtmpts://h:/a/", "5 h 0 a "},
        {"rtmfp://h/a//b", "8 h 0 a /b"},
        {"tcp://h/a/b", "0 h 0 a b"},
        {"rtmp://h/a/inst/?x=1&slist=mp4:dir/f&y=2", "0 h 0 a/inst mp4:dir/f"},
        {"rtmp://h/a?slist=", "0 h 0 a "},
        {"rtmp://h/ondemand/dir/f.mp4", "0 h 0 ondemand mp4:dir/f.mp4"},
        {"rtmp://h/ondemand/mp4:f.mp4?t=1", "0 h 0 ondemand mp4:f.mp4?t=1"},
        {"rtmp://h/ondemand/f.MP3", "0 h 0 ondemand mp3:f"},
        {"rtmp://h/ondemand/f.flv", "0 h 0 ondemand f"},
        {"rtmp://h/live/f.flv", "0 h 0 live f.flv"},
        {"rtmp://" + longest + "/a", "0 " + longest + " 0 a "},
        {"rtmp://h" + longest + "/a", ""},
        {"rtmp://h:65536/a", ""},
        {"rtmp://h:8x/a", ""},
        {"rtmp://", ""},
        {"rtmp:/h/a/b", ""},
    };
    for (const auto& [url, parts] : cases) {
        const rtmp_player player;
        net::ProtocolRtmp& of = *player.session;
        const bool read = of.parse_url(url.c_str()) == 1;
        const string all = std::to_string(of.protocol()) + " " + of.host() + " " + std::to_string(of.port()) + " " +
                           of.application() + " " + of.play_path();
        EXPECT_EQ(read ? all : "", parts) << url;
    }
}

TEST(RtmpClient, AsksAsItIsSet) {
    const string longer(70000, 'p');
    const string codecs = name("capabilities") + number(15) + name("audioCodecs") + number(3191) + name("videoCodecs") +
                          number(252) + name("videoFunction") + number(1);
    const string fpad = name("fpad") + string("\1\0", 2);
    const string app = name("app") + text("live");
    const string tc = name("tcUrl") + text("rtmp://h/live");
    struct case_t {
        net::rtmp_settings_t with;
        string properties;
    } const cases[] = {
        {{}, app + tc + fpad + codecs},
        {{.flash_ver = "F", .swf_url = "s", .page_url = "p", .tc_url = "", .encoding = 3},
         app + name("flashVer") + text("F") + name("swfUrl") + text("s") + fpad + codecs + name("pageUrl") + text("p") +
             name("objectEncoding") + number(3)},
        {{.page_url = "p", .tc_url = "t", .application = "x", .encoding_set = true, .nonprivate = true},
         name("app") + text("x") + name("type") + text("nonprivate") + name("tcUrl") + text("t") +
             name("objectEncoding") + number(0)},
        {{.page_url = longer.c_str()}, app + tc + fpad + codecs + name("pageUrl") + text(longer)},
    };
    for (const case_t& each : cases) {
        rtmp_player player(each.with);
        ASSERT_EQ(player.session->handshake(), 1);
        player.feed(hello());
        string body = text("connect") + number(1) + object(each.properties);
        string expected = string("\3\0\0\0", 4) + big_endian(body.size(), 3) + "\x14" + string(4, '\0');
        for (; body.size() > 128; body.erase(0, 128))
            expected += body.substr(0, 128) + "\xc3";
        EXPECT_EQ(player.sent[0], 3);
        EXPECT_EQ(player.sent.substr(1537, 1536), string(1536, 's'));  // the echo of S1
        EXPECT_EQ(player.sent.substr(3073), expected + body);
        EXPECT_EQ(player.session->send_packet(3, 20, 0, {nullptr, 0}), 0) << "a message without a body";
    }
    const string too_long(128 * 1024, 'p');
    rtmp_player player({.page_url = too_long.c_str()});
    player.session->handshake();
    player.feed(hello());
    EXPECT_TRUE(player.events.starts_with("end6:")) << player.events;
}

TEST(RtmpClient, AnswersTheServer) {
    const string call = text("_checkbw") + number(4) + null();
    const std::pair<string, string> cases[] = {
        {message(4, big_endian(6, 2) + "ping"), big_endian(7, 2) + "ping"},
        {message(6, big_endian(5000, 4) + "\2"), big_endian(5000, 4)},
        {command("onBWDone", 0, null()), call},
        {command("_onbwcheck", 7, ""), text("_result") + number(7) + null() + number(0)},
        {message(5, big_endian(64, 4)), big_endian(agreed().size() + 16, 4)},
    };
    for (const auto& [bytes, answer] : cases) {
        rtmp_player player;
        player.session->handshake();
        player.feed(agreed());
        EXPECT_TRUE(player.sent.find(text("play") + number(3) + null() + text("1") + number(-2)) != string::npos);
        player.sent.clear();
        player.feed(bytes);
        player.feed(message(3, "none"));
        EXPECT_EQ(player.sent.substr(std::min<size_t>(12, player.sent.size())), answer);
    }
}

TEST(RtmpClient, MakesFramesOfMedia) {
    const string aac = sound(string("\xaf\0\x12\x10", 4));
    const string head = agreed() + status("onStatus", 0, "NetStream.Play.Start");
    const string known = sequence();
    const string first = "playing [7|gSS|hP] ";
    const std::pair<string, string> cases[] = {
        // Sets of the header stand before key pictures, once, behind a delimiter.
        {known +
             picture(1,
                     nal("\x09"
                         "A") +
                         nal("\x06S") + nal("eK"),
                     9, 40) +
             picture(2, nal("A"), 49) + picture(1, nal("eK"), 89),
         first + "|\x09"
                 "A|gSS|hP|\x06S|eK@0K+40 |A@40 |gSS|hP|eK@80K "},
        {known + known + picture(1, nal("gSS") + nal("hP") + nal("eK"), 0), first + "|gSS|hP|eK@0K "},
        {known + picture(1, nal("gNN") + nal("hP") + nal("eK"), 0) + picture(1, nal("eK"), 1),
         first + "[7|gNN|hP] |gNN|hP|eK@0K |gNN|hP|eK@1K "},
        // A NAL unit a message, and pictures that their timestamps do not tell apart.
        {known + picture(1, nal("gSS"), 5) + picture(1, nal("eK"), 5) + picture(1, nal("e\x01"), 5) +
             picture(2, nal("A\x81"), 6),
         first + "|gSS|hP|eK|e\x01@0K |A\x81@1 "},
        {known + picture(1, nal("e\x81"), 5) + picture(2, nal("A\x81"), 5), first + "|gSS|hP|e\x81@0K |A\x81@0 "},
        {sequence("\x01\x42\xc0\x1e\xfd" + config.substr(5)) + picture(1, nal("eK", 2), 0), first + "|gSS|hP|eK@0K "},
        {picture(1, nal("eK"), 0) + known, first},
        {known + picture(1, nal("eK"), 0, -40), first + "|gSS|hP|eK@0K "},
        {message(video, "\x22x") + message(video, "\x22x"), "playing [2?] "},
        {message(video, "\x90hvc1") + message(video, "\xa1hvc1") + message(video, "\xa3hvc1"), "playing [0?] "},
        {known + picture(1, nal("eK"), 0) + message(video, "\x22x") + picture(2, nal("A"), 1) + known +
             picture(1, nal("eK"), 2),
         first + "|gSS|hP|eK@0K [2?] [7|gSS|hP] |gSS|hP|eK@2K "},
        // Times go on over 24 and 32 bits, for both tracks together.
        {known + picture(1, nal("eK"), 0xfffff0) + picture(2, nal("A"), 0x1000010), first + "|gSS|hP|eK@0K |A@32 "},
        {aac + sound("\xaf\1a", 0xfffffff0) + sound("\xaf\1b", 0x10) + known + picture(1, nal("eK"), 0x20) +
             sound("\xaf\1"
                   "c",
                   0xffffffe0),
         "playing [10\x12\x10@44100/2] a@0 b@32 [7|gSS|hP] c@-16 |gSS|hP|eK@48K "},
        {sound("\x82u", 0x7ffffff0) + sound("\x82v", 0x10) + sound("\x82w", 0x80000020),
         "playing [8@8000/1] u@0 v@32 w@48 "},
        {message(aggregate,
                 tag(audio, string("\xaf\0\x12\x10", 4), 7) + tag(audio, "\xaf\1a", 7) + tag(data, "", 8) +
                     tag(audio, "\xaf\1b", 27),
                 100) +
             sound("\xaf\1"
                   "c",
                   140),
         "playing [10\x12\x10@44100/2] a@0 b@20 c@40 "},
        {sound("\xaf\1a") + sound("\x2f\xff\xfb\x94\x64") + sound("\x82u") + sound("\x86v") + sound("\x72w"),
         "playing [2@48000/2] \xff\xfb\x94\x64@0 [8@8000/1] u@0 [8@11025/1] v@0 [7@8000/1] w@0 "},
        {message(data, text("@setDataFrame") + text("onMetaData") + object(name("width") + number(2))) +
             message(data, text("onMetaData")),
         "playing about:1 "},
        {message(data, text("onMetaData") + repeats(40)) + message(data, text("onMetaData") + repeats(4000)) +
             message(aggregate,
                     tag(data, text("onMetaData") + object(""), 0) +
                         tag(data,
                             text("onMetaData") + object(name("a") + text(string(65000, 'a'))) + string(600, '\5'), 0)),
         "playing about:40 about:0 "},
        // What is wrong ends it.
        {known + picture(1, big_endian(3, 4) + "eK", 0),
         first + "end5:a NAL unit of the video is longer than its message "},
        {sequence("\x01"), "playing end5:the sequence header of the video is malformed "},
        {message(aggregate, tag(audio, "ab", 0).substr(0, 12)),
         "playing end5:a message inside another one is longer than that "},
        {known + picture(1, nal("eK"), 0) + status("onStatus", 0, "NetStream.Play.Stop") + picture(1, nal("eK"), 1),
         first + "|gSS|hP|eK@0K end4:the server has ended the stream: NetStream.Play.Stop "},
        {sound("\x82u") + message(4, big_endian(1, 2) + big_endian(1, 4)),
         "playing [8@8000/1] u@0 end4:the server has ended the stream "},
    };
    for (const auto& [bytes, expected] : cases) {
        rtmp_player player;
        player.session->handshake();
        player.feed(head + bytes);
        EXPECT_EQ(player.seen(), expected);
    }
}

TEST(RtmpClient, TellsOnceWhyItEnded) {
    const string asked = hello() + message(1, big_endian(0x400000, 4));
    const std::pair<string, string> cases[] = {
        {"HTTP/1.1 400", "end5:the server does not speak RTMP: version 72 "},
        {asked + status("_error", 1, "NetConnection.Connect.Rejected", "error"),
         "end2:the server refuses the application: NetConnection.Connect.Rejected "},
        {asked + status("_result", 1, "x") + status("_error", 2, "x"), "end2:the server refuses the stream: x "},
        {asked + status("_result", 1, "x") + command("_result", 2, null() + number(0)),
         "end5:the server has made no stream "},
        {agreed() + status("onStatus", 0, "NetStream.Play.StreamNotFound"),
         "end3:the server has no such stream: NetStream.Play.StreamNotFound "},
        {agreed() + status("onStatus", 0, "Odd\n", "error"), "end2:the server refuses the stream: Odd  "},
        {agreed() + command("close", 0, null()), "end4:the server has closed the conversation "},
        {asked + message(20, "?"), "end5:a command of the server is malformed "},
        {asked + message(4, "?"), "end5:a user control message is cut short "},
        {agreed() + message(video, "").replace(4, 3, "\x80\0\1", 3), "end5:a message of the server is too long "},
        {agreed() + message(1, string(4, '\0')), "end5:the server sends chunks of no size "},
        {agreed(), "end1:the connection was closed "},
    };
    for (const auto& [bytes, expected] : cases) {
        rtmp_player player;
        player.session->handshake();
        player.feed(bytes);
        player.session->close();
        player.session->close();
        EXPECT_EQ(player.events, expected);
    }
}

TEST(RtmpClient, ConnectsOverTcp) {
    struct owner_t : rtmp_player {
        callback over;
        void on_rtmp_ended(net::ProtocolRtmp* rtmp, net::rtmp_end_t why, const char* words) noexcept override {
            rtmp_player::on_rtmp_ended(rtmp, why, words);
            session.reset();  // from inside its call
            callback::run(&over);
        }
    };
    const network_thread nt;
    owner_t served, alone;
    tcp_socket listener;
    ASSERT_EQ(net_tcp_listen(listener, "127.0.0.1", 0), 0);
    const auto connect = [&](owner_t& owner) {
        owner.session->parse_url(
            ("rtmp://127.0.0.1:" + std::to_string(net_socket_get_near_port(listener)) + "/live/1").c_str());
        nt.run([&] { EXPECT_EQ(owner.session->connect(nt), 0); });
    };
    connect(served);
    ASSERT_TRUE(await(listener, watch::read));
    {
        const tcp_socket server(net_socket_accept(listener, nullptr, CORE_HERE));
        string bytes = agreed() + sound("\x82u");
        net_tcp_send_buffer(server, {reinterpret_cast<uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())});
        string asked;
        while (asked.find("play") == string::npos && await(server, watch::read)) {
            char room[4096];
            buf_t came{reinterpret_cast<uint8_t*>(room), sizeof room, 0};
            net_tcp_recv(server, came);
            asked.append(room, came.length);
        }
    }
    ASSERT_TRUE(served.over.reaches(1));
    EXPECT_EQ(served.events, "playing [8@8000/1] u@0 end1:127.0.0.1 closed the connection ");
    const int port = net_socket_get_near_port(listener);
    listener.close();
    alone.session->parse_url(("rtmp://127.0.0.1:" + std::to_string(port)).c_str());
    nt.run([&] { EXPECT_EQ(alone.session->connect(nt), 0); });
    ASSERT_TRUE(alone.over.reaches(1));
    EXPECT_EQ(alone.events, "end0:127.0.0.1 cannot be reached ");
    EXPECT_EQ(rtmp_player({}, "rtmps://h/").session->connect(nt, "127.0.0.1"), -2);
}
