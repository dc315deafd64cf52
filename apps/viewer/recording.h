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
    /// Brings to the files what is held back: it may take long until more comes.
    bool flush();
    /// Completes all files.
    bool finish();

    const std::string& failed() const { return failed_; }
    /// The first file for which nothing came; none when it is empty.
    std::string untouched() const;

private:
    struct output {
        std::unique_ptr<writer> file;
        bool touched = false;
    };

    bool note(bool written, const writer& file);

    std::vector<output> outputs_;
    std::string failed_;
};

}  // namespace viewer
