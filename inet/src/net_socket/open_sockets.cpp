#include "net_socket/open_sockets.h"

#include "core/owned.h"

#include <algorithm>
#include <array>
#include <mutex>

namespace net {

namespace {

struct registered_socket {
    int fd;
    registered_socket* next = nullptr;
};

using socket_record = core::owned_object<registered_socket>;

socket_record make_record(int fd, const char* file, int line) noexcept {
    socket_record record(core::create<registered_socket>(file, line, fd));
    if (!record) platform::set_last_error(socket_error_no_buffers);
    return record;
}

/// The open descriptors of the process. The record of each is a block in the name of who opened it, so that the memory
/// report names the place, too.
class socket_registry {
public:
    void add(socket_record record) noexcept {
        const std::lock_guard held(lock_);
        insert(record.release());
    }

    void add(socket_record first, socket_record second) noexcept {
        const std::lock_guard held(lock_);
        insert(first.release());
        insert(second.release());
    }

    /// Null when the descriptor is not registered.
    socket_record remove(int fd) noexcept {
        const std::lock_guard held(lock_);
        registered_socket** place = &bucket(fd);
        while (*place && (*place)->fd != fd)
            place = &(*place)->next;
        socket_record record(*place);
        if (record) *place = record->next;
        return record;
    }

    /// Takes any one record; null when none is left.
    socket_record remove_any() noexcept {
        const std::lock_guard held(lock_);
        const auto place = std::ranges::find_if(buckets_, [](const registered_socket* first) { return first; });
        if (place == buckets_.end()) return nullptr;
        socket_record record(*place);
        *place = record->next;
        return record;
    }

private:
    registered_socket*& bucket(int fd) noexcept { return buckets_[static_cast<unsigned>(fd) % buckets_.size()]; }

    void insert(registered_socket* record) noexcept {
        registered_socket*& first = bucket(record->fd);
        record->next = first;
        first = record;
    }

    std::mutex lock_;
    std::array<registered_socket*, 256> buckets_ = {};
};

socket_registry& registry() noexcept { return core::process_wide<socket_registry>(); }

}  // namespace

bool enter_socket(int fd, const char* file, int line) noexcept {
    socket_record record = make_record(fd, file, line);
    if (!record) return false;
    registry().add(std::move(record));
    return true;
}

bool enter_sockets(int first, int second, const char* file, int line) noexcept {
    socket_record first_record = make_record(first, file, line);
    socket_record second_record = make_record(second, file, line);
    if (!first_record || !second_record) return false;
    registry().add(std::move(first_record), std::move(second_record));
    return true;
}

bool leave_socket(int fd) noexcept { return registry().remove(fd) != nullptr; }

int leave_any_socket() noexcept {
    const socket_record record = registry().remove_any();
    return record ? record->fd : -1;
}

}  // namespace net
