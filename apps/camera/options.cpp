#include "options.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <span>
#include <string_view>

namespace camera {
namespace {

/// One option: `take` reads its value and answers false when it cannot be used.
struct option {
    std::string_view name;
    std::string_view value;
    std::string_view help;
    std::function<bool(options&, std::string_view)> take;
};

template <class T>
bool take_number(T& out, std::string_view text, unsigned lowest, unsigned highest) {
    unsigned number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < lowest || number > highest) return false;
    out = static_cast<T>(number);
    return true;
}

auto take_text(std::string options::*field) {
    return [field](options& o, std::string_view text) {
        (o.*field) = text;
        return !text.empty();
    };
}

std::span<const option> table() {
    static const option all[] = {
        {"--video", "FILE.h264", "pictures: an H.264 stream in Annex B form", take_text(&options::video)},
        {"--audio", "FILE.wav", "sound: mono, 8000 Hz, \xC2\xB5-law or 16-bit PCM", take_text(&options::audio)},
        {"--jpeg", "FILE...", "pictures of /jpeg, five a second",
         [](options& o, std::string_view text) {
             o.jpeg.emplace_back(text);
             return !text.empty();
         }},
        {"--analytics", "FILE.json", "detector reports, one JSON document a line, five a second",
         take_text(&options::analytics)},
        {"--bind", "ADDRESS", "address to listen on (127.0.0.1)", take_text(&options::bind)},
        {"--rtsp", "PORT", "RTSP port (8554); 0 takes a free one",
         [](options& o, std::string_view text) { return take_number(o.rtsp_port, text, 0, 65535); }},
        {"--user", "NAME", "ask viewers for this user (Digest)", take_text(&options::user)},
        {"--password", "TEXT", "and this password", take_text(&options::password)},
        {"--threads", "N", "network threads that share the viewers (1)",
         [](options& o, std::string_view text) { return take_number(o.threads, text, 1, 64); }},
        {"--log", "FILE", "write what the library logs to a file", take_text(&options::log)},
    };
    return all;
}

const option* find_option(std::string_view name) {
    for (const option& candidate : table()) {
        if (candidate.name == name) return &candidate;
    }
    return nullptr;
}

}  // namespace

std::optional<options> parse_options(int argc, const char* const* argv, std::string& error) {
    options result;
    for (int i = 1; i < argc; ++i) {
        const std::string_view name = argv[i];
        if (name == "--help" || name == "-h") {
            result.help = true;
            return result;
        }
        const option* found = find_option(name);
        if (!found) {
            error = "unknown option: " + std::string(name);
            return std::nullopt;
        }
        bool taken = i + 1 < argc && found->take(result, argv[++i]);
        // --jpeg takes every file up to the next option.
        while (taken && name == "--jpeg" && i + 1 < argc && argv[i + 1][0] != '-')
            taken = found->take(result, argv[++i]);
        if (!taken) {
            error = std::string(name) + " wants " + std::string(found->value);
            return std::nullopt;
        }
    }
    if (result.user.empty() != result.password.empty()) {
        error = "--user and --password go together";
        return std::nullopt;
    }
    return result;
}

std::string usage() {
    std::string text = "inet-camera: a clip as a network camera\n\nusage: inet-camera [OPTION VALUE]...\n\n";
    for (const option& o : table()) {
        std::string line = "  " + std::string(o.name) + " " + std::string(o.value);
        line.resize(std::max<size_t>(line.size() + 1, 26), ' ');
        text += line + std::string(o.help) + "\n";
    }
    text += "\nWithout files it plays the bundled clip. Ctrl-C ends it.\n";
    return text;
}

}  // namespace camera
