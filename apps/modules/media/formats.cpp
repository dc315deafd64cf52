#include "film.h"
#include "program.h"

#include "avc/aac.h"
#include "avc/fcc.h"
#include "avc/jpeg.h"
#include "core/text.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <numeric>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

namespace media_module {
namespace {

constexpr pace still_pictures{5, 1};
constexpr pace detector_reports{5, 1};
constexpr uint32_t audio_rate = 8000;
constexpr size_t audio_block = 160;  // 20 ms, what telephones and cameras send

/// ITU-T G.711, table 2.
constexpr uint8_t mulaw_encode(int16_t sample) {
    constexpr int bias = 0x84;
    constexpr int clip = 32635;
    const int sign = sample < 0 ? 0x80 : 0;
    const int magnitude = std::min(sample < 0 ? -static_cast<int>(sample) : sample, clip) + bias;
    // The segment is the position of the highest bit above the lowest segment's eight.
    const int segment = static_cast<int>(std::bit_width(static_cast<unsigned>(magnitude))) - 8;
    const int mantissa = magnitude >> (segment + 3) & 0x0f;
    return static_cast<uint8_t>(~(sign | segment << 4 | mantissa));
}

uint32_t little_endian(std::span<const uint8_t> bytes, size_t at, size_t count) {
    uint32_t value = 0;
    for (size_t i = 0; i < count; ++i)
        value |= static_cast<uint32_t>(bytes[at + i]) << 8 * i;
    return value;
}

/// Finds a chunk of a RIFF file; empty when it is not there. A chunk cut short by the end of the file is taken as it
/// is.
std::span<const uint8_t> riff_chunk(std::span<const uint8_t> file, std::string_view name) {
    for (size_t at = 12; at + 8 <= file.size();) {
        const size_t size = little_endian(file, at + 4, 4);
        const auto body = file.subspan(at + 8);
        if (std::memcmp(&file[at], name.data(), 4) == 0) return body.first(std::min(size, body.size()));
        at += 8 + size + size % 2;
    }
    return {};
}

/// Samples of a wave file as µ-law.
std::vector<uint8_t> wave_samples(const std::string& path, const file_bytes& file) {
    const auto bytes = file.bytes();
    const auto format = riff_chunk(bytes, "fmt ");
    const auto data = riff_chunk(bytes, "data");
    constexpr uint32_t pcm = 1;
    constexpr uint32_t mulaw = 7;
    if (format.size() < 16 || little_endian(format, 2, 2) != 1 || little_endian(format, 4, 4) != audio_rate) {
        throw std::runtime_error(path + ": wants one channel at 8000 Hz");
    }
    const uint32_t coding = little_endian(format, 0, 2);
    const uint32_t bits = little_endian(format, 14, 2);
    if (coding == mulaw && bits == 8) return {data.begin(), data.end()};
    if (coding != pcm || bits != 16) throw std::runtime_error(path + ": wants \xC2\xB5-law or 16-bit PCM");
    std::vector<uint8_t> samples(data.size() / 2);
    for (size_t i = 0; i < samples.size(); ++i) {
        samples[i] = mulaw_encode(static_cast<int16_t>(little_endian(data, 2 * i, 2)));
    }
    return samples;
}

track load_wave(const std::string& path, const file_bytes& file) {
    const std::vector<uint8_t> samples = wave_samples(path, file);
    if (samples.size() < audio_block) throw std::runtime_error(path + ": shorter than 20 ms");
    // Whole blocks only: what is left of the last one, less than 20 ms, is not played.
    std::vector<frame_ptr> blocks;
    for (size_t at = 0; at + audio_block <= samples.size(); at += audio_block) {
        blocks.push_back(make_frame(av::fcc_pcmu, std::span(samples).subspan(at, audio_block)));
    }
    return {std::move(blocks), {audio_rate / audio_block, 1}};
}

/// What stands behind the tag that players of music put before the frames (ID3v2).
std::span<const uint8_t> behind_tag(std::span<const uint8_t> file) {
    constexpr size_t head = 10;
    if (file.size() < head || std::memcmp(file.data(), "ID3", 3) != 0) return file;
    size_t size = head;
    for (const uint8_t each : file.subspan(6, 4))
        size = (size - head) * 128 + (each & 0x7f) + head;
    return file.subspan(std::min(size, file.size()));
}

/// AAC of one format in ADTS form. A frame that is cut short by the end of the file is left out.
track load_aac(const std::string& path, const file_bytes& file) {
    const std::runtime_error unusable(path +
                                      ": no wave file and no AAC in ADTS form of one rate and number of channels; try: "
                                      "ffmpeg -i " +
                                      path + " -vn -c:a aac sound.aac");
    constexpr size_t most_frames = 1U << 22;  // a day of sound
    std::vector<frame_ptr> frames;
    av::adts_t first{};
    av::adts_t next{};
    auto rest = behind_tag(file.bytes());
    while (adts_parse(rest, &next) == 1) {
        if (frames.empty()) first = next;
        if (!std::ranges::equal(first.config, next.config)) throw unusable;
        if (next.size > rest.size()) break;
        if (frames.size() == most_frames) throw std::runtime_error(path + ": more than 4194304 frames");
        frames.push_back(make_frame(av::fcc_mp4a, rest.first(next.size).subspan(next.header)));
        frames.back()->rate = first.rate;
        frames.back()->channels = first.channels;
        rest = rest.subspan(next.size);
    }
    constexpr size_t closing_tag = 128;  // ID3v1
    if (frames.empty() || (adts_parse(rest, &next) < 0 && rest.size() != closing_tag)) throw unusable;
    constexpr uint64_t samples = 1024;
    const uint64_t common = std::gcd(uint64_t{first.rate}, samples);
    return {std::move(frames), {first.rate / common, samples / common}, {first.config, first.config + 2}};
}

track load_audio(const std::string& path) {
    const file_bytes file(path);
    return file.text().starts_with("RIFF") ? load_wave(path, file) : load_aac(path, file);
}

/// Whether RTP can carry a JPEG picture (RFC 2435, 3.1): baseline with 4:2:2 or 4:2:0 chroma, whole blocks in a line.
bool is_sendable(const av::frame_t& picture) {
    constexpr uint32_t most_pixels = 2040;
    constexpr uint32_t block = 8;
    jpeg_info_t info{};
    if (!jpeg_inspect({picture.data, picture.size}, &info) || info.progressive || info.components != 3) return false;
    const auto [luma, cb, cr] = info.sampling;
    return (luma == 0x21 || luma == 0x22) && cb == 0x11 && cr == 0x11 && info.width % block == 0 &&
           std::max(info.width, info.height) <= most_pixels;
}

track load_pictures(std::string_view paths, uint32_t per_second) {
    std::vector<frame_ptr> pictures;
    while (!paths.empty()) {
        const std::string path(paths.substr(0, paths.find('\n')));
        paths.remove_prefix(std::min(path.size() + 1, paths.size()));
        const file_bytes file(path);
        pictures.push_back(make_frame(av::fcc_jpeg, file.bytes()));
        if (!is_sendable(*pictures.back())) {
            throw std::runtime_error(
                path +
                ": wants a baseline JPEG picture, luma sampled 2x2 or 2x1 and chroma 1x1, of at most "
                "2040 pixels a side, its width a multiple of 8");
        }
    }
    return {std::move(pictures), per_second > 0 ? pace{per_second, 1} : still_pictures};
}

track load_reports(const std::string& path) {
    const file_bytes file(path);
    std::vector<frame_ptr> reports;
    std::string_view rest = file.text();
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (line.find_first_not_of(" \t\r") == std::string_view::npos) continue;
        reports.push_back(make_frame(av::fcc_meta, {reinterpret_cast<const uint8_t*>(line.data()), line.size()}));
    }
    if (reports.empty()) throw std::runtime_error(path + ": no report");
    return {std::move(reports), detector_reports};
}

/// Whether a file has one of these names, or else begins like that.
bool is_a(const std::string& path, std::initializer_list<std::string_view> endings, std::string_view beginning) {
    const auto ends = [&](std::string_view ending) {
        return path.size() > ending.size() && core_strcasecmp(&path[path.size() - ending.size()], ending.data()) == 0;
    };
    if (std::ranges::any_of(endings, ends)) return true;
    char bytes[4]{};
    std::ifstream(apps::utf8_path(path), std::ios::binary).read(bytes, sizeof bytes);
    return std::string_view(bytes, sizeof bytes).starts_with(beginning);
}

}  // namespace

track load_track(const std::string& files, wanted_t wanted, uint32_t per_second) {
    if (wanted == wanted_t::sound) return load_audio(files);
    if (wanted == wanted_t::pictures) return load_film(files, per_second);
    const std::string first = files.substr(0, files.find('\n'));
    if (is_a(first, {".wav"}, "RIFF") || is_a(first, {".aac"}, "\xff\xf1")) return load_audio(files);
    if (is_a(first, {".json"}, "{")) return load_reports(files);
    if (is_a(first, {".jpg", ".jpeg"}, "\xff\xd8")) return load_pictures(files, per_second);
    return load_film(files, per_second);
}

}  // namespace media_module
