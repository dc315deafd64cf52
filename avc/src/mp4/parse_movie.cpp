// The boxes of a file, and what its moov says of the tracks.
#include "mp4/parse.h"

#include "avc/fcc.h"
#include "common/h264.h"

#include <algorithm>

namespace av::mp4 {

namespace {

constexpr uint8_t start_code[] = {0, 0, 0, 1};

/// Takes version and flags off the front of a full box.
uint32_t skip_version(fields& box) noexcept { return box.u32() >> 24; }

void append_set(core::vector<uint8_t>& out, bytes set) {
    out.insert(out.end(), std::begin(start_code), std::end(start_code));
    out.insert(out.end(), set.begin(), set.end());
}

bool read_avcc(bytes record, track& out) {
    h264_config_t config;
    if (!h264_parse_config(record, &config)) return false;
    out.length_size = config.length_size;
    for (bytes list : {config.sps, config.pps}) {
        for (bytes set = h264_next_set(list); !set.empty(); set = h264_next_set(list))
            append_set(out.config, set);
    }
    return true;
}

bool read_picture_entry(bytes entry, track& out) {
    constexpr size_t fixed = 78;
    if (entry.size() < fixed) return false;
    out.said.fcc = fcc_h264;
    return read_avcc(find(entry.subspan(fixed), type_of("avcC")), out);
}

/// Size of a descriptor, seven bits a byte (ISO/IEC 14496-1, 8.3.3).
size_t descriptor_size(fields& from) noexcept {
    size_t size = 0;
    for (int i = 0; i < 4; ++i) {
        const uint8_t byte = from.u8();
        size = size << 7 | (byte & 0x7fU);
        if (!(byte & 0x80)) break;
    }
    return size;
}

/// AudioSpecificConfig of an ES_Descriptor (ISO/IEC 14496-1, 7.2.6).
bool read_esds(bytes box, track& out) {
    constexpr uint8_t elementary_stream = 3;
    constexpr uint8_t decoder_config = 4;
    constexpr uint8_t decoder_specific = 5;
    fields from(box);
    skip_version(from);
    if (from.u8() != elementary_stream) return false;
    descriptor_size(from);
    from.u16();
    const uint8_t flags = from.u8();
    if (flags & 0x80) from.u16();
    if (flags & 0x40) from.take(from.u8());
    if (flags & 0x20) from.u16();
    if (from.u8() != decoder_config) return false;
    descriptor_size(from);
    from.take(13);
    if (from.u8() != decoder_specific) return false;
    const bytes config = from.take(descriptor_size(from));
    out.config.assign(config.begin(), config.end());
    return from.ok() && !config.empty();
}

/// 16 bits, low byte first: of 'ipcm' its pcmC says so (ISO/IEC 23003-5).
bool is_our_pcm(uint32_t type, uint32_t bits, bytes boxes) noexcept {
    if (type == type_of("sowt")) return bits == 16;
    fields from(find(boxes, type_of("pcmC")));
    skip_version(from);
    const bool low_first = from.u8() & 1;
    return low_first && from.u8() == 16;
}

bool read_sound_entry(uint32_t type, bytes entry, track& out) {
    fields from(entry);
    from.take(8);
    const uint16_t version = from.u16();
    from.take(6);
    out.said.channels = from.u16();
    const uint32_t bits = from.u16();
    from.take(8);
    if (version == 1) from.take(16);  // QuickTime's
    if (!from.ok() || version > 1 || out.said.channels == 0) return false;
    if (type == type_of("mp4a")) {
        out.said.fcc = fcc_mp4a;
        return read_esds(find(from.rest(), type_of("esds")), out);
    }
    out.said.fcc = fcc("PCM ");
    return is_our_pcm(type, bits, from.rest());
}

bool read_entry(bytes stsd, track& out) {
    fields from(stsd);
    skip_version(from);
    from.u32();  // entries; the first one is taken
    boxes entries(from.rest());
    if (!entries.next()) return false;
    switch (entries.type()) {
        case type_of("avc1"):
        case type_of("avc3"):
            return read_picture_entry(entries.body(), out);
        case type_of("mp4a"):
        case type_of("sowt"):
        case type_of("ipcm"):
            return read_sound_entry(entries.type(), entries.body(), out);
        default:
            return false;
    }
}

bool read_track(bytes trak, track& out) {
    fields head(find(trak, type_of("tkhd")));
    head.take(skip_version(head) == 1 ? 16 : 8);  // times
    out.id = head.u32();
    const bytes mdia = find(trak, type_of("mdia"));
    fields media(find(mdia, type_of("mdhd")));
    media.take(skip_version(media) == 1 ? 16 : 8);
    out.said.scale = media.u32();
    const bytes table = find(find(mdia, type_of("minf")), type_of("stbl"));
    return head.ok() && media.ok() && out.said.scale > 0 && read_entry(find(table, type_of("stsd")), out);
}

void read_extends(bytes mvex, core::vector<track>& tracks) noexcept {
    for (boxes each(mvex); each.next();) {
        if (each.type() != type_of("trex")) continue;
        fields from(each.body());
        skip_version(from);
        const auto of = std::ranges::find(tracks, from.u32(), &track::id);
        if (of == tracks.end()) continue;
        from.u32();
        of->default_duration = from.u32();
        of->default_size = from.u32();
        of->default_flags = from.u32();
    }
}

}  // namespace

bool read_head(bytes from, box_head& out) noexcept {
    fields head(from);
    out.size = head.u32();
    out.type = head.u32();
    out.header = 8;
    if (out.size == 1) {
        out.size = head.u64();
        out.header = 16;
    }
    return head.ok() && (out.size == 0 || out.size >= out.header);
}

bool boxes::next() noexcept {
    box_head head;
    if (!read_head(rest_, head)) return false;
    if (head.size == 0) head.size = rest_.size();
    if (head.size > rest_.size()) return false;
    const auto size = static_cast<size_t>(head.size);
    type_ = head.type;
    body_ = rest_.first(size).subspan(head.header);
    rest_ = rest_.subspan(size);
    return true;
}

bytes find(bytes body, uint32_t type) noexcept {
    for (boxes each(body); each.next();)
        if (each.type() == type) return each.body();
    return {};
}

bool read_movie(bytes moov, core::vector<track>& out) {
    out.clear();
    for (boxes each(moov); each.next() && out.size() < most_tracks;) {
        if (each.type() != type_of("trak")) continue;
        track found;
        if (read_track(each.body(), found)) out.push_back(std::move(found));
    }
    read_extends(find(moov, type_of("mvex")), out);
    for (track& each : out)
        each.said.config = each.config;
    return !out.empty();
}

}  // namespace av::mp4
