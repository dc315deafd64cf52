#include "inet/net_sdp.h"

#include "scan.h"

#include "core/array.h"
#include "core/memory.h"
#include "core/owned.h"
#include "core/text.h"

#include <algorithm>
#include <cfloat>
#include <charconv>
#include <optional>
#include <span>
#include <string_view>

using namespace net::sdp;

namespace {

constexpr std::string_view end_of_line = "\r\n";

// What the records hold. Both kinds of media record have the same fields for what both faces know.

constexpr char* trak_t::*trak_texts[] = {&trak_t::media, &trak_t::control,    &trak_t::encoding,
                                         &trak_t::fmtp,  &trak_t::connection, &trak_t::sprop_parameter_sets,
                                         &trak_t::config};
/// `config` stands last: it is not released with the others.
constexpr char* media_s::*media_texts[] = {&media_s::media, &media_s::control, &media_s::encoding,
                                           &media_s::sprop_parameter_sets, &media_s::config};
constexpr char* rtp_info_s::*rtp_info_texts[] = {&rtp_info_s::url, &rtp_info_s::seq, &rtp_info_s::rtptime};

/// Puts a text in the place of the one that is there; none when memory is out.
void set_text(char*& field, std::string_view text, core::place where) noexcept {
    core_mfree(field);
    field = core_strndup(text.data(), text.size(), where.file, where.line);
}

/// Adds a zeroed record to a list that has `count`. @return null, with the list as it was, when memory is out.
template <class Record>
Record* append(Record**& list, uint32_t count, core::place where) noexcept {
    core::owned_object<Record> record(core::create<Record>(where.file, where.line));
    if (!record) return nullptr;
    auto** array = reinterpret_cast<void**>(list);
    list = reinterpret_cast<Record**>(core_array_add_at(array, count, record.get(), where.file, where.line));
    return list && list[count] ? record.release() : nullptr;
}

template <class Record>
uint32_t length(Record* const* list) noexcept {
    return core_array_length(reinterpret_cast<void* const*>(list));
}

template <class Record>
void free_list(Record** list, std::span<char * Record::*const> texts) noexcept {
    for (Record** record = list; record && *record; ++record) {
        for (auto text : texts)
            core_mfree((*record)->*text);
        core::destroy(*record);
    }
    core_array_free(reinterpret_cast<void**>(list));
}

/// @return false when memory is out; what was copied is the record's.
bool copy_media(media_s& to, const media_s& from) noexcept {
    to = from;
    bool complete = true;
    for (auto field : media_texts) {
        to.*field = core_strdup(from.*field, CORE_HERE);
        complete = complete && (to.*field || !(from.*field));
    }
    return complete;
}

// The grammar

/// Calls `use` with the type and the value of each line. @return early when `use` answers false.
template <class Use>
void for_each_line(std::string_view text, Use use) {
    for (size_t end; (end = text.find(end_of_line)) != std::string_view::npos;
         text.remove_prefix(end + end_of_line.size())) {
        const std::string_view line = text.substr(0, end);
        if (!line.empty() && !use(line[0], line.substr(std::min<size_t>(2, line.size())))) return;
    }
}

/// "video 5000/2 RTP/AVP 96 97"
template <class Record>
void read_media(Record& record, std::string_view value, core::place where) noexcept {
    const scan::pair media = scan::split(value, ' ');
    set_text(record.media, media.key, where);
    const scan::pair port = scan::split(media.value, ' ');
    if (!port.has_value) return;
    record.port = scan::decimal(scan::split(port.key, '/').key);
    const scan::pair protocol = scan::split(port.value, ' ');
    if (protocol.has_value) record.pt = scan::decimal(protocol.value);
}

/// "H264/90000" or "PCMU/8000/1"
template <class Record>
void read_rtpmap(Record& record, std::string_view value, core::place where) noexcept {
    const scan::pair encoding = scan::split(value, '/');
    set_text(record.encoding, encoding.key, where);
    if (!encoding.has_value) return;
    const scan::pair clock = scan::split(encoding.value, '/');
    record.clock_rate = scan::decimal(clock.key);
    if (clock.has_value) record.channels = scan::decimal(clock.value);
}

/// The keys of fmtp that only one face reads.
void read_fmtp_number(trak_t&, const scan::pair&) noexcept {}

void read_fmtp_number(media_s& media, const scan::pair& parameter) noexcept {
    if (parameter.key == "packetization-mode") media.packetization_mode = scan::decimal(parameter.value);
    if (parameter.key == "profile-level-id") media.profile_level_id = scan::decimal(parameter.value);
}

template <class Record>
void read_fmtp(Record& record, std::string_view parameters, core::place where) noexcept {
    scan::for_each_element(parameters, ';', [&](std::string_view element) {
        const scan::pair parameter = scan::split(element, '=');
        if (!parameter.has_value) return;
        if (parameter.key == "sprop-parameter-sets") set_text(record.sprop_parameter_sets, parameter.value, where);
        if (parameter.key == "config") set_text(record.config, parameter.value, where);
        read_fmtp_number(record, parameter);
    });
}

/// Pictures a second; 0 for what no float holds.
float read_framerate(std::string_view value) noexcept {
    value = scan::skip(value, scan::spaces);
    if (value.starts_with('+')) value.remove_prefix(1);
    double rate = 0;
    std::from_chars(value.data(), value.data() + value.size(), rate);
    return rate > 0 && rate <= FLT_MAX ? static_cast<float>(rate) : 0;
}

/// Reads what every record knows; `rtpmap` and `fmtp` are called with what describes the record's own format.
template <class Record, class Rtpmap, class Fmtp>
void read_attribute(Record& record, std::string_view attribute, core::place where, Rtpmap rtpmap, Fmtp fmtp) {
    const auto [name, value, has_value] = scan::split(attribute, ':');
    if (!has_value) return;
    if (name == "framerate") record.framerate = read_framerate(value);
    if (name == "control") set_text(record.control, value, where);
    if (name != "rtpmap" && name != "fmtp") return;

    const scan::pair format = scan::split(value, ' ');
    if (!format.has_value || scan::decimal(format.key) != record.pt) return;
    if (name == "rtpmap")
        rtpmap(format.value);
    else
        fmtp(format.value);
}

void read_trak_attribute(trak_t& trak, std::string_view attribute, core::place where) noexcept {
    const auto rtpmap = [&](std::string_view value) { read_rtpmap(trak, value, where); };
    const auto fmtp = [&](std::string_view value) {
        set_text(trak.fmtp, value, where);
        read_fmtp(trak, value, where);
    };
    read_attribute(trak, attribute, where, rtpmap, fmtp);
}

/// "IN IP4 224.2.1.1/16"; not set for another kind of address and for what is too long to be one.
std::optional<std::string_view> address_of(std::string_view connection) noexcept {
    constexpr std::string_view type = "IN IP4";
    const size_t at = connection.find(type);
    if (at == std::string_view::npos) return std::nullopt;
    const std::string_view address = scan::skip(connection.substr(at + type.size()), " ");
    if (address.size() > sdp_max_address) return std::nullopt;
    return address;
}

void read_connection(trak_t& trak, std::string_view value, core::place where) noexcept {
    if (const auto address = address_of(value)) set_text(trak.connection, *address, where);
}

/// Reads a whole description into a list of traks.
class description_reader {
public:
    description_reader(sdp_t& sdp, core::place where) noexcept : sdp_(sdp), where_(where) {}

