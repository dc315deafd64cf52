#include "options.h"

#include "media/recorder.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace viewer {
namespace {

using apps::take_number;
using apps::take_text;
using option = apps::option<options>;

bool take_uri(options& o, std::string_view text) {
    if (!o.uri.empty()) return false;
    o.uri = text;
    return media::watcher::takes(o.uri.c_str()) != 0;
}

bool take_reconnect(options& o, std::string_view text) {
    if (text != "forever") return take_number(o.reconnect, text, 0, 1'000'000);
    o.reconnect = media::watcher::forever;
    return true;
}

std::span<const option> table() {
    static const option all[] = {
        {"URI", "",
         "one rtsp://, rtmp:// or http://[user:password@]host[:port]/path; user and password percent-coded, no IPv6",
         take_uri},
        {"--transport", "WAY", "of rtsp://: tcp (the default), udp, multicast or http",
         [](options& o, std::string_view text) { return apps::take_transport(o.way, text); }},
        {"-o", "FILE", output_help, [](options& o, std::string_view text) { return add_output(o.outputs, text); }},
        {"--duration", "SECONDS", "end after so much media, counted from the first picture",
         [](options& o, std::string_view text) { return take_seconds(o.duration, text); }},
        {"--user", "NAME", "user, where the URI names none", apps::take_credential<options>(&apps::credentials::user)},
        {"--password", "TEXT", "and password, as it is", apps::take_credential<options>(&apps::credentials::password)},
        {"--password-file", "FILE", "or the first line of a file; without both, the variable INET_PASSWORD",
         apps::take_credential<options>(&apps::credentials::password_file)},
        {"--reconnect", "N", "connect again, up to N times in a row, or \"forever\" (0)", take_reconnect},
        {"--timeout", "SECONDS", "longest wait for the server and for media (10)",
         [](options& o, std::string_view text) { return take_number(o.timeout, text, 1, 3600); }},
        {"--stats", "", "print a line for each track at the end",
         [](options& o, std::string_view) { return o.stats = true; }},
        {"--log", "FILE", "write what the library logs to a file", take_text(&options::log)},
    };
    return all;
}

constexpr std::string_view explanations = R"(
Files, by the end of their name:
  .mp4          H.264 pictures with AAC or G.711 sound, as fragmented MP4, which can be read while it grows
  .h264 .264    pictures, an H.264 stream in Annex B form
  .wav          G.711 sound as it came; its header is right once the program has ended
  .aac          AAC sound as it came, with headers of ADTS
  .jpg .jpeg    JPEG pictures, a file each: x.jpg gives x_00001.jpg, ...
  .txt .xml     metadata, one document behind the other
  -             MP4 to the standard output; -.h264, -.wav, -.aac and -.txt are those
Each takes the first track of its format. Only whole pictures are written: after a loss nothing until the next key
picture. Sound starts where the picture starts; what was lost, and the time between two connections, is silence. A file
begins with its first frame: an earlier one of that name stays until then.

What else comes over HTTP is written to the file of -o, of any name, or to one with the last name of the URI in the
current folder. When it does not come whole, the file is removed. Up to five times in a row the source may say that it
is elsewhere; user and password go along to the same host alone.

Over udp, when nothing arrives in 3 s or the server refuses it, the stream is asked for again over tcp. Over http both
connections go to the port of the URI. Between attempts to connect again pass 1, 2, 4, ... 30 s.

With --stats, on the standard output (with -o - on the error stream), a line for each track:
  track=0 format=H264 frames=250 bytes=705672 seconds=10.000 mbit/s=0.565 packets=640 lost=0 left_out=0 jitter_ms=0.214
and for a file that is no stream: saved=705672

Exit status:
  0  all was received: --duration was reached, or Ctrl-C came     5  no such stream (404)
  1  no memory, or a fault of the program                         6  the server answered something else, or nothing
  2  the command line cannot be used                              7  no media came, or none for a file
  3  the server cannot be reached                                 8  the connection was lost, or the stream ended
  4  the server refuses the user (401, 403)                       9  a file cannot be written
)";

}  // namespace

std::optional<options> parse_options(std::span<const std::string> arguments, std::string& error) {
    options result;
    result.about = apps::asks_about(arguments);
    if (result.about != apps::about_t::nothing) return result;
    if (!apps::parse_command_line(table(), arguments, result, error) || !result.login.complete(error))
        return std::nullopt;
    if (result.uri.empty()) {
        error = "which stream? rtsp://..., rtmp://... or http://...";
        return std::nullopt;
    }
    const std::string* const unfit = unfit_for_stream(result.outputs);
    if (!unfit || result.may_be_file()) return result;
    error = "-o: cannot be used: " + *unfit + " (" + std::string(output_help) + ")";
    return std::nullopt;
}

bool options::may_be_file() const {
    constexpr std::string_view scheme = "http://";
    return outputs.size() <= 1 && !writes_to_output(outputs) &&
           std::ranges::equal(uri.substr(0, scheme.size()), scheme, {}, [](char c) { return c | 0x20; });
}

bool add_output(outputs_t& outputs, std::string_view text) {
    if (std::ranges::find(outputs, text) != outputs.end()) return false;
    outputs.emplace_back(text);
    return !text.empty();
}

const std::string* unfit_for_stream(const outputs_t& outputs) {
    const auto found =
        std::ranges::find_if(outputs, [](const std::string& each) { return !media::recorder::takes(each.c_str()); });
    return found == outputs.end() ? nullptr : &*found;
}

bool writes_to_output(const outputs_t& outputs) {
    return std::ranges::any_of(outputs, [](const std::string& each) { return each == "-" || each.starts_with("-."); });
}

bool take_seconds(uint64_t& out, std::string_view text) {
    constexpr double longest = 1e9;
    double seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc() || end != text.data() + text.size() || !(seconds > 0 && seconds < longest)) return false;
    out = static_cast<uint64_t>(seconds * 1e6);
    return true;
}

std::string usage() {
    return "inet-viewer: receives a stream over RTSP, RTMP or HTTP, or a file over HTTP\n\nusage: inet-viewer "
           "[OPTION]... rtsp://...\n       inet-viewer discover [OPTION]...    lists the ONVIF devices of the network\n"
           "       inet-viewer onvif [OPTION]... HOST  lists the streams of one\n"
           "       inet-viewer call [OPTION]... USER@SERVER  records a call over SIP\n\n" +
           apps::describe_options(table()) + std::string(explanations);
}

}  // namespace viewer
