// Files that take frames, one kind of file for each format.
#pragma once

#include "avc/frame.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace viewer {

/// Holds back at most one second of pictures (.mp4), or nothing.
class writer {
public:
    explicit writer(std::string path) : path_(std::move(path)) {}
    virtual ~writer() = default;
    writer(const writer&) = delete;
    writer& operator=(const writer&) = delete;

    const std::string& path() const { return path_; }

    /// Creates the file. This and the following answer false when it cannot be written.
    virtual bool open() = 0;
    virtual bool takes(uint32_t fcc) const = 0;
    /// A whole frame of a format that is taken; H.264 begins with a key picture.
    virtual bool write(const av::frame_t& frame) = 0;
    /// Brings to the file what is held back.
    virtual bool flush() = 0;
    /// Completes the file.
    virtual bool finish() = 0;

private:
    std::string path_;
};

/// The end of the name is one that there is a writer for.
bool can_write(std::string_view path);
/// The writer for such a name.
std::unique_ptr<writer> make_writer(const std::string& path);

}  // namespace viewer
