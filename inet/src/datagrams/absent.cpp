#include "datagrams/absent.h"

#include "platform/socket_api.h"

#include "core/time.h"

namespace net {

namespace {

constexpr uint64_t between_looks = 250'000;  // microseconds
constexpr uint64_t between_tries = 1'000'000;

}  // namespace

uint32_t absent_hosts::find(in_addr host) const noexcept {
    uint32_t at = 0;
    while (at != count_ && places_[at].host.s_addr != host.s_addr)
        ++at;
    return at;
}

bool absent_hosts::look(int fd) noexcept {
    const uint64_t now = core_timer();
    if (looked_ != 0 && now - looked_ < between_looks) return false;
    looked_ = now;
    std::array<in_addr, 16> found;
    const auto total = static_cast<uint32_t>(platform::unanswering_hosts(found));
    const absent_hosts known = *this;
    count_ = 0;
    bool news = false;
    for (uint32_t i = 0; i < total; ++i) {
        const uint32_t at = known.find(found[i]);
        const bool is_new = at == known.count_;
        places_[count_++] = {found[i], is_new ? now : known.places_[at].tried};
        news = news || is_new;
    }
    if (news && !widened_) platform::widen_send_room(fd);
    widened_ = widened_ || news;
    return news;
}

uint32_t absent_hosts::may_send(int fd, in_addr host, uint32_t datagrams) noexcept {
    const uint64_t now = core_timer();
    if (now - looked_ >= between_tries) look(fd);
    const uint32_t at = find(host);
    if (at == count_) return datagrams;
    if (now - places_[at].tried < between_tries) return 0;
    places_[at].tried = now;
    return 1;
}

}  // namespace net
