#include "inet/rtmp_chunks.h"

#include "rtmp/chunks.h"
#include "rtmp/flv.h"
#include "rtmp/messages.h"

#include "avc/fcc.h"
#include "common/h264.h"
#include "common/iobuffer.h"
#include "core/owned.h"
#include "core/time.h"

#include <algorithm>
#include <array>
#include <new>

namespace inet::rtmp {

namespace {

using bytes_t = std::span<const uint8_t>;

constexpr uint32_t fcc_mp3 = av::fcc("mp3 ");
constexpr uint32_t fcc_mp4v = av::fcc("MP4V");
constexpr uint32_t max_sets = 1000;
constexpr uint32_t max_sound_config = 64;

bytes_t held(const buf_t& buf) noexcept { return {buf.data, buf.length}; }

/// Makes `kept` what `bytes` are. @return whether memory sufficed; when not, nothing is kept
bool keep(buf_t& kept, bytes_t bytes) noexcept {
    kept.length = 0;
    return bytes.empty() || core_buf_read(&kept, bytes.data(), static_cast<uint32_t>(bytes.size())) > 0;
}

}  // namespace

class Chunks::insides {
public:
    explicit insides(core::place where) noexcept
        : where_(where), head_body_(where.file, where.line), lengths_(where), pieces_(where) {}
    insides(const insides&) = delete;
    insides& operator=(const insides&) = delete;
    ~insides() {
        for (buf_t* each : {&sps_, &pps_, &config_, &out, &head_})
            core_buf_free(each);
    }

    int cut(const av::frame_t& frame) noexcept;
    int set_sound(uint32_t fcc, bytes_t config) noexcept;
    buffer_t head() noexcept;
    void set_start(uint64_t us) noexcept {
        start_ = us;
        started_ = true;
    }

    uint32_t generation = 0;
    uint32_t fcc = 0;
    uint32_t timestamp = 0;
    bool whole_pictures = false;
    buf_t out;  // messages of the frame

private:
    uint32_t milliseconds(uint64_t time) const noexcept {
        return static_cast<uint32_t>(time > start_ ? (time - start_) / 1000 : 0);
    }
    void number_head() noexcept;
    bool cut_h264(const av::frame_t& frame) noexcept;
    bool take_sets(bytes_t stream) noexcept;
    bool put_slices(bytes_t stream, uint32_t composition) noexcept;
    bool put_picture(bytes_t stream, uint32_t composition);
    bool put_video(std::initializer_list<bytes_t> pieces) noexcept {
        return write_message(out, video_message(timestamp), pieces, media_chunk_size);
    }
    bool put_sound(bytes_t prefix, bytes_t data) noexcept {
        return write_message(out, audio_message(timestamp), {prefix, data}, media_chunk_size);
    }
    bool put_metadata() noexcept;
    bool put_headers() noexcept;

