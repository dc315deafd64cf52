#include "core/queue.h"

#include "core/owned.h"

#include <mutex>
#include <utility>

namespace {

constexpr uint32_t no_item = UINT32_MAX;

/// Who comes after an item in its list, and whether it is in none because somebody works on it.
struct link_t {
    uint32_t next;
    bool out;
};

/// First and last item of a list.
struct chain_t {
    uint32_t first = no_item;
    uint32_t last = no_item;
};

/// Room of an item such that the next one is aligned for any type.
constexpr size_t stride_of(size_t item_size) noexcept {
    return (item_size + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) * alignof(std::max_align_t);
}

}  // namespace

/// Items stand side by side in one block, their links in another: writing past an item does not break a list.
struct queue_ctx {
    std::mutex mutex;
    core::owned<uint8_t> items;
    core::owned<link_t> links;
    size_t stride = 0;
    uint32_t count = 0;
    chain_t free;
    chain_t full;

    void* item(uint32_t index) const noexcept { return items.get() + index * stride; }

    /// Number of an item; no_item for a pointer that is not the start of one.
    uint32_t index_of(const void* pointer) const noexcept {
        const size_t offset = reinterpret_cast<uintptr_t>(pointer) - reinterpret_cast<uintptr_t>(items.get());
        return offset % stride == 0 && offset / stride < count ? static_cast<uint32_t>(offset / stride) : no_item;
    }

    void append(chain_t& chain, uint32_t index) noexcept {
        links.get()[index] = {no_item, false};
        (chain.first == no_item ? chain.first : links.get()[chain.last].next) = index;
        chain.last = index;
    }

    void* take(chain_t& chain) noexcept {
        const std::lock_guard lock(mutex);
        if (chain.first == no_item) return nullptr;
        const uint32_t index = chain.first;
        chain.first = links.get()[index].next;
        links.get()[index].out = true;
        return item(index);
    }

    int put(chain_t& chain, const void* pointer) noexcept {
        const std::lock_guard lock(mutex);
        const uint32_t index = index_of(pointer);
        if (index == no_item || !links.get()[index].out) return 0;
        append(chain, index);
        return 1;
    }
};

queue_ctx* core_queue_open(uint32_t count, uint32_t item_size, const char* file, int line) noexcept {
    if (count == 0 || count == no_item || item_size == 0) return nullptr;
    core::owned_object<queue_ctx> queue(core::create<queue_ctx>(file, line));
    if (!queue) return nullptr;
    queue->stride = stride_of(item_size);
    queue->items.reset(static_cast<uint8_t*>(core_calloc(count, queue->stride, file, line)));
    queue->links.reset(static_cast<link_t*>(core_calloc(count, sizeof(link_t), file, line)));
    if (!queue->items || !queue->links) return nullptr;
    queue->count = count;
    for (uint32_t i = 0; i < count; ++i)
        queue->append(queue->free, i);
    return queue.release();
}

void* core_queue_get_free(queue_ctx* queue) noexcept { return queue ? queue->take(queue->free) : nullptr; }

int core_queue_put_full(queue_ctx* queue, void* item) noexcept {
    return queue && item ? queue->put(queue->full, item) : 0;
}

void* core_queue_get_full(queue_ctx* queue) noexcept { return queue ? queue->take(queue->full) : nullptr; }

int core_queue_put_free(queue_ctx* queue, void* item) noexcept {
    return queue && item ? queue->put(queue->free, item) : 0;
}

void core_queue_close(queue_ctx*& queue) noexcept { core::destroy(std::exchange(queue, nullptr)); }
