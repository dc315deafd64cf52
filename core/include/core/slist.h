/// Thread-safe FIFO of pointers: any threads enqueue and pop. It takes no lock, so a thread that is stopped inside a
/// call does not hold up another. The list owns no item. One entry stays allocated until the list is released, even
/// when the list is empty.
#pragma once

#include "core/api.h"

#include <cstdint>

struct slist;

/// New empty list, or null when memory is out. Release with slist_free().
INET_API slist* _slist_init(const char* file, int line) noexcept;

/// Appends an item. @return 1, or 0 when the list or item is null or memory is out.
INET_API int _slist_enqueue(slist* list, void* item, const char* file, int line) noexcept;

/// Takes the oldest item; null when there is none.
INET_API void* slist_pop(slist* list) noexcept;

/// Items waiting; 0 for null. Exact when no other thread changes the list.
INET_API uint32_t slist_count(slist* list) noexcept;

/// Releases the list and nulls the handle; items left in it are the caller's. No thread may use it any more.
INET_API void slist_free(slist*& list) noexcept;
