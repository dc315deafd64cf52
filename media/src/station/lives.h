// The clients of a thread that have come up to the present of their streams: each frame is made once for all of them.
#pragma once

#include "core/memory.h"
#include "core/owned.h"
#include "media/stream.h"

#include <algorithm>
#include <cstddef>
#include <new>
#include <utility>

namespace media {

/// Who is live in a stream. A client may enter and leave while a frame is passed on.
/// @tparam place_t  what a frame needs of a client; `one` is the client, null when it has left
template <class place_t>
class places {
public:
    bool empty() const noexcept { return all_.empty(); }
    size_t size() const noexcept { return all_.size(); }
    place_t& operator[](size_t i) noexcept { return all_[i]; }

    /// @return false when memory is out
    bool add(const place_t& place) noexcept {
        try {
            all_.push_back(place);
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    template <class Client>
    void remove(const Client& one) noexcept {
        for (place_t& each : all_) {
            if (each.one != &one) continue;
            each = {};
            left_ = true;
        }
        if (!passing_) drop_left();
    }

    template <class Client, class Take>
    void look_at(const Client& one, Take take) noexcept {
        for (place_t& each : all_) {
            if (each.one == &one) take(each);
        }
    }

    /// Calls `take` with each index. A reference into the places is valid until a client enters.
    template <class Take>
    void pass(Take take) noexcept {
        passing_ = true;
        for (size_t i = 0; i < all_.size(); ++i)
            take(i);
        passing_ = false;
        drop_left();
    }

private:
    void drop_left() noexcept {
        if (std::exchange(left_, false)) std::erase_if(all_, [](const place_t& each) { return !each.one; });
    }

    core::vector<place_t> all_;
    bool passing_ = false;
    bool left_ = false;  ///< there are places of nobody
};

/// What follows the streams of a thread, one each. A client that is live, or on the way, holds it with `users`.
template <class live>
class lives {
public:
    /// It is made at its first use. Null when memory is out.
    template <class Part>
    live* of(Part& owner, stream& which) noexcept {
        const auto found = std::ranges::find_if(all_, [&](const auto& each) { return &each->of() == &which; });
        if (found != all_.end()) return found->get();
        core::owned_object<live> made(core::create<live>(CORE_HERE, owner, which));
        if (!made || !made->begin()) return nullptr;
        try {
            all_.push_back(std::move(made));
            return all_.back().get();
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }

    /// It stays until drop_unused(), as it may be passing on a frame when its last client leaves.
    static void leave(live*& of) noexcept {
        if (of) --std::exchange(of, nullptr)->users;
    }
    void drop_unused() noexcept {
        std::erase_if(all_, [](const auto& each) { return each->users == 0; });
    }
    void clear() noexcept { all_.clear(); }

private:
    core::vector<core::owned_object<live>> all_;
};

}  // namespace media
