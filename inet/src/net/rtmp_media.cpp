#include "net/rtmp_media.h"

#include "bounded.h"
#include "rtp/parameter_sets.h"

#include "avc/aac.h"
#include "avc/fcc.h"
#include "common/h264.h"

#include <algorithm>
#include <cstring>

namespace net::rtmp {

namespace {

using bytes_t = media::bytes_t;

constexpr uint8_t start_code[] = {0, 0, 1};
constexpr uint32_t fcc_mp3 = av::fcc("mp3 ");

enum video_codec_t : uint8_t { video_avc = 7 };
enum audio_codec_t : uint8_t {
    audio_mp3 = 2,
    audio_alaw = 7,
    audio_ulaw = 8,
    audio_aac = 10,
    audio_mp3_8k = 14,
};
enum packet_t : uint8_t { sequence_header = 0, coded = 1, end_of_sequence = 2 };
enum frame_t : uint8_t { key_frame = 1, command_frame = 5 };

int32_t signed24(bytes_t at) noexcept {
    const uint32_t value = uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8;
    return static_cast<int32_t>(value) >> 8;
}

/// Header of an MPEG audio frame (ISO/IEC 11172-3, 2.4.1.3). False for what is none.
bool read_mp3(bytes_t body, uint32_t& rate, uint32_t& channels) noexcept {
    constexpr uint32_t rates[] = {44100, 48000, 32000};
    if (body.size() < 4 || body[0] != 0xff || (body[1] & 0xe0) != 0xe0) return false;
    const uint32_t version = body[1] >> 3 & 3U;  // 3 is MPEG-1, 2 MPEG-2, 0 MPEG-2.5
    const uint32_t index = body[2] >> 2 & 3U;
    if (version == 1 || index == 3) return false;
    rate = rates[index] >> (version == 3 ? 0 : version == 2 ? 1 : 2);
    channels = (body[3] >> 6) == 3 ? 1 : 2;
    return true;
}

bool same(const rtmp_track_t& a, const rtmp_track_t& b) noexcept {
    return a.fcc == b.fcc && a.codec == b.codec && a.width == b.width && a.height == b.height && a.rate == b.rate &&
           a.channels == b.channels;
}

}  // namespace

media::~media() {
    core_buf_free(&sets_);
    core_buf_free(&picture_.bytes);
}

// Some senders wrap after 31 bits. A step is far below that, so that it is the same whichever they do.
int64_t media::clock_t::take(uint32_t timestamp) noexcept {
    if (begun) since_first += static_cast<int32_t>((timestamp - last) << 1) >> 1;
    begun = true;
    last = timestamp;
    return since_first * 1000;
}

// A track is told again when what is known of it has changed.
void media::tell(rtmp_track_t& kept, const rtmp_track_t& now) noexcept {
    bool& told = &kept == &video_ ? video_told_ : audio_told_;
    if (told && same(kept, now)) return;
    told = true;
    kept = now;
    kept.config = {};
    owner_.on_track(now);
}

// Video

void media::process_video(bytes_t body, uint32_t timestamp) noexcept {
    if (body.empty()) return;
    const uint8_t kind = body[0] >> 4;
    if (kind == command_frame) return;
    const uint8_t codec = body[0] & 0x0f;
    if ((kind & 8) || codec != video_avc) {
        flush();
        length_size_ = 0;  // another sequence header is needed
        return tell(video_, {.codec = kind & 8 ? uint8_t{0} : codec});
    }
    if (body.size() < 5) return;
    const bytes_t data = body.subspan(5);
    switch (body[1]) {
        case sequence_header:
            flush();
            return take_sequence_header(data);
        case coded:
            return take_nals(data, timestamp, signed24(body.subspan(2)), kind == key_frame);
        case end_of_sequence:
            return flush();
        default:
            return;
    }
}

void media::take_sequence_header(bytes_t record) noexcept {
    h264_config_t config;
    if (record.empty()) return;
    if (!h264_parse_config(record, &config) || config.sps.empty()) {
        return owner_.on_fault(rtmp_end_t::bad_peer, "the sequence header of the video is malformed");
    }
    length_size_ = config.length_size;
    buf_t sets;
    bool whole = true;
    for (bytes_t list : {config.sps, config.pps}) {
        for (bytes_t set = h264_next_set(list); !set.empty(); set = h264_next_set(list)) {
            constexpr const char* too_long = "the parameter sets of the video are too long";
            whole = whole && append(sets, start_code, rtp::max_parameter_sets, too_long) &&
                    append(sets, set, rtp::max_parameter_sets, too_long);
        }
    }
    if (!whole) return core_buf_free(&sets);
    const bool changed = !std::ranges::equal(bytes_t(sets.data, sets.length), bytes_t(sets_.data, sets_.length));
    std::swap(sets, sets_);
    core_buf_free(&sets);
    if (!changed && video_.fcc == av::fcc_h264) return;
    sets_changed_ = true;
    tell_video();
}

void media::tell_video() noexcept {
    h264_info_t info{};
    h264_parse({sets_.data, sets_.length}, nullptr, nullptr, &info);
    video_told_ = false;
    tell(video_, {.fcc = av::fcc_h264,
                  .codec = video_avc,
                  .width = info.width,
                  .height = info.height,
                  .config = {sets_.data, sets_.length}});
}

/// Takes the next NAL unit off the front. @return false when it does not end in the message, or none is left
bool media::take_nal(bytes_t& coded, bytes_t& nal) const noexcept {
    if (coded.size() < length_size_ || coded.empty()) return false;
    size_t size = 0;
    for (const uint8_t byte : coded.first(length_size_))
        size = size << 8 | byte;
    if (size > coded.size() - length_size_) return false;
    nal = coded.subspan(length_size_, size);
    coded = coded.subspan(length_size_ + size);
    return true;
}

/// Looks at all NAL units, and keeps the parameter sets, which stand in front of a picture later on.
/// @return false when one does not end in the message
bool media::keep_sets(bytes_t coded, bool& others) noexcept {
    bool changed = false;
    for (bytes_t nal; take_nal(coded, nal);) {
        const uint8_t type = h264_nal_type(nal);
        if (type == h264_sps || type == h264_pps) {
            changed = rtp::keep_parameter_set(sets_, nal, file_, line_) != rtp::kept_t::unchanged || changed;
        } else {
            others = others || !nal.empty();
        }
    }
    if (!coded.empty()) return false;
    if (changed) {
        sets_changed_ = true;
        tell_video();
    }
    return true;
}

/// Pictures have timestamps of their own. Where a server gives several one timestamp, their first slices tell.
bool media::starts_picture(bytes_t coded, uint32_t timestamp) const noexcept {
    if (!picture_.open || timestamp != picture_.timestamp) return true;
    if (!picture_.slice) return false;
    bytes_t nal;
    while (nal.empty() && take_nal(coded, nal)) {
    }
    return h264_starts_access_unit(nal) != 0;
}

void media::take_nals(bytes_t coded, uint32_t timestamp, int32_t shown_after_ms, bool key) noexcept {
    if (!length_size_) return;  // nothing is known of their form
    // What waits is over, as far as its timestamp tells: it must not be given sets that come behind it.
    if (picture_.open && timestamp != picture_.timestamp) flush();
    bool others = false;
    if (!keep_sets(coded, others)) {
        return owner_.on_fault(rtmp_end_t::bad_peer, "a NAL unit of the video is longer than its message");
    }
    if (!others) return;
    if (starts_picture(coded, timestamp)) {
        flush();
        picture_.open = true;
        picture_.timestamp = timestamp;
        picture_.media_time = clock_.take(timestamp);
        picture_.shown_after = shown_after_ms > 0 ? static_cast<uint32_t>(shown_after_ms) * 1000U : 0;
    }
    picture_.key = picture_.key || key;
    add_nals(coded);
}

/// The parameter sets stand behind a delimiter and in front of all else.
void media::add_nals(bytes_t coded) noexcept {
    constexpr uint8_t zero[] = {0};
    for (bytes_t nal; take_nal(coded, nal);) {
        const uint8_t type = h264_nal_type(nal);
        if (nal.empty() || type == h264_sps || type == h264_pps) continue;
        picture_.key = picture_.key || type == h264_slice_idr;
        if (picture_.bytes.length == 0 && !add(zero)) return;
        if (type != h264_aud && !picture_.sets && !picture_.slice && (picture_.key || sets_changed_)) {
            if (!add({sets_.data, sets_.length})) return;
            picture_.sets = true;
            sets_changed_ = false;
        }
        picture_.slice = picture_.slice || h264_is_slice(type);
        if (!add(start_code) || !add(nal)) return;
    }
}

bool media::append(buf_t& to, bytes_t bytes, uint32_t bound, const char* too_long) noexcept {
    if (bytes.size() > bound - to.length) {
        owner_.on_fault(rtmp_end_t::bad_peer, too_long);
        return false;
    }
    const auto size = static_cast<uint32_t>(bytes.size());
    if (bounded::make_room(to, size, bound, file_, line_)) {
        core_buf_read(&to, bytes.data(), size);
        return true;
    }
    owner_.on_fault(rtmp_end_t::failed, "no memory");
    return false;
}

bool media::add(bytes_t bytes) noexcept {
    if (append(picture_.bytes, bytes, longest_picture, "a picture is too long")) return true;
    picture_.open = false;
    return false;
}

void media::flush() noexcept {
    if (!picture_.open) return;
    av::frame_t frame = {};
    frame.fcc = av::fcc_h264;
    frame.data = picture_.bytes.data;
    frame.size = picture_.bytes.length;
    frame.width = video_.width;
    frame.height = video_.height;
    frame.key = picture_.key ? 1 : 0;
    frame.complete = 1;
    frame.shown_after = picture_.shown_after;
    const bool whole = picture_.slice;
    sets_changed_ = sets_changed_ || (picture_.sets && !whole);
    picture_.open = picture_.key = picture_.slice = picture_.sets = false;
    picture_.bytes.length = 0;
    if (whole) owner_.on_frame(frame, picture_.media_time);
}

// Audio

void media::process_audio(bytes_t body, uint32_t timestamp) noexcept {
    if (body.empty()) return;
    const uint8_t codec = body[0] >> 4;
    switch (codec) {
        case audio_aac:
            return take_aac(body.subspan(1), timestamp);
        case audio_mp3:
        case audio_mp3_8k:
            return take_mp3(body, timestamp);
        case audio_alaw:
        case audio_ulaw:
            return take_g711(body[0], body.subspan(1), timestamp);
        default:
            return tell(audio_, {.codec = codec});
    }
}

void media::take_aac(bytes_t body, uint32_t timestamp) noexcept {
    if (body.empty()) return;
    const bytes_t data = body.subspan(1);
    if (body[0] == sequence_header) return take_aac_config(data);
    if (body[0] == coded && audio_.fcc == av::fcc_mp4a) hand_over_sound(data, timestamp);
}

void media::take_aac_config(bytes_t config) noexcept {
    av::aac_config_t said;
    if (config.empty()) return;
    if (config.size() > longest_sound_config || !aac_parse_config(config, &said)) {
        return owner_.on_fault(rtmp_end_t::bad_peer, "the sequence header of the sound is malformed");
    }
    if (!std::ranges::equal(config, bytes_t(sound_config_, sound_config_size_))) audio_told_ = false;
    std::ranges::copy(config, sound_config_);
    sound_config_size_ = static_cast<uint32_t>(config.size());
    tell(audio_, {.fcc = av::fcc_mp4a,
                  .codec = audio_aac,
                  .rate = said.rate,
                  .channels = said.channels,
                  .config = {sound_config_, sound_config_size_}});
}

// The rate that FLV can state is not always that of the sound, which its own header tells.
void media::take_mp3(bytes_t body, uint32_t timestamp) noexcept {
    constexpr uint32_t rates[] = {5512, 11025, 22050, 44100};
    const uint8_t codec = body[0] >> 4;
    rtmp_track_t now = {.fcc = fcc_mp3,
                        .codec = codec,
                        .rate = codec == audio_mp3_8k ? 8000 : rates[body[0] >> 2 & 3],
                        .channels = (body[0] & 1) + 1U};
    const bytes_t data = body.subspan(1);
    if (!read_mp3(data, now.rate, now.channels) && audio_told_ && audio_.fcc == fcc_mp3) now = audio_;
    if (data.empty()) return;
    tell(audio_, now);
    hand_over_sound(data, timestamp);
}

// G.711 has 8000 samples a second. Senders of other rates state them where FLV can.
void media::take_g711(uint8_t head, bytes_t body, uint32_t timestamp) noexcept {
    constexpr uint32_t rates[] = {8000, 11025, 22050, 44100};
    if (body.empty()) return;
    const uint8_t codec = head >> 4;
    tell(audio_, {.fcc = codec == audio_alaw ? av::fcc_pcma : av::fcc_pcmu,
                  .codec = codec,
                  .rate = rates[head >> 2 & 3],
                  .channels = (head & 1) + 1U});
    hand_over_sound(body, timestamp);
}

void media::hand_over_sound(bytes_t body, uint32_t timestamp) noexcept {
    if (body.empty()) return;
    av::frame_t frame = {};
    frame.fcc = audio_.fcc;
    frame.data = body.data();
    frame.size = static_cast<uint32_t>(body.size());
    frame.rate = audio_.rate;
    frame.channels = audio_.channels;
    frame.key = 1;
    frame.complete = 1;
    owner_.on_frame(frame, clock_.take(timestamp));
}

}  // namespace net::rtmp
