#include "rtmp_service/client.h"

#include "core/time.h"

#include <utility>

namespace media::rtmp {

namespace {

// Seconds in which nothing is played.
constexpr unsigned first_play = 10;
constexpr unsigned next_play = 60;
constexpr unsigned longest_pause = 600;

constexpr uint64_t longest_wait = 5'000'000;  // microseconds

/// The stream that a player asks for, held, or null.
stream* find_stream(station& among, const inet::rtmp::play_t& play) noexcept {
    char name[1024];
    for (uint32_t i = 0; inet::rtmp::stream_name(play, i, name, sizeof name) != 0; ++i) {
        if (stream* const found = among.find(name)) return found;
    }
    return nullptr;
}

}  // namespace

bool client_t::begin(net::Tcp*& from) noexcept {
    rtmp_ = inet::Rtmp::create(CORE_HERE);
    if (!rtmp_ || !rtmp_->set_credentials(settings().user, settings().password) || !owner_.enter(*this)) return false;
    rtmp_->set_handler(this);
    tcp_ = std::exchange(from, nullptr);
    tcp_->set_handler(this);
    tcp_->show_received();
    return true;
}

client_t::~client_t() {
    finished_ = true;
    leave_stream();
    owner_.exit(*this);
    net::Tcp::destroy(tcp_);
    inet::Rtmp::destroy(rtmp_);
}

void client_t::finish() noexcept {
    if (finished_) return;
    finished_ = true;
    if (live_) live_->remove(*this);
    owner_.on().sweep();
}

void client_t::on_tcp_received(net::Tcp*, buf_t* received) noexcept {
    if (finished_) return;
    const bool goes_on = rtmp_->ProcessBytes(received);
    flush();
    if (!goes_on) return finish();
    owner_.on().wake(*this);
}

void client_t::on_tcp_writable(net::Tcp*) noexcept {
    flush();
    if (approach_.under_way()) owner_.on().wake(*this);
}

void client_t::on_tcp_closed(net::Tcp*, int) noexcept { finish(); }

void client_t::flush() noexcept {
    tcp_->flush(*rtmp_->send_buffer());
    owner_.count_bytes(tcp_->sent() - std::exchange(counted_, tcp_->sent()));
}

void client_t::second() noexcept {
    if (finished_) return;
    flush();  // the system tells that there is room again only when much of it is free
    silent_ = watching() ? 0 : silent_ + 1;
    const bool silent = silent_ >= (rtmp_->paused() ? longest_pause : has_played_ ? next_play : first_play);
    const bool stalls = tcp_->second() >= settings().stall;
    if (stalls) tcp_->give_up();
    if (silent || stalls || rtmp_->error()) finish();
}

int client_t::on_play(inet::Rtmp*, const inet::rtmp::play_t& play) noexcept {
    leave_stream();
    stream_ = find_stream(owner_.on().station(), play);
    if (!stream_ || use_of(*stream_) == use_t::none) return 0;
    has_played_ = true;
    await_formats();
    return 1;
}

void client_t::on_pause(inet::Rtmp*, int paused) noexcept {
    stop_playing();
    if (!paused && stream_) await_formats();
}

void client_t::on_close(inet::Rtmp*) noexcept {
    leave_stream();
    silent_ = 0;
}

/// A source that is fetched on demand has to be there.
void client_t::await_formats() noexcept {
    wanting_.open(*stream_, {.at_key = false});
    awaiting_ = core_timer();
}

/// Once all are known, or no more of them will be. Players take from the beginning alone what tracks there are.
bool client_t::has_formats(uint64_t now) noexcept {
    if (stream_->ready()) return true;
    if (now - awaiting_ < longest_wait) return false;
    if (use_of(*stream_) != use_t::some) finish();
    return !finished_;
}

bool client_t::start_playing(uint64_t now) noexcept {
    live_ = owner_.present().of(owner_, *stream_);
    if (live_) ++live_->users;
    past_.reset(core::create<inet::rtmp::Chunks>(CORE_HERE, CORE_HERE));
    if (!live_ || !past_ || !approach_.begin(*stream_, settings().at_key, now)) return false;
    past_->set_whole_pictures(true);
    live_->prepare(*past_);
    pictures_.begin();
    awaiting_ = 0;
    wanting_.close();
    return true;
}

void client_t::stop_playing() noexcept {
    awaiting_ = 0;
    wanting_.close();
    approach_.end();
    past_.reset();
    if (live_) live_->remove(*this);
    lives<live>::leave(live_);
}

void client_t::leave_stream() noexcept {
    stop_playing();
    stream::drop(std::exchange(stream_, nullptr));
}

uint64_t client_t::serve(uint64_t now) noexcept {
    if (!watching()) return 0;
    if (awaiting_) {
        if (!has_formats(now)) return now + approach::soon;
        if (!start_playing(now)) {
            finish();
            return 0;
        }
    }
    return approach_.serve(*this, owner_.on(), now);
}

// The past goes out as fast as the player takes it, each picture by itself.
bool client_t::show(const entry_t& entry) noexcept {
    if (rtmp_->waiting()) return false;
    send(entry, live_->cut(*past_, entry) ? past_.get() : nullptr);
    return true;
}

bool client_t::join(uint64_t from) noexcept {
    if (!live_->add(*this, from)) return false;
    past_.reset();
    return true;
}

/// A frame longer than all that may wait goes out when nothing waits.
void client_t::send(const entry_t& entry, inet::rtmp::Chunks* chunks) noexcept {
    if (entry.kind == kind_t::meta || !carries(entry.frame.fcc)) return;
    const auto pass = [&] {
        const uint64_t waiting = rtmp_->waiting();
        const bool fits = chunks && (waiting == 0 || waiting + chunks->bytes().size <= settings().backlog);
        return fits && pass_on(*chunks);
    };
    const bool kept = pictures_.pass(entry, pass);
    if (entry.kind == kind_t::video) owner_.count_picture(kept);
}

// The bytes of the frame go straight to the system when nothing waits, such as the head.
bool client_t::pass_on(inet::rtmp::Chunks& chunks) noexcept {
    buffer_t lent{};
    if (!rtmp_->Feed(chunks, &lent)) return false;
    if (rtmp_->waiting()) flush();
    const uint32_t went = lent.size && !rtmp_->waiting() ? tcp_->lend(lent) : 0;
    if (went < lent.size && !rtmp_->SendRawData(lent.data + went, lent.size - went)) {
        if (went) finish();  // a picture that lacks its end breaks the framing
        return false;
    }
    flush();
    return true;
}

}  // namespace media::rtmp
