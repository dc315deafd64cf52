// The SIP agent on its messages: what it answers and tells, row by row.
#include "support/files.h"
#include "support/log_keeper.h"
#include "support/network_thread.h"
#include "support/sockets.h"

#include "avc/fcc.h"
#include "inet/sip_owner.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>

namespace {

constexpr char invite[] = "INVITE sip:bob@10.0.0.1 SIP/2.0\r\n$HCSeq: 1 INVITE\r\nContent-Length: 0\r\n\r\n";
constexpr char cancel[] = "CANCEL sip:bob@10.0.0.1 SIP/2.0\r\n$HCSeq: 1 CANCEL\r\n\r\n";

/// A request in the call that `invite` began.
std::string within(std::string method, std::string branch, std::string tag = "atag", std::string more = "\r\n",
                   std::string number = "2") {
    return method + " sip:bob@10.0.0.1 SIP/2.0\r\nv: SIP/2.0/UDP 10.0.0.9;branch=z9hG4bK" + branch +
           "\r\nf: <sip:alice@10.0.0.1>;tag=" + tag + "\r\nt: <sip:bob@10.0.0.1>;tag=$T\r\ni: c1\r\nCSeq: " + number +
           " " + method + "\r\n" + more;
}

/// An OPTIONS outside of calls, with what stands for its Via and its Call-ID.
std::string asks(std::string via, std::string call_id) {
    return "OPTIONS sip:bob@h SIP/2.0\r\n" + via +
           "\r\nFrom: <sip:a@h>;tag=a\r\nTo: <sip:bob@h>\r\nCall-ID: " + call_id + "\r\nCSeq: 1 OPTIONS\r\n\r\n";
}

/// An answer to what the agent asked last.
std::string answer(std::string status, std::string method, std::string more = "", std::string tag = "far") {
    return "SIP/2.0 " + status +
           " x\r\nVia: SIP/2.0/UDP 1.2.3.4:5062;branch=$B;received=7.7.7.7;rport=99\r\n"
           "From: <sip:bob@10.0.0.1>;tag=$T\r\nTo: <sip:alice@10.0.0.1>;tag=" +
           tag + "\r\nCall-ID: $I\r\nCSeq: $N " + method + "\r\n" + more + "\r\n";
}

const std::string challenge = "WWW-Authenticate: Digest realm=\"r\", nonce=\"n\", qop=\"auth,auth-int\"\r\n";
const std::string reliable = "Require: 100rel\r\nRSeq: 7\r\n";
const std::string way = "Record-Route: <sip:p1;lr>, <sip:p2;lr>\r\nm: \"A, B\" <sip:a@7.7.7.7:99;x=y>;q=1\r\n";
const std::string sound_alone =
    "INVITE sip:bob@h SIP/2.0\r\n$HCSeq: 1 INVITE\r\nc: application/sdp\r\nl: 93\r\n\r\n"
    "m=audio 4 RTP/SAVP 0\r\nm=audio 4 RTP/AVP 0 8\r\nm=video 0 RTP/AVP 96\r\nm=text 5/2 RTP/AVP 98 99\r\n";
const std::string other_formats =
    "INVITE sip:bob@h SIP/2.0\r\n$HCSeq: 1 INVITE\r\nc: application/sdp\r\nl: 138\r\n\r\n"
    "m=audio 4 RTP/AVP 8\r\nm=audio 6 RTP/AVPF 0\r\nm=video 8 RTP/AVP 96 97\r\na=rtpmap:96 VP8/90000\r\n"
    "a=rtpmap:97 H264/90000\r\nm=video 10 RTP/AVP 96\r\n";
const std::string plain = "c: application/dtmf\r\nl: ";
const std::string relay = "Content-Type: application/dtmf-relay\r\nContent-Length: 9\r\n\r\nSignal= #";

/// The third comes before the second, and the ninth is one more than may wait for its answer.
std::vector<std::string> much_progress() {
    std::vector<std::string> steps = {"!invite"};
    for (const int number : {7, 9, 8, 9, 10, 11, 12, 13, 14, 15})
        steps.push_back(answer("183", "INVITE", "Require: 100rel\r\nRSeq: " + std::to_string(number) + "\r\n"));
    return steps;
}

/// An INVITE with fields of its own.
std::string invite_with(const std::string& fields, const std::string& body = "") {
    return "INVITE sip:bob@10.0.0.1 SIP/2.0\r\n$HCSeq: 1 INVITE\r\n" + fields +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

const std::string many = [] {
    std::string fields("X: 1");
    for (int i = 1; i < 128; ++i)
        fields += "\r\nX: 1";
    return fields;
}();

struct row {
    const char* name;
    std::vector<std::string> steps;
    const char* story;
    const char* said = "";  ///< stands in what was asked last, or sent last
    int transport = net::sip_udp;
};

TEST(NetSip, AnswersAndTells) {
    const row rows[] = {
        {"registered", {answer("100", "REGISTER"), answer("200", "REGISTER")}, "call7|account0|"},
        {"challenged",
         {answer("401", "REGISTER", challenge), answer("200", "REGISTER")},
         "REGISTER|account0|",
         "CSeq: 1 REGISTER"},
        {"doubled challenge",
         {answer("401", "REGISTER", challenge), answer("401", "REGISTER", challenge), answer("200", "REGISTER")},
         "REGISTER|account0|"},
        {"late challenges",
         {"!tick600", answer("401", "REGISTER", challenge), answer("401", "REGISTER", challenge + "X: 1\r\n"),
          answer("200", "REGISTER")},
         "REGISTER|REGISTER|account0|"},
        {"late challenges, refused",
         {"!tick600", answer("401", "REGISTER", challenge), answer("401", "REGISTER", challenge + "X: 1\r\n"),
          answer("401", "REGISTER", challenge + "X: 2\r\n")},
         "REGISTER|REGISTER|call8|"},
        {"refused",
         {answer("401", "REGISTER", challenge), answer("401", "REGISTER", challenge + "X: 1\r\n")},
         "REGISTER|call8|"},
        {"refused alike",
         {answer("401", "REGISTER", challenge), answer("401", "REGISTER", challenge), "!tick600",
          answer("401", "REGISTER", challenge)},
         "REGISTER|REGISTER|call8|"},
        {"refused alike, then not at all",
         {answer("401", "REGISTER", challenge), answer("401", "REGISTER", challenge), "!tick500", "!tick2000"},
         "REGISTER|REGISTER|call8|"},
        {"taken for a copy",
         {answer("401", "REGISTER", challenge), answer("401", "REGISTER", challenge), "!tick600",
          answer("200", "REGISTER"), "!tick31000", answer("401", "REGISTER", challenge)},
         "REGISTER|REGISTER|account0|REGISTER|REGISTER|",
         "CSeq: 4 REGISTER"},
        {"too brief", {answer("423", "REGISTER", "Min-Expires: 300\r\n")}, "call4|REGISTER|", "Expires: 300\r\n"},
        {"dead connection",
         {"!tick31000", "!tick2000"},
         "account1|REGISTER|",
         "Contact: <sip:bob@1.2.3.4:5062;transport=tcp>\r\n",
         net::sip_tcp},
        {"hung up without a connection",
         {invite, "!accept", within("ACK", "a"), "!tick31000", "!bye", "!tick2000"},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|account1|call2|REGISTER|BYE|",
         "",
         net::sip_tcp},
        {"given up without a connection",
         {"!invite", answer("100", "INVITE", "", ""), "!tick31000", "!bye", "!tick2000"},
         "INVITE|account1|call2|REGISTER|CANCEL|",
         "",
         net::sip_tcp},
        {"unknown branch", {"SIP/2.0 200 OK\r\nVia: SIP/2.0/UDP h;branch=z9hG4bKno\r\nCSeq: 1 REGISTER\r\n\r\n"}, ""},
        {"resent", {"!tick600", "!tick900", "!tick200"}, "REGISTER|REGISTER|"},
        {"refresh", {answer("200", "REGISTER"), "!tick31000"}, "account0|REGISTER|"},
        {"rings", {invite, invite}, "SIP/2.0 180 Ringing|call1|SIP/2.0 180 Ringing|"},
        {"taken",
         {invite, "!accept", within("ACK", "a"), "!tick700", within("BYE", "b"), within("BYE", "b")},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|REGISTER|SIP/2.0 200 OK|call2|SIP/2.0 200 OK|"},
        {"seen from outside",
         {answer("200", "REGISTER"), invite, "!accept"},
         "account0|SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|",
         "c=IN IP4 1.2.3.4\r\nm=audio"},
        {"sound alone",
         {sound_alone, "!accept"},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|",
         "Content-Length: 180\r\n\r\nv=0\r\no=bob 0 0 IN IP4 1.2.3.4\r\ns=Norvane-K\r\nt=0 0\r\nc=IN IP4 1.2.3.4\r\n"
         "m=audio 0 RTP/SAVP 0\r\nm=audio 0 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\nm=video 0 RTP/AVP 96\r\nm=text 0 "
         "RTP/AVP 98 99\r\n"},
        {"formats of others",
         {other_formats, "!accept"},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|",
         "m=audio 0 RTP/AVP 8\r\nm=audio 0 RTP/AVPF 0\r\na=rtpmap:0 PCMU/8000\r\nm=video 0 RTP/AVP 97\r\n"
         "a=rtpmap:97 H264/90000\r\na=sendrecv\r\nm=video 0 RTP/AVP 96\r\n"},
        {"lost ACK",
         {invite, "!accept", "!tick600"},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|REGISTER|SIP/2.0 200 OK|"},
        {"no ACK", {invite, "!accept", "!tick33000"}, "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|REGISTER|BYE|call2|"},
        {"declined, and rung again by one who hunts",
         {invite, "!decline", "ACK sip:bob@h SIP/2.0\r\n$HCSeq: 1 ACK\r\n\r\n", "!tick6000",
          "INVITE sip:bob@h SIP/2.0\r\nv: SIP/2.0/UDP h;branch=z9hG4bKb\r\n$HCSeq: 1 INVITE\r\n\r\n"},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 486 Busy Here|REGISTER|SIP/2.0 180 Ringing|call1|"},
        {"cancelled",
         {invite, cancel, cancel},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|SIP/2.0 487 Request Terminated|call2|SIP/2.0 200 OK|"},
        {"ended before it is taken",
         {invite, within("BYE", "b"), "!tick600"},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|SIP/2.0 487 Request Terminated|call2|REGISTER|"
         "SIP/2.0 487 Request Terminated|"},
        {"guessed tags",
         {invite, "!accept", within("INVITE", "x", "guess"),
          "CANCEL sip:bob@10.0.0.1 SIP/2.0\r\nv: SIP/2.0/UDP 10.0.0.9:5060;branch=z9hG4bKpeer\r\n"
          "f: <sip:alice@10.0.0.1>;tag=guess\r\nt: <sip:bob@10.0.0.1>\r\ni: c1\r\nCSeq: 1 CANCEL\r\n\r\n"},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|SIP/2.0 481 Call/Transaction Does Not Exist|"
         "SIP/2.0 481 Call/Transaction Does Not Exist|"},
        {"subscribed anew",
         {"!subscribe", answer("200", "SUBSCRIBE"), "!unsubscribe", answer("200", "SUBSCRIBE"), "!subscribe"},
         "SUBSCRIBE|SUBSCRIBE|SUBSCRIBE|",
         "To: <sip:alice@10.0.0.1>\r\n"},
        {"guessed tag",
         {invite, "!accept", within("BYE", "b", "guess")},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|SIP/2.0 481 Call/Transaction Does Not Exist|"},
        {"digit",
         {invite, "!accept", within("INFO", "i", "atag", relay)},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|SIP/2.0 200 OK|digit11|"},
        {"other digits",
         {invite, "!accept", within("INFO", "i", "atag", plain + "2\r\n\r\n21"),
          within("INFO", "j", "atag", plain + "1\r\n\r\n*")},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|SIP/2.0 200 OK|digit21|SIP/2.0 200 OK|digit10|"},
        {"options in a call",
         {invite, "!accept", within("OPTIONS", "o"), within("BYE", "b")},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|SIP/2.0 200 OK|SIP/2.0 200 OK|call2|"},
        {"set up anew",
         {invite, "!accept", within("ACK", "a"), within("INVITE", "again")},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|SIP/2.0 200 OK|"},
        {"set up anew, an ACK lost",
         {invite, "!accept", within("INVITE", "again"), within("ACK", "a", "atag", "\r\n", "1"), "!tick600"},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|SIP/2.0 200 OK|REGISTER|SIP/2.0 200 OK|",
         "CSeq: 2 INVITE"},
        {"come by two ways",
         {invite, "!accept",
          "INVITE sip:bob@h SIP/2.0\r\nv: SIP/2.0/UDP h;branch=z9hG4bKb\r\n$HCSeq: 1 INVITE\r\n\r\n"},
         "SIP/2.0 180 Ringing|call1|SIP/2.0 200 OK|SIP/2.0 482 Loop Detected|"},
        {"too many fields", {asks("Via: SIP/2.0/UDP h\r\n" + many, "1")}, "SIP/2.0 400 Bad Request|"},
        {"way back",
         {asks("Via : SIP / 2.0/UDP h ;i=7;branch=z9hG4bKa, SIP/2.0/UDP b\r\nv\t: SIP/2.0/TCP c", "1")},
         "SIP/2.0 200 OK|",
         "Via: SIP/2.0/UDP h:5060;branch=z9hG4bKa;received=10.0.0.9;rport=5060;i=7\r\nVia: SIP/2.0/UDP b\r\n"
         "Via: SIP/2.0/TCP c\r\nMax"},
        {"without a branch of its own",
         {asks("Via: SIP/2.0/UDP h;branch=z9hG4bK", "1"), asks("Via: SIP/2.0/UDP h;branch=z9hG4bK", "2")},
         "SIP/2.0 200 OK|SIP/2.0 200 OK|",
         "Call-ID: 2"},
        {"requires what we have", {invite_with("Require: 100rel,replaces\r\n")}, "SIP/2.0 180 Ringing|call1|"},
        {"requires more",
         {invite_with("Require: a, 100REL\r\nRequire: b\r\n")},
         "SIP/2.0 420 Bad Extension|",
         "Unsupported: a, b\r\n"},
        {"unknown method", {within("PRACK", "p")}, ""},
        {"contradiction", {"OPTIONS sip:bob@h SIP/2.0\r\n$HCSeq: 1 INVITE\r\n\r\n"}, "SIP/2.0 400 Bad Request|"},
        {"short body",
         {"OPTIONS sip:bob@h SIP/2.0\r\n$HCSeq: 1 OPTIONS\r\nContent-Length: 9\r\n\r\n"},
         "SIP/2.0 400 Bad Request|"},
        {"called",
         {"!invite", answer("180", "INVITE"), answer("200", "INVITE"), answer("200", "INVITE"), "!bye"},
         "INVITE|call6|ACK|call0|ACK|BYE|call2|"},
        {"called, challenged",
         {"!invite", answer("401", "INVITE", challenge), answer("486", "INVITE")},
         "INVITE|INVITE|ACK|call5|",
         "CSeq: 2 INVITE"},
        {"called, refused by another",
         {"!invite", answer("180", "INVITE"), answer("486", "INVITE", "", "other")},
         "INVITE|call6|ACK|call5|",
         "To: <sip:alice@10.0.0.1>;tag=other\r\n"},
        {"called, nobody there", {"!invite", answer("404", "INVITE")}, "INVITE|ACK|call4|"},
        {"no answer", {"!invite", "!tick33000"}, "INVITE|REGISTER|call4|"},
        {"given up", {"!invite", "!bye", "!tick600", answer("100", "INVITE")}, "INVITE|call2|REGISTER|INVITE|CANCEL|"},
        {"given up, ringing on",
         {"!invite", answer("180", "INVITE"), "!bye", answer("401", "BYE", challenge), answer("200", "BYE"),
          "!tick2100", answer("200", "CANCEL"), "!tick33000"},
         "INVITE|call6|BYE|call2|BYE|REGISTER|CANCEL|REGISTER|"},
        {"given up, and taken much later",
         {"!invite", answer("180", "INVITE"), "!bye", answer("481", "BYE"), "!tick2100", answer("405", "CANCEL"),
          "!tick29000", "!tick29000", answer("200", "INVITE")},
         "INVITE|call6|BYE|call2|REGISTER|CANCEL|REGISTER|REGISTER|ACK|BYE|"},
        {"taken by two",
         {"!invite", answer("200", "INVITE"), answer("200", "INVITE", "", "other"),
          answer("200", "INVITE", "", "other"), answer("200", "BYE"), "!digit"},
         "INVITE|ACK|call0|ACK|BYE|ACK|INFO|",
         ">;tag=far\r\n"},
        {"reliable progress",
         {"!invite", answer("183", "INVITE", reliable), answer("183", "INVITE", reliable), answer("200", "PRACK"),
          answer("200", "INVITE")},
         "INVITE|PRACK|call6|call6|ACK|call0|",
         "RAck: 7 1 INVITE\r\n"},
        {"reliable progress out of order, and more of it than is asked for", much_progress(),
         "INVITE|PRACK|call6|call6|PRACK|call6|PRACK|call6|PRACK|call6|PRACK|call6|PRACK|call6|PRACK|call6|PRACK|call6|"
         "call6|",
         "RAck: 14 1 INVITE\r\n"},
        {"reliable progress past a server",
         {"!invite", answer("183", "INVITE", reliable + way), answer("404", "PRACK")},
         "INVITE|PRACK|call6|PRACK|",
         "PRACK sip:a@7.7.7.7:99;x=y SIP/2.0\r\n"},
        {"a server that does not route",
         {"!invite", answer("200", "INVITE", way), answer("200", "INVITE", way), answer("200", "INVITE", way), "!bye",
          answer("404", "BYE"), answer("404", "BYE")},
         "INVITE|ACK|call0|ACK|ACK|ACK|BYE|call2|BYE|",
         "BYE sip:a@7.7.7.7:99;x=y SIP/2.0\r\n"},
        {"its proxies",
         {"!invite", answer("200", "INVITE", way), "!digit", answer("480", "INFO")},
         "INVITE|ACK|call0|INFO|INFO|",
         "Route: <sip:p2;lr>\r\nRoute: <sip:p1;lr>\r\nContent"},
        {"vanished",
         {"!invite", answer("200", "INVITE"), "!tick119000", "!tick1000", answer("200", "OPTIONS"), "!tick120000",
          "!tick32000"},
         "INVITE|ACK|call0|REGISTER|REGISTER|OPTIONS|REGISTER|OPTIONS|REGISTER|BYE|call2|"},
        {"gone unnoticed",
         {"!invite", answer("200", "INVITE"), "!tick120000", answer("481", "OPTIONS")},
         "INVITE|ACK|call0|REGISTER|OPTIONS|call4|"},
        {"gone, and its server knows",
         {"!invite", answer("200", "INVITE", way), "!tick120000", answer("404", "OPTIONS"), answer("404", "OPTIONS")},
         "INVITE|ACK|call0|REGISTER|OPTIONS|OPTIONS|call4|"},
        {"not there in time",
         {"!invite", answer("200", "INVITE"), "!digit", answer("408", "INFO")},
         "INVITE|ACK|call0|INFO|call4|"},
        {"a digit refused",
         {"!invite", answer("200", "INVITE"), "!digit", answer("415", "INFO"), "!bye"},
         "INVITE|ACK|call0|INFO|BYE|call2|"},
        {"digits out",
         {"!invite", answer("200", "INVITE"), "!mode1", "!digit"},
         "INVITE|ACK|call0|INFO|",
         "\r\n\r\nSignal=D\r\nDuration=250"},
    };
    for (size_t i = 0; i < 2 * std::size(rows); ++i) {
        const row& each = rows[i / 2];
        SCOPED_TRACE(each.name);
        test::sip_owner owner(each.transport);
        owner.hangs_up = i % 2;
        owner.story.clear();
        for (const std::string& step : each.steps)
            owner.feed(step);
        EXPECT_EQ(owner.story, each.story);
        const std::string said = owner.asked + (owner.sent.empty() ? "" : owner.sent.back());
        EXPECT_NE(said.find(each.said), std::string::npos) << said;
    }
}

TEST(NetSip, KnowsWhoHasNotHeardTheEnd) {
    test::sip_owner owner;
    std::string ending;
    const std::vector<std::string> steps = {"!invite",   answer("180", "INVITE"), "!bye", answer("200", "BYE"),
                                            "!tick2100", answer("200", "CANCEL")};
    for (const std::string& step : steps) {
        owner.feed(step);
        ending += std::to_string(net_sip_is_ending(owner.sip));
    }
    EXPECT_EQ(ending, "001110");
}

TEST(NetSip, KnowsWhoHoldsACall) {
    test::sip_owner owner;
    const std::string sdp = "c=IN IP4 10.0.0.9\r\nm=audio 4 RTP/AVP 0\r\n";
    owner.feed(invite_with("c: application/sdp\r\n", sdp));
    EXPECT_EQ(net_sip_user_holds(owner.party), 0) << "not taken yet";
    owner.feed("!accept");
    owner.feed(within("ACK", "a"));
    std::string held;
    uint32_t number = 2;
    for (const std::string& offer : {sdp, sdp + "a=sendonly\r\n", "c=IN IP4 0.0.0.0" + sdp.substr(17), sdp}) {
        const std::string length = "c: application/sdp\r\nl: " + std::to_string(offer.size()) + "\r\n\r\n";
        owner.feed(within("INVITE", "i" + std::to_string(number), "atag", length + offer, std::to_string(number)));
        held += std::to_string(net_sip_user_holds(owner.party));
        ++number;
    }
    EXPECT_EQ(held, "0110");
}

TEST(NetSip, WritesItsFieldsInOrder) {
    test::sip_owner owner;
    std::string names;
    for (size_t at = owner.asked.find("\r\n") + 2; owner.asked[at] != '\r'; at = owner.asked.find("\r\n", at) + 2)
        names += owner.asked.substr(at, owner.asked.find(':', at) - at) + " ";
    EXPECT_EQ(names,
              "Via Max-Forwards From To Contact Call-ID CSeq Allow Supported User-Agent Expires Content-Length ");
    EXPECT_TRUE(owner.asked.starts_with("REGISTER sip:10.0.0.1 SIP/2.0\r\nVia: SIP/2.0/UDP "));
    const test::log_keeper console("console");
    owner.feed(answer("200", "REGISTER"));
    EXPECT_EQ(console.lines, "console:sip: регистрация bob@10.0.0.1 успешна: 7.7.7.7 ");
    EXPECT_EQ(owner.account->contact_port, "99");
}

struct printed_row {
    std::vector<std::string> steps;
    const char* printed;
};

TEST(NetSip, PrintsWhatHappens) {
    const std::string text = "c: text/plain\r\nl: 2\r\n\r\nhi", caps = "Allow: INVITE\r\n";
    const printed_row rows[] = {
        {{answer("100", "REGISTER")}, "sip: поиск абонента: bob"},
        {{invite, "!accept", within("ACK", "a"), within("OPTIONS", "o"), within("MESSAGE", "m", "atag", text),
          within("INFO", "i", "atag", relay), within("PRACK", "p"), within("BYE", "b")},
         "sip: меня вызвали|связь установлена|проверка связи|СООБЩЕНИЕ: hi|ИНФО: Signal= #|sip: UNKNOWN - не "
         "реализован|"
         "связь остановлена"},
        {{invite, cancel}, "sip: меня вызвали|связь прервана"},
        {{"!invite", answer("180", "INVITE"), answer("200", "INVITE"), "!tick120000", answer("200", "OPTIONS", caps)},
         "sip: идёт вызов|sip: вызов принят, sdp:|sip: bob@10.0.0.1 поддерживаемые опции:\nINVITE"},
        {{"!invite", answer("404", "INVITE")}, "sip: абонент не найден"},
        {{"!invite", answer("480", "INVITE")}, "sip: абонент недоступен"},
        {{"!invite", answer("486", "INVITE")}, "sip: абонент занят. перезвоните позже"},
        {{"junk\r\n\r\n"}, "sip header parse failed:\njunk"},
        {{"NOTIFY sip:bob@h SIP/2.0\r\n$HCSeq: 1 NOTIFY\r\nl: 60\r\n\r\n"
          "<presence><tuple id='t'/><note>away</note></presence>       "},
         "NOTIFY: t - away"},
    };
    for (const printed_row& each : rows) {
        test::sip_owner owner;
        std::string printed;
        const uint32_t sink = core_log_sink_add(
            "console",
            [](void* to, const log_line_t* line) { static_cast<std::string*>(to)->append(line->text).append("|"); },
            &printed);
        for (const std::string& step : each.steps)
            owner.feed(step);
        core_log_sink_rem(sink);
        EXPECT_EQ(printed, std::string(each.printed) + "|");
    }
}

TEST(NetSip, BoundsAFloodOfCalls) {
    test::sip_owner owner;
    owner.feed(invite);
    owner.feed("!accept");
    for (int i = 0; i < 3000; ++i) {
        std::string each = owner.expand(invite);
        each.replace(each.find("peer"), 4, std::to_string(i));
        each.replace(each.find("Call-ID: c1"), 11, "Call-ID: " + std::to_string(i));
        owner.feed(each);
    }
    EXPECT_LE(owner.sip->requests.size(), sip::most_requests / 2);
    owner.story.clear();
    owner.feed(within("MESSAGE", "m", "stranger"));
    owner.by_server = true;
    owner.feed(within("MESSAGE", "m", "stranger"));
    owner.by_server = false;
    owner.feed(within("BYE", "b"));
    EXPECT_EQ(owner.story, "SIP/2.0 503 Service Unavailable|SIP/2.0 200 OK|SIP/2.0 200 OK|call2|");
    EXPECT_EQ(owner.sip->users.size(), sip::most_ringing);
    owner.feed("!tick181000");
    owner.feed("!tick33000");
    EXPECT_EQ(owner.sip->users.size(), 0U);
    EXPECT_EQ(owner.sip->sessions.size(), 2U);
}

struct description_row {
    const char* text;
    const char* video;  ///< payload type, address, port, port of RTCP; held
};

TEST(NetSip, ReadsDescriptions) {
    constexpr char head[] = "v=0\r\nc=IN IP4 10.0.0.9\r\n";
    const description_row rows[] = {
        {"m=video 4002 RTP/AVP 97 99\na=rtpmap:97 VP8/90000\na=rtpmap:99 h264/90000", "99 10.0.0.9 4002 4003"},
        {"m=video 4002 RTP/AVPF 96 97 98\r\na=rtpmap:96 H264/90000\r\na=fmtp:96 packetization-mode=0\r\n"
         "a=rtpmap:97 H264/90000\r\na=fmtp:97 profile-level-id=42e01f;packetization-mode=1\r\na=rtpmap:98 "
         "H264/90000\r\n"
         "a=fmtp:98 packetization-mode=1\r\na=rtcp:4010 IN IP4 10.0.0.7\r\n",
         "97 10.0.0.9 4002 4010 apart"},
        {"a=inactive\r\nm=video 4002/2 RTP/AVP 96\r\nc=IN IP4 10.0.0.8/127\r\na=rtpmap:96 H264/90000\r\n",
         "96 10.0.0.8 4002 4003 held"},
        {"m=video 4002 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=sendonly\r\n", "96 10.0.0.9 4002 4003 held"},
        {"a=sendonly\r\nm=video 4002 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=sendrecv\r\n", "96 10.0.0.9 4002 4003"},
        {"m=video 4002 RTP/SAVP 96\r\na=rtpmap:96 H264/90000\r\n", ""},
        {"m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n", ""},
        {"m=video 4002 RTP/AVP 96\r\na=rtpmap:99 H264/90000\r\n", ""},
        {"m=video 4002 RTP/AVP 97 96\r\n", "96 10.0.0.9 4002 4003"},
        {"m=video 4002 RTP/AVP 97\r\n", ""},
        {"m=video 4002 RTP/AVP 96\r\nc=IN IP4 phone.local\r\na=rtpmap:96 H264/90000\r\n", "96 0.0.0.0 4002 4003"},
        {"m=video 4002 RTP/AVP 96\r\nc=IN IP4 1.2.3\r\na=rtpmap:96 H264/90000\r\n", "96 0.0.0.0 4002 4003"},
    };
    for (const description_row& each : rows) {
        SCOPED_TRACE(each.text);
        const sip::target_t video = sip::read_description(std::string(head) + each.text).video;
        char address[net_addr_size];
        net_addr_ip(video.rtp, address, sizeof address);
        const std::string read = std::to_string(video.pt) + " " + address + " " +
                                 std::to_string(net_addr_port(video.rtp)) + " " +
                                 std::to_string(net_addr_port(video.rtcp)) + (video.receives ? "" : " held") +
                                 (sip::dotted(video.rtcp.sin_addr) == address ? "" : " apart");
        EXPECT_EQ(video.wanted ? read : "", each.video);
    }
}

TEST(NetSip, HearsDigitsBetweenSound) {
    struct taker final : sip::frame_taker {
        void on_frame(av::frame_t&) noexcept override { heard += "| "; }
        void on_digit(int code) noexcept override { heard += std::to_string(code) + " "; }
        std::string heard;
    } to;
    sip::channel audio(av::fcc_pcmu, to);
    sip::target_t target;
    target.wanted = true;
    audio.start(target, 0, {});
    char number = 0;
    // Each digit comes three times; 16 is none, and the last is cut.
    for (const std::string each : {"e1\x0b", "e1\x0b", "e1\x0b", "s2\x55", "e3\x05", "e3\x05", "e4\x10", "e5"}) {
        std::string packet("\x80\0\0\0\0\0\0\0\0\0\0\1", 12);
        packet[1] = each[0] == 'e' ? 101 : 0;
        packet[3] = ++number;
        packet[7] = each[1];
        if (each.size() > 2) packet += each.substr(2) + std::string(3, '\x0a');
        const buffer_t bytes{reinterpret_cast<uint8_t*>(packet.data()), static_cast<uint32_t>(packet.size())};
        static_cast<rtp::IPort&>(audio).on_rtp_packet(nullptr, bytes, false);
    }
    EXPECT_EQ(to.heard, "11 | 5 ");
}

struct channel_end final : sip::frame_taker {
    void on_frame(av::frame_t& frame) noexcept override { times.push_back(frame.time); }
    void on_digit(int) noexcept override {}
    std::vector<uint64_t> times;
};

TEST(NetSip, KeepsTimeWhenTheSenderChanges) {
    static uint64_t now = 1'000'000;
    core_time_set_clock([] { return now; });
    channel_end to;
    sip::channel audio(av::fcc_pcmu, to);
    sip::target_t target;
    target.wanted = true;
    audio.start(target, 0, {});
    const auto take = [&](char seq, char base, uint64_t passed, bool restarted) {
        std::string packet("\x80\0\0\0\0\0\0\0\0\0\0\1sound", 17);
        packet[3] = seq;
        packet[4] = packet[11] = base;
        packet[7] = static_cast<char>(seq * 16);
        now += passed;
        const buffer_t bytes{reinterpret_cast<uint8_t*>(packet.data()), static_cast<uint32_t>(packet.size())};
        static_cast<rtp::IPort&>(audio).on_rtp_packet(nullptr, bytes, restarted);
    };
    take(1, 1, 0, true);
    take(2, 1, 9'000, false);
    take(3, '\x90', 50'000, true);
    take(4, '\x90', 7'000, false);
    core_time_set_clock(nullptr);
    ASSERT_EQ(to.times.size(), 4U);
    for (uint64_t& each : to.times)
        each -= 1'000'000;
    EXPECT_EQ(to.times, (std::vector<uint64_t>{0, 2'000, 52'000, 54'000}));
}

TEST(NetSip, SendsUnderTheNumberThatIsAskedForLast) {
    const test::network_thread thread;
    const test::udp_socket peer;
    net_udp_listen(peer, "127.0.0.1", 0);
    const auto hear = [&] {
        uint8_t room[2048];
        buf_t bytes{room, sizeof room, 0};
        EXPECT_TRUE(test::await(peer, test::watch::read));
        net_udp_recv(peer, bytes, nullptr);
        return std::to_string(bytes.length) + " " + std::to_string(room[1] & 0x7f);
    };
    channel_end to;
    sip::channel video(av::fcc_h264, to);
    thread.run([&] {
        ASSERT_TRUE(video.open(thread, nullptr));
        sip::target_t target;
        video.start(target, 96, {});
        target.wanted = true;
        net_addr_setup(target.rtp, "127.0.0.1", net_socket_get_near_port(peer));
        for (const uint8_t pt : {uint8_t{97}, uint8_t{98}}) {
            target.pt = pt;
            video.start(target, 96, target.rtp.sin_addr);
        }
        video.tick(core_timer() + 3'100'000);
    });
    EXPECT_EQ(hear(), "12 98") << "the way back is not opened";
    thread.run([&] {
        uint8_t picture[] = {0, 0, 0, 1, 0x65, 1, 2, 3};
        av::frame_t frame{};
        frame.fcc = av::fcc_h264;
        frame.time = 1'000'000;
        frame.data = picture;
        frame.size = sizeof picture;
        rtp::Packets packets(CORE_HERE);
        packets.cut(&frame);
        video.send_pictures(packets);
        video.tick(core_timer() + 60'000'000);
    });
    EXPECT_EQ(hear(), "16 98");
    EXPECT_FALSE(test::found(peer, test::watch::read, 0)) << "what sends pictures needs no other sign";
    thread.run([&] { video.stop(); });
}

struct torture {
    std::string_view name;
    const char* status;  ///< "" for no answer: to responses, REGISTER and methods that are not known
    bool waits = false;  ///< for more bytes, where they are a stream
};

constexpr torture answers[] = {
    {"badaspec", "200"}, {"badbranch", "200"}, {"baddate", "180"},    {"baddn", "200"},      {"badinv01", "400"},
    {"badvers", "505"},  {"bcast", ""},        {"bext01", "420"},     {"bigcode", ""},       {"clerr", "400", true},
    {"cparam01", ""},    {"cparam02", ""},     {"dblreq", "180"},     {"esc01", "180"},      {"esc02", ""},
    {"escnull", ""},     {"escruri", "180"},   {"insuf", "400"},      {"intmeth", ""},       {"inv2543", "180"},
    {"invut", "180"},    {"longreq", "180"},   {"ltgtruri", "400"},   {"lwsdisp", "200"},    {"lwsruri", "400"},
    {"lwsstart", "400"}, {"mcl01", "400"},     {"mismatch01", "400"}, {"mismatch02", ""},    {"mpart01", "200"},
    {"multi01", "400"},  {"ncl", "400"},       {"noreason", ""},      {"novelsc", "416"},    {"quotbal", "400"},
    {"regaut01", ""},    {"regbadct", ""},     {"regescrt", ""},      {"scalar02", ""},      {"scalarlg", ""},
    {"sdp01", "180"},    {"semiuri", "200"},   {"test", ""},          {"transports", "200"}, {"trws", "400"},
    {"unkscm", "416"},   {"unksm2", ""},       {"unreason", ""},      {"wsinv", "481"},      {"zeromf", "200"},
};

/// The messages of RFC 4475, where they are.
TEST(NetSip, LivesThroughTortureMessages) {
    std::error_code missing;
    const std::filesystem::path folder(INET_TEST_TORTURE);
    if (!std::filesystem::is_directory(folder, missing)) GTEST_SKIP() << "no " << folder;
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
        SCOPED_TRACE(file.path().string());
        const std::string message = test::read_file(file.path().string());
        test::sip_owner udp, tcp(net::sip_tcp);
        udp.story.clear(), tcp.story.clear();
        udp.sip->take_datagram(*udp.account, message, udp.from);
        for (uint32_t used = 1, at = 0; used && at < message.size() && tcp.account->wire; at += used)
            used = tcp.sip->take_stream(*tcp.account, message.substr(at), tcp.from);
        const auto expected = std::ranges::find(answers, file.path().stem().string(), &torture::name);
        ASSERT_NE(expected, std::end(answers));
        EXPECT_EQ(udp.story.substr(0, 11), *expected->status ? "SIP/2.0 " + std::string(expected->status) : "");
        EXPECT_TRUE(expected->waits || tcp.story.starts_with(udp.story)) << tcp.story;
        if (!tcp.account->wire) tcp.feed("!tick2000");
        const std::string next = "OPTIONS sip:bob@h SIP/2.0\r\n$HCSeq: 9 OPTIONS\r\n\r\n";
        udp.story.clear(), tcp.story.clear();
        udp.feed(next);
        tcp.sip->take_stream(*tcp.account, tcp.expand(next), tcp.from);
        EXPECT_EQ(udp.story + tcp.story, "SIP/2.0 200 OK|SIP/2.0 200 OK|");
    }
}

}  // namespace
