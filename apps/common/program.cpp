#include "program.h"

#include "platform/system.h"

#include "core/log.h"
#include "core/memory.h"
#include "core/text.h"
#include "inet/inet.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace apps {
namespace {

std::atomic<bool> was_interrupted = false;

/// Names what is still held.
bool nothing_held(const char* program) {
    const auto print = [](void* arg, const mem_site_t* site) {
        std::fprintf(stderr, "%s: held: %s:%d: %zu blocks, %zu bytes\n", static_cast<const char*>(arg), site->file,
                     site->line, site->blocks, site->bytes);
    };
    return core_mem_report(print, const_cast<char*>(program)) == 0;
}

/// What is printed next does not stand behind the status line.
void clear_status() {
    if (core_con_is_terminal(1)) std::fputs("\r\x1b[K", stdout);
}

/// A message of the library is the program's.
void pass_on(void* program, const log_line_t* line) {
    complain(static_cast<const char*>(program), showable(line->text));
}

}  // namespace

std::string showable(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        uint32_t code = 0;
        const size_t size = utf8_decode(text.data(), text.size(), &code);
        const bool harmless = size > 0 && code >= ' ' && (code < 0x7f || code >= 0xa0);
        shown += harmless ? text.substr(0, size) : " ";
        text.remove_prefix(std::max<size_t>(size, 1));
    }
    return shown;
}

std::vector<std::string> start(int argc, const char* const* argv) {
    platform::prepare_console();
    platform::ask_for_short_ticks();
    std::vector<std::string> arguments = platform::arguments(argc, argv);
    if (!arguments.empty()) arguments.erase(arguments.begin());
    return arguments;
}

int tell_about(const char* program, about_t what, const std::string& usage) {
    if (what == about_t::version) {
        std::printf("%s %s\n", program, INET_VERSION);
    } else {
        std::fputs(usage.c_str(), stdout);
    }
    return std::fflush(stdout) == 0 ? 0 : status_failed;
}

void complain(const char* program, const std::string& message) {
    clear_status();
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", program, message.c_str());
}

void report(const std::string& line) {
    clear_status();
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

int run(const char* program, const std::string& log, const std::function<int()>& work) {
    platform::note_interrupts(was_interrupted);
    const uint32_t console = core_log_sink_add("console", pass_on, const_cast<char*>(program));
    const uint32_t file = log.empty() ? 0 : core_log_sink_file("*", log.c_str());
    int status = status_failed;
    if (!log.empty() && !file) {
        complain(program, "cannot write " + log);
    } else {
        net_init();
        status = work();
        net_free();
    }
    core_log_sink_rem(file);
    core_log_sink_rem(console);
    return nothing_held(program) ? status : status_failed;
}

bool interrupted() { return was_interrupted; }

status_line::status_line(bool shows) : terminal_(shows && core_con_is_terminal(1) != 0) {}

status_line::~status_line() {
    if (shown_) std::fputs("\n", stdout);
}

void status_line::show(const char* format, ...) {
    if (!terminal_) return;
    shown_ = true;
    va_list args;
    va_start(args, format);
    std::fputs("\r\x1b[K\x1b[?7l", stdout);  // cut at the edge: a second line would stay behind
    std::vprintf(format, args);
    std::fputs("\x1b[?7h", stdout);
    std::fflush(stdout);
    va_end(args);
}

}  // namespace apps
