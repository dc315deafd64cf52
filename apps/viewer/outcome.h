// How a run of inet-viewer ended, which is its exit status.
#pragma once

#include <string>

namespace viewer {

/// How the program is called in its messages.
inline constexpr const char* name = "inet-viewer";

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

struct ending {
    outcome what = outcome::ok;
    std::string why;  ///< in words; empty when all went well
};

}  // namespace viewer
