#include "avc/mp4.h"

#include "writer.h"

#include "avc/fcc.h"
#include "common/h264.h"

#include <span>
#include <string_view>

namespace {

using bytes = std::span<const uint8_t>;
using av::writer;

constexpr uint32_t time_scale = 90000;
constexpr uint32_t track = 1;

/// A box whose size is filled in at the end of its scope (ISO/IEC 14496-12, 4.2).
class box {
public:
    box(writer& out, const char (&type)[5]) noexcept : out_(out), start_(out.position()) {
        out.u32(0);
        for (int i = 0; i < 4; ++i)
            out.u8(static_cast<uint8_t>(type[i]));
    }
    box(writer& out, const char (&type)[5], uint32_t version, uint32_t flags) noexcept : box(out, type) {
        out.u8(version);
        out.u24(flags);
    }
    ~box() { out_.patch(start_, out_.position() - start_); }
    box(const box&) = delete;
    box& operator=(const box&) = delete;

private:
    writer& out_;
    uint32_t start_;
};

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

void write_movie_header(writer& out) noexcept {
    const box mvhd(out, "mvhd", 0, 0);
    out.u32(0);  // creation and modification time
    out.u32(0);
    out.u32(time_scale);
    out.u32(0);           // duration: what the fragments say
    out.u32(0x00010000);  // normal rate
    out.u16(0x0100);      // full volume
    out.zeros(10);
    write_unity_matrix(out);
    out.zeros(24);
    out.u32(track + 1);  // next track
}

void write_track_header(writer& out, const h264_info_t& info) noexcept {
    constexpr uint32_t enabled_in_movie_and_preview = 7;
    const box tkhd(out, "tkhd", 0, enabled_in_movie_and_preview);
    out.u32(0);  // creation and modification time
    out.u32(0);
    out.u32(track);
    out.u32(0);
    out.u32(0);     // duration
    out.zeros(16);  // layer, alternate group, volume: of no use to a lone picture
    write_unity_matrix(out);
    out.u32(info.width << 16);
    out.u32(info.height << 16);
}

void write_media_header(writer& out) noexcept {
    const box mdhd(out, "mdhd", 0, 0);
    out.u32(0);  // creation and modification time
    out.u32(0);
    out.u32(time_scale);
    out.u32(0);       // duration
    out.u16(0x55c4);  // language "und"
    out.u16(0);
}

void write_handler(writer& out) noexcept {
    const box hdlr(out, "hdlr", 0, 0);
    out.u32(0);
    write_text(out, "vide");
    out.zeros(12);
    write_text(out, std::string_view("video\0", 6));
}

/// Media that stands in the file itself.
void write_data_information(writer& out) noexcept {
    const box dinf(out, "dinf");
    const box dref(out, "dref", 0, 0);
    out.u32(1);
    const box url(out, "url ", 0, 1);
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

void write_sample_description(writer& out, const parameter_sets& sets) noexcept {
    const box stsd(out, "stsd", 0, 0);
    out.u32(1);
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

/// The tables say nothing: every sample stands in a fragment.
void write_sample_table(writer& out, const parameter_sets& sets) noexcept {
    const box stbl(out, "stbl");
    write_sample_description(out, sets);
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

void write_media_information(writer& out, const parameter_sets& sets) noexcept {
    const box minf(out, "minf");
    {
        const box vmhd(out, "vmhd", 0, 1);
        out.zeros(8);
    }
    write_data_information(out);
    write_sample_table(out, sets);
}

void write_track(writer& out, const parameter_sets& sets) noexcept {
    const box trak(out, "trak");
    write_track_header(out, sets.info);
    const box mdia(out, "mdia");
    write_media_header(out);
    write_handler(out);
    write_media_information(out, sets);
}

/// Fragments follow; each of their samples says its own duration, size and flags.
void write_movie_extends(writer& out) noexcept {
    const box mvex(out, "mvex");
    const box trex(out, "trex", 0, 0);
    out.u32(track);
    out.u32(1);  // sample description
    out.zeros(12);
}

/// Ticks of the track. Always from the base, never by adding durations, so that rounding does not add up.
uint64_t ticks(uint64_t time, uint64_t base) noexcept {
    constexpr uint64_t microseconds = 1000000;
    const uint64_t since = time - base;
    return since / microseconds * time_scale + since % microseconds * time_scale / microseconds;
}

/// Frames of one fragment, checked: H.264, times that do not run backwards, durations that fit their 32 bits.
struct fragment {
    std::span<av::frame_t* const> frames;
    uint64_t base;
    uint64_t end;
    uint64_t bytes;

    uint64_t start(size_t i) const noexcept { return i < frames.size() ? frames[i]->time : end; }
    uint64_t duration(size_t i) const noexcept { return ticks(start(i + 1), base) - ticks(start(i), base); }
};

bool check_fragment(av::frame_t* const* frames, fragment& out) noexcept {
    size_t count = 0;
    out.bytes = 0;
    for (; frames && frames[count]; ++count) {
        if (fcc_unic(frames[count]->fcc) != av::fcc_h264) return false;
        out.bytes += frames[count]->size;
    }
    out.frames = {frames, count};
    if (count == 0 || out.start(0) < out.base) return false;
    for (size_t i = 0; i < count; ++i) {
        if (out.start(i + 1) < out.start(i) || out.duration(i) > UINT32_MAX) return false;
    }
    return true;
}

/// Where the fields stand that are known when the samples are written.
struct run_fields {
    uint32_t data_offset;
    uint32_t first_size;

    static constexpr uint32_t stride = 12;  ///< bytes of one sample in the table
};

run_fields write_run(writer& out, const fragment& in) noexcept {
    constexpr uint32_t offset_duration_size_flags = 0x701;
    constexpr uint32_t key_flags = 0x02000000;    // depends on no other
    constexpr uint32_t other_flags = 0x01010000;  // depends on others, not a sync sample
    const box trun(out, "trun", 0, offset_duration_size_flags);
    out.u32(static_cast<uint32_t>(in.frames.size()));
    const run_fields fields{out.position(), out.position() + 8};
    out.u32(0);
    for (size_t i = 0; i < in.frames.size(); ++i) {
        out.u32(static_cast<uint32_t>(in.duration(i)));
        out.u32(0);
        out.u32(in.frames[i]->key ? key_flags : other_flags);
    }
    return fields;
}

run_fields write_movie_fragment(writer& out, const fragment& in, uint32_t sequence) noexcept {
    constexpr uint32_t default_base_is_moof = 0x020000;
    const box moof(out, "moof");
    {
        const box mfhd(out, "mfhd", 0, 0);
        out.u32(sequence);
    }
    const box traf(out, "traf");
    {
        const box tfhd(out, "tfhd", 0, default_base_is_moof);
        out.u32(track);
    }
    {
        const box tfdt(out, "tfdt", 1, 0);
        out.u64(ticks(in.start(0), in.base));
    }
    return write_run(out, in);
}

/// The NAL units of an access unit, each with its 32-bit length. What the init segment holds already, and delimiters,
/// which a file does not need, are left out.
void write_sample(writer& out, bytes unit) noexcept {
    for (bytes nal = h264_next_nal(unit); !nal.empty(); nal = h264_next_nal(unit)) {
        const uint8_t type = h264_nal_type(nal);
        if (type == h264_sps || type == h264_pps || type == h264_aud) continue;
        out.u32(static_cast<uint32_t>(nal.size()));
        out.bytes(nal);
    }
}

void write_media_data(writer& out, const fragment& in, uint32_t moof_start, const run_fields& fields) noexcept {
    const box mdat(out, "mdat");
    out.patch(fields.data_offset, out.position() - moof_start);
    uint32_t size_field = fields.first_size;
    for (const av::frame_t* frame : in.frames) {
        const uint32_t start = out.position();
        write_sample(out, {frame->data, frame->size});
        out.patch(size_field, out.position() - start);
        size_field += run_fields::stride;
    }
}

}  // namespace

int av_mp4_init(buf_t* out, const av::frame_t* key, const char* file, int line) noexcept {
    parameter_sets sets;
    if (!out || !key || !find_parameter_sets({key->data, key->size}, sets)) return 0;
    writer segment(out, file, line);
    segment.reserve(1024);
    write_file_type(segment);
    {
        const box moov(segment, "moov");
        write_movie_header(segment);
        write_track(segment, sets);
        write_movie_extends(segment);
    }
    return segment.commit() > 0;
}

int av_mp4_moof(buf_t* out, av::frame_t* const* frames, uint64_t base, uint64_t end, uint32_t sequence,
                const char* file, int line) noexcept {
    fragment in{.frames = {}, .base = base, .end = end, .bytes = 0};
    if (!out || !check_fragment(frames, in)) return 0;
    writer segment(out, file, line);
    segment.reserve(in.bytes + in.frames.size() * (run_fields::stride + 8) + 128);
    const uint32_t moof_start = segment.position();
    const run_fields fields = write_movie_fragment(segment, in, sequence);
    write_media_data(segment, in, moof_start, fields);
    return segment.commit() > 0;
}
