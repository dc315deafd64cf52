// What every program of ours does around its work.
#pragma once

#include "core/api.h"
#include "core/owned.h"
#include "inet/net_rate.h"
#include "inet/net_uri.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace apps {

/// Exit status for what a program could not do.
inline constexpr int status_failed = 1;
/// And for a command line that cannot be used.
inline constexpr int status_usage = 2;

/// What a command line may ask for instead of work.
enum class about_t : uint8_t { nothing, help, version };

/// Prints it. @return the exit status
int tell_about(const char* program, about_t what, const std::string& usage);

/// The first call of main(): from here on the console shows the UTF-8 and follows the sequences that are printed.
/// @return the arguments behind the program's name, as UTF-8
std::vector<std::string> start(int argc, const char* const* argv);

/// What a peer has sent, with a blank for each character that commands terminals or ends lines, and for each byte that
/// is no UTF-8.
std::string showable(std::string_view text);

/// Prints a message of the program to the error stream.
void complain(const char* program, const std::string& message);

/// Prints a line of the program to the output stream, at once.
void report(const std::string& line);

/// Runs `work` with the library started: console messages are complained of, and everything the library logs goes
/// to the file `log` when it is named. Ctrl-C is noted from here on.
/// @return what `work` returned; status_failed when the log cannot be written or memory is still held at the end, which
/// is a mistake of ours and told by line
int run(const char* program, const std::string& log, const std::function<int()>& work);

/// Ctrl-C or a request to terminate came. The second one ends the program at once.
bool interrupted();

/// One line at the bottom of the terminal, written over itself; nothing when the output is no terminal.
class status_line {
public:
    /// @param shows  false has it print nothing
    explicit status_line(bool shows = true);
    ~status_line();
    status_line(const status_line&) = delete;
    status_line& operator=(const status_line&) = delete;

    INET_PRINTF(2, 3) void show(const char* format, ...);

private:
    bool terminal_;
    bool shown_ = false;
};

/// The rate of a counter that grows.
class rate_of {
public:
    /// @return units a second, the mean of the last few; 0 in the first second
    unsigned now(uint64_t total) {
        // What was counted before the first call is of no known time.
        bps_add(meter_, has_begun_ ? static_cast<unsigned>(total - total_) : 0);
        has_begun_ = true;
        total_ = total;
        return bps_get(meter_);
    }

private:
    net::bps_t meter_;
    uint64_t total_ = 0;
    bool has_begun_ = false;
};

/// The name of a stream as it stands in an address.
inline std::string coded_path(const char* name) {
    const core::owned_text coded(uri_encode_path(name, CORE_HERE));
    return coded ? coded.get() : name;
}

/// Paths are UTF-8 texts. A path that is made here finds the file on every system.
inline std::filesystem::path utf8_path(std::string_view text) { return std::u8string(text.begin(), text.end()); }

inline std::string utf8_text(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

}  // namespace apps
