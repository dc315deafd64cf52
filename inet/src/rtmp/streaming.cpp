// Frames out.
#include "rtmp/messages.h"
#include "rtmp/session.h"

#include "avc/fcc.h"

namespace inet {

/// Tells of a frame that was left out; of formats that are not served, nothing. @return false
bool Rtmp::insides::unsent(uint32_t fcc) noexcept {
    if (fcc == av::fcc_h264 || fcc == av::fcc("MP4V") || fcc == av::fcc_mp4a) log_line("Unable to send video");
    if (fcc == av::fcc_pcmu || fcc == av::fcc("mp3 ")) log_line("Unable to send audio");
    return false;
}

bool Rtmp::insides::feed(const av::frame_t& frame) noexcept {
    if (!takes_media()) return false;
    if (!own_chunks_) own_chunks_.reset(core::create<rtmp::Chunks>(file, line, file, line));
    if (!own_chunks_ || own_chunks_->cut(&frame) < 0) return unsent(frame.fcc);
    return own_chunks_->bytes().size == 0 || feed(*own_chunks_, nullptr);
}

bool Rtmp::insides::feed(rtmp::Chunks& chunks, buffer_t* lent) noexcept {
    if (lent) *lent = {};
    const buffer_t bytes = chunks.bytes();
    if (!takes_media() || bytes.size == 0) return false;
    const bool lends = lent && !ciphers;
    buffer_t head;
    if (head_sent_ != chunks.generation()) {
        head = chunks.head();
        if (head.size == 0) return unsent(chunks.fcc());
    }
    // Room for both first: a frame goes out whole or not at all.
    if (!core_buf_respace(&out, head.size + (lends ? 0 : bytes.size), file, line)) return unsent(chunks.fcc());
    send_raw({head.data, head.size});
    head_sent_ = chunks.generation();
    if (lends)
        *lent = bytes;
    else
        send_raw({bytes.data, bytes.size});
    return true;
}

bool Rtmp::insides::feed_video(std::initializer_list<bytes_t> body, uint32_t timestamp) noexcept {
    if (!takes_media()) return false;
    if (send_chunks(rtmp::video_message(timestamp), body)) return true;
    log_line("Unable to send video");
    return false;
}

bool Rtmp::insides::feed_audio(std::initializer_list<bytes_t> body, uint32_t timestamp, const char* failure) noexcept {
    if (!takes_media()) return false;
    if (send_chunks(rtmp::audio_message(timestamp), body)) return true;
    log_line(failure);
    return false;
}

}  // namespace inet
