#include "command_line.h"

#include <cstdlib>
#include <fstream>

namespace apps {

bool credentials::complete(std::string& error, bool both) {
    if (!password.empty() && !password_file.empty()) {
        error = "--password and --password-file: one of them";
        return false;
    }
    if (!password_file.empty()) {
        std::ifstream file(utf8_path(password_file));
        std::getline(file, password);
        if (password.ends_with('\r')) password.pop_back();
        if (password.empty()) {
            error = "--password-file: no password in the first line of " + password_file;
            return false;
        }
    }
    const char* const from_environment = std::getenv(password_variable);
    if (!user.empty() && password.empty() && from_environment) password = from_environment;
    if (user.empty() == password.empty() || (!both && password.empty())) return true;
    error = user.empty() ? "a password needs --user" : "--user needs --password, --password-file or INET_PASSWORD";
    return false;
}

}  // namespace apps
