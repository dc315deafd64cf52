// Memory for the many small things of a tree, which end together.
#pragma once

#include "core/owned.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <string_view>
#include <type_traits>

namespace common::xml {

/// Blocks that double in size. Records are cut from the front of a block and texts from its end, so that neither leaves
/// gaps for the other's alignment. Throws std::bad_alloc.
class arena {
public:
    explicit arena(size_t first_block) noexcept : next_size_(std::clamp(first_block, smallest, largest)) {}
    ~arena() {
        while (last_) {
            block* const previous = last_->previous;
            core_mfree(last_);
            last_ = previous;
        }
    }
    arena(const arena&) = delete;
    arena& operator=(const arena&) = delete;

    /// A zeroed record.
    template <class T>
    T* make() {
        return make_array<T>(1);
    }

    /// Zeroed records in a row.
    template <class T>
    T* make_array(size_t count) {
        // NOLINTBEGIN(bugprone-sizeof-expression): a record may be a pointer
        static_assert(std::is_trivially_destructible_v<T> && sizeof(T) % alignof(block) == 0);
        auto* const start = static_cast<T*>(take_front(count * sizeof(T)));
        // NOLINTEND(bugprone-sizeof-expression)
        std::uninitialized_value_construct_n(start, count);
        return start;
    }

    /// The text with a terminator.
    char* copy(std::string_view text) {
        require(text.size() + 1);
        end_ -= text.size() + 1;
        char* const start = reinterpret_cast<char*>(end_);
        *std::copy(text.begin(), text.end(), start) = '\0';
        return start;
    }

private:
    struct block {
        block* previous;
    };
    static constexpr size_t smallest = 1 << 10;
    static constexpr size_t largest = 1 << 20;

    void* take_front(size_t size) {
        require(size);
        std::byte* const start = front_;
        front_ += size;
        return start;
    }

    void require(size_t size) {
        if (static_cast<size_t>(end_ - front_) < size) add_block(size);
    }

    void add_block(size_t size) {
        const size_t room = std::max(size, next_size_);
        void* const memory = core_malloc(sizeof(block) + room, CORE_HERE);
        if (!memory) throw std::bad_alloc();
        last_ = ::new (memory) block{last_};
        front_ = reinterpret_cast<std::byte*>(last_ + 1);
        end_ = front_ + room;
        next_size_ = std::min(2 * next_size_, largest);
    }

    block* last_ = nullptr;
    std::byte* front_ = nullptr;
    std::byte* end_ = nullptr;
    size_t next_size_;
};

}  // namespace common::xml
