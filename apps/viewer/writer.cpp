#include "writer.h"

#include "mp4_writer.h"
#include "utf8_path.h"

#include "avc/fcc.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <limits>

namespace viewer {
namespace {

bool put(std::ofstream& file, const void* data, size_t size) {
    file.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
    return file.good();
}

/// A file to which every frame is appended.
class stream_writer : public writer {
public:
    using writer::writer;

    bool open() override {
        file_.open(apps::utf8_path(path()), std::ios::binary | std::ios::trunc);
        return file_.is_open();
    }
    bool write(const av::frame_t& frame) override { return put(file_, frame.data, frame.size); }
    bool flush() override { return file_.flush().good(); }
    bool finish() override {
        file_.close();
        return file_.good();
    }

protected:
    std::ofstream& file() { return file_; }

private:
    std::ofstream file_;
};

class h264_writer final : public stream_writer {
public:
    using stream_writer::stream_writer;
    bool takes(uint32_t fcc) const override { return fcc == av::fcc_h264; }
};

/// Documents are there to be read as they come.
class text_writer final : public stream_writer {
public:
    using stream_writer::stream_writer;
    bool takes(uint32_t fcc) const override { return fcc == av::fcc_meta || fcc == av::fcc_univ; }
    bool write(const av::frame_t& frame) override {
        return stream_writer::write(frame) && put(file(), "\n", 1) && flush();
    }
};

/// A RIFF file of G.711 sound, mu-law or A-law by the first block.
class wav_writer final : public stream_writer {
public:
    using stream_writer::stream_writer;

    bool takes(uint32_t fcc) const override { return fcc == av::fcc_pcmu || fcc == av::fcc_pcma; }

    bool open() override { return stream_writer::open() && put_header(); }

    bool write(const av::frame_t& block) override {
        if (!samples_) take_format(block);
        if (block.fcc != fcc_) return true;
        // The format ends at 4 GiB, six days.
        const uint32_t room = std::numeric_limits<uint32_t>::max() - header_size - samples_;
        const uint32_t size = std::min(block.size, room);
        samples_ += size;
        return put(file(), block.data, size);
    }

    bool finish() override {
        const bool padded = samples_ % 2 == 0 || put(file(), "", 1);
        file().seekp(0);
        return put_header() && stream_writer::finish() && padded;
    }

private:
    static constexpr uint32_t header_size = 58;

    void take_format(const av::frame_t& block) {
        fcc_ = block.fcc;
        if (block.rate) rate_ = block.rate;
        constexpr uint32_t most_channels = 8;
        if (block.channels && block.channels <= most_channels) channels_ = static_cast<uint16_t>(block.channels);
    }

    bool put_header() {
        std::array<uint8_t, header_size> header;
        uint8_t* at = header.data();
        const auto text = [&](const char* word) { at = std::copy_n(word, 4, at); };
        const auto number = [&](uint32_t value, int bytes) {
            for (; bytes > 0; --bytes, value >>= 8)
                *at++ = static_cast<uint8_t>(value);
        };
        text("RIFF");
        number(header_size - 8 + samples_ + samples_ % 2, 4);
        text("WAVE");
        text("fmt ");
        number(18, 4);
        number(fcc_ == av::fcc_pcma ? 6 : 7, 2);
        number(channels_, 2);
        number(rate_, 4);
        number(rate_ * channels_, 4);
        number(channels_, 2);
        number(8, 2);
        number(0, 2);
        text("fact");
        number(4, 4);
        number(samples_ / channels_, 4);
        text("data");
        number(samples_, 4);
        return put(file(), header.data(), header.size());
    }

    uint32_t fcc_ = av::fcc_pcmu;
    uint32_t rate_ = 8000;
    uint16_t channels_ = 1;
    uint32_t samples_ = 0;
};

/// Where the number of a picture stands in the names of the files.
struct number_place {
    size_t begin = 0;
    size_t length = 0;
    size_t digits = 5;
    std::string separator;
};

/// In place of "%05d" or the like, else before the ending.
number_place find_number_place(const std::string& path) {
    constexpr size_t most_digits = 20;
    number_place place;
    place.begin = path.find('%');
    const size_t end = path.find_first_not_of("0123456789", place.begin + 1);
    if (place.begin < end && end < path.size() && path[end] == 'd') {
        place.length = end + 1 - place.begin;
        place.digits = 0;
        std::from_chars(&path[place.begin + 1], &path[end], place.digits);
        place.digits = std::min(place.digits, most_digits);
    } else {
        place.begin = path.size() - apps::utf8_path(path).extension().u8string().size();
        place.separator = "_";
    }
    return place;
}

/// A file for every picture.
class jpeg_writer final : public writer {
public:
    using writer::writer;
    bool takes(uint32_t fcc) const override { return fcc == av::fcc_jpeg; }
    /// There is no file before the first picture, but a place for it.
    bool open() override {
        const std::filesystem::path folder = apps::utf8_path(path()).parent_path();
        std::error_code ignored;
        return folder.empty() || std::filesystem::is_directory(folder, ignored);
    }
    bool write(const av::frame_t& picture) override {
        std::ofstream file(apps::utf8_path(next_name()), std::ios::binary | std::ios::trunc);
        return put(file, picture.data, picture.size) && file.flush().good();
    }
    bool flush() override { return true; }
    bool finish() override { return true; }

private:
    std::string next_name() {
        std::string number = std::to_string(++number_);
        number.insert(0, place_.digits - std::min(place_.digits, number.size()), '0');
        return std::string(path()).replace(place_.begin, place_.length, place_.separator + number);
    }

    number_place place_ = find_number_place(path());
    uint64_t number_ = 0;
};

using maker = std::unique_ptr<writer> (*)(const std::string& path);

template <class T>
std::unique_ptr<writer> make(const std::string& path) {
    return std::make_unique<T>(path);
}

struct kind {
    std::string_view ending;
    maker make;
};
constexpr kind kinds[] = {
    {".h264", make<h264_writer>}, {".264", make<h264_writer>}, {".mp4", make<mp4_writer>},
    {".wav", make<wav_writer>},   {".jpg", make<jpeg_writer>}, {".jpeg", make<jpeg_writer>},
    {".txt", make<text_writer>},  {".xml", make<text_writer>},
};

const kind* find_kind(std::string_view path) {
    std::string ending = apps::utf8_text(apps::utf8_path(path).extension());
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const auto* found =
        std::find_if(std::begin(kinds), std::end(kinds), [&](const kind& each) { return each.ending == ending; });
    return found == std::end(kinds) ? nullptr : found;
}

}  // namespace

bool can_write(std::string_view path) { return find_kind(path) != nullptr; }

std::unique_ptr<writer> make_writer(const std::string& path) {
    const kind* found = find_kind(path);
    return found ? found->make(path) : nullptr;
}

}  // namespace viewer
