#include "rtmp_service/client.h"
#include "rtmp_service/inside.h"
#include "rtmp_service/part.h"

#include "avc/fcc.h"
#include "core/text.h"
#include "inet/net_uri.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <new>
#include <utility>

namespace media {

rtmp_service_t* rtmp_service(const rtmp_settings_t& settings) noexcept {
    auto* made = core::create<rtmp::service_t>(CORE_HERE, settings);
    if (!made || made->complete()) return made;
    delete made;
    return nullptr;
}

namespace rtmp {

bool carries(uint32_t fcc) noexcept {
    constexpr uint32_t formats[] = {av::fcc_h264, av::fcc_mp4a, av::fcc_pcmu, av::fcc("mp3 ")};
    return std::ranges::find(formats, fcc) != std::end(formats);
}

use_t use_of(const stream& what) noexcept {
    use_t found = use_t::unknown;
    for (const kind_t kind : {kind_t::video, kind_t::audio}) {
        format_t format;
        if (!what.format(kind, &format, nullptr)) continue;
        if (carries(format.fcc)) return use_t::some;
        found = use_t::none;
    }
    return found;
}

bool time_bases::enter(const stream& of, uint64_t first, uint64_t& base) noexcept {
    const std::lock_guard held(lock_);
    auto found = std::ranges::find(bases_, of.id(), &base_t::id);
    if (found == bases_.end()) {
        try {
            bases_.push_back({of.id(), first, 0});
        } catch (const std::bad_alloc&) {
            return false;
        }
        found = bases_.end() - 1;
    }
    ++found->holds;
    base = found->base;
    return true;
}

void time_bases::leave(const stream& of) noexcept {
    const std::lock_guard held(lock_);
    const auto found = std::ranges::find(bases_, of.id(), &base_t::id);
    if (found != bases_.end() && --found->holds == 0) bases_.erase(found);
}

service_t::service_t(const rtmp_settings_t& settings) noexcept : settings_(settings), port_(settings.port) {
    user_.reset(core_strdup(settings.user, CORE_HERE));
    password_.reset(core_strdup(settings.password, CORE_HERE));
    settings_.user = user_.get();
    settings_.password = password_.get();
    complete_ = (!settings.user || user_) && (!settings.password || password_);
}

/// A port that was taken at an earlier start may be free now.
int service_t::open(station&, failure_t*) noexcept {
    if (port_ == 0) port_ = settings_.port;
    return 1;
}

/// The first byte of the handshake: its version, plain or encrypted.
claim_t service_t::claims(buffer_t first) const noexcept {
    constexpr uint8_t plain = 3;
    constexpr uint8_t encrypted = 6;
    if (first.size == 0) return claim_t::more;
    return first.data[0] == plain || first.data[0] == encrypted ? claim_t::yes : claim_t::no;
}

part* service_t::make_part(thread& on, failure_t* error) noexcept {
    part* made = core::create<part_t>(CORE_HERE, on, *this);
    if (!made) tell(error, "no memory");
    return made;
}

client* service_t::take(thread& on, net::Tcp*& from) noexcept {
    auto* part = static_cast<part_t*>(on.part(*this));
    auto* made = part ? core::create<client_t>(CORE_HERE, *part) : nullptr;
    if (made && made->begin(from)) return made;
    delete made;
    return nullptr;
}

void service_t::addresses(const stream& of, const char* host, void (*each)(void* arg, const char* address),
                          void* arg) const noexcept {
    if (port() == 0 || use_of(of) == use_t::none) return;
    const core::owned_text path(uri_encode_path(of.name(), CORE_HERE));
    char text[512];
    const int size =
        std::snprintf(text, sizeof text, "rtmp://%s:%u/%s", host, unsigned{port()}, path ? path.get() : of.name());
    if (size > 0 && static_cast<size_t>(size) < sizeof text) each(arg, text);
}

}  // namespace rtmp
}  // namespace media
