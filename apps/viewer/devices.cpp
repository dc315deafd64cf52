#include "devices.h"

#include "core/json.h"

#include <algorithm>
#include <cstdio>

namespace viewer {
namespace {

using option = apps::option<device_options>;

std::span<const option> table_of_options(bool is_one) {
    static const option all[] = {
        {"--json", "", "print a JSON object a line, with all that is known",
         [](device_options& o, std::string_view) { return o.json = true; }},
        {"--timeout", "SECONDS", "how long devices are searched, or an answer is waited for (5)",
         [](device_options& o, std::string_view text) { return apps::take_number(o.seconds, text, 1, 3600); }},
        {"--log", "FILE", "write what the library logs to a file", apps::take_text(&device_options::log)},
        {"HOST", "", "the device: HOST, HOST:PORT (80), or an address that it tells itself",
         [](device_options& o, std::string_view text) {
             const bool is_first = o.host.empty();
             o.host = text;
             return is_first && !text.empty();
         }},
        {"--user", "NAME", "user of the device", apps::take_credential<device_options>(&apps::credentials::user)},
        {"--password", "TEXT", "and password", apps::take_credential<device_options>(&apps::credentials::password)},
        {"--password-file", "FILE", "or the first line of a file; without both, the variable INET_PASSWORD",
         apps::take_credential<device_options>(&apps::credentials::password_file)},
    };
    constexpr size_t of_search = 3;
    return is_one ? std::span(all) : std::span(all).first(of_search);
}

constexpr std::string_view about_search = R"(
Lists the ONVIF devices that answer on the local network (WS-Discovery), as they answer or announce themselves. Those of
this host are not heard.

Exit status: 0; 1 no socket, or no memory; 2 the command line cannot be used; 7 no device answered
)";

constexpr std::string_view about_one = R"(
Lists the profiles of an ONVIF device with the addresses of their streams, for inet-viewer and other players.

Exit status: 0; 1 a fault of the program; 2 the command line cannot be used; 3 the device cannot be reached;
4 it refuses the user; 6 it answers something else, or nothing
)";

std::string json_text(std::string_view text) {
    const core::owned_text coded(core_json_encode(std::string(text).c_str(), CORE_HERE));
    return '"' + std::string(coded ? coded.get() : "") + '"';
}

}  // namespace

bool is_about_devices(std::span<const std::string> arguments) {
    return !arguments.empty() && (arguments[0] == "discover" || arguments[0] == "onvif");
}

int ask_devices(std::span<const std::string> arguments) {
    const bool is_one = arguments[0] == "onvif";
    const auto options = table_of_options(is_one);
    const auto about = apps::asks_about(arguments);
    if (about != apps::about_t::nothing) {
        const std::string usage =
            std::string("usage: inet-viewer ") + (is_one ? "onvif [OPTION]... HOST\n\n" : "discover [OPTION]...\n\n");
        return apps::tell_about(
            program_name, about,
            usage + apps::describe_options(options) + std::string(is_one ? about_one : about_search));
    }
    device_options settings;
    std::string error;
    bool usable =
        apps::parse_command_line(options, arguments.subspan(1), settings, error) && settings.login.complete(error);
    if (usable && is_one && settings.host.empty()) {
        error = "which device? HOST";
        usable = false;
    }
    if (!usable) {
        apps::complain(program_name, error + "; see inet-viewer " + arguments[0] + " --help");
        return static_cast<int>(outcome::usage);
    }
    return apps::run(program_name, settings.log, [&] {
        std::string why;
        const outcome result = is_one ? show_device(settings, why) : find_devices(settings, why);
        if (!why.empty()) apps::complain(program_name, why);
        return static_cast<int>(result);
    });
}

void table::print(const row_t& row) {
    std::string head;
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
        const auto& [name, value] = row[i];
        if (json_) {
            line += (line.empty() ? "{" : ",") + json_text(name) + ':' + json_text(value);
        } else if (i < widths_.size()) {
            const auto add = [&](std::string& to, std::string text) {
                if (i + 1 < widths_.size()) text.resize(std::max(widths_[i], text.size() + 2), ' ');
                to += text;
            };
            add(head, std::string(name));
            add(line, apps::showable(value));
        }
    }
    if (!json_ && !has_head_) std::printf("%s\n", head.c_str());
    has_head_ = true;
    std::printf("%s%s\n", line.c_str(), json_ ? "}" : "");
    std::fflush(stdout);
}

}  // namespace viewer
