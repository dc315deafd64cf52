#include "core/list.h"

#include "core/owned.h"

#include <utility>

namespace {

struct node_t {
    void* item;
    node_t* previous;
    node_t* next;
};

}  // namespace

struct list_ctx {
    node_t* first = nullptr;
    node_t* last = nullptr;
    node_t* cursor = nullptr;  ///< what list_next() returned last; null before the first
    uint32_t count = 0;

    /// Puts a new node before `next`; at the end when that is null.
    bool insert(void* item, node_t* next, const char* file, int line) noexcept {
        node_t* previous = next ? next->previous : last;
        auto* node = core::create<node_t>(file, line, item, previous, next);
        if (!node) return false;
        (previous ? previous->next : first) = node;
        (next ? next->previous : last) = node;
        ++count;
        return true;
    }

    /// Takes a node out. @return its item.
    void* remove(node_t* node) noexcept {
        (node->previous ? node->previous->next : first) = node->next;
        (node->next ? node->next->previous : last) = node->previous;
        if (cursor == node) cursor = node->previous;
        --count;
        void* item = node->item;
        core::destroy(node);
        return item;
    }
};

list_ctx* core_list_create(const char* file, int line) noexcept { return core::create<list_ctx>(file, line); }

int core_list_add(list_ctx* list, void* item, const char* file, int line) noexcept {
    return list && item && list->insert(item, list->first, file, line);
}

int core_list_enqueue(list_ctx* list, void* item, const char* file, int line) noexcept {
    return list && item && list->insert(item, nullptr, file, line);
}

void* list_pop(list_ctx* list) noexcept { return list && list->first ? list->remove(list->first) : nullptr; }

void* list_find(list_ctx* list, const void* key, int (*compare)(const void* item, const void* key)) noexcept {
    for (const node_t* node = list ? list->first : nullptr; node; node = node->next)
        if (compare ? compare(node->item, key) == 0 : node->item == key) return node->item;
    return nullptr;
}

void list_iterate_start(list_ctx* list) noexcept {
    if (list) list->cursor = nullptr;
}

void* list_next(list_ctx* list) noexcept {
    if (!list) return nullptr;
    node_t* next = list->cursor ? list->cursor->next : list->first;
    if (!next) return nullptr;
    list->cursor = next;
    return next->item;
}

int list_delete(list_ctx* list, void* item) noexcept {
    for (node_t* node = list ? list->first : nullptr; node; node = node->next) {
        if (node->item != item) continue;
        list->remove(node);
        return 1;
    }
    return 0;
}

uint32_t list_count(const list_ctx* list) noexcept { return list ? list->count : 0; }

void core_list_free(list_ctx*& list) noexcept {
    while (list && list->first)
        list->remove(list->first);
    core::destroy(std::exchange(list, nullptr));
}
