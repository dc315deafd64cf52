// User and password, from the command line, a file or the environment.
#pragma once

#include <string>

namespace apps {

/// The environment variable that holds the password when no option does.
inline constexpr const char* password_variable = "INET_PASSWORD";

struct credentials {
    std::string user;
    std::string password;
    std::string password_file;

    /// Finds the password of the user: that of the option, the first line of the file, or the variable.
    /// @return false with the reason in `error`: a file that cannot be read, a password without user or the other way
    bool complete(std::string& error);
};

}  // namespace apps
