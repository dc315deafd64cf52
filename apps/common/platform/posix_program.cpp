#include "system.h"

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <unistd.h>

namespace apps::platform {
namespace {

std::atomic<bool>* noted = nullptr;
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

void on_signal(int number) {
    *noted = true;
    std::signal(number, SIG_DFL);
}

}  // namespace

std::vector<std::string> arguments(int argc, const char* const* argv) { return {argv, argv + argc}; }

void ask_for_short_ticks() {}

void prepare_console() {}

// What is written to a pipe that nobody reads is told as an error.
void prepare_output() { std::signal(SIGPIPE, SIG_IGN); }

void note_interrupts(std::atomic<bool>& flag) {
    noted = &flag;
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
}

int read_input(std::span<uint8_t> room, int milliseconds) {
    pollfd waited{STDIN_FILENO, POLLIN, 0};
    if (poll(&waited, 1, milliseconds) <= 0) return 0;
    const ssize_t count = read(STDIN_FILENO, room.data(), room.size());
    if (count > 0) return static_cast<int>(count);
    return count < 0 && (errno == EINTR || errno == EAGAIN) ? 0 : -1;
}

}  // namespace apps::platform