    void read(std::string_view text) noexcept {
        for_each_line(text, [this](char type, std::string_view value) { return read_line(type, value); });
    }

private:
    bool read_line(char type, std::string_view value) noexcept {
        if (type == 'm') return read_media_line(value);
        if (type == 'a' && current_) read_trak_attribute(*current_, value, where_);
        if (type == 'c') {
            if (current_) read_connection(*current_, value, where_);
            if (count_ == 0) address_ = address_of(value);
        }
        return true;
    }

    bool read_media_line(std::string_view value) noexcept {
        if (count_ == sdp_max_traks) return false;
        current_ = append(sdp_.traks, count_, where_);
        // A track that could not be held takes its attributes with it: they are not those of the one before.
        if (!current_) return true;
        ++count_;
        read_media(*current_, value, where_);
        if (address_) set_text(current_->connection, *address_, where_);
        return true;
    }

    sdp_t& sdp_;
    core::place where_;
    trak_t* current_ = nullptr;
    uint32_t count_ = 0;
    std::optional<std::string_view> address_;  ///< of the session
};

// Transport and RTP-Info

struct transport_number {
    std::string_view key;
    uint32_t transport_t::*field;
    int base;
};
constexpr transport_number transport_numbers[] = {
    {"ssrc", &transport_t::ssrc, 16},
    {"interleaved", &transport_t::client_port, 10},
    {"client_port", &transport_t::client_port, 10},
    {"server_port", &transport_t::server_port, 10},
    {"port", &transport_t::server_port, 10},
};

struct transport_flag {
    std::string_view key;
    uint8_t transport_t::*field;
};
constexpr transport_flag transport_flags[] = {
    {"unicast", &transport_t::unicast},
    {"multicast", &transport_t::multicast},
    {"RTP/AVP/TCP", &transport_t::tcp},
};

struct transport_text {
    std::string_view key;
    char* transport_t::*field;
};
constexpr transport_text transport_texts[] = {
    {"source", &transport_t::source},
    {"destination", &transport_t::destination},
};

void read_transport(transport_t& transport, std::string_view element, core::place where) noexcept {
    const scan::pair key = scan::split(element, '=');
    for (const auto& flag : transport_flags)
        if (flag.key == key.key) transport.*flag.field = 1;
    if (!key.has_value) return;
    for (const auto& number : transport_numbers)
        if (number.key == key.key) transport.*number.field = scan::number(key.value, number.base).value_or(0);
    for (const auto& text : transport_texts)
        if (text.key == key.key) set_text(transport.*text.field, key.value, where);
}

void read_rtp_info(rtp_info_s& info, std::string_view entry, core::place where) noexcept {
    constexpr std::string_view keys[] = {"url", "seq", "rtptime"};
    scan::for_each_element(entry, ';', [&](std::string_view element) {
        const scan::pair key = scan::split(element, '=');
        for (size_t i = 0; i < std::size(keys); ++i)
            if (key.has_value && key.key == keys[i]) set_text(info.*rtp_info_texts[i], key.value, where);
    });
}

}  // namespace

