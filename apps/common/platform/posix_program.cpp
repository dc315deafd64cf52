#include "system.h"

#include <csignal>

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

void prepare_console() {}

void note_interrupts(std::atomic<bool>& flag) {
    noted = &flag;
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
}

}  // namespace apps::platform
