// What the command line of inet-viewer says.
#pragma once

#include "command_line.h"
#include "program.h"

#include "media/watcher.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace viewer {

/// How the program is called in its messages.
inline constexpr const char* program_name = "inet-viewer";

/// How a run ended, which is its exit status.
enum class outcome : int {
    ok = 0,                ///< as long as was asked for, or until Ctrl-C
    failed = 1,            ///< no memory, no thread, or a fault of ours
    usage = 2,             ///< the command line cannot be used
    no_connection = 3,     ///< the server cannot be reached
    refused = 4,           ///< user and password, or none, are not let in: 401, 403
    not_found = 5,         ///< no such stream: 404
    protocol_error = 6,    ///< the server answers with another status, with nonsense, or not at all
    nothing_received = 7,  ///< everything was agreed upon but no media came, or none for one of the files
    connection_lost = 8,   ///< media came, then the connection or the stream ended or went silent
    cannot_write = 9,      ///< a file, or the standard output, cannot be written
};

using outputs_t = std::vector<std::string>;

/// What -o takes, and its help.
bool add_output(outputs_t& outputs, std::string_view text);
inline constexpr std::string_view output_help =
    "write to a .mp4, .h264, .wav, .aac, .jpg or .txt file, or to - ; may be given again for another one";
/// The output that no recorder takes; null for none.
const std::string* unfit_for_stream(const outputs_t& outputs);
/// "-" and "-.h264": media go to the standard output.
bool writes_to_output(const outputs_t& outputs);
/// Seconds as microseconds.
bool take_seconds(uint64_t& out, std::string_view text);

struct options {
    std::string uri;
    media::transport_t way = media::transport_t::tcp;
    apps::credentials login;  ///< beside that of the URI
    outputs_t outputs;
    uint64_t duration = 0;   ///< microseconds of media; 0 is without end
    unsigned reconnect = 0;  ///< attempts in a row, or media::watcher::forever
    unsigned timeout = 10;   ///< seconds
    bool stats = false;
    std::string log;
    apps::about_t about = apps::about_t::nothing;

    const char* user() const { return login.user.empty() ? nullptr : login.user.c_str(); }
    const char* save_as() const { return !may_be_file() ? nullptr : outputs.empty() ? "" : outputs[0].c_str(); }
    const char* password() const { return login.password.empty() ? nullptr : login.password.c_str(); }
    /// What comes may be no stream, and is then written to the output as it is.
    bool may_be_file() const;
};

/// The options; on a mistake nothing, with the reason in `error`.
std::optional<options> parse_options(std::span<const std::string> arguments, std::string& error);

/// The text of --help.
std::string usage();

}  // namespace viewer
