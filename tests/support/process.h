/// What a test asks of the system about its own process: one set of functions, a posix_ and a windows_ half.
#pragma once

#include <filesystem>
#include <string>

namespace test {

/// Name of the calling thread.
std::string thread_name();
/// Characters that the system keeps of such a name.
extern const size_t longest_thread_name;

/// The file of this program.
std::filesystem::path program_path();

/// Whether the library of that path is loaded, and whether the program itself has a symbol of that name.
bool is_loaded(const std::string& path);
bool has_symbol(const char* name);

}  // namespace test
