// The files of a run.
#pragma once

#include "writer.h"

#include <memory>
#include <string>
#include <vector>

namespace viewer {

class recording {
public:
    /// Creates the files. This and the following answer false when one cannot be written, with its name in `failed()`.
    bool open(const std::vector<std::string>& paths);
    /// A whole frame for the files of its format.
    bool take(const av::frame_t& frame);
    /// Completes all files.
    bool finish();

    const std::string& failed() const { return failed_; }

private:
    bool note(bool written, const writer& file);

    std::vector<std::unique_ptr<writer>> files_;
    std::string failed_;
};

}  // namespace viewer
