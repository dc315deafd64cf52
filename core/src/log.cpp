// A log is a name and a word with a bit for each of the 32 places of sinks: set where the sink wants the log. Printing
// loads that word, and does nothing more when no bit is set. The library's own two logs are constants; the others stand
// in a list, each once for its name. One lock guards that list and the places, never a write.
//
// Each sink has a lock of its own, its turn, which is held while it writes a line. What a sink prints while it writes
// is put aside and delivered after its turn, to the sinks that had no part in causing it: a thread never waits for one
// turn while it holds another, and no line causes itself. A sink that is removed first loses its bit in every log, then
// its running write is waited for, then it is closed; a sink that removes itself is closed when that write has
// returned.
//
// Console messages that no sink wants go to the standard error stream.
#include "core/log.h"

#include "log/sinks.h"
#include "platform/system.h"

#include "core/owned.h"
#include "core/text.h"
#include "core/thread.h"
#include "core/time.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>

struct log_ctx {
    const char* name;
    std::atomic<uint32_t> wanted = 0;  ///< one bit for each sink that wants this log
    uint32_t handles = 1;              ///< under the registry's lock, as is the link
    log_ctx* next = nullptr;
};

namespace {

constexpr size_t line_limit = 16'384;
constexpr uint32_t sink_limit = 32;

using sink_write = void (*)(void* arg, const log_line_t* line);
using sink_close = void (*)(void* arg);

/// A sink that is going is `left` until its own running write returns, or `waited` until whoever removes it has seen
/// that.
enum class sink_state : uint8_t { free, taken, left, waited };

struct sink {
    // Registry's lock:
    sink_state state = sink_state::free;
    uint32_t number = 0;
    char* logs = nullptr;
    // Set while no log wants the sink, read under `turn`:
    sink_write write = nullptr;
    sink_close close = nullptr;
    void* arg = nullptr;

