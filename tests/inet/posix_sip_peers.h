// SIP agents on sockets, and a switch between two of them that is their registrar.
#pragma once

#include "sip/framing.h"
#include "support/files.h"
#include "support/network_thread.h"
#include "support/sockets.h"

#include "avc/fcc.h"
#include "common/h264.h"
#include "inet/net_sip.h"

#include <atomic>
#include <condition_variable>
#include <map>
#include <poll.h>
#include <set>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace test {

/// An agent with one account. It does what `answers`, `declines` and `calls` say.
class sip_phone {
public:
    sip_phone(const char* user, int transport, unsigned port) : transport_(transport), user_(user) {
        if (port) open(port);
    }
    ~sip_phone() {
        thread_.run([&] { net_sip_close(sip_); });
    }
    sip_phone(const sip_phone&) = delete;
    sip_phone& operator=(const sip_phone&) = delete;

    void open(unsigned port) {
        thread_.run([&] {
            const net::sip_info info{thread_, this, on_call, on_account, on_dtmf};
            sip_ = net_sip_open(&info, CORE_HERE);
            account_ = net_sip_register_over(sip_, transport_, user_, "secret", "127.0.0.1", port, CORE_HERE);
        });
    }
    void invite(const char* whom) {
        thread_.run([&] { party_ = net_sip_invite(account_, nullptr, whom, this, on_frame); });
    }
    void subscribe(const char* whom) {
        thread_.run([&] { net_sip_subscribe(account_, whom); });
    }
    void digit(unsigned code) {
        thread_.run([&] { net_sip_dtmf(net_sip_user_session(party_), code); });
    }
    void bye() {
        thread_.run([&] { net_sip_bye(party_); });
    }
    void put(uint32_t fcc, const std::string& bytes, uint64_t time) {
        thread_.run([&] {
            av::frame_t frame{};
            frame.fcc = fcc;
            frame.time = time;
            frame.data = reinterpret_cast<const uint8_t*>(bytes.data());
            frame.size = static_cast<uint32_t>(bytes.size());
            net_sip_put_frame(net_sip_user_session(party_), &frame);
        });
    }
    /// Takes, or gives back, all places of the thread.
    void fill(bool full) {
        thread_.run([&] { net::net_nt_take_places(thread_, (full ? 1 : -1) * static_cast<int32_t>(net::nt_places)); });
    }
    /// Waits for an event, such as "call0" or "digit11". An empty one has come.
    bool waits(const std::string& event) {
        return until([&] { return event.empty() || events_.find(event + "|") != std::string::npos; });
    }
    /// The events until now.
    void forget() {
        const std::lock_guard held(mutex_);
        events_.clear();
    }
    bool has_pictures(size_t count) {
        return until([&] { return pictures_ >= count; });
    }
    bool has_sound(size_t bytes) {
        return until([&] { return sound_ >= bytes; });
    }

    std::atomic<bool> answers = false, declines = false;
    const char* calls = nullptr;  ///< whom, when registered; ends the call when it is answered
    std::string video;            ///< of all pictures

private:
    static sip_phone& of(void* user) { return *static_cast<sip_phone*>(user); }
    static void on_call(void* user, net::sip_user* party, uint32_t event) {
        sip_phone& self = of(user);
        if (event == net::sip_call_incoming) self.party_ = party;
        if (event == net::sip_call_incoming && self.answers) net_sip_accept(party, user, on_frame);
        if (event == net::sip_call_incoming && self.declines) net_sip_decline(party);
        if (event == net::sip_call_answered && self.calls) net_sip_bye(party);
        self.tell("call" + std::to_string(event));
    }
    static void on_account(void* user, void*, uint32_t event, const char*) {
        sip_phone& self = of(user);
        if (event == net::sip_account_registered && self.calls && !self.party_)
            self.party_ = net_sip_invite(self.account_, nullptr, self.calls, user, on_frame);
        self.tell("account" + std::to_string(event));
    }
    static void on_dtmf(void* user, net::sip_user*, int code) { of(user).tell("digit" + std::to_string(code)); }
    static void on_frame(void* user, net::sip_user*, av::frame_t* frame) {
        sip_phone& self = of(user);
        const std::lock_guard held(self.mutex_);
        if (frame->fcc == av::fcc_h264) {
            self.video.append(reinterpret_cast<const char*>(frame->data), frame->size);
            self.pictures_ += frame->complete;
        } else {
            self.sound_ += frame->size;
        }
        self.changed_.notify_all();
    }
    void tell(const std::string& event) {
        const std::lock_guard held(mutex_);
        events_ += event + "|";
        changed_.notify_all();
    }
    template <class Is>
    bool until(Is is) {
        std::unique_lock held(mutex_);
        const bool came = changed_.wait_for(held, std::chrono::seconds(20), is);
        EXPECT_TRUE(came) << user_ << ": " << events_ << pictures_ << " pictures, " << sound_ << " of sound";
        return came;
    }

    network_thread thread_;
    const int transport_;
    const char* const user_;
    net::Sip* sip_ = nullptr;
    net::sip_account* account_ = nullptr;
    net::sip_user* party_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string events_;
    size_t pictures_ = 0, sound_ = 0;
};

/// The NAL units of pictures, but for delimiters and SEI, which do not travel.
inline std::vector<std::string> nal_units(const std::string& pictures) {
    std::span<const uint8_t> rest = bytes_of(pictures);
    std::vector<std::string> all;
    for (auto nal = h264_next_nal(rest); !nal.empty(); nal = h264_next_nal(rest))
        if ((nal[0] & 0x1f) != 6 && (nal[0] & 0x1f) != 9) all.emplace_back(nal.begin(), nal.end());
    return all;
}

