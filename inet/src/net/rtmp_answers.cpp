// Commands and data messages of the server, and what the session asks for next.
#include "net/rtmp_session.h"
#include "scan.h"

#include "core/time.h"

#include <algorithm>
#include <cstdio>

namespace net::rtmp {

namespace amf = ::inet::rtmp::amf;

namespace {

enum class status_t : uint8_t { begins, not_found, refused, ended };

struct code_t {
    std::string_view code;
    status_t status;
};

/// Of the codes that are no errors by their level. Some servers leave that out.
constexpr code_t codes[] = {
    {"NetStream.Play.Start", status_t::begins},
    {"NetStream.Play.StreamNotFound", status_t::not_found},
    {"NetStream.Play.Failed", status_t::refused},
    {"NetStream.Play.FileStructureInvalid", status_t::refused},
    {"NetStream.Play.NoSupportedTrackFound", status_t::refused},
    {"NetStream.Failed", status_t::refused},
    {"NetConnection.Connect.Rejected", status_t::refused},
    {"NetConnection.Connect.Failed", status_t::refused},
    {"NetConnection.Connect.InvalidApp", status_t::refused},
    {"NetStream.Play.Stop", status_t::ended},
    {"NetStream.Play.Complete", status_t::ended},
    {"NetStream.Play.UnpublishNotify", status_t::ended},
    {"NetConnection.Connect.Closed", status_t::ended},
    {"NetConnection.Connect.AppShutdown", status_t::ended},
};

/// The information object of an answer: the first map.
template <class Parameters>
const Variant& info_of(const Parameters& parameters) noexcept {
    const auto found = std::ranges::find_if(parameters, [](const Variant& each) { return each.IsMap(); });
    return found != parameters.end() ? *found : parameters.back();
}

std::string_view text_of(const Variant& info, std::string_view key) noexcept {
    return info.IsMap() ? static_cast<std::string_view>(info[key]) : std::string_view();
}

/// Without what could pass for another line, as much as fits.
void copy_printable(std::string_view from, std::span<char> to) noexcept {
    const size_t size = std::min(from.size(), to.size() - 1);
    std::transform(from.begin(), from.begin() + static_cast<std::ptrdiff_t>(size), to.begin(),
                   [](char c) { return c >= 0 && c < ' ' ? ' ' : c; });
    to[size] = '\0';
}

}  // namespace

/// Of a command that cannot be sent the session has no use.
void session::require(bool sent) noexcept {
    if (sent) return;
    if (full_) end(rtmp_end_t::bad_peer, "the server does not read what it is answered");
    end(rtmp_end_t::failed, "no memory, or more to be sent than may be");
}

void session::refuse(rtmp_end_t why, const char* what, const Variant& info) noexcept {
    char code[96];
    char description[384];  // a challenge stands in it
    copy_printable(text_of(info, "code"), code);
    copy_printable(text_of(info, "description"), description);
    end(why, "%s%s%s%s%s", what, *code ? ": " : "", code, *description ? ": " : "", description);
}

/// What follows, as far as it can be read. @return how many values
uint32_t session::read_parameters(amf::input_t& in, parameters_t& out) noexcept {
    amf::budget_t budget = amf::budget_t::of_message(in.left());
    budget.values = most_values;
    uint32_t count = 0;
    while (count < out.size() && amf::guarded([&] { return amf::read_amf0(in, out[count], budget, 0); }))
        ++count;
    if (count < out.size()) out[count].Reset();  // one that ended early
    return count;
}

void session::process_invoke(bytes_t body) noexcept {
    struct command_t {
        std::string_view name;
        void (session::*take)(double id, const parameters_t&) noexcept;
    };
    static constexpr command_t commands[] = {
        {"_result", &session::take_result},      {"_error", &session::take_error},
        {"onStatus", &session::take_status},     {"_onbwcheck", &session::take_check},
        {"onBWDone", &session::take_check_done}, {"close", &session::take_close},
    };
    amf::input_t in(body);
    std::string_view name;
    if (!in.marker(2) || !in.has(2) || !in.text(in.u16(), name) || !in.marker(0) || !in.has(8)) {
        return end(rtmp_end_t::bad_peer, "a command of the server is malformed");
    }
    const double id = in.f64();
    parameters_t parameters;
    read_parameters(in, parameters);
    const auto* const found = std::ranges::find(commands, name, &command_t::name);
    if (found != std::end(commands)) return (this->*found->take)(id, parameters);
    if (!core_log_wanted(log_)) return;
    char text[64];
    copy_printable(name, text);
    core_log_print(log_, "%u: the server calls %s", number_, text);
}

/// What cannot be read tells nothing, and stops nothing.
void session::process_notify(bytes_t body) noexcept {
    amf::input_t in(body);
    parameters_t parameters;
    const uint32_t count = read_parameters(in, parameters);
    // Some servers pass on what the sender of the stream called.
    const size_t at = parameters[0] == "@setDataFrame" ? 1 : 0;
    if (count < at + 2) return;
    if (parameters[at] == "onMetaData") {
        if (handler) handler->on_rtmp_metadata(face, parameters[at + 1]);
    } else if (parameters[at] == "onPlayStatus") {
        take_status(0, parameters);
    }
}

void session::take_result(double id, const parameters_t& parameters) noexcept {
    if (step == step_t::asking && id == connect_id_) {
        const Variant& info = info_of(parameters);
        if (text_of(info, "level") == "error") {
            return refuse(rtmp_end_t::refused, "the server refuses the application", info);
        }
        step = step_t::creating;
        require((told_window_ || send_serverbw()) && send_ctrl(3, 0, settings->buffer_ms) && send_create_stream());
    } else if (step == step_t::creating && id == create_id_) {
        created(parameters[1]);
    }
}

void session::created(const Variant& id) noexcept {
    const double number = id.IsNumber() ? static_cast<double>(id) : 0;
    if (!(number >= 1 && number <= UINT32_MAX)) {
        return end(rtmp_end_t::bad_peer, "the server has made no stream");
    }
    stream = static_cast<uint32_t>(number);
    step = step_t::starting;
    require(send_play() && send_ctrl(3, stream, settings->buffer_ms));
}

void session::take_error(double id, const parameters_t& parameters) noexcept {
    const Variant& info = info_of(parameters);
    if (step == step_t::asking && id == connect_id_) {
        refuse(rtmp_end_t::refused, "the server refuses the application", info);
    } else if ((step == step_t::creating && id == create_id_) || (step == step_t::starting && id == play_id_)) {
        refuse(rtmp_end_t::refused, "the server refuses the stream", info);
    }
}

void session::take_status(double, const parameters_t& parameters) noexcept {
    const Variant& info = info_of(parameters);
    const std::string_view code = text_of(info, "code");
    const auto* const found = std::ranges::find(codes, code, &code_t::code);
    const bool error = text_of(info, "level") == "error";
    if (found == std::end(codes) && !error) return;
    switch (found != std::end(codes) ? found->status : status_t::refused) {
        case status_t::begins:
            return begin_playing();
        case status_t::not_found:
            return refuse(rtmp_end_t::not_found, "the server has no such stream", info);
        case status_t::refused:
            return refuse(rtmp_end_t::refused, "the server refuses the stream", info);
        case status_t::ended:
            return refuse(rtmp_end_t::ended, "the server has ended the stream", info);
    }
}

void session::begin_playing() noexcept {
    if (step != step_t::starting) return;
    step = step_t::playing;
    play_time = time_now();
    if (handler) handler->on_rtmp_playing(face);
}

void session::take_check(double id, const parameters_t&) noexcept { require(send_checkbw_result(id)); }

// Asked once: a server that is done with a check asks for the next one.
void session::take_check_done(double, const parameters_t&) noexcept {
    if (!checked_) require(send_checkbw());
}

void session::take_close(double, const parameters_t&) noexcept {
    end(rtmp_end_t::ended, "the server has closed the conversation");
}

}  // namespace net::rtmp
