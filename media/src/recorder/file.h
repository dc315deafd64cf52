// A file of a recording: what all kinds have in common.
#pragma once

#include "core/owned.h"
#include "media/recorder.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string_view>

namespace media::record {

/// A frame in its place.
struct placed_t {
    const av::frame_t& frame;
    int64_t at;  ///< microseconds from the start of the recording, in order of display
};

/// Bytes to a file or the standard output. What fails says why.
class output {
public:
    explicit output(const char* path) : path_(path) {}

    const char* path() const noexcept { return path_.c_str(); }
    bool is_standard() const noexcept;
    /// Why the last call failed, in words.
    const char* cause() const noexcept { return cause_.c_str(); }

    /// Whether it could be written. What is there stays as it is.
    bool check();
    /// Empties the file.
    bool open();
    bool is_open() const noexcept { return open_; }
    bool put(const void* data, size_t size);
    bool flush();
    /// To the start. Not for the standard output.
    bool rewind();
    bool close();

private:
    bool note(bool done);

    core::string path_;
    core::string cause_;
    std::ofstream file_;
    bool open_ = false;
};

/// May throw std::bad_alloc.
class file {
public:
    explicit file(const char* path) : out_(path) {}
    virtual ~file() = default;
    file(const file&) = delete;
    file& operator=(const file&) = delete;
    static void operator delete(void* block) noexcept { core_mfree(block); }

    output& out() noexcept { return out_; }
    const output& out() const noexcept { return out_; }
    /// Why the last call failed.
    virtual const char* cause() const noexcept { return out_.cause(); }
    bool touched = false;  ///< a frame came for it

    virtual bool takes(uint32_t fcc) const noexcept = 0;
    /// Whether it takes pictures and sound together.
    virtual bool is_film() const noexcept { return false; }
    /// Where the pictures' files lie, and the like.
    virtual bool check() { return out_.check(); }
    /// What its tracks are, before the first frame.
    /// @param formats  one of each kind; those without a code are not there
    virtual void begin(const format_t (&)[kind_count]) {}
    /// A whole frame of a format that is taken. This and the following answer false when it cannot be written.
    virtual bool take(const placed_t& placed) = 0;
    /// Writes what is held.
    virtual bool flush() { return !out_.is_open() || out_.flush(); }
    virtual bool finish() { return !out_.is_open() || out_.close(); }
    /// What there is to say about it; empty when there is nothing, and after it was asked.
    core::string take_note() { return std::exchange(note_, core::string()); }

protected:
    void say(const char* text) { note_ = core::string(text); }
    /// Opens it with the first frame.
    bool is_ready() { return out_.is_open() || out_.open(); }

private:
    output out_;
    core::string note_;
};

using file_ptr = std::unique_ptr<file>;

/// The file for such a name; null when there is none of that kind.
file_ptr make_file(const char* path);
bool is_file_name(std::string_view path);

file_ptr make_mp4(const char* path);
file_ptr make_wav(const char* path);

template <class T>
file_ptr make(const char* path) {
    void* const block = core_malloc(sizeof(T), CORE_HERE);
    if (!block) throw std::bad_alloc();
    try {
        return file_ptr(::new (block) T(path));
    } catch (...) {
        core_mfree(block);
        throw;
    }
}

std::filesystem::path utf8_path(std::string_view text);

}  // namespace media::record
