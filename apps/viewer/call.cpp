#include "call.h"

#include "options.h"
#include "platform/system.h"
#include "sip_address.h"

#include "avc/fcc.h"
#include "core/time.h"
#include "media/recorder.h"
#include "media/sip.h"
#include "media/station.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string_view>

namespace viewer {
namespace {

struct call_options {
    apps::sip_address callee;
    bool tcp = false;
    apps::credentials login;
    outputs_t outputs;
    uint64_t duration = 0;  ///< microseconds of media; 0 is without end
    std::string digits;
    unsigned timeout = 10;  ///< seconds
    bool stats = false;
    std::string log;
};

using option = apps::option<call_options>;

constexpr uint64_t second = 1'000'000;

std::span<const option> table() {
    static const option all[] = {
        {"USER@SERVER", "", "whom to call: USER@SERVER[:PORT][;tcp] (port 5060, over UDP)",
         [](call_options& o, std::string_view text) {
             const bool is_first = o.callee.user.empty();
             return is_first && o.callee.parse(text, false);
         }},
        {"--transport", "udp|tcp", "way to the server; tcp is the same as ;tcp",
         [](call_options& o, std::string_view text) {
             o.tcp = text == "tcp";
             return text == "udp" || text == "tcp";
         }},
        {"--user", "NAME", "own account at the server (viewer)",
         apps::take_credential<call_options>(&apps::credentials::user)},
        {"--password", "TEXT", "and its password", apps::take_credential<call_options>(&apps::credentials::password)},
        {"--password-file", "FILE", "or the first line of a file; without both, the variable INET_PASSWORD",
         apps::take_credential<call_options>(&apps::credentials::password_file)},
        {"-o", "FILE", output_help, [](call_options& o, std::string_view text) { return add_output(o.outputs, text); }},
        {"--duration", "SECONDS", "hang up after so much media, counted from the first picture",
         [](call_options& o, std::string_view text) { return take_seconds(o.duration, text); }},
        {"--digits", "DIGITS", "press 0 to 9, *, #, A to D when the call is answered (SIP INFO)",
         [](call_options& o, std::string_view text) {
             o.digits = text;
             return !text.empty() && text.find_first_not_of("0123456789*#ABCD") == text.npos;
         }},
        {"--timeout", "SECONDS", "longest wait for the server and for media (10)",
         [](call_options& o, std::string_view text) { return apps::take_number(o.timeout, text, 1, 3600); }},
        {"--stats", "", "print a line for each track at the end",
         [](call_options& o, std::string_view) { return o.stats = true; }},
        {"--log", "FILE", "write what the library logs to a file", apps::take_text(&call_options::log)},
    };
    return all;
}

constexpr std::string_view explanations = R"(
Calls a user of a SIP server, such as an inet-camera with --sip, and records H.264 pictures and u-law sound to files, as
inet-viewer --help describes them. An .mp4 needs pictures: record a call with sound alone to a .wav. No pictures and no
sound are sent to the other end. The call rings up to three minutes. Ctrl-C hangs up.

With --stats, on the standard output (with -o - on the error stream), a line for each track:
  track=0 format=H264 frames=250 bytes=705672 seconds=10.000 mbit/s=0.565

Exit status:
  0  all was received: --duration was reached, or Ctrl-C came     6  the other end is busy, or declines
  1  no memory, or a fault of the program                         7  no media came, or none for a file
  2  the command line cannot be used                              8  the other end hung up, or went silent
  3  the server cannot be reached                                 9  a file cannot be written
  4  the server refuses the account
  5  the server knows no such user, or does not reach one; nobody answers
)";

outcome outcome_of(media::sip_reason_t reason) {
    using r = media::sip_reason_t;
    switch (reason) {
        case r::no_server:
            return outcome::no_connection;
        case r::refused:
            return outcome::refused;
        case r::unreachable:
            return outcome::not_found;
        case r::busy:
            return outcome::protocol_error;
        case r::hung_up:
        case r::silent:
            return outcome::connection_lost;
        case r::none:
        case r::no_place:
            break;
    }
    return outcome::failed;
}

/// What has come of a track.
struct received_t {
    uint64_t frames = 0;
    uint64_t bytes = 0;
    uint64_t first = 0;
    uint64_t last = 0;

