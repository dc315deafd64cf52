// A command line read by a table of options, its help text, and the user and password that it brings.
#pragma once

#include "program.h"

#include "media/watcher.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace apps {

/// The environment variable that holds the password when no option does.
inline constexpr const char* password_variable = "INET_PASSWORD";

struct credentials {
    std::string user;
    std::string password;
    std::string password_file;

    /// Finds the password of the user: that of the option, the first line of the file, or the variable.
    /// @param both  a user needs a password
    /// @return false with the reason in `error`: a file that cannot be read, a password without user or the other way
    bool complete(std::string& error, bool both = true);
};

/// One option: `take` reads its value and answers false when it cannot be used.
template <class Options>
struct option {
    std::string_view name;   ///< "--video"; without a dash it stands for arguments that are no option
    std::string_view value;  ///< how help calls the value: empty for none; ends with "..." when several may follow
    std::string_view help;
    std::function<bool(Options&, std::string_view)> take;
};

template <class T>
bool take_number(T& out, std::string_view text, uint64_t lowest, uint64_t highest) {
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < lowest || number > highest) return false;
    out = static_cast<T>(number);
    return true;
}

/// How the media of a source travels, by its name.
inline bool take_transport(media::transport_t& out, std::string_view text) {
    constexpr std::string_view names[] = {"tcp", "udp", "multicast", "http"};
    for (size_t i = 0; i < std::size(names); ++i) {
        if (text != names[i]) continue;
        out = static_cast<media::transport_t>(i);
        return true;
    }
    return false;
}

template <class Options>
auto take_text(std::string Options::*field) {
    return [field](Options& o, std::string_view text) {
        (o.*field) = text;
        return !text.empty();
    };
}

/// The options of a user and a password.
template <class Options>
auto take_credential(std::string credentials::*field) {
    return [field](Options& o, std::string_view text) {
        (o.login.*field) = text;
        return !text.empty();
    };
}

inline bool is_option(std::string_view argument) { return argument.starts_with('-') && argument.size() > 1; }

/// "--name=value" in its parts.
inline std::pair<std::string_view, std::optional<std::string_view>> split_option(std::string_view argument) {
    const size_t at = argument.find('=');
    if (!argument.starts_with("--") || at == argument.npos) return {argument, std::nullopt};
    return {argument.substr(0, at), argument.substr(at + 1)};
}

/// The option of that name, or the one that stands for what is none.
template <class Options>
const option<Options>* find_option(std::span<const option<Options>> table, std::string_view name) {
    const auto found = std::ranges::find_if(table, [&](const option<Options>& each) {
        return is_option(name) ? each.name == name : !is_option(each.name);
    });
    return found == table.end() ? nullptr : &*found;
}

/// What is asked for instead of work.
inline about_t asks_about(std::span<const std::string> arguments) {
    for (const std::string& each : arguments) {
        if (each == "--help" || each == "-h") return about_t::help;
        if (each == "--version") return about_t::version;
    }
    return about_t::nothing;
}

/// Reads the arguments into `out`. @return false on a mistake, which `error` tells.
template <class Options>
bool parse_command_line(std::span<const option<Options>> table, std::span<const std::string> arguments, Options& out,
                        std::string& error) {
    const auto fail = [&](const std::string& why) {
        error = why;
        return false;
    };
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        const auto [name, attached] = split_option(argument);
        const option<Options>* const found = find_option(table, name);
        if (!found || (attached && found->value.empty())) return fail("unknown option: " + std::string(argument));
        const bool has_value = is_option(name) && !found->value.empty();
        std::string_view value = attached.value_or(argument);
        if (has_value && !attached) {
            if (i + 1 == arguments.size()) return fail(std::string(name) + " wants " + std::string(found->value));
            value = arguments[++i];
        }
        bool taken = found->take(out, value);
        while (taken && has_value && found->value.ends_with("...") && i + 1 < arguments.size() &&
               !is_option(arguments[i + 1])) {
            value = arguments[++i];
            taken = found->take(out, value);
        }
        if (!taken) {
            return fail(std::string(found->name) + ": cannot be used: " + std::string(value) + " (" +
                        std::string(found->help) + ")");
        }
    }
    return true;
}

/// The lines of the help text, one for each option.
template <class Options>
std::string describe_options(std::span<const option<Options>> table) {
    constexpr size_t column = 26;
    std::string text;
    for (const option<Options>& each : table) {
        std::string line = "  " + std::string(each.name);
        if (!each.value.empty()) line += " " + std::string(each.value);
        line.resize(line.size() < column ? column : line.size() + 1, ' ');
        text += line + std::string(each.help) + "\n";
    }
    return text + "  --help, -h              this text\n  --version               the version\n";
}

}  // namespace apps
