/// A fixed number of equal items that travel between a producer and a consumer. The producer takes a free item, fills
/// it and puts it. The consumer gets it, uses it and puts it back as free. Only core_queue_open() allocates. Any
/// thread.
#pragma once

#include "core/api.h"

#include <cstdint>

struct queue_ctx;

/// Opens a queue of `count` zeroed items of `item_size` bytes, aligned for any type, all free.
/// @return null when an argument is 0 or memory is out. Release with core_queue_close().
INET_API queue_ctx* core_queue_open(uint32_t count, uint32_t item_size, const char* file, int line) noexcept;

/// Takes the item that has been free longest; null when none is free.
INET_API void* core_queue_get_free(queue_ctx* queue) noexcept;

/// Hands a filled item to the consumer. @return 1, or 0 for a null argument or an item that is not taken.
INET_API int core_queue_put_full(queue_ctx* queue, void* item) noexcept;

/// Takes the oldest filled item; null when there is none.
INET_API void* core_queue_get_full(queue_ctx* queue) noexcept;

/// Gives an item back. @return as core_queue_put_full().
INET_API int core_queue_put_free(queue_ctx* queue, void* item) noexcept;

/// Releases the queue with all its items, wherever they are, and nulls the handle.
INET_API void core_queue_close(queue_ctx*& queue) noexcept;
