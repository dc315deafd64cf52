#include "recording.h"

#include <algorithm>

namespace viewer {

bool recording::open(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
        outputs_.push_back({make_writer(path)});
        writer& file = *outputs_.back().file;
        if (!note(file.open(), file)) return false;
    }
    return true;
}

bool recording::take(const av::frame_t& frame) {
    bool all = true;
    for (auto& [file, touched] : outputs_) {
        if (!file->takes(frame.fcc)) continue;
        touched = true;
        all &= note(file->write(frame), *file);
    }
    return all;
}

bool recording::flush() {
    bool all = true;
    for (const output& each : outputs_)
        all &= note(each.file->flush(), *each.file);
    return all;
}

bool recording::finish() {
    bool all = true;
    for (const output& each : outputs_)
        all &= note(each.file->finish(), *each.file);
    return all;
}

std::string recording::untouched() const {
    const auto found = std::ranges::find(outputs_, false, &output::touched);
    return found == outputs_.end() ? std::string() : found->file->path();
}

bool recording::note(bool written, const writer& file) {
    if (!written && failed_.empty()) failed_ = file.path();
    return written;
}

}  // namespace viewer
