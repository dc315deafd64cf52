/// RAII over the runtime's allocator, for the insides of the libraries and for C++ callers: unique pointers that end
/// with core_mfree() and standard containers whose storage is tagged.
#pragma once

#include "core/memory.h"

#include <memory>
#include <new>
#include <source_location>
#include <string>
#include <vector>

namespace core {

struct mfree_deleter {
    void operator()(void* block) const noexcept { core_mfree(block); }
};

/// Owns a block of core_malloc() or a text that a call returned "for the caller to free".
template <class T>
using owned = std::unique_ptr<T, mfree_deleter>;
using owned_text = owned<char>;

/// Standard allocator over core_malloc(). Throws std::bad_alloc, which exported functions turn into their result.
/// Blocks are named after the place where the allocator was made.
template <class T>
class allocator {
public:
    using value_type = T;

    allocator(std::source_location where = std::source_location::current()) noexcept
        : file_(where.file_name()), line_(static_cast<int>(where.line())) {}
    template <class U>
    allocator(const allocator<U>& other) noexcept : file_(other.file()), line_(other.line()) {}
    allocator(const char* file, int line) noexcept : file_(file), line_(line) {}

    T* allocate(size_t count) {
        if (count > static_cast<size_t>(-1) / sizeof(T)) throw std::bad_alloc();
        void* block = core_malloc(count * sizeof(T), file_, line_);
        if (!block) throw std::bad_alloc();
        return static_cast<T*>(block);
    }
    void deallocate(T* block, size_t) noexcept { core_mfree(block); }

    const char* file() const noexcept { return file_; }
    int line() const noexcept { return line_; }
    friend bool operator==(const allocator&, const allocator&) noexcept { return true; }

private:
    const char* file_;
    int line_;
};

template <class T>
using vector = std::vector<T, allocator<T>>;
using string = std::basic_string<char, std::char_traits<char>, allocator<char>>;

/// Makes an object in a tagged block; null when memory is out or the constructor throws std::bad_alloc.
/// End it with core::destroy().
template <class T, class... Args>
T* create(const char* file, int line, Args&&... args) noexcept {
    void* block = core_malloc(sizeof(T), file, line);
    if (!block) return nullptr;
    try {
        return ::new (block) T(std::forward<Args>(args)...);
    } catch (const std::bad_alloc&) {
        core_mfree(block);
        return nullptr;
    }
}

/// Destroys an object of core::create(); null is ignored.
template <class T>
void destroy(T* object) noexcept {
    if (!object) return;
    object->~T();
    core_mfree(object);
}

template <class T>
struct destroy_deleter {
    void operator()(T* object) const noexcept { destroy(object); }
};

/// Owns an object of core::create().
template <class T>
using owned_object = std::unique_ptr<T, destroy_deleter<T>>;

}  // namespace core