    void take(const av::frame_t& frame) {
        if (frames++ == 0) first = frame.time;
        last = frame.time;
        bytes += frame.size;
    }
    double seconds() const { return static_cast<double>(last - first) * 1e-6; }
};

/// The call, as the phone's thread tells of it.
class conversation {
public:
    conversation(const call_options& settings, media::recorder& files) : options_(settings), files_(files) {}

    media::sip_settings_t phone_settings() {
        return {.user = options_.login.user.c_str(),
                .password = options_.login.password.c_str(),
                .server = options_.callee.server.c_str(),
                .port = options_.callee.port,
                .tcp = options_.tcp || options_.callee.tcp,
                .answers = false,
                .silence = options_.timeout,
                .on_event = on_event,
                .on_frame = on_frame,
                .arg = this};
    }

    /// Calls, and returns when the call is over, or enough has come.
    outcome follow(media::sip_service_t& phone, std::string& why);
    bool print(std::FILE* out) const;
    bool has_media() const { return pictures_.frames + sound_.frames > 0; }

private:
    static void on_event(void* arg, const media::sip_event_t& event);
    static void on_frame(void* arg, uint32_t call, const av::frame_t& frame);
    bool is_enough(const av::frame_t& frame) const;
    bool waits_too_long() const;

    const call_options& options_;
    media::recorder& files_;
    mutable std::mutex lock_;
    std::condition_variable news_;
    bool registered_ = false, answered_ = false, over_ = false;
    media::sip_reason_t reason_ = media::sip_reason_t::none;
    bool enough_ = false;
    media::failure_t failed_;  ///< of a file
    received_t pictures_, sound_;
    uint64_t last_ = core_timer();  ///< something came
};

void conversation::on_event(void* arg, const media::sip_event_t& event) {
    auto& self = *static_cast<conversation*>(arg);
    const std::lock_guard held(self.lock_);
    using e = media::sip_event_t;
    self.last_ = core_timer();
    if (event.what == e::registered) self.registered_ = true;
    if (event.what == e::answered) self.answered_ = true;
    // Once it is answered a call needs no server.
    const bool unregistered = event.what == e::unregistered && !self.registered_;
    if (event.what == e::ended || unregistered) {
        self.over_ = true;
        self.reason_ = event.reason;
    }
    self.news_.notify_one();
}

/// The first picture that is too late ends the recording, or the first sound of a call without pictures.
bool conversation::is_enough(const av::frame_t& frame) const {
    const received_t& counted = pictures_.frames ? pictures_ : sound_;
    return options_.duration && counted.frames && frame.time >= counted.first + options_.duration;
}

void conversation::on_frame(void* arg, uint32_t, const av::frame_t& frame) {
    auto& self = *static_cast<conversation*>(arg);
    const std::lock_guard held(self.lock_);
    self.last_ = core_timer();
    self.enough_ = self.enough_ || self.is_enough(frame);
    if (self.enough_ || *self.failed_.text) return self.news_.notify_one();
    // Either may come first: a film begins with the pictures, and has a place for sound.
    if (frame.fcc == av::fcc_h264 && self.pictures_.frames == 0) {
        self.files_.declare({.fcc = av::fcc_h264});
        self.files_.declare({.fcc = av::fcc_pcmu, .rate = 8000, .channels = 1});
    }
    (frame.fcc == av::fcc_h264 ? self.pictures_ : self.sound_).take(frame);
    self.files_.take(frame, &self.failed_);
}

bool conversation::waits_too_long() const {
    return (answered_ || !registered_) && core_timer() > last_ + options_.timeout * second;
}

outcome conversation::follow(media::sip_service_t& phone, std::string& why) {
    apps::status_line line(!writes_to_output(options_.outputs));
    const uint32_t call = phone.call(options_.callee.user.c_str());
    std::unique_lock held(lock_);
    bool pressed = false;
    while (call && !over_ && !enough_ && !*failed_.text && !apps::interrupted() && !waits_too_long()) {
        if (answered_ && !pressed) phone.press(call, options_.digits.c_str());
        pressed = answered_;
        line.show("%s   %.1f s   %.1f MB",
                  !registered_ ? "registering"
                  : !answered_ ? "calling"
                               : "talking",
                  (pictures_.frames ? pictures_ : sound_).seconds(),
                  static_cast<double>(pictures_.bytes + sound_.bytes) * 1e-6);
        news_.wait_for(held, std::chrono::milliseconds(250));
    }
    if (*failed_.text) why = failed_.text;
    if (!call) return outcome::failed;
    if (*failed_.text) return outcome::cannot_write;
    if (enough_ || apps::interrupted()) return outcome::ok;
    if (!over_) reason_ = registered_ ? media::sip_reason_t::silent : media::sip_reason_t::no_server;
    const bool silent = reason_ == media::sip_reason_t::silent && !has_media();
    why = silent ? "no media came" : options_.callee.user + ": " + apps::words_of(reason_);
    return silent ? outcome::nothing_received : outcome_of(reason_);
}

bool conversation::print(std::FILE* out) const {
    const auto line = [&](int number, const char* format, const received_t& track) {
        if (!track.frames) return;
        const double rate = track.seconds() > 0 ? static_cast<double>(track.bytes) * 8e-6 / track.seconds() : 0;
        std::fprintf(out, "track=%d format=%s frames=%llu bytes=%llu seconds=%.3f mbit/s=%.3f\n", number, format,
                     static_cast<unsigned long long>(track.frames), static_cast<unsigned long long>(track.bytes),
                     track.seconds(), rate);
    };
    line(0, "H264", pictures_);
    line(pictures_.frames ? 1 : 0, "PCMU", sound_);
    return std::fflush(out) == 0 && !std::ferror(out);
}

outcome call(const call_options& settings, std::string& why) {
    const bool to_output = writes_to_output(settings.outputs);
    if (to_output) apps::platform::prepare_output();
    media::failure_t failed;
    media::recorder files;
    for (const std::string& path : settings.outputs) {
        if (files.add(path.c_str(), &failed)) continue;
        why = failed.text;
        return outcome::cannot_write;
    }
    files.on_note([](void*, const char* text) { apps::complain(program_name, text); }, nullptr);
    conversation talk(settings, files);
    media::station station;
    auto* const phone = media::sip_service(talk.phone_settings());
    if (!station.add(phone, &failed) || !station.start(&failed)) {
        why = failed.text;
        return outcome::failed;
    }
    outcome result = talk.follow(*phone, why);
    station.stop();  // hangs up
    if (!files.finish(&failed) && result != outcome::cannot_write) {
        result = outcome::cannot_write;
        why = failed.text;
    }
    if (result == outcome::ok && (files.untouched() || !talk.has_media())) {
        result = outcome::nothing_received;
        why = files.untouched() ? std::string("nothing came for ") + files.untouched() : "no media came";
    }
    if (settings.stats && !talk.print(to_output ? stderr : stdout) && result == outcome::ok) {
        result = outcome::cannot_write;
        why = "cannot write to the standard output";
    }
    return result;
}

bool read(std::span<const std::string> arguments, call_options& settings, std::string& error) {
    if (!apps::parse_command_line(table(), arguments, settings, error)) return false;
    if (settings.login.user.empty()) settings.login.user = "viewer";
    if (!settings.login.complete(error, false)) return false;
    if (!apps::is_sip_name(settings.login.user)) error = "--user: cannot be used: " + settings.login.user;
    if (settings.callee.user.empty()) error = "whom to call? USER@SERVER";
    const std::string* const unfit = unfit_for_stream(settings.outputs);
    if (unfit) error = "-o: cannot be used: " + *unfit + " (" + std::string(output_help) + ")";
    return error.empty();
}

}  // namespace

bool is_about_call(std::span<const std::string> arguments) { return !arguments.empty() && arguments[0] == "call"; }

int make_call(std::span<const std::string> arguments) {
    const auto about = apps::asks_about(arguments);
    if (about != apps::about_t::nothing)
        return apps::tell_about(program_name, about,
                                "usage: inet-viewer call [OPTION]... USER@SERVER\n\n" +
                                    apps::describe_options(table()) + std::string(explanations));
    call_options settings;
    std::string error;
    if (!read(arguments.subspan(1), settings, error)) {
        apps::complain(program_name, error + "; see inet-viewer call --help");
        return static_cast<int>(outcome::usage);
    }
    return apps::run(program_name, settings.log, [&] {
        std::string why;
        const outcome result = call(settings, why);
        if (!why.empty()) apps::complain(program_name, why);
        return static_cast<int>(result);
    });
}

}  // namespace viewer
