#include "player.h"

#include "program.h"

#include "core/cmd.h"
#include "core/time.h"

#include <algorithm>

namespace viewer {
namespace {

constexpr uint64_t second = 1'000'000;
constexpr unsigned longest_pause = 30;  // seconds
/// A server that describes other tracks every time is not followed further.
constexpr size_t most_reports = size_t{4} * rtsp3::max_traks;

bool can_pass(outcome what) {
    return what == outcome::no_connection || what == outcome::connection_lost || what == outcome::nothing_received ||
           what == outcome::protocol_error;
}

/// Adds what each track received to the track of the same place and format.
void add(std::vector<track_report>& sum, const std::vector<track_report>& more) {
    for (size_t i = 0; i < more.size(); ++i) {
        if (i < sum.size() && sum[i].fcc == more[i].fcc) {
            sum[i].add(more[i]);
        } else if (sum.size() < most_reports) {
            sum.push_back(more[i]);
        }
    }
}

/// Seconds of media: of the longest track.
double length(const std::vector<track_report>& reports) {
    double longest = 0;
    for (const track_report& each : reports)
        longest = std::max(longest, each.seconds);
    return longest;
}

}  // namespace

void player::start() noexcept {
    net::Thread::start();
    if (nt) tick_ = net::net_nt_command_create(nt, this, &player::on_tick);
}

void player::stop() noexcept {
    if (!nt) return;
    net::net_nt_command_destroy(tick_);
    tick_ = nullptr;
    // Ends the loop first: the session is not called any more and can be deleted from here.
    net::Thread::stop();
    core_cmd_process(queue);
    session_.reset();
}

void player::on_tick(void* arg, net::command_ctx*) {
    auto* self = static_cast<player*>(arg);
    if (!self->ended_) self->work(core_timer());
}

void player::work(uint64_t now) {
    if (end_wanted_) {
        if (!session_) return finish({});
        session_->leave({});
    }
    if (!session_ && now >= next_attempt_) begin();
    if (!session_) return;
    session_->tick(now);
    show();
    if (session_->has_ended()) take_over(now);
}

void player::begin() {
    order wanted{way_};
    if (settings_.duration) {
        const auto had = static_cast<uint64_t>(length(reports_) * 1e6);
        wanted.duration = settings_.duration > had ? settings_.duration - had : 1;
    }
    session_ = std::make_unique<session>(nt, settings_, wanted, files_);
    session_->start();
}

/// After the end of an attempt.
void player::take_over(uint64_t now) {
    const ending result = session_->result();
    const auto is_something = [](const track_report& each) { return each.frames > 0; };
    const std::vector<track_report> more = session_->reports();
    if (std::any_of(more.begin(), more.end(), is_something)) failures_ = 0;
    add(reports_, more);
    const bool wants_tcp = session_->wants_tcp();
    session_.reset();
    if (!files_.flush()) return finish({outcome::cannot_write, "cannot write " + files_.failed()});
    const bool over = end_wanted_ || result.what == outcome::ok;
    if (wants_tcp && !over) {
        way_ = transport::tcp;
    } else if (over || !retries(result, now)) {
        finish(result);
    }
}

bool player::retries(const ending& why, uint64_t now) {
    if (!can_pass(why.what) || failures_ >= settings_.reconnect) return false;
    const unsigned pause = failures_ < 5 ? 1u << failures_ : longest_pause;
    ++failures_;
    next_attempt_ = now + pause * second;
    apps::complain(name, why.why + "; connecting again in " + std::to_string(pause) + " s");
    return true;
}

/// Ctrl-C is a good end when there is something to show.
void player::finish(const ending& result) {
    result_ = result;
    if (result.what == outcome::ok && !received()) result_ = {outcome::nothing_received, "ended before media came"};
    ended_ = true;
}

uint64_t player::received() const {
    uint64_t frames = 0;
    for (const track_report& each : reports_)
        frames += each.frames;
    return frames;
}

void player::show() {
    std::vector<track_report> sum = reports_;
    add(sum, session_->reports());
    track_report all;
    for (const track_report& each : sum)
        all.add(each);
    progress_.bytes = all.bytes;
    progress_.frames = all.frames;
    progress_.lost = all.lost;
    progress_.milliseconds = static_cast<uint64_t>(length(sum) * 1e3);
}

}  // namespace viewer