/// Access units of the clip, of one slice each or more.
inline std::vector<std::string> clip_pictures() {
    const std::string clip = read_file(INET_CLIP);
    std::span<const uint8_t> rest = bytes_of(clip);
    std::vector<std::string> units(1);
    bool slice = false;
    for (auto nal = h264_next_nal(rest); !nal.empty(); nal = h264_next_nal(rest)) {
        const bool is_slice = (nal[0] & 0x1f) == 1 || (nal[0] & 0x1f) == 5;
        if (slice && (!is_slice || (nal[1] & 0x80))) units.emplace_back();
        slice = is_slice;
        units.back().append(3, '\0').append(1, '\1').append(nal.begin(), nal.end());
    }
    return units;
}

/// Sends the clip with sound: every NAL unit and every sample arrives, but for what is left of a piece of 20 ms.
inline void pass_clip(sip_phone& from, sip_phone& to) {
    const std::vector<std::string> sent = clip_pictures();
    ASSERT_GT(sent.size(), 50U);
    std::string all;
    const std::string sound(400, '\x55');
    for (size_t i = 0; i < sent.size(); ++i) {
        all += sent[i];
        const uint64_t time = 1'600'000'000'000'000 + i * 50000;
        from.put(av::fcc_h264, sent[i], time);
        from.put(av::fcc_pcmu, sound, time);
        // One is over when the next begins, also in a gateway between them.
        ASSERT_TRUE(to.has_pictures(std::max<size_t>(i, 1) - 1)) << i;
    }
    ASSERT_TRUE(to.has_pictures(sent.size()));
    EXPECT_TRUE(nal_units(to.video) == nal_units(all));
    EXPECT_TRUE(to.has_sound(sent.size() * sound.size() - 160));
}

/// Answers REGISTER with 200, and hands everything else to the other one of two ends. Where it loses, it loses the
/// first copy of every datagram, and doubles the next ones.
class sip_switch {
public:
    explicit sip_switch(int transport, bool loses = false) : tcp_(transport == net::sip_tcp), loses_(loses) {
        sockaddr_in any{};
        net_addr_setup(any, "127.0.0.1", 0);
        fd_ = ::socket(AF_INET, tcp_ ? SOCK_STREAM : SOCK_DGRAM, 0);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&any), sizeof any), 0);
        EXPECT_EQ(tcp_ ? ::listen(fd_, 4) : 0, 0);
        port = net_socket_get_near_port(fd_);
        EXPECT_EQ(::pipe(stop_), 0);
        thread_ = std::thread([&] { run(); });
    }
    ~sip_switch() {
        ::close(stop_[1]);
        thread_.join();
        for (const auto& [fd, bytes] : streams_)
            ::close(fd);
        ::close(fd_);
        ::close(stop_[0]);
    }
    sip_switch(const sip_switch&) = delete;
    sip_switch& operator=(const sip_switch&) = delete;

    unsigned port = 0;

private:
    static std::string answer(std::string_view head) {
        std::string out = "SIP/2.0 200 OK\r\n";
        while (!head.empty()) {
            const std::string_view line = head.substr(0, head.find("\r\n") + 2);
            for (const char* name : {"Via:", "From:", "To:", "Call-ID:", "CSeq:"})
                if (line.starts_with(name)) out += line;
            head.remove_prefix(std::min(line.size(), head.size()));
        }
        return out + "Content-Length: 0\r\n\r\n";
    }
    void run() {
        for (;;) {
            std::vector<pollfd> watched{{stop_[0], POLLIN, 0}, {fd_, POLLIN, 0}};
            for (const auto& [fd, bytes] : streams_)
                watched.push_back({fd, POLLIN, 0});
            ::poll(watched.data(), watched.size(), -1);
            if (watched[0].revents) return;
            if (watched[1].revents && tcp_) streams_[::accept(fd_, nullptr, nullptr)];
            if (watched[1].revents && !tcp_) pass_datagram();
            for (size_t i = 2; i < watched.size(); ++i)
                if (watched[i].revents) pass_stream(watched[i].fd);
        }
    }
    void pass_datagram() {
        char room[65536];
        sockaddr_in from{};
        socklen_t size = sizeof from;
        const ssize_t got = ::recvfrom(fd_, room, sizeof room, 0, reinterpret_cast<sockaddr*>(&from), &size);
        if (got <= 0) return;
        std::string bytes(room, static_cast<size_t>(got));
        if (loses_ && seen_.insert(bytes).second) return;
        ends_[net_addr_port(from)] = from;
        sockaddr_in to = from;
        if (bytes.starts_with("REGISTER"))
            bytes = answer(bytes);
        else
            for (const auto& [number, address] : ends_)
                if (number != net_addr_port(from)) to = address;
        for (int copies = loses_ ? 2 : 1; copies > 0; --copies)
            ::sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    }
    void pass_stream(int fd) {
        char room[65536];
        const ssize_t got = ::recv(fd, room, sizeof room, 0);
        if (got <= 0) {
            ::close(fd);
            streams_.erase(fd);
            return;
        }
        std::string& held = streams_[fd];
        held.append(room, static_cast<size_t>(got));
        for (sip::piece_t piece; (piece = sip::cut(held, false)).used > 0; held.erase(0, piece.used)) {
            std::string bytes = held.substr(0, piece.used);
            int to = fd;
            if (bytes.starts_with("REGISTER"))
                bytes = answer(bytes);
            else
                for (const auto& [other, more] : streams_)
                    if (other != fd) to = other;
            ::send(to, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        }
    }

    const bool tcp_, loses_;
    std::set<std::string> seen_;
    int fd_ = -1;
    int stop_[2] = {};
    std::map<unsigned, sockaddr_in> ends_;
    std::map<int, std::string> streams_;
    std::thread thread_;
};

}  // namespace test
