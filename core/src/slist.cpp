#include "core/slist.h"

#include "core/owned.h"

#include <atomic>
#include <mutex>
#include <utility>

namespace {

struct node_t {
    void* item;
    node_t* next;
};

}  // namespace

/// A chain of nodes under a lock that is held for the linking alone; nodes are made and released outside of it.
struct slist {
    std::mutex mutex;
    node_t* first = nullptr;
    node_t** end = &first;
    std::atomic<uint32_t> count{0};

    void append(node_t* node) noexcept {
        const std::lock_guard lock(mutex);
        *end = node;
        end = &node->next;
        count.fetch_add(1, std::memory_order_seq_cst);
    }

    node_t* take() noexcept {
        // The loop asks its lists on every pass: an empty one costs it a load.
        if (count.load(std::memory_order_seq_cst) == 0) return nullptr;
        const std::lock_guard lock(mutex);
        if (!first) return nullptr;
        node_t* node = std::exchange(first, first->next);
        if (!first) end = &first;
        count.fetch_sub(1, std::memory_order_seq_cst);
        return node;
    }
};

slist* _slist_init(const char* file, int line) noexcept { return core::create<slist>(file, line); }

int _slist_enqueue(slist* list, void* item, const char* file, int line) noexcept {
    if (!list || !item) return 0;
    auto* node = core::create<node_t>(file, line, item, nullptr);
    if (!node) return 0;
    list->append(node);
    return 1;
}

void* slist_pop(slist* list) noexcept {
    const core::owned_object<node_t> node(list ? list->take() : nullptr);
    return node ? node->item : nullptr;
}

uint32_t slist_count(slist* list) noexcept { return list ? list->count.load(std::memory_order_seq_cst) : 0; }

void slist_free(slist*& list) noexcept {
    while (slist_pop(list)) {
    }
    core::destroy(std::exchange(list, nullptr));
}
