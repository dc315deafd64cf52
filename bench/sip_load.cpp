// Phones on a SIP server over TCP, on one thread by epoll (Linux): pairs that call each other over and over, and others
// that have registered and are silent.
//
//   sip_load PORT [--pairs N] [--idle N] [--seconds S] [--pause MS]
//
// A call is INVITE, 200, ACK, BYE, 200, by way of the server. Each pair has one call at a time; --pause waits between
// its calls. Prints the calls, the seconds they took, and how long it was from INVITE to 200, in ms.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

constexpr std::string_view sdp =
    "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 40000 RTP/AVP 0 101\r\n"
    "a=rtpmap:0 PCMU/8000\r\na=rtpmap:101 telephone-event/8000\r\nm=video 40002 RTP/AVP 96\r\n"
    "a=rtpmap:96 H264/90000\r\na=sendrecv\r\n";

struct settings_t {
    unsigned port = 0, pairs = 50, idle = 0, seconds = 3, pause = 0;
};

enum class stage_t : uint8_t { registering, idle, calling, ending };

struct phone {
    int fd = -1;
    unsigned port = 0;
    std::string name, held;
    phone* callee = nullptr;  ///< of one that calls
    stage_t stage = stage_t::registering;
    unsigned calls = 0;
    clock_type::time_point begun = {}, due = {};
};

struct results_t {
    unsigned registered = 0;
    std::vector<double> delays;  ///< ms
};

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

std::string address(const phone& who) { return "<sip:" + who.name + "@127.0.0.1>"; }
std::string contact(const phone& who) {
    return "sip:" + who.name + "@127.0.0.1:" + std::to_string(who.port) + ";transport=tcp";
}

