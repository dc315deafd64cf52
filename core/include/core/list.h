/// Doubly ended list of pointers with a cursor. One thread at a time; the list owns no item.
#pragma once

#include "core/api.h"

#include <cstdint>

struct list_ctx;

/// New empty list, or null when memory is out. Release with core_list_free().
INET_API list_ctx* core_list_create(const char* file, int line) noexcept;

/// Puts an item at the front (add) or at the end (enqueue). @return 1, or 0 when an argument is null or memory is out.
INET_API int core_list_add(list_ctx* list, void* item, const char* file, int line) noexcept;
INET_API int core_list_enqueue(list_ctx* list, void* item, const char* file, int line) noexcept;

/// Takes the first item; null when there is none.
INET_API void* list_pop(list_ctx* list) noexcept;

/// First item for which `compare(item, key)` is 0; null when there is none. A null `compare` compares the pointers.
INET_API void* list_find(list_ctx* list, const void* key, int (*compare)(const void* item, const void* key)) noexcept;

/// Walk the list. list_iterate_start() puts the cursor before the first item. list_next() moves on and returns the
/// item; null after the last. Items may be deleted and added during the walk.
INET_API void list_iterate_start(list_ctx* list) noexcept;
INET_API void* list_next(list_ctx* list) noexcept;

/// Removes the first entry equal to `item`. @return 1, or 0 when it is not there.
INET_API int list_delete(list_ctx* list, void* item) noexcept;

/// Items in the list; 0 for null.
INET_API uint32_t list_count(const list_ctx* list) noexcept;

/// Releases the list and nulls the handle; items left in it are the caller's.
INET_API void core_list_free(list_ctx*& list) noexcept;
