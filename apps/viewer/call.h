// "inet-viewer call USER@SERVER": a call over SIP, whose pictures and sound are recorded.
#pragma once

#include <span>
#include <string>

namespace viewer {

bool is_about_call(std::span<const std::string> arguments);

/// All of the program, for these arguments. @return the exit status
int make_call(std::span<const std::string> arguments);

}  // namespace viewer