void say(const phone& who, const std::string& text) {
    // So little waits for so long that it always fits.
    if (send(who.fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) fail("send");
}

/// A request of a phone. Its branch and Call-ID are those of its call.
void ask(const phone& who, const std::string& method, unsigned number, const std::string& uri, const std::string& to,
         std::string_view more, std::string_view body = {}) {
    const std::string call = std::to_string(who.calls) + "." + std::to_string(who.port);
    std::string out = method + " " + uri + " SIP/2.0\r\nVia: SIP/2.0/TCP 127.0.0.1:" + std::to_string(who.port) +
                      ";branch=z9hG4bK" + method + call + ";rport\r\nMax-Forwards: 70\r\nFrom: " + address(who) +
                      ";tag=a" + call + "\r\nTo: " + to + "\r\nCall-ID: " + call +
                      "@load\r\nCSeq: " + std::to_string(number) + " " + method + "\r\nContact: <" + contact(who) +
                      ">\r\n";
    out.append(more).append("Content-Length: ").append(std::to_string(body.size())).append("\r\n\r\n").append(body);
    say(who, out);
}

void call(phone& who) {
    ++who.calls;
    who.stage = stage_t::calling;
    who.begun = clock_type::now();
    ask(who, "INVITE", 1, "sip:" + who.callee->name + "@127.0.0.1", address(*who.callee),
        "Content-Type: application/sdp\r\n", sdp);
}

/// The answer to a call or its end.
void accept(const phone& who, std::string_view head, bool invite) {
    std::string out = "SIP/2.0 200 OK\r\n";
    while (!head.empty()) {
        const std::string_view line = head.substr(0, head.find("\r\n") + 2);
        head.remove_prefix(line.size());
        for (const std::string_view name : {"Via:", "From:", "Call-ID:", "CSeq:", "Record-Route:"})
            if (line.starts_with(name)) out.append(line);
        if (!line.starts_with("To:")) continue;
        out.append(line.substr(0, line.size() - 2)).append(invite ? ";tag=b\r\n" : "\r\n");
    }
    out.append("Contact: <").append(contact(who)).append(">\r\n");
    if (invite) out.append("Content-Type: application/sdp\r\n");
    const std::string_view body = invite ? sdp : "";
    out.append("Content-Length: ").append(std::to_string(body.size())).append("\r\n\r\n").append(body);
    say(who, out);
}

void answered(phone& who, const settings_t& settings, results_t& results) {
    const auto now = clock_type::now();
    if (who.stage == stage_t::registering) {
        who.stage = stage_t::idle;
        ++results.registered;
    } else if (who.stage == stage_t::calling) {
        results.delays.push_back(std::chrono::duration<double, std::milli>(now - who.begun).count());
        who.stage = stage_t::ending;
        const std::string to = address(*who.callee) + ";tag=b";
        ask(who, "ACK", 1, contact(*who.callee), to, "");
        ask(who, "BYE", 2, contact(*who.callee), to, "");
    } else if (settings.pause == 0) {
        call(who);
    } else {
        who.stage = stage_t::idle;
        who.due = now + std::chrono::milliseconds(settings.pause);
    }
}

void take(phone& who, std::string_view head, const settings_t& settings, results_t& results) {
    if (head.starts_with("SIP/2.0 1") || head.starts_with("ACK ")) return;
    if (head.starts_with("INVITE ")) return accept(who, head, true);
    if (head.starts_with("BYE ")) return accept(who, head, false);
    if (head.starts_with("SIP/2.0 200")) return answered(who, settings, results);
    std::fprintf(stderr, "%s: %.*s\n", who.name.c_str(), static_cast<int>(head.size()), head.data());
    std::exit(1);
}

size_t body_size(std::string_view head) {
    const size_t at = head.find("\r\nContent-Length:");
    return at == std::string_view::npos ? 0 : std::strtoul(head.data() + at + 17, nullptr, 10);
}

void hear(phone& who, const settings_t& settings, results_t& results) {
    char room[65536];
    const ssize_t got = recv(who.fd, room, sizeof room, 0);
    if (got <= 0) fail(who.name.c_str());
    who.held.append(room, static_cast<size_t>(got));
    std::string_view rest = who.held;
    for (size_t end; (end = rest.find("\r\n\r\n")) != std::string_view::npos;) {
        const std::string_view head = rest.substr(0, end + 2);
        const size_t size = end + 4 + body_size(head);
        if (rest.size() < size) break;
        take(who, head, settings, results);
        rest.remove_prefix(size);
    }
    who.held.erase(0, who.held.size() - rest.size());
}

/// Connects and registers a phone.
void begin(phone& who, const settings_t& settings, int watch) {
    sockaddr_in server{}, own{};
    socklen_t size = sizeof own;
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<uint16_t>(settings.port));
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    who.fd = socket(AF_INET, SOCK_STREAM, 0);
    setsockopt(who.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(who.fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) fail("connect");
    getsockname(who.fd, reinterpret_cast<sockaddr*>(&own), &size);
    who.port = ntohs(own.sin_port);
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.ptr = &who;
    epoll_ctl(watch, EPOLL_CTL_ADD, who.fd, &wanted);
    ask(who, "REGISTER", 1, "sip:127.0.0.1", address(who), "Expires: 3600\r\n");
}

/// Serves the phones until then, or until all have registered.
void run(std::deque<phone>& phones, const settings_t& settings, results_t& results, int watch,
         clock_type::time_point until, bool registering) {
    epoll_event found[256];
    for (auto now = clock_type::now(); now < until; now = clock_type::now()) {
        if (registering && results.registered == phones.size()) return;
        const int count = epoll_wait(watch, found, 256, 1);
        for (int i = 0; i < count; ++i)
            hear(*static_cast<phone*>(found[i].data.ptr), settings, results);
        for (size_t i = 0; settings.pause && !registering && i < settings.pairs; ++i)
            if (phone& each = phones[2 * i]; each.stage == stage_t::idle && each.due <= now) call(each);
    }
}

double percentile(std::vector<double>& of, double part) {
    if (of.empty()) return 0;
    const auto at = of.begin() + static_cast<ptrdiff_t>(part * static_cast<double>(of.size() - 1));
    std::nth_element(of.begin(), at, of.end());
    return *at;
}

settings_t read(int argc, char** argv) {
    settings_t settings;
    if (argc > 1) settings.port = static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10));
    for (int i = 2; i + 1 < argc; i += 2) {
        const auto value = static_cast<unsigned>(std::strtoul(argv[i + 1], nullptr, 10));
        const std::string_view name = argv[i];
        if (name == "--pairs") settings.pairs = value;
        if (name == "--idle") settings.idle = value;
        if (name == "--seconds") settings.seconds = value;
        if (name == "--pause") settings.pause = value;
    }
    return settings;
}

}  // namespace

int main(int argc, char** argv) {
    const settings_t settings = read(argc, argv);
    const int watch = epoll_create1(0);
    std::deque<phone> phones(2 * settings.pairs + settings.idle);
    results_t results;
    for (size_t i = 0; i < phones.size(); ++i) {
        phones[i].name = "u" + std::to_string(i);
        if (i < 2 * settings.pairs && i % 2 == 0) phones[i].callee = &phones[i + 1];
        begin(phones[i], settings, watch);
    }
    run(phones, settings, results, watch, clock_type::now() + std::chrono::seconds(10), true);
    if (results.registered != phones.size()) {
        std::fprintf(stderr, "%u of %zu have registered\n", results.registered, phones.size());
        return 1;
    }
    for (size_t i = 0; i < settings.pairs; ++i)
        call(phones[2 * i]);
    const auto begun = clock_type::now();
    run(phones, settings, results, watch, begun + std::chrono::seconds(settings.seconds), false);
    const double took = std::chrono::duration<double>(clock_type::now() - begun).count();
    const size_t calls = results.delays.size();
    const double half = percentile(results.delays, 0.5), most = percentile(results.delays, 0.99);
    std::printf("calls=%zu seconds=%.3f setup_p50_ms=%.3f setup_p99_ms=%.3f\n", calls, took, half, most);
    return 0;
}
