// What the programs ask of the operating system and the library does not offer. posix_*.cpp and windows_*.cpp implement
// the same functions; no other source of the programs knows on which system it runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace apps::platform {

/// The arguments of main(), the program's name first, as UTF-8.
std::vector<std::string> arguments(int argc, const char* const* argv);

/// Has the console show UTF-8 and follow escape sequences, until the program ends.
void prepare_console();

/// Has waits end within a millisecond of their time, until the program ends: media is paced by them.
void ask_for_short_ticks();

/// Has the standard output pass bytes as they are, and errors be told.
void prepare_output();

/// Sets `flag` when the user or the system asks the program to end. The second request ends it at once.
void note_interrupts(std::atomic<bool>& flag);

/// Waits for bytes of the standard input, `milliseconds` at the most, and reads what is there.
/// @return how many; 0 when none came in that time; -1 at the end
int read_input(std::span<uint8_t> room, int milliseconds);

}  // namespace apps::platform
