// What a client answers its player, and the two ends of a tunnel.
#include "rtsp_service/client.h"
#include "rtsp_service/group.h"

#include "avc/fcc.h"
#include "core/time.h"
#include "inet/net_uri.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

namespace media::rtsp {

namespace {

constexpr uint64_t longest_describe = 5'000'000;  ///< microseconds
constexpr uint64_t longest_play = 1'000'000;

/// A POST end on its way to the thread of its GET end.
struct handover_t {
    service_t* of;
    net::Tcp* tcp;
    rtsp3::Rtsp* rtsp;
};

/// The stream that a URI asks for, whose name may be coded in it; held, or null.
stream* find_stream(station& among, const char* text) {
    const core::owned<net::uri_s, uri_free> uri(uri_parse(text, CORE_HERE));
    std::string_view path = uri && uri->path ? uri->path : "";
    while (path.ends_with('/'))
        path.remove_suffix(1);
    core::string name;
    name.assign(path);
    if (stream* const found = among.find(name.c_str())) return found;
    const core::owned_text decoded(uri_decode_part(path.data(), path.data() + path.size(), CORE_HERE));
    return decoded ? among.find(decoded.get()) : nullptr;
}

}  // namespace

void client_t::on_rtsp_event(rtsp3::Rtsp*, rtsp3::event_t::enum_t event) noexcept {
    using e = rtsp3::event_t;
    switch (event) {
        case e::open_server:
            return describe();
        case e::rtsp_setup:
            return set_up();
        case e::rtsp_play:
            return play();
        case e::rtsp_pause:
        case e::rtsp_stop:
            return stop_playing();
        case e::send_rtp:
            return send_picture();
        case e::rtsp_rtcp:
            return send_report();
        case e::rtsp_close:
            return finish();
        case e::tunnel_get:
            if (!owner_.of().open_tunnels().add(rtsp_->tunnel_cookie(), peer_.sin_addr, owner_.on(), *this)) finish();
            return;
        case e::tunnel_post:
            is_post_ = true;  // joined when the running call is through
            return;
        case e::rtsp_send:
            // Answers go out when their input is served: that to the GET of a tunnel not before others can find it.
            if (rtsp_->lent().size) flush();
            return;
        default:
            return;
    }
}

void client_t::leave_stream() noexcept {
    if (std::exchange(sharing_, false)) shared_->remove_player();
    if (shared_) std::exchange(shared_, nullptr)->release();
    describing_ = 0;
    await_news();
    wanting_.close();
    stream::drop(std::exchange(stream_, nullptr));
}

void client_t::describe() noexcept {
    stop_playing();
    leave_stream();
    try {
        stream_ = find_stream(owner_.on().station(), rtsp_->uri());
    } catch (const std::bad_alloc&) {
        rtsp_->send_error(503);
        return;
    }
    if (!stream_) {
        rtsp_->send_error(404);
        return;
    }
    // Who asks for a description is going to watch: a source that is fetched on demand has to be there.
    wanting_.open(*stream_, {.at_key = false});
    describing_ = core_timer();
    await_news();
    answer_describe(describing_);
}

/// Asks to be called for what the stream brings as long as an answer waits for it.
void client_t::await_news() noexcept {
    if (owes_answer() == awaiting_) return;
    const bool told = wanting_.told(owes_answer() ? &part_t::on_news : nullptr, &owner_) != 0;
    awaiting_ = told && owes_answer();
}

uint64_t client_t::next_look(uint64_t now) const noexcept {
    if (!awaiting_) return now + approach::soon;
    return describing_ ? describing_ + longest_describe : playing_since_ + longest_play;
}

/// Once the formats are known, or will not be.
void client_t::answer_describe(uint64_t now) noexcept {
    const bool ready = stream_->ready() != 0;
    if (!ready && now - describing_ < longest_describe) return;
    describing_ = 0;
    await_news();
    if (ready) {
        announce();
    } else {
        rtsp_->send_error(503);
    }
}

void client_t::announce() noexcept {
    for (const kind_t kind : {kind_t::video, kind_t::audio, kind_t::meta})
        owner_.of().announce(*rtsp_, *stream_, kind);
    rtsp_->send_sdp("inet", "camera", stream_->name(), 0, 0);
}

// What plays goes on: the next PLAY begins anew, with all that is set up by then.
void client_t::set_up() noexcept {
    begun_ = false;
    const rtsp3::trak_t& trak = *rtsp_->trak();
    if (trak.protocol == rtsp3::protocol_t::rtp_multicast) return share(trak);
    const bool udp = trak.protocol == rtsp3::protocol_t::rtp_udp;
    const uint16_t port = udp ? owner_.udp_port() : 0;
    if (udp && !port) {
        rtsp_->send_error(500);
    } else {
        rtsp_->send_setup(nullptr, port);
    }
}

void client_t::share(const rtsp3::trak_t& trak) noexcept {
    if (stream_ && !shared_) shared_ = owner_.of().group_of(*stream_);
    const int index = shared_ ? shared_->index_of(trak.fcc) : -1;
    if (index < 0) {
        rtsp_->send_setup(nullptr, 0);
        return;
    }
    uint32_t place = 0;
    while (rtsp_->trak(place) != &trak)
        ++place;
    rtsp_->share_stream(&shared_traks_[place]);
    rtsp_->send_setup(settings().multicast, shared_->port(static_cast<size_t>(index)));
}

/// Keeps the count of those who watch the shared streams.
void client_t::count_sharing() noexcept {
    bool wanted = false;
    for (uint32_t i = 0; const rtsp3::trak_t* trak = rtsp_ ? rtsp_->trak(i) : nullptr; ++i)
        wanted = wanted || (watching() && trak->set_up && trak->shared);
    if (wanted == sharing_ || !shared_) return;
    sharing_ = wanted;
    if (wanted) {
        shared_->add_player();
    } else {
        shared_->remove_player();
    }
}

void client_t::play() noexcept {
    // To what plays already it is a sign of life (RFC 2326, 10.5).
    if (!begun_) {
        stop_playing();
        live_ = stream_ ? owner_.present().of(owner_, *stream_) : nullptr;
        if (live_) ++live_->users;
        if (!live_ || !approach_.begin(*stream_, settings().at_key, core_timer())) {
            stop_playing();
            rtsp_->send_error(503);
            return;
        }
        pictures_.begin();
    }
    answer_play(core_timer());
}

/// Once the first frame is known, whose time RTP-Info tells, or has not come for some time.
void client_t::answer_play(uint64_t now) noexcept {
    if (!begun_ && approach_.first_time() == 0) approach_.look(now);
    const bool known = begun_ || approach_.first_time() != 0 || shared_;
    if (!known && playing_since_ == 0) {
        playing_since_ = now;
        await_news();
        owner_.on().wake(*this);  // what was pushed meanwhile
    }
    if (!known && now - playing_since_ < longest_play) return;
    playing_since_ = 0;
    await_news();
    uint64_t first = approach_.first_time();
    if (begun_) first = approach_.next_time();  // 0 when it is live: the present
    tell_play(first);
}

void client_t::tell_play(uint64_t first) noexcept {
    for (uint32_t i = 0; const rtsp3::trak_t* trak = rtsp_->trak(i); ++i) {
        if (!trak->shared || !shared_) continue;
        shared_traks_[i].seq = shared_->next_seq(static_cast<size_t>(shared_->index_of(trak->fcc)));
        if (shared_->next_time()) first = shared_->next_time();
    }
    // Sending may serve requests that waited for the answer: nothing may be changed behind it.
    begun_ = true;
    if (!rtsp_->send_play(first ? first : stream_->now())) begun_ = false;
}

// The GET end may be on another thread.
void client_t::find_get() noexcept {
    thread* const at = owner_.of().open_tunnels().find(rtsp_->tunnel_cookie(), peer_.sin_addr);
    if (at == &owner_.on()) {
        if (!join()) finish();
    } else if (at) {
        leaving_to_ = at;  // when no callback of the connection runs
        owner_.on().wake(*this);
    } else {
        finish();
    }
}

bool client_t::fits(const client_t& get) const noexcept {
    const char* const cookie = rtsp_->tunnel_cookie();
    return &get != this && !get.finished_ && !get.is_post_ && !get.partner_ && get.rtsp_->tunnel_cookie() && cookie &&
           std::string_view(get.rtsp_->tunnel_cookie()) == cookie && get.peer_.sin_addr.s_addr == peer_.sin_addr.s_addr;
}

bool client_t::join() noexcept {
    const auto& all = owner_.clients();
    const auto get = std::find_if(all.begin(), all.end(), [&](const client_t* each) { return fits(*each); });
    if (get == all.end()) return false;
    is_post_ = true;
    partner_ = *get;
    partner_->partner_ = this;
    if (rtsp_->join(partner_->rtsp_)) {
        // What was held until now has been served.
        partner_->flush();
        partner_->count_sharing();
        owner_.on().wake(*partner_);
        return true;
    }
    partner_->partner_ = nullptr;
    partner_ = nullptr;
    return false;
}

void client_t::leave_to(thread& other) noexcept {
    auto* given = core::create<handover_t>(CORE_HERE, handover_t{&owner_.of(), tcp_, rtsp_});
    if (!given) return finish();
    tcp_->detach();
    tcp_->set_handler(nullptr);
    rtsp_->set_handler(nullptr);
    owner_.of().open_tunnels().remove(*this);
    if (other.call(on_handover, given)) {
        tcp_ = nullptr;
        rtsp_ = nullptr;
    } else {
        core::destroy(given);
    }
    finish();
}

void client_t::on_handover(thread& on, void* arg) noexcept {
    const core::owned_object<handover_t> given(static_cast<handover_t*>(arg));
    auto* part = static_cast<part_t*>(on.part(*given->of));
    client_t* made = on.nt() && part && given->tcp->attach(on.nt())
                         ? core::create<client_t>(CORE_HERE, *part, given->tcp, given->rtsp)
                         : nullptr;
    if (!made) {
        net::Tcp::destroy(given->tcp);
        rtsp3::Rtsp::destroy(given->rtsp);
        return;
    }
    std::unique_ptr<client_t> owned(made);
    if (!made->complete() || !on.add(made)) return;
    static_cast<void>(owned.release());
    made->begin();
}

}  // namespace media::rtsp
