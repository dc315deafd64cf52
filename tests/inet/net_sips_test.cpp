// The relay between two clients, byte for byte, and what it does not put up with.
#include "inet/net_sips.h"

#include "sip/relay.h"
#include "support/files.h"
#include "support/log_keeper.h"
#include "support/network_thread.h"
#include "support/sockets.h"

#include "core/time.h"

#include <atomic>
#include <filesystem>

namespace {

std::string fields_of(const std::string& method, const std::string& from, const std::string& to) {
    return "Via: SIP/2.0/TCP h;branch=1\r\nVia: SIP/2.0/TCP g;branch=2\r\nFrom: <sip:" + from +
           "@h>;tag=1\r\nTo: <sip:" + to + "@h>\r\nCall-ID: c\r\nContact: <sip:" + from + "@h:9>\r\nCSeq: 7 " + method +
           "\r\n";
}
std::string ask(const std::string& method, const std::string& from, const std::string& to, const std::string& body = "",
                const std::string& uri = "sip:any") {
    return method + " " + uri + " SIP/2.0\r\n" + fields_of(method, from, to) +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}
std::string answer(const std::string& status, const std::string& method, const std::string& from,
                   const std::string& to) {
    return "SIP/2.0 " + status + "\r\n" + fields_of(method, from, to) +
           "Allow: ACK, BYE, CANCEL, INVITE, MESSAGE, OPTIONS\r\nUser-Agent: Norvane-K Sip Server\r\n"
           "Content-Length: 0\r\n\r\n";
}
/// An INVITE as it is forwarded.
std::string routed(std::string invite, unsigned port) {
    return invite.insert(invite.find("\r\n") + 2,
                         "Record-Route: <sip:127.0.0.1:" + std::to_string(port) + ";transport=tcp;lr>\r\n");
}
std::string notify(const std::string& user, int number, const std::string& names) {
    return "NOTIFY sip:" + user + "@127.0.0.1 SIP/2.0\r\nTo: <sip:" + user +
           "@127.0.0.1>\r\nFrom: <sip:resource@127.0.0.1>\r\nCSeq: " + std::to_string(number) +
           " NOTIFY\r\nUser-Agent: Norvane-K Sip Server\r\nContent-Type: application/pidf-xml\r\nContent-Length: " +
           std::to_string(names.size()) + "\r\n\r\n" + names;
}

struct table {
    explicit table(std::initializer_list<const char*> of = {"anna", "boris", "clara"}) {
        for (const char* name : of)
            users = core_value_put(users, name, "", CORE_HERE);
    }
    ~table() { core_value_free(users); }
    value_t** users = nullptr;
};

std::string hear(const test::player& client, size_t size) {
    std::string heard;
    while (heard.size() < size && !heard.ends_with("closed"))
        heard += client.ask();
    return heard;
}

struct row {
    char who;
    std::string says, anna, boris;
};

TEST(SipServer, RelaysBetweenTwoClients) {
    const test::network_thread nt;
    const table names;
    const test::log_keeper log("sip.server,console");
    net::SipServer* const server = net_sipsrv_open_at(nt, names.users, test::free_port(), CORE_HERE);
    ASSERT_NE(net_sipsrv_port(server), 0u);
    const auto port = static_cast<uint16_t>(net_sipsrv_port(server));
    const test::player anna(port), boris(port);
    const std::string options = ask("OPTIONS", "anna", "anna"),
                      refused = answer("405 Method Not Allowed", "OPTIONS", "anna", "anna");
    const std::string own = "SIP/2.0 299 Own words\r\n" + fields_of("INVITE", "anna", "boris");
    const std::string rest = answer("", "", "", "").substr(answer("", "", "", "").find("Allow"));
    const std::string ends = "f: sip:anna@h\r\nt: sip:clara@h\r\n", via = "Via: " + std::string(3000, 'v') + "\r\n",
                      vast_field = "x: " + std::string(4043, 'x') + "\r\n\r\n",
                      too_large = "SIP/2.0 513 Message Too Large\r\n";
    const row rows[] = {
        {'a', ask("REGISTER", "%61nna:word", "anna"), answer("200 OK", "REGISTER", "%61nna:word", "anna"), ""},
        {'a', ask("REGISTER", "nobody", "nobody"), answer("404 Not Found", "REGISTER", "nobody", "nobody"), ""},
        {'a', ask("SUBSCRIBE", "anna", "anna"), answer("200 OK", "SUBSCRIBE", "anna", "anna") + notify("anna", 1, "[]"),
         ""},
        {'a', ask("INVITE", "anna", "boris"), answer("480 Temporarily Unavailable", "INVITE", "anna", "boris"), ""},
        {'a', ask("INVITE", "anna", "nobody") + std::string("$\0\0\2ab", 6) + "junk\r\nl: 9999\r\n\r\n" + options,
         refused, ""},
        {'b', ask("REGISTER", "boris", "boris"), notify("anna", 2, "[\"boris\"]"),
         answer("200 OK", "REGISTER", "boris", "boris")},
        {'b', "REGISTER x SIP/2.0\r\nf: sip:boris@h\r\nm: <sip:old>;expires=0\r\nm: <sip:new>\r\n\r\n",
         notify("anna", 3, "[\"boris\"]"),
         "SIP/2.0 200 OK\r\nFrom: sip:boris@h\r\nContact: <sip:old>;expires=0\r\nContact: <sip:new>\r\n" + rest},
        {'a', ask("INVITE", "anna", "boris", "v=0\r\n"), answer("100 Trying", "INVITE", "anna", "boris"),
         routed(ask("INVITE", "anna", "boris", "v=0\r\n", "sip:boris@127.0.0.1"), port)},
        {'b', own + "Content-Length: 1\r\n\r\n!", own + "Content-Length: 1\r\n\r\n!", ""},
        {'a', "ACK sip:x SIP/2.0\r\n" + fields_of("ACK", "anna", "boris") + "\r\n", "",
         "ACK sip:boris@127.0.0.1 SIP/2.0\r\nContent-Length: 0\r\n" + fields_of("ACK", "anna", "boris") + "\r\n"},
        {'b', ask("BYE", "boris", "anna"), ask("BYE", "boris", "anna", "", "sip:anna@127.0.0.1"), ""},
        {'b', ask("BYE", "boris", "clara"), "", answer("480 Temporarily Unavailable", "BYE", "boris", "clara")},
        {'b', ask("INVITE", "clara", "anna"), routed(ask("INVITE", "clara", "anna", "", "sip:anna@127.0.0.1"), port),
         answer("100 Trying", "INVITE", "clara", "anna")},
        {'a', ask("BYE", "anna", "boris"), answer("480 Temporarily Unavailable", "BYE", "anna", "boris"), ""},
        {'a', "BYE x SIP/2.0\r\nf: sip:anna@h\r\nt: sip:clara@h\r\nl:\r\n 2\r\n\r\nhi", "",
         "BYE sip:clara@127.0.0.1 SIP/2.0\r\nf: sip:anna@h\r\nt: sip:clara@h\r\nl:\r\n 2\r\n\r\nhi"},
        {'a', "BYE x SIP/2.0\r\n" + ends + vast_field, too_large + "From: sip:anna@h\r\nTo: sip:clara@h\r\n" + rest,
         ""},
        {'a', "BYE x SIP/2.0\r\n" + via + ends + "\r\n",
         too_large + via + "From: sip:anna@h\r\nTo: sip:clara@h\r\n" + rest, ""},
        {'b', "SIP/2.0 200 OK\r\nf: sip:anna@h\r\n" + vast_field, "", ""},
        {'a', "\r\n\r\n", "\r\n", ""},
    };
    for (const row& each : rows) {
        SCOPED_TRACE(each.says);
        (each.who == 'a' ? anna : boris).say(each.says);
        EXPECT_EQ(hear(anna, each.anna.size()), each.anna);
        EXPECT_EQ(hear(boris, each.boris.size()), each.boris);
    }
    boris.say("GET x SIP/2.0\r\nl: no\r\n\r\n");
    EXPECT_TRUE(hear(boris, 1000).starts_with("SIP/2.0 400 Bad Request\r\nAllow: "));
    EXPECT_EQ(hear(boris, 1), "closed");
    const test::player endless(port), vast(port);
    endless.say(std::string(5000, 'x'));
    vast.say("BYE x SIP/2.0\r\nContent-Length: 65537\r\n\r\n");
    EXPECT_EQ(hear(endless, 1), "closed");
    EXPECT_EQ(hear(vast, 1), "closed");
    net_sipsrv_close(server);
    EXPECT_EQ(hear(anna, 1), "closed");
    for (const std::string& line :
         {"sipsrv: listen " + std::to_string(port), std::string("регистрация boris - 127.0.0.1:"),
          std::string("перерегистрация clara на порт 127.0.0.1:u"), std::string("sip.server:OPTIONS - не реализован"),
          std::string("console:sip server: OPTIONS - не реализован")})
        EXPECT_NE(log.lines.find(line), std::string::npos) << line;
}

TEST(SipServer, NoticesThatItsPortIsTaken) {
    const test::network_thread nt;
    const test::log_keeper log("error,console");
    const unsigned port = test::free_port();
    net::SipServer* const first = net_sipsrv_open_at(nt, nullptr, port, CORE_HERE);
    net::SipServer* const second = net_sipsrv_open_at(nt, nullptr, port, CORE_HERE);
    EXPECT_EQ(net_sipsrv_port(second), 0u);
    EXPECT_NE(log.lines.find("error:sipsrv: port " + std::to_string(port)), std::string::npos);
    net_sipsrv_close(second);
    net_sipsrv_close(first);
}

std::atomic<uint64_t> clock_now = 1'600'000'000'000'000;

TEST(SipServer, ClosesWhoKeepsItWaiting) {
    core_time_set_clock([] { return clock_now.load(); });
    {
        const test::network_thread nt;
        const table names;
        net::SipServer* const server = net_sipsrv_open_at(nt, names.users, test::free_port(), CORE_HERE);
        const auto port = static_cast<uint16_t>(net_sipsrv_port(server));
        const test::player half(port), idle(port);
        EXPECT_EQ(half.ask("\r\n\r\nBYE x SIP/2.0\r\n"), "\r\n");
        clock_now += 40'000'000;
        EXPECT_EQ(idle.ask("\r\n\r\n"), "\r\n");
        EXPECT_EQ(hear(half, 1), "closed");
        net_sipsrv_close(server);
    }
    core_time_set_clock(nullptr);
}

TEST(SipServer, GivesUpWhoDoesNotRead) {
    const table names;
    sip::relay relay(names.users, CORE_HERE);
    relay.expect(2);
    sip::party anna, boris;
    relay.take(boris, ask("REGISTER", "boris", "boris"));
    const std::string call = ask("INVITE", "anna", "boris", std::string(65536, 'v'));
    for (int i = 0; i < 17; ++i)
        EXPECT_EQ(relay.take(anna, call), call.size());
    EXPECT_TRUE(boris.lost && !anna.lost);
    EXPECT_LE(boris.out.length, sip::relay::most_output);
}

TEST(SipServer, KeepsWhoIsBehindWithPresence) {
    const table names;
    sip::relay relay(names.users, CORE_HERE);
    relay.expect(2);
    sip::party anna, boris;
    relay.take(boris, ask("REGISTER", "boris", "boris") + ask("SUBSCRIBE", "boris", "boris"));
    while (!anna.lost)
        relay.take(anna, ask("REGISTER", "anna", "anna"));
    EXPECT_FALSE(boris.lost);
    core_buf_ignore(&boris.out, boris.out.length);
    relay.catch_up(boris);
    EXPECT_TRUE(std::string(boris.out.data, boris.out.data + boris.out.length).ends_with("[\"anna\"]"));
    core_buf_ignore(&boris.out, boris.out.length);
    relay.catch_up(boris);
    EXPECT_EQ(boris.out.length, 0U);
}

/// The messages of RFC 4475, where they are. Some of them register, call and ring their users.
TEST(SipServer, LivesThroughTortureMessages) {
    std::error_code missing;
    const std::filesystem::path folder(INET_TEST_TORTURE);
    if (!std::filesystem::is_directory(folder, missing)) GTEST_SKIP() << "no " << folder;
    const test::network_thread nt;
    const table names{"anna", "caller", "user", "j.user", "watson", "other", "jdrosen", "vivekg", "a.g.bell"};
    net::SipServer* const server = net_sipsrv_open_at(nt, names.users, test::free_port(), CORE_HERE);
    const auto port = static_cast<uint16_t>(net_sipsrv_port(server));
    const std::pair<const char*, const char*> answers[] = {{"intmeth", "404"}, {"longreq", "404"},  {"mcl01", "400"},
                                                           {"ncl", "400"},     {"regescrt", "200"}, {"wsinv", "480"}};
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
        SCOPED_TRACE(file.path().string());
        const test::player hostile(port), anna(port);
        hostile.say(test::read_file(file.path().string()));
        EXPECT_TRUE(anna.ask(ask("OPTIONS", "anna", "anna")).starts_with("SIP/2.0 405 "));
        for (const auto& [name, status] : answers) {
            if (file.path().stem() != name) continue;
            EXPECT_TRUE(hostile.ask().starts_with(std::string("SIP/2.0 ") + status));
        }
    }
    net_sipsrv_close(server);
}

}  // namespace
