#include "inet/rtmp_protocol.h"

#include "rtmp/flv.h"
#include "rtmp/messages.h"
#include "rtmp/session.h"

#include <array>

namespace inet {

using namespace rtmp;

namespace {

bytes_t span_of(const uint8_t* data, uint32_t size) noexcept { return {data, data ? size : 0}; }

}  // namespace

int IRtmp::on_connect(Rtmp* /*rtmp*/, const char* /*app*/, const char* /*tc_url*/) noexcept { return 1; }
void IRtmp::on_pause(Rtmp* /*rtmp*/, int /*paused*/) noexcept {}
void IRtmp::on_close(Rtmp* /*rtmp*/) noexcept {}

Rtmp* Rtmp::create(const char* file, int line) noexcept {
    auto* made = core::create<insides>(file, line, file, line);
    return made ? &made->door : nullptr;
}

void Rtmp::destroy(Rtmp* rtmp) noexcept {
    if (rtmp) core::destroy(rtmp->insides_);
}

void Rtmp::set_handler(IRtmp* handler) noexcept { insides_->handler = handler; }
void Rtmp::set_validate(bool on) noexcept { insides_->validates = on; }
void Rtmp::set_keys(const uint8_t* client, const uint8_t* server) noexcept { replace_keys(client, server); }
int Rtmp::set_credentials(const char* user, const char* password) noexcept {
    return insides_->set_credentials(user, password);
}
void Rtmp::Restart() noexcept { insides_->restart(); }

bool Rtmp::ProcessBytes(IOBuffer& received) noexcept {
    const bool done = insides_->receive(received.Readable());
    received.IgnoreAll();
    return done;
}

bool Rtmp::ProcessBytes(buf_t* received) noexcept {
    if (!received) return !insides_->failed;
    const bool done = insides_->receive({received->data, received->length});
    core_buf_ignore(received, received->length);
    return done;
}

bool Rtmp::PerformHandshake(IOBuffer& input, bool encrypted) noexcept {
    return insides_->perform_handshake(input, encrypted);
}

bool Rtmp::ValidateClient(IOBuffer& input) noexcept {
    return !insides_->validates || ValidateClientScheme(input, 0) || ValidateClientScheme(input, 1);
}

bool Rtmp::ValidateClientScheme(IOBuffer& input, uint8_t scheme) noexcept {
    return insides_->validate(input.Readable(), scheme);
}

uint32_t Rtmp::GetDigestOffset(const uint8_t* packet, uint8_t scheme) noexcept { return digest_offset(packet, scheme); }
uint32_t Rtmp::GetDHOffset(const uint8_t* packet, uint8_t scheme) noexcept { return key_offset(packet, scheme); }

bool Rtmp::InboundMessageAvailable(Variant& message) noexcept { return insides_->serve(message); }
bool Rtmp::ProcessUsrCtrl(Variant& message) noexcept { return insides_->serve_control(message); }
bool Rtmp::ProcessChunkSize(Variant& message) noexcept { return insides_->serve_chunk_size(message); }
bool Rtmp::ProcessWinAckSize(Variant& message) noexcept { return insides_->serve_window(message); }
bool Rtmp::ProcessAbortMessage(Variant& message) noexcept { return insides_->serve_abort(message); }

bool Rtmp::ProcessInvoke(Variant& message) noexcept { return insides_->invoke(message); }
bool Rtmp::ProcessInvokeConnect(Variant& message) noexcept { return insides_->connect(message); }
bool Rtmp::ProcessInvokeCreateStream(Variant& message) noexcept { return insides_->create_stream(message); }
bool Rtmp::ProcessInvokePublish(Variant& /*message*/) noexcept { return false; }
bool Rtmp::ProcessInvokePlay(Variant& message) noexcept { return insides_->play(message); }
bool Rtmp::ProcessInvokePause(Variant& message) noexcept { return insides_->pause(message); }
bool Rtmp::ProcessInvokeCloseStream(Variant& /*message*/) noexcept { return insides_->close_stream(); }
bool Rtmp::ProcessInvokeGetStreamLength(Variant& message) noexcept { return insides_->stream_length(message); }
bool Rtmp::ProcessInvokeResult(Variant& message) noexcept { return ProcessInvokeGenericResult(message); }
bool Rtmp::ProcessInvokeGenericResult(Variant& /*message*/) noexcept { return true; }
bool Rtmp::ProcessInvokeGeneric(Variant& message) noexcept { return insides_->unknown(message); }
bool Rtmp::AuthenticateInboundAdobe(Variant& message) noexcept { return insides_->authenticate(message); }

bool Rtmp::SendRTMPMessage(Variant& message) noexcept { return insides_->send(message); }

bool Rtmp::ChunkAndSend(const uint8_t* body, uint32_t size, uint32_t channel, uint8_t type, uint32_t stream,
                        uint32_t timestamp) noexcept {
    if (channel < 2 || channel > 63 || !body || size == 0) return false;
    return insides_->send_chunks({.channel = channel, .type = type, .stream = stream, .time = timestamp},
                                 {span_of(body, size)});
}

bool Rtmp::SendRawData(const uint8_t* data, uint32_t size) noexcept { return insides_->send_raw(span_of(data, size)); }

bool Rtmp::SendPlayStop() noexcept { return insides_->stop_play(); }

bool Rtmp::Feed(const av::frame_t* frame) noexcept { return frame && insides_->feed(*frame); }
bool Rtmp::Feed(Chunks& chunks, buffer_t* lent) noexcept { return insides_->feed(chunks, lent); }

bool Rtmp::FeedH264Caps(const uint8_t* sps, uint32_t sps_size, const uint8_t* pps, uint32_t pps_size,
                        uint32_t timestamp) noexcept {
    uint8_t header[flv::max_header];
    const uint32_t size = flv::put_avc_header(span_of(sps, sps_size), span_of(pps, pps_size), header);
    return size > 0 && insides_->feed_video({bytes_t(header, size)}, timestamp);
}

bool Rtmp::FeedH264(const uint8_t* nal, uint32_t size, uint32_t timestamp, uint32_t composition) noexcept {
    const bytes_t bytes = span_of(nal, size);
    if (!flv::is_sent(h264_nal_type(bytes))) return true;
    return insides_->feed_video({flv::nal_prefix(bytes, composition), bytes}, timestamp);
}

bool Rtmp::FeedAACCaps(const uint8_t* config, uint32_t size, uint32_t timestamp) noexcept {
    return insides_->feed_audio({std::array{flv::aac, flv::is_header}, span_of(config, size)}, timestamp,
                                "Unable to send video");
}

bool Rtmp::FeedAAC(const uint8_t* data, uint32_t size, uint32_t timestamp) noexcept {
    return insides_->feed_audio({std::array{flv::aac, flv::is_data}, span_of(data, size)}, timestamp,
                                "Unable to send video");
}

bool Rtmp::FeedMP4V(const uint8_t* data, uint32_t size, uint32_t timestamp, bool key) noexcept {
    return insides_->feed_video({flv::picture_prefix(key, flv::codec_mp4v, flv::is_data, 0), span_of(data, size)},
                                timestamp);
}

bool Rtmp::FeedVideoData(const uint8_t* body, uint32_t size, uint32_t timestamp) noexcept {
    return insides_->feed_video({span_of(body, size)}, timestamp);
}

bool Rtmp::FeedAudioData(const uint8_t* body, uint32_t size, uint32_t timestamp) noexcept {
    return insides_->feed_audio({span_of(body, size)}, timestamp, "Unable to send audio");
}

uint32_t Rtmp::id() const noexcept { return insides_->id; }
buf_t* Rtmp::send_buffer() noexcept { return &insides_->out; }
uint32_t Rtmp::waiting() const noexcept { return insides_->out.length; }
uint8_t Rtmp::scheme() const noexcept { return insides_->scheme; }
bool Rtmp::handshaken() const noexcept { return insides_->handshaken; }
bool Rtmp::encrypted() const noexcept { return insides_->ciphers.has_value(); }
bool Rtmp::connected() const noexcept { return insides_->connected; }
bool Rtmp::playing() const noexcept { return insides_->playing; }
bool Rtmp::paused() const noexcept { return insides_->paused; }
bool Rtmp::error() const noexcept { return insides_->failed; }
uint64_t Rtmp::received() const noexcept { return insides_->received; }
uint32_t Rtmp::acknowledged() const noexcept { return insides_->acknowledged; }

}  // namespace inet
