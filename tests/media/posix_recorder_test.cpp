// What recorders write, read by ffmpeg.
#include "support/program.h"

#include "avc/access_units.h"
#include "avc/fcc.h"
#include "core/owned.h"
#include "media/recorder.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>

namespace {

using namespace std::string_literals;
using frame_ptr = core::owned<av::frame_t, avc_frame_need>;

constexpr int64_t second = 1'000'000;
constexpr uint64_t start = 1'700'000'000'000'000;
const std::string ffmpeg = "ffmpeg -v error -xerror ";

struct piece_t {
    int64_t arrival;  // microseconds from the first picture on, as is the time of its display
    int64_t at;
    frame_ptr frame;
};

frame_ptr frame_of(uint32_t fcc, std::string_view bytes) {
    return frame_ptr(avc_frame_create(fcc, 0, bytes.data(), static_cast<uint32_t>(bytes.size()), CORE_HERE));
}

/// Two seconds of pictures in decoding order, with B-pictures.
void add_pictures(std::vector<piece_t>& to, const test::scratch& dir, int64_t from) {
    const std::string film = dir / "film.mp4";
    if (!std::filesystem::exists(film))
        test::run(ffmpeg + "-f lavfi -i testsrc=size=160x96:rate=25 -t 2 -c:v libx264 -bf 3 -b_strategy 0 " + film);
    const std::string stream = test::run(ffmpeg + "-i " + film + " -c copy -f h264 -");
    std::istringstream times(test::run("ffprobe -v error -show_entries packet=pts_time -of csv=p=0 " + film));
    std::vector<frame_ptr> pictures;
    av::AccessUnits units(CORE_HERE);
    const auto keep = [](void* arg, buffer_t unit) {
        static_cast<std::vector<frame_ptr>*>(arg)->push_back(
            frame_of(av::fcc_h264, {reinterpret_cast<const char*>(unit.data), unit.size}));
    };
    const auto bytes = test::bytes_of(stream);
    units.take({const_cast<uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())}, keep, &pictures);
    units.end(keep, &pictures);
    ASSERT_EQ(pictures.size(), 50U);
    double shown = 0;
    for (int64_t i = 0; times >> shown; ++i)
        to.push_back(
            {from + i * 40'000, from + std::llround(shown * 1e6), std::move(pictures[static_cast<size_t>(i)])});
}

struct sound_t {
    uint32_t fcc;
    uint32_t rate;
    uint32_t channels;
    std::string config;
    const char* encoder;
    size_t header;    // bytes in front of each block, which tell its size
    int64_t samples;  // of a block
};

void add_sound(std::vector<piece_t>& to, const sound_t& sound, int64_t from, int64_t until) {
    const std::string all = test::run(ffmpeg + "-f lavfi -i sine=sample_rate=" + std::to_string(sound.rate) +
                                      " -t 3 -ac " + std::to_string(sound.channels) + " " + sound.encoder + " -");
    size_t size = static_cast<size_t>(sound.samples) * sound.channels;
    int64_t number = 0;
    for (size_t at = 0; at + size <= all.size(); at += size, ++number) {
        const auto byte = [&](size_t i) { return static_cast<uint8_t>(all[at + i]); };
        if (sound.header) size = (byte(3) & 3U) << 11 | byte(4) << 3U | byte(5) >> 5U;
        const int64_t when = from + number * sound.samples * second / sound.rate;
        if (when >= until || at + size > all.size()) return;
        to.push_back({when, when, frame_of(sound.fcc, std::string_view(all).substr(at, size).substr(sound.header))});
        to.back().frame->rate = sound.rate;
        to.back().frame->channels = sound.channels;
    }
}

/// Gives them in the order in which they come.
void play(media::recorder& film, std::vector<piece_t>& pieces) {
    std::ranges::stable_sort(pieces, {}, &piece_t::arrival);
    for (const piece_t& each : pieces) {
        each.frame->time = start + static_cast<uint64_t>(each.at);
        EXPECT_EQ(film.take(*each.frame), 1);
    }
    pieces.clear();
}

/// The loudest sample in a part of the sound.
int loudest(const std::string& samples, const sound_t& sound, double from, double until) {
    int most = 0;
    const auto place = [&](double time) { return static_cast<size_t>(time * sound.rate) * sound.channels * 2; };
    for (size_t at = place(from); at + 1 < std::min(place(until), samples.size()); at += 2) {
        const auto low = static_cast<uint8_t>(samples[at]);
        most = std::max(most, std::abs(static_cast<int16_t>(low | samples[at + 1] << 8)));
    }
    return most;
}

std::string first_and_last(const std::string& path, const char* track) {
    std::istringstream lines(test::run("ffprobe -v error -select_streams "s + track +
                                       " -show_entries packet=pts_time,duration_time -of csv=p=0 " + path +
                                       " | grep ,"));
    std::string line;
    double first = 1e9, last = 0;
    while (std::getline(lines, line)) {
        const double at = std::stod(line);
        first = std::min(first, at);
        if (!line.ends_with("N/A")) last = std::max(last, at + std::stod(line.substr(line.find(',') + 1)));
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.2f %.1f", first, last);
    return text;
}

TEST(Recorder, SoundAndPictureOfAFilmHaveOneTimeBaseOverLossAndPauses) {
    const sound_t sounds[] = {
        {av::fcc_pcmu, 8000, 1, "", "-f mulaw", 0, 160},
        {av::fcc_pcma, 8000, 2, "", "-f alaw", 0, 160},
        {av::fcc_mp4a, 16000, 1, "\x14\x08"s, "-c:a aac -f adts", 7, 1024},
        {av::fcc_mp4a, 44100, 2, "\x12\x10"s, "-c:a aac -f adts", 7, 1024},
        {av::fcc_mp4a, 48000, 6, "\x11\xb0"s, "-c:a aac -f adts", 7, 1024},
        {av::fcc_mp4a, 48000, 8, "\x11\xb8"s, "-c:a aac -f adts", 7, 1024},
    };
    const test::scratch dir;
    for (const sound_t& sound : sounds) {
        SCOPED_TRACE(sound.encoder + " "s + std::to_string(sound.rate));
        const std::string path = dir / "made.mp4";
        media::recorder film;
        ASSERT_EQ(film.add(path.c_str()), 1);
        film.declare({.fcc = av::fcc_h264});
        const auto config = test::bytes_of(sound.config);
        film.declare({.fcc = sound.fcc,
                      .rate = sound.rate,
                      .channels = sound.channels,
                      .config = {const_cast<uint8_t*>(config.data()), static_cast<uint32_t>(config.size())}});
        std::vector<piece_t> pieces;
        // Sound comes first, has a gap, ends early; the source goes away for three seconds.
        add_pictures(pieces, dir, 0);
        add_sound(pieces, sound, -second / 2, second * 4 / 10);
        add_sound(pieces, sound, second * 6 / 10, second * 15 / 10);
        play(film, pieces);
        EXPECT_EQ(film.pause(), 1);
        add_pictures(pieces, dir, 5 * second);
        add_sound(pieces, sound, 5 * second, 8 * second);
        play(film, pieces);
        EXPECT_EQ(film.finish(), 1);

        EXPECT_EQ(first_and_last(path, "v"), "0.08 7.1");
        EXPECT_EQ(first_and_last(path, "a"), "0.08 8.1");
        const std::string samples = test::run(ffmpeg + "-i " + path + " -map 0:a -f s16le -");
        EXPECT_NEAR(static_cast<double>(samples.size()) / (2.0 * sound.channels * sound.rate), 8.0, 0.07);
        for (const auto& [from, until] : {std::pair{0.1, 0.3}, {0.75, 1.4}, {5.15, 7.9}})
            EXPECT_GT(loudest(samples, sound, from, until), 1000) << from;
        for (const auto& [from, until] : {std::pair{0.51, 0.59}, {1.63, 4.95}})
            EXPECT_LT(loudest(samples, sound, from, until), 50) << from;
        // Pictures as they were encoded, each in its place.
        const std::string hashes =
            " -map 0:v -fps_mode passthrough -f framehash -hash crc32 - | grep -o '[0-9a-f]\\{8\\}$'";
        const std::string once = test::run(ffmpeg + "-i " + (dir / "film.mp4") + hashes);
        EXPECT_EQ(test::run(ffmpeg + "-i " + path + hashes), once + once);
    }
}

TEST(Recorder, WritesWhatACursorFinds) {
    const test::scratch dir;
    const std::string path = dir / "made.mp4";
    media::stream* const stream = media::stream::create("live", {}, CORE_HERE);
    media::cursor cursor;
    cursor.open(*stream, {});
    media::recorder film;
    ASSERT_EQ(film.add(path.c_str()), 1);
    std::vector<piece_t> pieces;
    add_pictures(pieces, dir, 0);
    constexpr int64_t delay = 80'000;
    for (const piece_t& each : pieces) {
        each.frame->time = start + static_cast<uint64_t>(each.arrival);
        each.frame->shown_after = static_cast<uint32_t>(each.at + delay - each.arrival);
        EXPECT_EQ(stream->push(*each.frame), 1);
    }
    media::entry_t entry;
    for (auto found = cursor.next(entry); found != media::read_t::nothing; found = cursor.next(entry))
        EXPECT_EQ(film.take(found, entry), 1);
    EXPECT_EQ(film.finish(), 1);
    EXPECT_EQ(first_and_last(path, "v"), "0.08 2.1");
    cursor.close();
    media::stream::drop(stream);
}

TEST(Recorder, LeavesWhatWasThereUntilItBegins) {
    const test::scratch dir;
    const std::string path = dir / "a.h264";
    const std::string folder = dir / "b.mp4";
    std::filesystem::create_directory(folder);
    test::write_file(path, test::bytes_of("earlier"s));
    media::failure_t why;
    media::recorder film;
    EXPECT_EQ(film.add(path.c_str(), &why), 1);
    EXPECT_EQ(film.add((dir / "c.wav").c_str(), &why), 1);
    for (const auto& [name, cause] : {std::pair{folder, "it is a folder"}, {dir / "none/a.mp4", "no such folder"}}) {
        EXPECT_EQ(film.add(name.c_str(), &why), 0);
        EXPECT_NE(std::string(why.text).find(cause), std::string::npos) << why.text;
    }
    EXPECT_EQ(film.finish(&why), 1);
    EXPECT_EQ(test::read_file(path), "earlier");
    EXPECT_EQ(film.untouched(), path);
    EXPECT_FALSE(std::filesystem::exists(dir / "c.wav"));
}

}  // namespace
