#include "rtsp/conversation.h"

#include "core/memory.h"
#include "core/text.h"

#include <atomic>
#include <cstdio>

namespace rtsp3 {

namespace {

std::atomic<int32_t> next_id{0};

bool ends_with_segment(std::string_view path, std::string_view segment) noexcept {
    while (path.ends_with('/'))
        path.remove_suffix(1);
    if (!path.ends_with(segment)) return false;
    path.remove_suffix(segment.size());
    return path.empty() || path.ends_with('/');
}

}  // namespace

bool names_control(std::string_view uri, std::string_view control) noexcept {
    return ends_with_segment(uri, control) || ends_with_segment(uri.substr(0, uri.find('?')), control);
}

conversation::conversation(Rtsp& owned, settler& by, const char* made_in, int made_at) noexcept
    : rtsp(owned),
      number(++next_id),
      file(made_in),
      line(made_at),
      log(core_log_create(made_in, made_at, "rtsp.protocol")),
      rtp(made_in, made_at),
      settler_(by) {
    rtp.id = number;
    rtp.set_report_clock(rtp::report_clock_t::packets);
    core_log_print(log, "%d: create", number);
}

conversation::~conversation() { core_log_free(log); }

void conversation::raise(event_t::enum_t event) noexcept {
    if (!handler) return;
    const call raising(*this);
    handler->on_rtsp_event(&rtsp, event);
}

void conversation::fail(const char* reason) noexcept {
    if (ended) return;
    core_log_print(log, "%d: closing: %s", number, reason);
    ended = true;
    raise(event_t::rtsp_close);
}

bool conversation::is_named(const net::http::header_s* header) const noexcept {
    const char* value = field(header, "Session");
    if (!value) return true;
    std::string_view id(value);
    id = id.substr(0, id.find_first_of("; \t"));
    return !id.empty() && id == identifier;
}

bool conversation::remember_cseq(const net::http::header_s* header) noexcept {
    const char* value = field(header, "CSeq");
    cseq_.reset(value && is_printable(value) ? core_strdup(value, file, line) : nullptr);
    return cseq_ || !value || !is_printable(value);
}

bool conversation::set_location(const char* text) noexcept {
    core::owned_text copy(core_strdup(text, file, line));
    core::owned_text base(text ? core_sprintf(file, line, "%s/", text) : nullptr);
    if (!copy || !base) return false;
    location = std::move(copy);
    content_base = std::move(base);
    return true;
}

track_t* conversation::track_of(const rtp::trak_t* rtp_side) const noexcept {
    const auto all = tracks();
    const auto found = std::ranges::find_if(all, [&](const track_t* each) { return each->rtp == rtp_side; });
    return found == all.end() ? nullptr : *found;
}

track_t* conversation::track_of_channel(unsigned channel) const noexcept {
    const auto all = tracks();
    const auto found = std::ranges::find_if(all, [&](const track_t* each) {
        return each->set_up && (channel == each->channel || channel == each->channel + 1U);
    });
    return found == all.end() ? nullptr : *found;
}

bool conversation::is_set_up() const noexcept {
    return std::ranges::any_of(tracks(), [](const track_t* each) { return each->set_up; });
}

bool conversation::drop_tracks() noexcept {
    if (at_work) return false;
    playing = false;
    event_trak = nullptr;
    for (track_t* each : tracks())
        core::destroy(each);
    std::fill_n(traks, trak_total, nullptr);
    trak_total = 0;
    rtp.close();
    return true;
}

}  // namespace rtsp3
