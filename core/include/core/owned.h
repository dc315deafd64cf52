/// RAII over core/memory.h for C++: unique pointers that release with core_mfree() or another function, and standard
/// containers whose blocks carry the place of their allocation.
#pragma once

#include "core/memory.h"

#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace core {

/// Has a function release what a std::unique_ptr owns.
template <auto Release>
struct releaser {
    void operator()(auto* object) const noexcept { Release(object); }
};

/// Owns a block of core_malloc() or a text that a call returned "for the caller to free"; with another function what
/// that one releases: owned<soap::soap_t, soap_free>.
template <class T, auto Release = core_mfree>
using owned = std::unique_ptr<T, releaser<Release>>;
using owned_text = owned<char>;

/// A line of source. As a default argument `place::here()` is the line of the caller.
struct place {
    const char* file;
    int line;

    static constexpr place here(const char* file = __builtin_FILE(), int line = __builtin_LINE()) noexcept {
        return {file, line};
    }
};

/// Standard allocator over core_malloc(). Throws std::bad_alloc, which exported functions turn into their result.
/// Blocks are named after the place where the allocator was made.
template <class T>
class allocator {
public:
    using value_type = T;
    using is_always_equal = std::true_type;
    using propagate_on_container_move_assignment = std::true_type;

    allocator(place where = place::here()) noexcept : where_(where) {}
    allocator(const char* file, int line) noexcept : where_{file, line} {}
    template <class U>
    allocator(const allocator<U>& other) noexcept : where_(other.where()) {}

    T* allocate(size_t count) {
        // NOLINTBEGIN(bugprone-sizeof-expression): the item may be a pointer
        if (count > static_cast<size_t>(-1) / sizeof(T)) throw std::bad_alloc();
        void* block = core_malloc(count * sizeof(T), where_.file, where_.line);
        // NOLINTEND(bugprone-sizeof-expression)
        if (!block) throw std::bad_alloc();
        return static_cast<T*>(block);
    }
    void deallocate(T* block, size_t) noexcept { core_mfree(block); }

    place where() const noexcept { return where_; }
    friend bool operator==(const allocator&, const allocator&) noexcept { return true; }

private:
    place where_;
};

/// Standard containers with tagged storage. They differ from their bases in one thing: the blocks of an empty one are
/// named after the line that made it.
template <class T>
class vector : public std::vector<T, allocator<T>> {
    using base = std::vector<T, allocator<T>>;

public:
    using base::base;
    using base::operator=;
    vector(place where = place::here()) noexcept : base(allocator<T>(where)) {}
    vector(const base& other) : base(other) {}
    vector(base&& other) noexcept : base(std::move(other)) {}
};

class string : public std::basic_string<char, std::char_traits<char>, allocator<char>> {
    using base = std::basic_string<char, std::char_traits<char>, allocator<char>>;

public:
    using base::base;
    using base::operator=;
    string(place where = place::here()) noexcept : base(allocator<char>(where)) {}
    string(const base& other) : base(other) {}
    string(base&& other) noexcept : base(std::move(other)) {}
};

/// Makes an object in a tagged block; null when memory is out or the constructor throws std::bad_alloc.
/// End it with core::destroy().
template <class T, class... Args>
T* create(const char* file, int line, Args&&... args) noexcept {
    static_assert(alignof(T) <= alignof(std::max_align_t));
    void* block = core_malloc(sizeof(T), file, line);
    if (!block) return nullptr;
    try {
        if constexpr (std::is_constructible_v<T, Args...>)
            return ::new (block) T(std::forward<Args>(args)...);
        else
            return ::new (block) T{std::forward<Args>(args)...};  // a plain record
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

/// The one T of the process. The first call makes it. It is never destroyed, so code that runs before main() or after
/// it may use it. For types without a constant initializer on every system, such as std::mutex.
template <class T>
T& process_wide() noexcept {
    alignas(T) static std::byte room[sizeof(T)];
    static T& made = *::new (static_cast<void*>(room)) T;
    return made;
}

}  // namespace core
