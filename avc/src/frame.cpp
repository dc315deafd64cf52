#include "avc/frame.h"

#include "avc/fcc.h"
#include "avc/jpeg.h"
#include "common/h264.h"
#include "core/owned.h"

#include <atomic>
#include <cstring>
#include <new>
#include <span>

/// The bytes stand behind the count, in the same block.
struct av::payload_t {
    std::atomic<uint32_t> users{1};

    uint8_t* bytes() noexcept { return reinterpret_cast<uint8_t*>(this + 1); }
};

namespace {

void release(av::payload_t* payload) noexcept {
    if (payload && payload->users.fetch_sub(1, std::memory_order_acq_rel) == 1) core::destroy(payload);
}

/// A share of a payload, let go unless a record takes it over.
using share = core::owned<av::payload_t, release>;

share copy_bytes(const void* data, uint32_t size, const char* file, int line) noexcept {
    if (!data && size > 0) return nullptr;
    void* block = core_malloc(sizeof(av::payload_t) + size + 1, file, line);
    if (!block) return nullptr;
    share payload(::new (block) av::payload_t);
    if (size > 0) std::memcpy(payload->bytes(), data, size);
    payload->bytes()[size] = 0;
    return payload;
}

/// Gives a new record the payload and what frames and metadata have in common; null when either is missing.
template <class Record>
Record* make_record(share payload, uint32_t fcc, uint64_t time, uint32_t size, const char* file, int line) noexcept {
    if (!payload) return nullptr;
    auto* record = core::create<Record>(file, line);
    if (!record) return nullptr;
    record->fcc = fcc;
    record->time = time;
    record->data = payload->bytes();
    record->size = size;
    record->payload = payload.release();
    return record;
}

template <class Record>
void drop_record(Record*& record) noexcept {
    if (!record) return;
    release(record->payload);
    core::destroy(record);
    record = nullptr;
}

void describe_h264(std::span<const uint8_t> data, av::frame_t& frame) noexcept {
    const auto slice = h264_first_slice(data);
    frame.key = h264_nal_type(slice) == h264_slice_idr;
    h264_info_t info;
    // Parameter sets stand before the slices: no need to walk through those.
    if (!h264_parse_sps(h264_find(data.first(data.size() - slice.size()), h264_sps), &info)) return;
    frame.width = info.width;
    frame.height = info.height;
}

void describe_jpeg(std::span<const uint8_t> data, av::frame_t& frame) noexcept {
    jpeg_info_t info;
    if (!jpeg_inspect(data, &info)) return;
    frame.width = info.width;
    frame.height = info.height;
    frame.key = 1;
}

void describe(av::frame_t& frame) noexcept {
    const std::span data(frame.data, frame.size);
    switch (fcc_unic(frame.fcc)) {
        case av::fcc_h264:
            return describe_h264(data, frame);
        case av::fcc_jpeg:
            return describe_jpeg(data, frame);
        default:
            frame.key = fcc_is_video(frame.fcc) == 0;
    }
}

}  // namespace

av::frame_t* avc_frame_create(uint32_t fcc, uint64_t time, const void* data, uint32_t size, const char* file,
                              int line) noexcept {
    auto* frame = make_record<av::frame_t>(copy_bytes(data, size, file, line), fcc, time, size, file, line);
    if (!frame) return nullptr;
    frame->complete = 1;
    describe(*frame);
    return frame;
}

int avc_frame_share(av::frame_t* out, const av::frame_t* frame, const char* file, int line) noexcept {
    if (!out || !frame) return 0;
    *out = *frame;
    if (frame->payload) {
        frame->payload->users.fetch_add(1, std::memory_order_relaxed);
        return 1;
    }
    share copy = copy_bytes(frame->data, frame->size, file, line);
    if (!copy) {
        *out = {};
        return 0;
    }
    out->data = copy->bytes();
    out->payload = copy.release();
    return 1;
}

void avc_frame_drop(av::frame_t* frame) noexcept {
    if (!frame) return;
    release(frame->payload);
    *frame = {};
}

av::frame_t* avc_frame_dup(const av::frame_t* frame, const char* file, int line) noexcept {
    av::frame_t shared;
    if (!avc_frame_share(&shared, frame, file, line)) return nullptr;
    auto* copy = core::create<av::frame_t>(file, line, shared);
    if (!copy) avc_frame_drop(&shared);
    return copy;
}

av::frame_t* avc_frame_parse(const param_t* params, const char* file, int line) noexcept {
    const param_t* entry = param_find(params, "frame");
    if (!entry || entry->type != param_data) return nullptr;
    return avc_frame_dup(static_cast<const av::frame_t*>(entry->data), file, line);
}

void avc_frame_need(av::frame_t*& frame) noexcept { drop_record(frame); }

av::meta_t* avc_meta_create(uint32_t fcc, uint64_t time, const void* data, uint32_t size, const char* file,
                            int line) noexcept {
    return make_record<av::meta_t>(copy_bytes(data, size, file, line), fcc, time, size, file, line);
}

void avc_meta_need(av::meta_t*& meta) noexcept { drop_record(meta); }
