// The kinds of files, but for sound and film.
#include "recorder/file.h"

#include "avc/aac.h"
#include "avc/fcc.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <string>

namespace media::record {

namespace {

class h264_file final : public file {
public:
    using file::file;
    bool takes(uint32_t fcc) const noexcept override { return fcc == av::fcc_h264; }
    bool take(const placed_t& placed) override { return is_ready() && out().put(placed.frame.data, placed.frame.size); }
};

/// Access units with the headers of ADTS.
class aac_file final : public file {
public:
    using file::file;
    bool takes(uint32_t fcc) const noexcept override { return fcc == av::fcc_mp4a; }
    const char* cause() const noexcept override { return unfit_ ? "ADTS cannot hold this AAC" : file::cause(); }
    void begin(const format_t (&formats)[kind_count]) override {
        const format_t& format = formats[static_cast<size_t>(kind_t::audio)];
        known_ = aac_parse_config({format.config.data, format.config.size}, &config_) != 0;
    }
    bool take(const placed_t& placed) override {
        const av::frame_t& unit = placed.frame;
        // Nothing was declared: the usual kind.
        if (!known_) config_ = {.type = 2, .rate = unit.rate, .layout = unit.channels == 8 ? 7 : unit.channels};
        std::array<uint8_t, av::adts_header_size> header;
        unfit_ = !adts_header(config_, unit.size, header);
        return !unfit_ && is_ready() && out().put(header.data(), header.size()) && out().put(unit.data, unit.size);
    }

private:
    av::aac_config_t config_;
    bool known_ = false;
    bool unfit_ = false;
};

/// Documents are there to be read as they come.
class text_file final : public file {
public:
    using file::file;
    bool takes(uint32_t fcc) const noexcept override { return fcc == av::fcc_meta || fcc == av::fcc_univ; }
    bool take(const placed_t& placed) override {
        return is_ready() && out().put(placed.frame.data, placed.frame.size) && out().put("\n", 1) && out().flush();
    }
};

/// Where the number of a picture stands in the names of the files.
struct number_place {
    size_t begin = 0;
    size_t length = 0;
    size_t digits = 5;
    const char* separator = "";
};

/// In place of "%05d" or the like, else before the ending.
number_place find_number_place(std::string_view path) {
    constexpr size_t most_digits = 20;
    number_place place;
    place.begin = path.find('%');
    const size_t end = path.find_first_not_of("0123456789", place.begin + 1);
    if (place.begin < end && end < path.size() && path[end] == 'd') {
        place.length = end + 1 - place.begin;
        place.digits = 0;
        std::from_chars(path.data() + place.begin + 1, path.data() + end, place.digits);
        place.digits = std::min(place.digits, most_digits);
    } else {
        place.begin = path.rfind('.');
        place.separator = "_";
    }
    return place;
}

/// A file for every picture.
class jpeg_file final : public file {
public:
    explicit jpeg_file(const char* path) : file(path), place_(find_number_place(path)) {}

    bool takes(uint32_t fcc) const noexcept override { return fcc == av::fcc_jpeg; }
    const char* cause() const noexcept override { return cause_.c_str(); }
    bool check() override {
        output first(name(1).c_str());
        return note(first.check(), first);
    }
    bool take(const placed_t& placed) override {
        output picture(name(++number_).c_str());
        const bool written = picture.open() && picture.put(placed.frame.data, placed.frame.size) && picture.close();
        return note(written, picture);
    }

private:
    bool note(bool done, const output& of) {
        if (!done) cause_ = core::string(of.cause());
        return done;
    }
    core::string name(uint64_t number) const {
        std::string digits = std::to_string(number);
        digits.insert(0, place_.digits - std::min(place_.digits, digits.size()), '0');
        core::string result(out().path());
        result.replace(place_.begin, place_.length, (place_.separator + digits).c_str());
        return result;
    }

    number_place place_;
    uint64_t number_ = 0;
    core::string cause_;
};

struct kind {
    std::string_view ending;
    file_ptr (*make)(const char* path);
};
constexpr kind kinds[] = {
    {".mp4", make_mp4},         {".h264", make<h264_file>}, {".264", make<h264_file>},
    {".wav", make_wav},         {".aac", make<aac_file>},   {".jpg", make<jpeg_file>},
    {".jpeg", make<jpeg_file>}, {".txt", make<text_file>},  {".xml", make<text_file>},
};

const kind* find_kind(std::string_view path) {
    if (path == "-") return &kinds[0];
    const auto same = [](char one, char other) {
        return std::tolower(static_cast<unsigned char>(one)) == std::tolower(static_cast<unsigned char>(other));
    };
    const std::string_view name = path.substr(path.find_last_of("/\\") + 1);
    const auto* const found = std::ranges::find_if(kinds, [&](const kind& each) {
        return name.size() > each.ending.size() &&
               std::ranges::equal(name.substr(name.size() - each.ending.size()), each.ending, same);
    });
    const bool pictures_to_output =
        found != std::end(kinds) && found->make == make<jpeg_file> && name.starts_with("-.");
    return found == std::end(kinds) || pictures_to_output ? nullptr : found;
}

}  // namespace

bool is_file_name(std::string_view path) { return find_kind(path) != nullptr; }

file_ptr make_file(const char* path) {
    const kind* const found = find_kind(path);
    return found ? found->make(path) : nullptr;
}

}  // namespace media::record
