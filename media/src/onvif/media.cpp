// The calls of the media service. A stream is a profile, a video source and its configurations, which all have its name
// as their token.
#include "onvif/documents.h"
#include "onvif/inside.h"

#include "avc/fcc.h"
#include "common/xml.h"
#include "inet/net_uri.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace media::onvif_calls {

namespace {

/// What there is to say of a stream.
struct described_t {
    core::string name;
    core::string token;  ///< in XML
    bool video = false;
    bool audio = false;
    bool meta = false;
    const char* codec = "H264";
    char width[12] = "1920";
    char height[12] = "1080";
    char rate[16] = "25";  ///< pictures per second
    format_t sound;
};

void print(uint32_t number, char (&text)[12]) noexcept { *std::to_chars(text, text + 11, number).ptr = '\0'; }

/// Whether RTSP has the sound.
bool is_offered(const described_t& of, const core::string& without_aac) noexcept {
    if (of.sound.fcc == av::fcc_mp4a) return of.name != without_aac;
    return of.sound.fcc == av::fcc_pcmu || of.sound.fcc == av::fcc_pcma;
}

described_t describe(const stream& of, const core::string& without_aac) {
    described_t out;
    out.name.assign(of.name());
    out.token = coded(of.name());
    format_t picture;
    const bool known = of.format(kind_t::video, &picture, nullptr) != 0;
    out.video = known || !of.ready();
    if (known && picture.fcc == av::fcc_jpeg) out.codec = "JPEG";
    if (known && picture.width && picture.height) {
        print(picture.width, out.width);
        print(picture.height, out.height);
    }
    if (const double rate = of.rate(); rate > 0)
        *std::to_chars(out.rate, std::end(out.rate) - 1, rate, std::chars_format::general, 4).ptr = '\0';
    out.audio = of.format(kind_t::audio, &out.sound, nullptr) != 0 && is_offered(out, without_aac);
    format_t report;
    out.meta = of.format(kind_t::meta, &report, nullptr) != 0;
    return out;
}

core::vector<described_t> all_streams(const query_t& query) {
    struct listing_t {
        const core::string& without_aac;
        core::vector<described_t> found;
        bool complete = true;
    } listing{query.in.without_aac, {}};
    query.in.streams.streams(
        [](void* arg, stream& each) {
            auto& [without_aac, found, complete] = *static_cast<listing_t*>(arg);
            try {
                found.push_back(describe(each, without_aac));
            } catch (const std::bad_alloc&) {
                complete = false;
            }
        },
        &listing);
    if (!listing.complete) throw std::bad_alloc();
    return std::move(listing.found);
}

/// The stream that an argument names. @return false when there is none
bool find_stream(const query_t& query, const char* argument, described_t& out) {
    const core::string token = coded(query.argument(argument).c_str());
    for (described_t& each : all_streams(query)) {
        if (each.token != token) continue;
        out = std::move(each);
        return true;
    }
    return false;
}

core::owned_text respond_with(const query_t& query, const core::string& pieces) {
    const param_t params[] = {{"pieces", pieces.c_str()}, {}};
    return query.respond("${pieces}", params);
}

void append_video_source(core::string& out, const described_t& of, const char* document, const char* tag) {
    const param_t params[] = {{"tag", tag},          {"token", of.token.c_str()}, {"width", of.width},
                              {"height", of.height}, {"rate", of.rate},           {}};
    append(out, document, params);
}

void append_encoder(core::string& out, const described_t& of, const char* tag) {
    const char* const name = of.name.c_str();
    out += whole(soap_getVideoEncoderConfiguration(tag, name, name, of.codec, of.width, of.height)).get();
}

void append_metadata(core::string& out, const described_t& of, const char* tag) {
    out += whole(soap_getMetadataConfiguration(tag, of.name.c_str(), of.name.c_str(), true, 1)).get();
}

/// In the order of the schema.
void append_profile(core::string& out, const described_t& of, const char* tag) {
    core::string inner;
    const bool aac = of.sound.fcc == av::fcc_mp4a;
    const param_t sound[] = {{"token", of.token.c_str()},
                             {"codec", aac ? "AAC" : "G711"},
                             {"rate", int64_t{of.sound.rate ? of.sound.rate / 1000 : 8}},
                             {}};
    if (of.video) append_video_source(inner, of, video_source_configuration, "tt:VideoSourceConfiguration");
    if (of.audio) append(inner, audio_source_configuration, sound);
    if (of.video) append_encoder(inner, of, "tt:VideoEncoderConfiguration");
    if (of.audio) append(inner, audio_encoder_configuration, sound);
    if (of.meta) append_metadata(inner, of, "tt:MetadataConfiguration");
    const param_t params[] = {{"tag", tag}, {"token", of.token.c_str()}, {"configurations", inner.c_str()}, {}};
    append(out, profile, params);
}

core::owned_text get_service_capabilities(const query_t& query) {
    return respond_with(query, core::string(whole(soap_MediaServiceCapabilities(media_namespace)).get()));
}

core::owned_text get_profiles(const query_t& query) {
    core::string out;
    for (const described_t& each : all_streams(query))
        append_profile(out, each, "Profiles");
    return respond_with(query, out);
}

core::owned_text get_profile(const query_t& query) {
    described_t found;
    if (!find_stream(query, "ProfileToken", found)) return nullptr;
    core::string out;
    append_profile(out, found, "Profile");
    return respond_with(query, out);
}

core::owned_text get_video_sources(const query_t& query) {
    core::string out;
    for (const described_t& each : all_streams(query))
        if (each.video) append_video_source(out, each, video_source, "");
    return respond_with(query, out);
}

core::owned_text get_video_source_configurations(const query_t& query) {
    core::string out;
    for (const described_t& each : all_streams(query))
        if (each.video) append_video_source(out, each, video_source_configuration, "trt:Configurations");
    return respond_with(query, out);
}

core::owned_text get_video_encoder_configurations(const query_t& query) {
    core::string out;
    for (const described_t& each : all_streams(query))
        if (each.video) append_encoder(out, each, "trt:Configurations");
    return respond_with(query, out);
}

core::owned_text get_video_encoder_configuration(const query_t& query) {
    described_t found;
    if (!find_stream(query, "ConfigurationToken", found) || !found.video) return nullptr;
    core::string out;
    append_encoder(out, found, "trt:Configuration");
    return respond_with(query, out);
}

/// Of a stream, or of all. What a stream has is all that it can have.
core::owned_text get_video_encoder_configuration_options(const query_t& query) {
    const core::string configuration = query.argument("ConfigurationToken");
    core::vector<described_t> found;
    const char* const argument = configuration.empty() ? "ProfileToken" : "ConfigurationToken";
    if (query.argument(argument).empty()) {
        found = all_streams(query);
    } else {
        found.resize(1);
        if (!find_stream(query, argument, found[0]) || !found[0].video) return nullptr;
    }
    core::string jpeg;
    core::string h264;
    for (const described_t& each : found) {
        uint32_t size[2] = {};
        std::from_chars(each.width, each.width + sizeof each.width, size[0]);
        std::from_chars(each.height, each.height + sizeof each.height, size[1]);
        core::string& of_codec = std::string_view(each.codec) == "JPEG" ? jpeg : h264;
        if (each.video) of_codec += whole(soap_getResolutionsAvailable(size[0], size[1])).get();
    }
    core::string out;
    const param_t of_jpeg[] = {{"resolutions", jpeg.c_str()}, {}};
    const param_t of_h264[] = {{"resolutions", h264.c_str()}, {}};
    if (!jpeg.empty()) append(out, jpeg_options, of_jpeg);
    if (!h264.empty()) append(out, h264_options, of_h264);
    return whole(soap_GetVideoEncoderConfigurationOptionsResponse(out.c_str()));
}

core::owned_text get_metadata_configurations(const query_t& query) {
    core::string out;
    for (const described_t& each : all_streams(query))
        if (each.meta) append_metadata(out, each, "trt:Configurations");
    return respond_with(query, out);
}

core::owned_text get_audio_sources(const query_t& query) {
    core::string out;
    for (const described_t& each : all_streams(query)) {
        const param_t params[] = {
            {"token", each.token.c_str()}, {"channels", int64_t{std::max(each.sound.channels, 1U)}}, {}};
        if (each.audio) append(out, audio_source, params);
    }
    return respond_with(query, out);
}

core::owned_text respond_with_uri(const query_t& query, const char* uri) {
    const core::string text = coded(uri);
    const param_t params[] = {{"uri", text.c_str()}, {}};
    return query.respond(media_uri, params);
}

core::string path_of(const core::string& name) {
    return core::string(whole(uri_encode_path(name.c_str(), CORE_HERE)).get());
}

std::string_view text_at(node* parent, const char* name) noexcept {
    const char* text = roxml_get_content(roxml_get_chld(parent, name, 0), nullptr, 0, nullptr);
    return text ? text : "";
}

core::owned_text get_stream_uri(const query_t& query) {
    described_t found;
    if (!find_stream(query, "ProfileToken", found)) return nullptr;
    node* const setup = roxml_get_chld(roxml_get_chld(query.request.body, query.request.method, 0), "StreamSetup", 0);
    const std::string_view way = text_at(roxml_get_chld(setup, "Transport", 0), "Protocol");
    const bool multicast = text_at(setup, "Stream") == "RTP-Multicast";
    const bool is_known = way.empty() || way == "RTSP" || way == "UDP" || way == "TCP" || way == "HTTP";
    if (!is_known || (multicast && !query.in.multicast)) return nullptr;
    // The HTTP service's port takes tunnels, too.
    const uint16_t port = way == "HTTP" ? query.in.web->port() : query.in.rtsp.port();
    const core::owned_text uri =
        whole(core_sprintf(CORE_HERE, "rtsp://%s:%u/%s", query.host, unsigned{port}, path_of(found.name).c_str()));
    return respond_with_uri(query, uri.get());
}

core::owned_text get_snapshot_uri(const query_t& query) {
    described_t found;
    if (!find_stream(query, "ProfileToken", found)) return nullptr;
    const core::string* name = std::string_view(found.codec) == "JPEG" ? &found.name : nullptr;
    for (const auto& [film, pictures] : query.in.shown)
        if (film == found.name) name = &pictures;
    if (!name) return nullptr;
    const core::owned_text uri = whole(core_sprintf(CORE_HERE, "http://%s:%u/%s.jpg", query.host,
                                                    unsigned{query.in.web->port()}, path_of(*name).c_str()));
    return respond_with_uri(query, uri.get());
}

constexpr call_t calls[] = {
    {"GetServiceCapabilities", true, get_service_capabilities},
    {"GetProfiles", false, get_profiles},
    {"GetProfile", false, get_profile},
    {"GetStreamUri", false, get_stream_uri},
    {"GetSnapshotUri", false, get_snapshot_uri},
    {"GetVideoSources", false, get_video_sources},
    {"GetVideoSourceConfigurations", false, get_video_source_configurations},
    {"GetVideoEncoderConfigurations", false, get_video_encoder_configurations},
    {"GetVideoEncoderConfiguration", false, get_video_encoder_configuration},
    {"GetVideoEncoderConfigurationOptions", false, get_video_encoder_configuration_options},
    {"GetMetadataConfigurations", false, get_metadata_configurations},
    {"GetAudioSources", false, get_audio_sources},
};

}  // namespace

const call_t* find_media_call(std::string_view method) noexcept {
    const auto* found = std::ranges::find(calls, method, &call_t::method);
    return found == std::end(calls) ? nullptr : found;
}

}  // namespace media::onvif_calls