    core::place where_;
    uint64_t start_ = 0;
    bool started_ = false;
    uint64_t time_ = 0;  // of the frame
    buf_t sps_, pps_, config_;
    uint32_t width_ = 0, height_ = 0;
    uint32_t sound_ = 0;  // its format
    buf_t head_;
    uint32_t head_generation_ = 0, head_timestamp_ = 0;  // for which it was made
    IOBuffer head_body_;
    core::vector<std::array<uint8_t, 4>> lengths_;  // of a whole picture's NAL units
    core::vector<bytes_t> pieces_;
};

int Chunks::insides::cut(const av::frame_t& frame) noexcept {
    out.length = 0;
    fcc = frame.fcc;
    time_ = frame.time;
    if (!started_) set_start(frame.time);
    timestamp = milliseconds(frame.time);
    const bytes_t data(frame.data, frame.data ? frame.size : 0);
    const auto put_prefixed = [&](uint8_t codec) {
        const uint8_t prefix = flv::sound_prefix(codec, frame.rate, frame.channels, frame.bits);
        return put_sound({&prefix, 1}, data);
    };
    bool done = false;
    if (data.empty())
        done = false;
    else if (frame.fcc == av::fcc_h264)
        done = cut_h264(frame);
    else if (frame.fcc == fcc_mp4v)
        done = put_video({flv::picture_prefix(frame.key, flv::codec_mp4v, flv::is_data, 0), data});
    else if (frame.fcc == av::fcc_mp4a && sound_ == av::fcc_mp4a)
        done = put_sound(std::array{flv::aac, flv::is_data}, data);
    else if (frame.fcc == fcc_mp3)
        done = put_prefixed(flv::codec_mp3);
    else if (frame.fcc == av::fcc_pcmu)
        done = put_prefixed(flv::codec_pcmu);
    if (!done) out.length = 0;
    return done ? out.length > 0 : -1;
}

/// From what the head tells (FNV-1a): a viewer that goes from one object to another keeps its head.
void Chunks::insides::number_head() noexcept {
    uint32_t sum = 2166136261;
    const auto add = [&sum](bytes_t bytes) {
        for (const uint8_t byte : bytes)
            sum = (sum ^ byte) * 16777619;
        sum = (sum ^ static_cast<uint32_t>(bytes.size())) * 16777619;
    };
    for (const buf_t* each : {&sps_, &pps_, &config_})
        add(held(*each));
    generation = (sum ^ sound_) | 1;
}

bool Chunks::insides::cut_h264(const av::frame_t& frame) noexcept {
    const bytes_t stream(frame.data, frame.size);
    if (!take_sets(stream)) return false;
    if (sps_.length == 0) return true;
    const uint32_t composition = milliseconds(frame.time + frame.shown_after) - timestamp;
    return put_slices(stream, composition);
}

/// Keeps parameter sets that stand before the picture. Others in their place make a new head.
bool Chunks::insides::take_sets(bytes_t stream) noexcept {
    bytes_t sps, pps;
    const bytes_t slices = h264_first_slice(stream);
    const bytes_t before(stream.data(), slices.empty() ? stream.data() + stream.size() : slices.data());
    h264_info_t info;
    if (!h264_parse(before, &sps, &pps, &info)) return true;
    if (std::ranges::equal(sps, held(sps_)) && std::ranges::equal(pps, held(pps_))) return true;
    if (sps.size() + pps.size() > max_sets) return true;  // the picture goes on with those before
    if (!keep(sps_, sps) || !keep(pps_, pps)) {
        sps_.length = pps_.length = 0;
        return false;
    }
    width_ = info.width;
    height_ = info.height;
    number_head();
    return true;
}

bool Chunks::insides::put_slices(bytes_t stream, uint32_t composition) noexcept {
    try {
        if (whole_pictures) return put_picture(stream, composition);
    } catch (const std::bad_alloc&) {
        return false;
    }
    for (bytes_t nal = h264_next_nal(stream); !nal.empty(); nal = h264_next_nal(stream)) {
        const uint8_t type = h264_nal_type(nal);
        if (!flv::is_sent(type)) continue;
        const auto prefix = flv::nal_prefix(nal, composition);
        if (!put_video({prefix, nal})) return false;
    }
    return true;
}

bool Chunks::insides::put_picture(bytes_t stream, uint32_t composition) {
    bool key = false;
    lengths_.clear();
    pieces_.assign(1, {});
    for (bytes_t nal = h264_next_nal(stream); !nal.empty(); nal = h264_next_nal(stream)) {
        const uint8_t type = h264_nal_type(nal);
        if (!flv::is_sent(type)) continue;
        key = key || type == h264_slice_idr;
        lengths_.push_back(flv::nal_length(nal));
        pieces_.insert(pieces_.end(), {bytes_t(), nal});
    }
    if (lengths_.empty()) return true;
    const auto prefix = flv::picture_prefix(key, flv::codec_avc, flv::is_data, composition);
    pieces_[0] = prefix;
    for (size_t i = 0; i < lengths_.size(); ++i)
        pieces_[1 + 2 * i] = lengths_[i];
    return write_message(out, video_message(timestamp), pieces_, media_chunk_size);
}

int Chunks::insides::set_sound(uint32_t format, bytes_t config) noexcept {
    const bool aac = format == av::fcc_mp4a;
    if (!aac && format != fcc_mp3 && format != av::fcc_pcmu && format != 0) return 0;
    if (aac && (config.size() < 2 || config.size() > max_sound_config)) return 0;
    if (!aac) config = {};
    if (format == sound_ && std::ranges::equal(config, held(config_))) return 1;
    if (!core_buf_respace(&config_, max_sound_config, where_.file, where_.line)) return 0;
    keep(config_, config);
    sound_ = format;
    number_head();
    return 1;
}

buffer_t Chunks::insides::head() noexcept {
    if (generation == 0) return {};
    if (head_.length == 0 || head_generation_ != generation || head_timestamp_ != timestamp) {
        head_.length = 0;
        if (!put_metadata() || !put_headers()) head_.length = 0;
        head_generation_ = generation;
        head_timestamp_ = timestamp;
    }
    return {head_.data, head_.length};
}

// At time 0, wherever the player begins: there players that keep to FLV look for what a stream is. Later on they take
// it for a track of texts.
bool Chunks::insides::put_metadata() noexcept {
    metadata_t known{.width = width_, .height = height_, .video = sps_.length > 0};
    known.sound = sound_ == av::fcc_mp4a ? flv::codec_aac
                  : sound_ == fcc_mp3    ? flv::codec_mp3
                  : sound_ != 0          ? flv::codec_pcmu
                                         : uint8_t{0};
    time_format(time_, "%Y-%m-%d %H:%M:%S.%s", known.date, sizeof known.date);
    head_body_.IgnoreAll();
    return put_metadata_body(known, head_body_) &&
           write_message(head_, data_message(0), {head_body_.Readable()}, media_chunk_size);
}

bool Chunks::insides::put_headers() noexcept {
    if (sps_.length > 0) {
        uint8_t header[flv::max_header];
        const uint32_t size = flv::put_avc_header(held(sps_), held(pps_), header);
        if (!write_message(head_, video_message(timestamp), {bytes_t(header, size)}, media_chunk_size)) return false;
    }
    if (config_.length == 0) return true;
    const std::array prefix{flv::aac, flv::is_header};
    return write_message(head_, audio_message(timestamp), {prefix, held(config_)}, media_chunk_size);
}

Chunks::Chunks(const char* file, int line) noexcept
    : insides_(core::create<insides>(file, line, core::place{file, line})) {}
Chunks::~Chunks() { core::destroy(insides_); }

void Chunks::set_start(uint64_t us) noexcept {
    if (insides_) insides_->set_start(us);
}

void Chunks::set_whole_pictures(bool on) noexcept {
    if (insides_) insides_->whole_pictures = on;
}

int Chunks::set_sound(uint32_t fcc, buffer_t config) noexcept {
    return insides_ ? insides_->set_sound(fcc, {config.data, config.data ? config.size : 0}) : 0;
}

int Chunks::cut(const av::frame_t* frame) noexcept { return insides_ && frame ? insides_->cut(*frame) : -1; }

buffer_t Chunks::bytes() const noexcept {
    return insides_ ? buffer_t{insides_->out.data, insides_->out.length} : buffer_t{};
}
uint32_t Chunks::fcc() const noexcept { return insides_ ? insides_->fcc : 0; }
uint32_t Chunks::timestamp() const noexcept { return insides_ ? insides_->timestamp : 0; }
buffer_t Chunks::head() noexcept { return insides_ ? insides_->head() : buffer_t{}; }
uint32_t Chunks::generation() const noexcept { return insides_ ? insides_->generation : 0; }

}  // namespace inet::rtmp