// The functions

sdp_t* sdp_parse(const char* text, const char* file, int line) noexcept {
    sdp_t* sdp = text ? core::create<sdp_t>(file, line) : nullptr;
    if (sdp) description_reader(*sdp, {file, line}).read(text);
    return sdp;
}

void sdp_free(sdp_t* sdp) noexcept {
    if (!sdp) return;
    free_list<trak_t>(sdp->traks, trak_texts);
    core_mfree(sdp->text);
    core::destroy(sdp);
}

namespace {

/// Calls `read` with a copy of a value, which may be a text of the record that it is read into.
template <class Read>
void read_value(trak_t* trak, const char* value, core::place where, Read read) noexcept {
    const core::owned_text copy(trak ? core_strdup(value, where.file, where.line) : nullptr);
    if (copy) read(*trak, copy.get(), where);
}

}  // namespace

void sdp_parse_media(trak_t* trak, const char* value, const char* file, int line) noexcept {
    read_value(trak, value, {file, line}, read_media<trak_t>);
}

void sdp_parse_attribute(trak_t* trak, char* value, const char* file, int line) noexcept {
    read_value(trak, value, {file, line}, read_trak_attribute);
}

void sdp_parse_connection(trak_t* trak, char* value, const char* file, int line) noexcept {
    read_value(trak, value, {file, line}, read_connection);
}

void sdp_parse_rtpmap(trak_t* trak, char* value, const char* file, int line) noexcept {
    read_value(trak, value, {file, line}, read_rtpmap<trak_t>);
}

void sdp_parse_fmtp(trak_t* trak, const char* params, const char* file, int line) noexcept {
    read_value(trak, params, {file, line}, read_fmtp<trak_t>);
}