    std::mutex turn;                   ///< held while a line is written
    std::atomic<uint64_t> writer = 0;  ///< thread that writes, to know a sink's own calls
};

/// A line that a sink printed while it wrote one. It is delivered after that write, as a thread that holds one sink's
/// turn and waits for another's could wait for ever. The texts stand behind the record.
struct deferred_line {
    deferred_line* next;
    log_ctx* log;
    uint32_t sources;
    log_line_t line;
};

constinit log_ctx error_log{"error"};
constinit log_ctx console_log{"console"};

struct registry_t {
    std::mutex lock;
    log_ctx* logs = nullptr;
    uint32_t last_generation = 0;
    std::array<sink, sink_limit> sinks;
};
registry_t& registry() noexcept { return core::process_wide<registry_t>(); }

struct thread_state {
    uint32_t sources = 0;  ///< sinks whose writing caused what this thread prints now
    deferred_line* first = nullptr;
    deferred_line* last = nullptr;
};
thread_local constinit thread_state here;

/// `logs` is "*" or names separated by ','.
bool wants(const char* logs, std::string_view name) noexcept {
    std::string_view rest = logs;
    if (rest == "*") return true;
    while (true) {
        const size_t comma = rest.find(',');
        if (rest.substr(0, comma) == name) return true;
        if (comma == std::string_view::npos) return false;
        rest.remove_prefix(comma + 1);
    }
}

constexpr uint32_t bit_of(uint32_t slot) noexcept { return uint32_t{1} << slot; }

template <class Visit>
void for_each_log(Visit&& visit) noexcept {
    visit(error_log);
    visit(console_log);
    for (log_ctx* log = registry().logs; log; log = log->next)
        visit(*log);
}

uint32_t wanted_mask(const char* name) noexcept {
    uint32_t mask = 0;
    for (uint32_t slot = 0; slot < sink_limit; ++slot) {
        const sink& s = registry().sinks[slot];
        if (s.state == sink_state::taken && wants(s.logs, name)) mask |= bit_of(slot);
    }
    return mask;
}

log_ctx* find_log(std::string_view name) noexcept {
    log_ctx* found = nullptr;
    for_each_log([&](log_ctx& log) {
        if (log.name == name) found = &log;
    });
    return found;
}

/// Under the registry's lock: no log wants the sink any more.
void retire(sink& s, sink_state state) noexcept {
    const uint32_t others = ~bit_of(s.number % sink_limit);
    for_each_log([others](log_ctx& log) { log.wanted.fetch_and(others); });
    s.state = state;
}

/// Closes what the sink held; its slot can be taken again. Called when no thread writes to it and no log wants it.
void release_slot(sink& s) noexcept {
    if (s.close) s.close(s.arg);
    core_mfree(s.logs);
    const std::lock_guard guard(registry().lock);
    s.logs = nullptr;
    s.state = sink_state::free;
}

void deliver_to(uint32_t slot, const log_ctx& log, const log_line_t& line, uint32_t sources) noexcept {
    sink& s = registry().sinks[slot];
    bool left = false;
    {
        const std::lock_guard turn(s.turn);
        if (!(log.wanted.load(std::memory_order_acquire) & bit_of(slot))) return;
        s.writer = core_thread_id();
        here.sources = sources | bit_of(slot);
        s.write(s.arg, &line);
        here.sources = sources;
        s.writer = 0;
        const std::lock_guard guard(registry().lock);
        left = s.state == sink_state::left;
    }
    if (left) release_slot(s);
}

void deliver(const log_ctx& log, uint32_t mask, const log_line_t& line, uint32_t sources) noexcept {
    while (mask) {
        const auto slot = static_cast<uint32_t>(std::countr_zero(mask));
        deliver_to(slot, log, line, sources);
        mask &= mask - 1;
    }
}

void defer(log_ctx& log, const log_line_t& line) noexcept {
    const size_t size = std::strlen(line.text) + 1;
    const auto block = static_cast<char*>(core_malloc(sizeof(deferred_line) + size, CORE_HERE));
    if (!block) return;
    char* const text = block + sizeof(deferred_line);
    std::memcpy(text, line.text, size);
    const log_line_t copy{line.time, log.name, text, line.color};
    auto* const deferred = ::new (block) deferred_line{nullptr, &log, here.sources, copy};
    {
        const std::lock_guard guard(registry().lock);
        ++log.handles;
    }
    (here.first ? here.last->next : here.first) = deferred;
    here.last = deferred;
}

void deliver_deferred() noexcept {
    while (deferred_line* const line = here.first) {
        here.first = line->next;
        here.sources = line->sources;
        deliver(*line->log, line->log->wanted.load(std::memory_order_acquire) & ~line->sources, line->line,
                line->sources);
        here.sources = 0;
        log_ctx* log = line->log;
        core_log_free(log);
        core_mfree(line);
    }
}

/// Length of a text of `length` bytes cut to the limit, without half a UTF-8 character and without a closing line end.
size_t line_length(const char* text, size_t length) noexcept {
    if (length > line_limit) {
        length = line_limit;
        const auto continues = [text](size_t at) { return (static_cast<uint8_t>(text[at]) & 0xc0) == 0x80; };
        // A character has at most three bytes after its first one; what has more is no UTF-8 and is cut anywhere.
        for (int back = 0; back < 3 && continues(length); ++back)
            --length;
        if (continues(length)) length = line_limit;
    }
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r'))
        --length;
    return length;
}

core::log::terminal_t& error_stream() noexcept {
    static core::log::terminal_t terminal{stderr, core::platform::is_terminal(stderr)};
    return terminal;
}

// Kept apart from the callers, so that the 16 KiB of stack are touched only for a line that somebody wants.
[[gnu::noinline]] INET_PRINTF(3, 0) void print(log_ctx& log, int color, const char* format, va_list args) noexcept {
    const uint32_t wanted = log.wanted.load(std::memory_order_acquire);
    const uint32_t mask = wanted & ~here.sources;
    const bool unclaimed = wanted == 0 && &log == &console_log;
    if ((!mask && !unclaimed) || !format) return;
    char text[line_limit + 2];  // one byte past the limit shows whether the cut splits a character
    const int length = std::vsnprintf(text, sizeof text, format, args);
    if (length < 0) return;
    text[line_length(text, static_cast<size_t>(length))] = 0;
    const log_line_t line{time_now(), log.name, text, color};
    if (unclaimed) return core::log::write_terminal(&error_stream(), &line);
    if (here.sources) {
        defer(log, line);
        return;
    }
    deliver(log, mask, line, 0);
    deliver_deferred();
}

// The exported core_log_wanted() can be replaced by a program and is therefore called, not inlined.
bool is_wanted(const log_ctx& log) noexcept {
    return log.wanted.load(std::memory_order_relaxed) != 0 || &log == &console_log;
}

/// Takes a free slot; -1 when there is none.
int take_slot() noexcept {
    for (uint32_t slot = 0; slot < sink_limit; ++slot) {
        if (registry().sinks[slot].state == sink_state::free) return static_cast<int>(slot);
    }
    return -1;
}

uint32_t add_sink(const char* logs, sink_write write, sink_close close, void* arg) noexcept {
    if (!logs || !write) return 0;
    core::owned_text names(core_strdup(logs, CORE_HERE));
    if (!names) return 0;
    const std::lock_guard guard(registry().lock);
    const int slot = take_slot();
    if (slot < 0) return 0;
    sink& s = registry().sinks[static_cast<size_t>(slot)];
    s.state = sink_state::taken;
    // The slot is part of the number, the generation tells its users apart; 0 is no number.
    s.number = ++registry().last_generation * sink_limit + static_cast<uint32_t>(slot);
    s.logs = names.release();
    s.write = write;
    s.close = close;
    s.arg = arg;
    for_each_log([&](log_ctx& log) {
        if (wants(s.logs, log.name)) log.wanted.fetch_or(bit_of(static_cast<uint32_t>(slot)));
    });
    return s.number;
}

}  // namespace

