#include "recording.h"

namespace viewer {

bool recording::open(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
        files_.push_back(make_writer(path));
        if (!note(files_.back()->open(), *files_.back())) return false;
    }
    return true;
}

bool recording::take(const av::frame_t& frame) {
    bool all = true;
    for (const auto& file : files_) {
        if (file->takes(frame.fcc)) all &= note(file->write(frame), *file);
    }
    return all;
}

bool recording::finish() {
    bool all = true;
    for (const auto& file : files_)
        all &= note(file->finish(), *file);
    files_.clear();
    return all;
}

bool recording::note(bool written, const writer& file) {
    if (!written && failed_.empty()) failed_ = file.path();
    return written;
}

}  // namespace viewer
