// Waiting for descriptors: epoll(7), whose set is kept in step with what is wanted, so that a wait costs what is ready
// and not what is idle. When something that is wanted is not in the set, all is polled: a file that epoll refuses, a
// descriptor that is closed, a set that cannot be had.
//
// The set knows open files, and what is wanted are numbers. A number leaves the set before its owner may close it.
// Where owners do otherwise, two things bring both together again:
//   - all are told anew every few seconds, which finds numbers that were closed or are other files by now;
//   - an entry carries a ticket, so that what a file says whose number was given up is known for nobody's. Such a file
//     cannot be taken out any more: the set is made anew.
#include "platform/socket_api.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace net::platform {

namespace {

short poll_events(uint8_t wanted) noexcept {
    return static_cast<short>((wanted & watch_t::read ? POLLIN : 0) | (wanted & watch_t::write ? POLLOUT : 0));
}

// The same bits for poll() and epoll.
static_assert(EPOLLIN == POLLIN && EPOLLOUT == POLLOUT && EPOLLERR == POLLERR && EPOLLHUP == POLLHUP);

// A hang-up or an error stands in both sets: the next call on the socket returns at once and tells it.
uint8_t found_from_poll(uint32_t events, uint8_t wanted) noexcept {
    const bool ended = events & (POLLERR | POLLHUP);
    const bool readable = ended || (events & POLLIN);
    const bool writable = ended || (events & POLLOUT);
    return static_cast<uint8_t>(wanted & ((readable ? watch_t::read : 0) | (writable ? watch_t::write : 0)));
}

// Media is paced by less than the milliseconds of poll() and epoll_wait().
timespec timespec_of(int64_t microseconds) noexcept {
    return {.tv_sec = static_cast<time_t>(microseconds / 1'000'000),
            .tv_nsec = static_cast<long>(microseconds % 1'000'000) * 1000};
}

constexpr int64_t told_for = 4;  // seconds

/// In which of such times it is now.
int64_t current_turn() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec / told_for;
}

}  // namespace

int wait_sockets(std::span<watch_t> watches, int64_t microseconds) noexcept {
    pollfd polled[max_watches];
    nfds_t count = 0;
    for (watch_t& each : watches) {
        each.found = 0;
        if (each.wanted && count < max_watches)
            polled[count++] = {.fd = each.fd, .events = poll_events(each.wanted), .revents = 0};
    }
    const timespec longest = timespec_of(microseconds);
    const int ready = ppoll(polled, count, &longest, nullptr);
    if (ready <= 0) return ready < 0 && errno != EINTR ? -1 : 0;
    const pollfd* next = polled;
    for (watch_t& each : watches) {
        if (!each.wanted || next == polled + count) continue;
        const auto events = static_cast<unsigned short>(next++->revents);
        each.found = events & POLLNVAL ? watch_t::closed : found_from_poll(events, each.wanted);
    }
    return ready;
}

waiter::~waiter() {
    if (set_ >= 0) close(set_);
}

bool waiter::begin_round() noexcept {
    if (set_ < 0) set_ = epoll_create1(EPOLL_CLOEXEC);
    const int64_t turn = current_turn();
    const bool all_anew = turn != told_;
    told_ = turn;
    return all_anew;
}

void waiter::tell(watch_t& watch, uint32_t place) noexcept {
    if (set_ < 0) return;
    if (!watch.wanted) {
        leave(watch.fd);
        watch.held = 0;
        return;
    }
    watch.ticket = ++tickets_;
    epoll_event event{};
    event.events = static_cast<uint32_t>(poll_events(watch.wanted));
    event.data.u64 = uint64_t{watch.ticket} << 32 | place;
    int result = epoll_ctl(set_, watch.held ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, watch.fd, &event);
    // The number is another file's by now, or was this file's before.
    if (result != 0 && errno == ENOENT) result = epoll_ctl(set_, EPOLL_CTL_ADD, watch.fd, &event);
    if (result != 0 && errno == EEXIST) result = epoll_ctl(set_, EPOLL_CTL_MOD, watch.fd, &event);
    watch.held = result == 0 ? watch.wanted : 0;
}

void waiter::leave(int fd) noexcept {
    if (set_ >= 0) epoll_ctl(set_, EPOLL_CTL_DEL, fd, nullptr);
}

// Others may be leaving the set meanwhile: its number stays.
void waiter::start_anew(std::span<watch_t> watches) noexcept {
    const int fresh = epoll_create1(EPOLL_CLOEXEC);
    if (fresh < 0) return;
    dup3(fresh, set_, O_CLOEXEC);
    close(fresh);
    for (watch_t& each : watches)
        each.held = 0;
}

int waiter::wait(std::span<watch_t> watches, int64_t microseconds) noexcept {
    int in_step = 1;
    for (watch_t& each : watches) {
        each.found = 0;
        in_step &= each.held == each.wanted;
    }
    if (set_ < 0 || !in_step) return wait_sockets(watches, microseconds);
    epoll_event events[max_watches];
    const timespec longest = timespec_of(microseconds);
    const int ready = epoll_pwait2(set_, events, max_watches, &longest, nullptr);
    if (ready < 0) return errno == EINTR ? 0 : wait_sockets(watches, microseconds);
    int found = 0;
    for (int i = 0; i < ready; ++i) {
        const auto place = static_cast<uint32_t>(events[i].data.u64);
        if (place >= watches.size() || watches[place].ticket != events[i].data.u64 >> 32) continue;
        watches[place].found = found_from_poll(events[i].events, watches[place].wanted);
        ++found;
    }
    if (found < ready) start_anew(watches);
    return found;
}

}  // namespace net::platform
