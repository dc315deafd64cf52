// rtsp_load: many viewers of one RTSP address in one process (Linux). They look at the heads of packets only, so that
// the machine is left to the server, and what they counted is printed as one line of key=value.
//
//   rtsp_load URL [--viewers N] [--transport tcp|udp|udp-gro|http|multicast] [--seconds S] [--threads T] [--warmup S]
//             [--slow N] [--stall N] [--fps F] [--pid SERVER]
//
// With udp-gro the viewers take datagrams that the server sent in one piece in one piece (UDP_GRO, udp(7)): on the
// loopback the system else cuts them at the server's expense.
//
// Measuring begins when all viewers play, --warmup (2) seconds later. --slow adds connections that send a request of a
// byte a second, --stall viewers over TCP that stop reading. Pictures missing are told by timestamps, at --fps (25).
//
//   bytes, packets, lost   RTP of the video track: headers and payload; packets that never came
//   pictures, missing      that came, at least in part; that never came, by the steps between timestamps
//   fewest                 pictures of the client that got the fewest
//   delay_*_ms             of a picture beyond the fastest one of the same client, against its RTP timestamp
//   first_*_ms             from PLAY to the first complete key picture
//   rcvbuf_errors          datagrams that this machine dropped at full receivers
//   load_cpu, server_cpu   seconds, user and system; the second with --pid, and of it what the system took as
//   server_sys slow_closed            times that the server closed a slow connection, which is then opened again
//   stall_dropped          stalled viewers that the server had closed at the end
//
// Exit status 0 when every client played to the end, 1 when not; bad arguments 2.
#include "client.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <thread>
#include <time.h>
#include <vector>

namespace load {
namespace {

/// Viewers that one thread sets up at a time: servers listen with short queues.
constexpr size_t setting_up_limit = 8;
constexpr auto longest_ramp = std::chrono::seconds(120);

struct options {
    target server;
    unsigned viewers = 1;
    unsigned slow = 0;
    unsigned stall = 0;
    unsigned seconds = 10;
    unsigned warmup = 2;
    unsigned threads = 1;
    unsigned fps = 25;
    unsigned pid = 0;
};

enum class phase_t : uint8_t { ramp, measuring, over };

/// Shared by the threads.
struct course {
    std::atomic<phase_t> phase = phase_t::ramp;
    std::atomic<unsigned> settled = 0;  ///< viewers that play or failed
};

/// A thread with its share of the viewers.
class loader {
public:
    loader(const options& wanted, unsigned share_of, course& run)
        : server_(wanted.server), threads_(wanted.threads), index_(share_of), run_(run), epoll_(epoll_create1(0)) {
        stalled_server_ = server_;
        stalled_server_.transport = transport_t::tcp;
        add(share(wanted.slow), manner_t::slow);
        add(share(wanted.stall), manner_t::stall);
        add(share(wanted.viewers), manner_t::watch);
    }

    void start() { thread_ = std::thread(&loader::work, this); }
    void join() { thread_.join(); }

    /// After join().
    const std::vector<std::unique_ptr<client>>& clients() const { return clients_; }
    unsigned slow_closed() const { return slow_closed_; }
    unsigned stall_dropped() const { return stall_dropped_; }

private:
    unsigned share(unsigned all) const { return all / threads_ + (index_ < all % threads_ ? 1 : 0); }
    void add(unsigned count, manner_t manner) { wanted_.insert(wanted_.end(), count, manner); }

    void work() {
        int64_t second = clock_now() + 1'000'000;
        while (run_.phase != phase_t::over) {
            open_more();
            wait();
            if (clock_now() < second) continue;
            second += 1'000'000;
            on_second();
        }
        finish();
    }

    void open_more() {
        while (clients_.size() < wanted_.size() && setting_up_ < setting_up_limit) {
            clients_.push_back(make(wanted_[clients_.size()]));
            ++setting_up_;
            note_settled(*clients_.back(), client::state_t::setting_up);
        }
    }

    std::unique_ptr<client> make(manner_t manner) {
        const target& server = manner == manner_t::watch ? server_ : stalled_server_;
        return std::make_unique<client>(server, manner, epoll_.get());
    }

    void wait() {
        std::array<epoll_event, 256> events;
        const int count = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), 20);
        const bool measuring = run_.phase == phase_t::measuring;
        for (size_t i = 0; i < static_cast<size_t>(std::max(count, 0)); ++i) {
            client& one = *client::owner_of(events[i].data.ptr);
            const auto before = one.state();
            one.on_event(events[i].data.ptr, events[i].events, scratch_, measuring);
            note_settled(one, before);
        }
    }

    void note_settled(const client& one, client::state_t before) {
        if (before != client::state_t::setting_up || one.state() == before) return;
        --setting_up_;
        ++run_.settled;
    }