rtp_info_s** sdp_parse_rtp_info(const char* header_value, const char* file, int line) noexcept {
    if (!header_value) return nullptr;
    const core::place where{file, line};
    rtp_info_s** infos = nullptr;
    uint32_t count = 0;
    scan::for_each_element(scan::skip(header_value, " "), ',', [&](std::string_view entry) {
        rtp_info_s* info = count < sdp_max_rtp_infos ? append(infos, count, where) : nullptr;
        if (!info) return;
        ++count;
        read_rtp_info(*info, entry, where);
    });
    return infos;
}

void sdp_free_rtp_info(rtp_info_s** infos) noexcept { free_list<rtp_info_s>(infos, rtp_info_texts); }

transport_t* sdp_parse_transport(const char* header_value, const char* file, int line) noexcept {
    auto* transport = core::create<transport_t>(file, line);
    if (!transport || !header_value) return transport;
    scan::for_each_element(header_value, ';', [&](std::string_view element) {
        read_transport(*transport, element, {file, line});
    });
    return transport;
}

void sdp_free_transport(transport_t* transport) noexcept {
    if (!transport) return;
    for (const auto& text : transport_texts)
        core_mfree(transport->*text.field);
    core::destroy(transport);
}

// The class

Sdp::~Sdp() { clear(); }

Sdp& Sdp::operator=(const Sdp& other) noexcept {
    if (this == &other) return *this;
    clear();
    for (uint32_t count = 0; other.medias && other.medias[count]; ++count) {
        current = append(medias, count, {CORE_HERE});
        if (current && copy_media(*current, *other.medias[count])) continue;
        free_configs();
        clear();
        break;
    }
    return *this;
}

void Sdp::parse(const char* description) noexcept {
    text = core_strdup(description, CORE_HERE);
    if (!text) return;
    // The attributes of this session are not those of the last one's last track.
    current = nullptr;
    for_each_line(text, [this](char type, std::string_view value) {
        if (type == 'a' && current) parse_attribute(value);
        if (type != 'm') return true;
        const uint32_t count = length(medias);
        if (count == sdp_max_traks) return false;
        current = append(medias, count, {CORE_HERE});
        if (current) parse_media(value);
        return true;
    });
    core_mfree(text);
    text = nullptr;
}

void Sdp::clear() noexcept {
    free_list<media_s>(medias, std::span(media_texts).first<std::size(media_texts) - 1>());
    medias = nullptr;
    current = nullptr;
}

void Sdp::free_configs() noexcept {
    for (media_s** media = medias; media && *media; ++media) {
        core_mfree((*media)->config);
        (*media)->config = nullptr;
    }
}

rtp_info_s** Sdp::parse_rtp_info(const char* header_value) noexcept {
    return sdp_parse_rtp_info(header_value, CORE_HERE);
}

void Sdp::parse_transport(const char* header_value, unsigned* ssrc, unsigned* channel_a, unsigned* channel_b) noexcept {
    if (!header_value) return;
    scan::for_each_element(header_value, ';', [&](std::string_view element) {
        const scan::pair key = scan::split(element, '=');
        if (!key.has_value) return;
        if (key.key == "ssrc" && ssrc) *ssrc = scan::hexadecimal(key.value);
        if (key.key != "interleaved") return;
        const scan::pair channels = scan::split(key.value, '-');
        if (channel_a) *channel_a = scan::decimal(channels.key);
        if (channel_b && channels.has_value) *channel_b = scan::decimal(channels.value);
    });
}

void Sdp::parse_media(std::string_view value) noexcept { read_media(*current, value, {CORE_HERE}); }

void Sdp::parse_attribute(std::string_view value) noexcept {
    read_attribute(
        *current, value, {CORE_HERE}, [this](std::string_view rtpmap) { parse_rtpmap(rtpmap); },
        [this](std::string_view fmtp) { parse_fmtp(fmtp); });
}

void Sdp::parse_rtpmap(std::string_view value) noexcept { read_rtpmap(*current, value, {CORE_HERE}); }
void Sdp::parse_fmtp(std::string_view value) noexcept { read_fmtp(*current, value, {CORE_HERE}); }
