// The init segment: what the tracks are.
#include "mp4/box.h"

#include "avc/fcc.h"
#include "avc/mp4.h"
#include "common/h264.h"

#include <algorithm>
#include <string_view>

namespace {

using bytes = std::span<const uint8_t>;
using av::box;
using av::mp4_track_t;
using av::writer;

constexpr uint32_t movie_scale = 90000;

void write_text(writer& out, std::string_view text) noexcept {
    out.bytes({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

void write_unity_matrix(writer& out) noexcept {
    for (uint32_t value : {0x10000U, 0U, 0U, 0U, 0x10000U, 0U, 0U, 0U, 0x40000000U})
        out.u32(value);
}

void write_file_type(writer& out) noexcept {
    const box ftyp(out, "ftyp");
    write_text(out, "iso5");
    out.u32(0);
    write_text(out, "iso5iso6mp41avc1");
}

void write_movie_header(writer& out, size_t tracks) noexcept {
    const box mvhd(out, "mvhd", 0, 0);
    out.u32(0);  // creation and modification time
    out.u32(0);
    out.u32(movie_scale);
    out.u32(0);           // duration: what the fragments say
    out.u32(0x00010000);  // normal rate
    out.u16(0x0100);      // full volume
    out.zeros(10);
    write_unity_matrix(out);
    out.zeros(24);
    out.u32(static_cast<uint32_t>(tracks + 1));  // next track
}

/// The NAL units of one type, each with its 16-bit length.
void write_parameter_sets(writer& out, bytes stream, uint8_t type) noexcept {
    for (bytes nal = h264_next_nal(stream); !nal.empty(); nal = h264_next_nal(stream)) {
        if (h264_nal_type(nal) != type) continue;
        out.u16(static_cast<uint32_t>(nal.size()));
        out.bytes(nal);
    }
}

/// Parameter sets of a key frame, which may hold several of each.
struct parameter_sets {
    bytes stream;
    h264_info_t info;
    uint32_t sps_count;
    uint32_t pps_count;
};

/// @return false when they are missing, unreadable or more than the record holds (ISO/IEC 14496-15, 5.2.4.1).
bool find_parameter_sets(bytes stream, parameter_sets& out) noexcept {
    out.stream = stream.first(stream.size() - h264_first_slice(stream).size());
    if (!h264_parse(out.stream, nullptr, nullptr, &out.info)) return false;
    out.sps_count = out.pps_count = 0;
    stream = out.stream;
    for (bytes nal = h264_next_nal(stream); !nal.empty(); nal = h264_next_nal(stream)) {
        const uint8_t type = h264_nal_type(nal);
        if (type == h264_sps) ++out.sps_count;
        if (type == h264_pps) ++out.pps_count;
        if ((type == h264_sps || type == h264_pps) && nal.size() > 0xffff) return false;
    }
    return out.sps_count <= 31 && out.pps_count <= 255;
}

/// What is written of a track: what was asked for, and of H.264 its parameter sets.
struct track_t {
    const mp4_track_t& of;
    uint32_t number;
    parameter_sets sets{};

    bool is_picture() const noexcept { return of.fcc == av::fcc_h264; }
};

void write_track_header(writer& out, const track_t& track) noexcept {
    constexpr uint32_t enabled_in_movie_and_preview = 7;
    const box tkhd(out, "tkhd", 0, enabled_in_movie_and_preview);
    out.u32(0);  // creation and modification time
    out.u32(0);
    out.u32(track.number);
    out.u32(0);
    out.u32(0);                                // duration
    out.zeros(12);                             // layer, alternate group
    out.u16(track.is_picture() ? 0 : 0x0100);  // volume
    out.u16(0);
    write_unity_matrix(out);
    out.u32(track.sets.info.width << 16);
    out.u32(track.sets.info.height << 16);
}

void write_media_header(writer& out, uint32_t scale) noexcept {
    const box mdhd(out, "mdhd", 0, 0);
    out.u32(0);  // creation and modification time
    out.u32(0);
    out.u32(scale);
    out.u32(0);       // duration
    out.u16(0x55c4);  // language "und"
    out.u16(0);
}

void write_handler(writer& out, bool picture) noexcept {
    const box hdlr(out, "hdlr", 0, 0);
    out.u32(0);
    write_text(out, picture ? "vide" : "soun");
    out.zeros(12);
    write_text(out, std::string_view(picture ? "video\0" : "sound\0", 6));
}

/// Media that stands in the file itself.
void write_data_information(writer& out) noexcept {
    const box dinf(out, "dinf");
    const box dref(out, "dref", 0, 0);
    out.u32(1);
    const box url(out, "url ", 0, 1);
}

/// AVCDecoderConfigurationRecord, ISO/IEC 14496-15, 5.3.3.1.
void write_decoder_configuration(writer& out, const parameter_sets& sets) noexcept {
    const box avcc(out, "avcC");
    out.u8(1);  // version
    out.u8(sets.info.profile_idc);
    out.u8(sets.info.constraints);
    out.u8(sets.info.level_idc);
    out.u8(0xfc | 3);  // NAL unit lengths of four bytes
    out.u8(0xe0 | sets.sps_count);
    write_parameter_sets(out, sets.stream, h264_sps);
    out.u8(sets.pps_count);
    write_parameter_sets(out, sets.stream, h264_pps);
    const uint8_t profile = sets.info.profile_idc;
    if (profile == 66 || profile == 77 || profile == 88) return;
    out.u8(0xfcU | sets.info.chroma_format);
    out.u8(0xf8U | (sets.info.bit_depth - 8U));
    out.u8(0xf8U | (sets.info.bit_depth_chroma - 8U));
    out.u8(0);  // extensions of the SPS
}

void write_picture_entry(writer& out, const parameter_sets& sets) noexcept {
    const box avc1(out, "avc1");
    out.zeros(6);
    out.u16(1);  // data reference
    out.zeros(16);
    out.u16(sets.info.width);
    out.u16(sets.info.height);
    out.u32(0x00480000);  // 72 dpi
    out.u32(0x00480000);
    out.u32(0);
    out.u16(1);     // pictures in a sample
    out.zeros(32);  // compressor name
    out.u16(24);    // depth
    out.u16(0xffff);
    write_decoder_configuration(out, sets);
}

/// What every sound entry begins with (ISO/IEC 14496-12, 12.2.3).
void write_sound_entry(writer& out, const mp4_track_t& track) noexcept {
    out.zeros(6);
    out.u16(1);  // data reference
    out.zeros(8);
    out.u16(track.channels);
    out.u16(16);  // bits of a sample
    out.u32(0);
    out.u32(std::min(track.scale, 0xffffU) << 16);
}

/// Descriptors of ISO/IEC 14496-1, 7.2.6, with sizes of one byte.
void write_elementary_stream(writer& out, bytes config) noexcept {
    const box esds(out, "esds", 0, 0);
    const auto size = static_cast<uint32_t>(config.size());
    out.u8(3);  // ES_Descriptor
    out.u8(3 + 15 + 2 + size + 3);
    out.u16(0);
    out.u8(0);
    out.u8(4);  // DecoderConfigDescriptor
    out.u8(13 + 2 + size);
    out.u8(0x40);  // MPEG-4 audio
    out.u8(0x15);  // an audio stream
    out.zeros(11);
    out.u8(5);  // DecoderSpecificInfo
    out.u8(size);
    out.bytes(config);
    out.u8(6);  // SLConfigDescriptor
    out.u8(1);
    out.u8(2);
}

void write_sample_description(writer& out, const track_t& track) noexcept {
    const box stsd(out, "stsd", 0, 0);
    out.u32(1);
    if (track.is_picture()) {
        write_picture_entry(out, track.sets);
    } else if (track.of.fcc == av::fcc_mp4a) {
        const box mp4a(out, "mp4a");
        write_sound_entry(out, track.of);
        write_elementary_stream(out, track.of.config);
    } else {
        // Players know it longer than 'ipcm'.
        const box sowt(out, "sowt");
        write_sound_entry(out, track.of);
    }
}

/// The tables say nothing: every sample stands in a fragment.
void write_sample_table(writer& out, const track_t& track) noexcept {
    const box stbl(out, "stbl");
    write_sample_description(out, track);
    {
        const box stts(out, "stts", 0, 0);
        out.u32(0);
    }
    {
        const box stsc(out, "stsc", 0, 0);
        out.u32(0);
    }
    {
        const box stsz(out, "stsz", 0, 0);
        out.u32(0);
        out.u32(0);
    }
    const box stco(out, "stco", 0, 0);
    out.u32(0);
}

void write_media_information(writer& out, const track_t& track) noexcept {
    const box minf(out, "minf");
    if (track.is_picture()) {
        const box vmhd(out, "vmhd", 0, 1);
        out.zeros(8);
    } else {
        const box smhd(out, "smhd", 0, 0);
        out.zeros(4);
    }
    write_data_information(out);
    write_sample_table(out, track);
}

void write_track(writer& out, const track_t& track) noexcept {
    const box trak(out, "trak");
    write_track_header(out, track);
    const box mdia(out, "mdia");
    write_media_header(out, track.of.scale);
    write_handler(out, track.is_picture());
    write_media_information(out, track);
}

/// Fragments follow; each of their samples says its own duration, size and flags.
void write_track_extends(writer& out, uint32_t track) noexcept {
    const box trex(out, "trex", 0, 0);
    out.u32(track);
    out.u32(1);  // sample description
    out.zeros(12);
}

/// @return false when a track is none that can be written.
bool check(track_t& track) noexcept {
    constexpr size_t longest_config = 64;
    constexpr uint32_t most_channels = 255;
    const mp4_track_t& of = track.of;
    if (!of.scale) return false;
    if (track.is_picture()) return find_parameter_sets(of.config, track.sets);
    if (of.channels == 0 || of.channels > most_channels) return false;
    if (of.fcc == av::fcc_mp4a) return !of.config.empty() && of.config.size() <= longest_config;
    return of.fcc == av::fcc("PCM ");
}

}  // namespace

int av_mp4_movie(buf_t* out, std::span<const mp4_track_t> tracks, const char* file, int line) noexcept {
    if (!out || tracks.empty()) return 0;
    writer segment(out, file, line);
    segment.reserve(1024);
    write_file_type(segment);
    {
        const box moov(segment, "moov");
        write_movie_header(segment, tracks.size());
        for (size_t i = 0; i < tracks.size(); ++i) {
            track_t track{.of = tracks[i], .number = static_cast<uint32_t>(i + 1)};
            if (!check(track)) return 0;
            write_track(segment, track);
        }
        const box mvex(segment, "mvex");
        for (size_t i = 0; i < tracks.size(); ++i)
            write_track_extends(segment, static_cast<uint32_t>(i + 1));
    }
    return segment.commit() > 0;
}

int av_mp4_init(buf_t* out, const av::frame_t* key, const char* file, int line) noexcept {
    if (!key) return 0;
    const mp4_track_t pictures{
        .fcc = av::fcc_h264, .scale = movie_scale, .channels = 0, .config = {key->data, key->size}};
    return av_mp4_movie(out, {&pictures, 1}, file, line);
}