    void on_second() {
        for (auto& each : clients_) {
            each->on_second();
            if (each->manner() != manner_t::slow || each->state() != client::state_t::ended) continue;
            ++slow_closed_;
            each = make(manner_t::slow);
            // It was settled before and is not waited for again.
            ++setting_up_;
            --run_.settled;
        }
    }

    void finish() {
        for (auto& each : clients_)
            stall_dropped_ += each->manner() == manner_t::stall && each->was_dropped(scratch_);
    }

    const target& server_;
    target stalled_server_;
    const unsigned threads_;
    const unsigned index_;
    course& run_;
    descriptor epoll_;
    std::thread thread_;
    std::vector<manner_t> wanted_;
    std::vector<std::unique_ptr<client>> clients_;
    std::vector<uint8_t> scratch_ = std::vector<uint8_t>(256u << 10);
    size_t setting_up_ = 0;
    unsigned slow_closed_ = 0;
    unsigned stall_dropped_ = 0;
};

double seconds_of(const timespec& time) {
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// CPU time that a process has taken, all its threads, user and system; 0 when it is gone.
double cpu_time(unsigned pid) {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(static_cast<pid_t>(pid), &clock) != 0 || clock_gettime(clock, &time) != 0) return 0;
    return seconds_of(time);
}

/// Of it what the system took, to a hundredth of a second: the fifteenth field of /proc/PID/stat.
double system_time(unsigned pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(file, line);
    // Spaces may stand in the name, the second field.
    size_t at = std::min(line.rfind(')'), line.size());
    for (int field = 2; field < 15 && at != std::string::npos; ++field)
        at = line.find(' ', at + 1);
    if (at == std::string::npos) return 0;
    return std::strtod(line.c_str() + at, nullptr) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

/// Datagrams that found a receive buffer full, on the whole machine.
uint64_t receive_buffer_errors() {
    std::ifstream file("/proc/net/snmp");
    std::string names;
    std::string values;
    while (std::getline(file, names) && std::getline(file, values)) {
        if (!names.starts_with("Udp:")) continue;
        const auto before = names.substr(0, names.find("RcvbufErrors"));
        size_t at = 0;
        for (auto column = std::count(before.begin(), before.end(), ' '); column > 0; --column)
            at = values.find(' ', at) + 1;
        return std::strtoull(values.c_str() + at, nullptr, 10);
    }
    return 0;
}

/// What is read at both ends of the measurement.
struct sample {
    explicit sample(unsigned pid)
        : time(clock_now()),
          own(cpu_time(0)),
          server(pid ? cpu_time(pid) : 0),
          server_system(pid ? system_time(pid) : 0),
          dropped(receive_buffer_errors()) {}
    int64_t time;
    double own;
    double server;
    double server_system;
    uint64_t dropped;
};

struct totals {
    unsigned playing = 0;
    unsigned stalled = 0;
    uint64_t bytes_taken = 0;
    uint64_t packets = 0;
    uint64_t lost = 0;
    uint64_t pictures = 0;
    uint64_t missing = 0;
    uint64_t fewest = UINT64_MAX;
    std::vector<int32_t> delays;
    std::vector<int64_t> firsts;
    std::map<std::string, unsigned> reasons;

    void add(const client& one) {
        if (one.state() == client::state_t::ended) ++reasons[one.reason()];
        if (one.manner() == manner_t::stall) ++stalled;
        if (one.manner() != manner_t::watch) return;
        playing += one.state() == client::state_t::playing;
        const video_stream& video = one.video();
        bytes_taken += video.bytes_taken;
        packets += video.packets;
        lost += video.lost;
        pictures += video.pictures;
        missing += video.missing;
        fewest = std::min(fewest, video.pictures);
        if (one.first_picture_delay() >= 0) firsts.push_back(one.first_picture_delay());
        if (video.transit.empty()) return;
        const int32_t fastest = *std::min_element(video.transit.begin(), video.transit.end());
        for (const int32_t each : video.transit)
            delays.push_back(each - fastest);
    }
};

/// Milliseconds below which a share of the values lies.
template <class T>
double quantile(std::vector<T>& values, double share) {
    if (values.empty()) return 0;
    const auto at = static_cast<ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return static_cast<double>(values[static_cast<size_t>(at)]) / 1000;
}

unsigned long long plain(uint64_t number) { return number; }

void print(const options& wanted, totals& all, const sample& from, const sample& to, unsigned slow_closed,
           unsigned stall_dropped) {
    std::printf(
        "viewers=%u playing=%u seconds=%.3f bytes=%llu packets=%llu lost=%llu pictures=%llu missing=%llu fewest=%llu ",
        wanted.viewers, all.playing, static_cast<double>(to.time - from.time) / 1e6, plain(all.bytes_taken),
        plain(all.packets), plain(all.lost), plain(all.pictures), plain(all.missing), plain(all.fewest));
    std::printf("delay_p50_ms=%.3f delay_p99_ms=%.3f delay_max_ms=%.3f ", quantile(all.delays, 0.5),
                quantile(all.delays, 0.99), quantile(all.delays, 1));
    std::printf("first_p50_ms=%.3f first_p99_ms=%.3f rcvbuf_errors=%llu load_cpu=%.3f", quantile(all.firsts, 0.5),
                quantile(all.firsts, 0.99), plain(to.dropped - from.dropped), to.own - from.own);
    if (wanted.pid) {
        std::printf(" server_cpu=%.3f server_sys=%.2f", to.server - from.server, to.server_system - from.server_system);
    }
    if (wanted.slow) std::printf(" slow=%u slow_closed=%u", wanted.slow, slow_closed);
    if (wanted.stall) std::printf(" stall=%u stall_dropped=%u", all.stalled, stall_dropped);
    std::printf("\n");
    for (const auto& [reason, count] : all.reasons)
        std::fprintf(stderr, "rtsp_load: %u viewers: %s\n", count, reason.c_str());
}

int run(const options& wanted) {
    course common;
    std::vector<std::unique_ptr<loader>> loaders;
    for (unsigned i = 0; i < wanted.threads; ++i)
        loaders.push_back(std::make_unique<loader>(wanted, i, common));
    for (auto& each : loaders)
        each->start();
    const unsigned expected = wanted.viewers + wanted.slow + wanted.stall;
    const auto deadline = std::chrono::steady_clock::now() + longest_ramp;
    while (common.settled < expected && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::seconds(wanted.warmup));
    const sample from(wanted.pid);
    common.phase = phase_t::measuring;
    std::this_thread::sleep_for(std::chrono::seconds(wanted.seconds));
    const sample to(wanted.pid);
    common.phase = phase_t::over;
    totals all;
    unsigned slow_closed = 0;
    unsigned stall_dropped = 0;
    for (auto& each : loaders) {
        each->join();
        slow_closed += each->slow_closed();
        stall_dropped += each->stall_dropped();
        for (const auto& one : each->clients())
            all.add(*one);
    }
    print(wanted, all, from, to, slow_closed, stall_dropped);
    return all.playing == wanted.viewers ? 0 : 1;
}

bool take_transport(options& wanted, std::string_view text) {
    constexpr std::array<std::pair<std::string_view, transport_t>, 4> names{{{"tcp", transport_t::tcp},
                                                                             {"udp", transport_t::udp},
                                                                             {"http", transport_t::http},
                                                                             {"multicast", transport_t::multicast}}};
    wanted.server.uncut = text == "udp-gro";
    if (wanted.server.uncut) text = "udp";
    for (const auto& [name, transport] : names) {
        if (name == text) {
            wanted.server.transport = transport;
            return true;
        }
    }
    return false;
}

bool take_option(options& wanted, std::string_view name, std::string_view text) {
    if (name == "--transport") return take_transport(wanted, text);
    constexpr std::array<std::pair<std::string_view, unsigned options::*>, 8> numbers{{{"--viewers", &options::viewers},
                                                                                       {"--slow", &options::slow},
                                                                                       {"--stall", &options::stall},
                                                                                       {"--seconds", &options::seconds},
                                                                                       {"--warmup", &options::warmup},
                                                                                       {"--threads", &options::threads},
                                                                                       {"--fps", &options::fps},
                                                                                       {"--pid", &options::pid}}};
    for (const auto& [known, field] : numbers) {
        if (known != name) continue;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), wanted.*field);
        return error == std::errc() && end == text.data() + text.size();
    }
    return false;
}

bool parse(int argc, char** argv, options& wanted) {
    if (argc < 2 || argc % 2 != 0) return false;
    wanted.server.url = argv[1];
    for (int i = 2; i + 1 < argc; i += 2) {
        if (!take_option(wanted, argv[i], argv[i + 1])) return false;
    }
    if (!wanted.threads || !wanted.fps || !resolve(wanted.server.url, wanted.server.address)) return false;
    wanted.server.ticks = 90'000 / wanted.fps;
    return true;
}

/// Up to the hard limit: a client takes as many as three.
void raise_descriptor_limit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace
}  // namespace load

int main(int argc, char** argv) {
    load::options wanted;
    if (!load::parse(argc, argv, wanted)) {
        std::fprintf(stderr,
                     "usage: rtsp_load URL [--viewers N] [--transport tcp|udp|udp-gro|http|multicast] [--seconds S] "
                     "[--threads T] [--warmup S] [--slow N] [--stall N] [--fps F] [--pid SERVER]\n");
        return 2;
    }
    load::raise_descriptor_limit();
    return load::run(wanted);
}