log_ctx* core_log_create(const char* file, int line, const char* name) noexcept {
    if (!name) return nullptr;
    const std::lock_guard guard(registry().lock);
    if (log_ctx* const known = find_log(name)) {
        ++known->handles;
        return known;
    }
    const size_t size = std::strlen(name) + 1;
    const auto block = static_cast<char*>(core_malloc(sizeof(log_ctx) + size, file, line));
    if (!block) return nullptr;
    std::memcpy(block + sizeof(log_ctx), name, size);
    registry().logs = ::new (block) log_ctx{block + sizeof(log_ctx), wanted_mask(name), 1, registry().logs};
    return registry().logs;
}

void core_log_print(log_ctx* log, const char* format, ...) noexcept {
    if (!log || !is_wanted(*log)) return;
    va_list args;
    va_start(args, format);
    print(*log, 0, format, args);
    va_end(args);
}

int core_log_wanted(const log_ctx* log) noexcept { return log && is_wanted(*log); }

void core_log_free(log_ctx*& log) noexcept {
    log_ctx* const released = log;
    log = nullptr;
    if (!released) return;
    const std::lock_guard guard(registry().lock);
    // The library's own logs hold a handle of theirs, so they never get here.
    if (--released->handles > 0) return;
    log_ctx** link = &registry().logs;
    while (*link != released)
        link = &(*link)->next;
    *link = released->next;
    core::destroy(released);
}

void core_log_err(const char* format, ...) noexcept {
    if (!is_wanted(error_log)) return;
    va_list args;
    va_start(args, format);
    print(error_log, 0, format, args);
    va_end(args);
}

void core_con_printf(int color, const char* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    print(console_log, color, format, args);
    va_end(args);
}

uint32_t core_log_sink_add(const char* logs, void (*write)(void* arg, const log_line_t* line), void* arg) noexcept {
    return add_sink(logs, write, nullptr, arg);
}

uint32_t core_log_sink_file(const char* logs, const char* path) noexcept {
    if (!path) return 0;
    std::FILE* const file = core::platform::open_file(path, "ab");
    if (!file) return 0;
    // Nothing is held back: what was logged before a crash is in the file.
    std::setvbuf(file, nullptr, _IONBF, 0);
    const auto close = [](void* arg) { std::fclose(static_cast<std::FILE*>(arg)); };
    const uint32_t number = add_sink(logs, core::log::write_file, close, file);
    if (!number) std::fclose(file);
    return number;
}

uint32_t core_log_sink_console(const char* logs) noexcept {
    return add_sink(logs, core::log::write_terminal, nullptr, &error_stream());
}

int core_con_is_terminal(int stream) noexcept {
    return (stream == 1 || stream == 2) && core::platform::is_terminal(stream == 1 ? stdout : stderr);
}

void core_log_sink_rem(uint32_t number) noexcept {
    if (!number) return;
    sink* const s = &registry().sinks[number % sink_limit];
    bool first = false;
    {
        const std::lock_guard guard(registry().lock);
        if (s->state == sink_state::free || s->number != number) return;
        const bool own_write = s->writer == core_thread_id();
        first = s->state == sink_state::taken;
        if (first) retire(*s, own_write ? sink_state::left : sink_state::waited);
        if (own_write) return;
    }
    // Also for a sink that is just removing itself: its owner is about to take away what it writes to.
    s->turn.lock();
    s->turn.unlock();
    if (first) release_slot(*s);
}
