#include "core/profile.h"

#include "core/owned.h"
#include "core/text.h"
#include "core/thread.h"

#include <charconv>
#include <condition_variable>
#include <cstring>
#include <mutex>

namespace {

/// A question on its asker's stack.
struct request_t {
    core::owned_text answer;
    const char* file;
    int line;
};

/// A name that somebody has open.
struct topic_t {
    topic_t* next;
    char* name;
    size_t handles;      ///< handles open; the name vanishes with the last one
    size_t users;        ///< records that point here, which may outlive their handle for the time of a call
    profile_ctx* first;  ///< subscribers in the order in which they came
    param_t* last_data;
    size_t last_room;  ///< bytes of its block
};

}  // namespace

struct profile_ctx {
    topic_t* topic;
    void* arg;
    profile_callback callback;
    profile_ctx* next = nullptr;  ///< the subscriber that came after this one
    size_t pins = 1;              ///< the handle, and every call that still looks at the record
    bool closed = false;
    uint64_t number = 0;  ///< rises with every subscriber
    // The running callback:
    uint64_t runner = 0;  ///< its thread; 0 for none
    uint32_t depth = 0;   ///< how often it stands on that thread's stack
    request_t* request = nullptr;
};

namespace {

constexpr uint32_t depth_limit = 16;

/// A thread that waits for a callback to end on another one.
struct waiter_t {
    uint64_t thread;
    const profile_ctx* waits_for;
    bool patient;  ///< rather lets the others of a ring give up
    waiter_t* next;
};

// One lock for all: it is held for a few pointers at a time and never around a callback.
struct bus_t {
    std::mutex lock;
    std::condition_variable changed;  ///< waiters have to look again
    topic_t* topics = nullptr;
    waiter_t* waiters = nullptr;
    size_t waiting = 0;
    uint64_t last_number = 0;
};
bus_t& bus() noexcept { return core::process_wide<bus_t>(); }
using guard_t = std::unique_lock<std::mutex>;

topic_t* find_topic(const char* name) noexcept {
    topic_t* topic = bus().topics;
    while (topic && std::strcmp(topic->name, name) != 0)
        topic = topic->next;
    return topic;
}

topic_t* make_topic(const char* name, const char* file, int line) noexcept {
    core::owned_text copy(core_strdup(name, file, line));
    if (!copy) return nullptr;
    auto* const topic = core::create<topic_t>(file, line, bus().topics, copy.get(), 0U, 0U, nullptr, nullptr, 0U);
    if (!topic) return nullptr;
    static_cast<void>(copy.release());
    return bus().topics = topic;
}

/// Takes the name from the bus when no handle has it open any more.
void drop_name(topic_t* topic) noexcept {
    if (--topic->handles > 0) return;
    topic_t** link = &bus().topics;
    while (*link != topic)
        link = &(*link)->next;
    *link = topic->next;
}

void drop_user(topic_t* topic) noexcept {
    if (--topic->users > 0) return;
    core_mfree(topic->name);
    core_mfree(topic->last_data);
    core::destroy(topic);
}

void unpin(profile_ctx* profile) noexcept {
    if (--profile->pins > 0) return;
    if (profile->callback) {
        profile_ctx** link = &profile->topic->first;
        while (*link != profile)
            link = &(*link)->next;
        *link = profile->next;
    }
    drop_user(profile->topic);
    core::destroy(profile);
}

const waiter_t* find_waiter(uint64_t thread) noexcept {
    const waiter_t* waiter = bus().waiters;
    while (waiter && waiter->thread != thread)
        waiter = waiter->next;
    return waiter;
}

/// Whether the callback that is waited for waits in turn, directly or through others, for the calling thread. For a
/// patient waiter only a ring of patient ones counts.
bool is_ring(const waiter_t& self) noexcept {
    const waiter_t* waiter = &self;
    // Counted, as others may stand in a ring of their own that is not yet resolved.
    for (size_t left = bus().waiting; waiter && left > 0; --left) {
        const uint64_t runner = waiter->waits_for->runner;
        if (runner == self.thread) return true;
        waiter = find_waiter(runner);
        if (waiter && self.patient && !waiter->patient) return false;
    }
    return false;
}

void notify() noexcept {
    if (bus().waiting > 0) bus().changed.notify_all();
}

bool runs_elsewhere(const profile_ctx* profile) noexcept {
    return profile->runner && profile->runner != core_thread_id();
}

/// Waits until the callback does not run on another thread. @return false when that would never be.
bool wait_for(guard_t& guard, const profile_ctx* profile, bool patient) noexcept {
    waiter_t waiter{core_thread_id(), profile, patient, bus().waiters};
    bus().waiters = &waiter;
    ++bus().waiting;
    // Who waits already may have become part of a ring.
    notify();
    while (runs_elsewhere(profile) && !is_ring(waiter))
        bus().changed.wait(guard);
    waiter_t** link = &bus().waiters;
    while (*link != &waiter)
        link = &(*link)->next;
    *link = waiter.next;
    --bus().waiting;
    return !runs_elsewhere(profile);
}

struct event_data {
    profile_event_t event;
    const param_t* params;
    request_t* request;
};

/// Calls a pinned subscriber back. @return whether it was reached.
bool call(guard_t& guard, profile_ctx* profile, const event_data& event) noexcept {
    if (runs_elsewhere(profile) && !wait_for(guard, profile, false)) return false;
    if (profile->closed || profile->depth == depth_limit) return false;
    request_t* const outer = profile->request;
    profile->runner = core_thread_id();
    profile->request = event.request;
    ++profile->depth;
    guard.unlock();
    profile->callback(profile->arg, profile, event.event, event.params);
    guard.lock();
    profile->request = outer;
    if (--profile->depth == 0) {
        profile->runner = 0;
        notify();
    }
    return true;
}

/// Calls the subscribers that were there at the start, except the handle itself, until there is an answer.
uint32_t call_all(guard_t& guard, profile_ctx* from, const event_data& event) noexcept {
    uint32_t reached = 0;
    const uint64_t last = bus().last_number;
    ++from->pins;
    profile_ctx* next = from->topic->first;
    while (next && next->number <= last && !(event.request && event.request->answer)) {
        profile_ctx* const current = next;
        ++current->pins;
        if (current != from && !current->closed && call(guard, current, event)) ++reached;
        next = current->next;
        unpin(current);
    }
    unpin(from);
    return reached;
}

bool is_kept(const param_t& param) noexcept { return param.type == param_text || param.type == param_integer; }

const param_t* first_kept(const param_t* params) noexcept {
    while (params->type != param_end && !is_kept(*params))
        ++params;
    return params;
}

size_t text_size(const char* text) noexcept { return text ? std::strlen(text) + 1 : 0; }

/// Bytes of a copy of a list in one block.
size_t copy_size(const param_t* params) noexcept {
    size_t size = sizeof(param_t);
    for (; params->type != param_end; ++params) {
        if (!is_kept(*params)) continue;
        size += sizeof(param_t) + text_size(params->key);
        if (params->type == param_text) size += text_size(params->text);
    }
    return size;
}

const char* copy_text(const char* text, char*& room) noexcept {
    if (!text) return nullptr;
    char* const copy = room;
    std::memcpy(copy, text, text_size(text));
    room += text_size(text);
    return copy;
}

/// Copies the text and integer entries of a list into a block of copy_size() bytes, the texts behind the entries.
param_t* copy_params(const param_t* params, void* block) noexcept {
    size_t count = 1;
    for (const param_t* p = params; p->type != param_end; ++p)
        count += is_kept(*p);
    auto* const copy = static_cast<param_t*>(block);
    char* texts = static_cast<char*>(block) + count * sizeof(param_t);
    param_t* out = copy;
    for (const param_t* p = params; p->type != param_end; ++p) {
        if (!is_kept(*p)) continue;
        ::new (out) param_t(*p);
        out->key = copy_text(p->key, texts);
        if (p->type == param_text) out->text = copy_text(p->text, texts);
        ++out;
    }
    ::new (out) param_t();
    return copy;
}

/// Keeps a copy as the topic's last data, in the block that is there when it fits. Out of memory there is none: an old
/// list would pass for the new one.
void keep_data(topic_t* topic, const param_t* params) noexcept {
    // Frames have none.
    if (topic->last_data && topic->last_data->type == param_end && first_kept(params)->type == param_end) return;
    const size_t size = copy_size(params);
    if (size > topic->last_room) {
        core_mfree(topic->last_data);
        topic->last_data = static_cast<param_t*>(core_malloc(size, CORE_HERE));
        topic->last_room = topic->last_data ? size : 0;
    }
    if (topic->last_data) copy_params(params, topic->last_data);
}

/// Under the lock.
param_t* copy_data(const topic_t* topic, const char* file, int line) noexcept {
    if (!topic || !topic->last_data) return nullptr;
    void* const block = core_malloc(copy_size(topic->last_data), file, line);
    return block ? copy_params(topic->last_data, block) : nullptr;
}

constexpr param_t no_params[] = {{}};

}  // namespace

profile_ctx* core_profile_open(const char* name, const char* file, int line) noexcept {
    return core_profile_open2(name, nullptr, nullptr, file, line);
}

profile_ctx* profile_open(const char* name) noexcept { return core_profile_open(name, CORE_HERE); }

profile_ctx* core_profile_open2(const char* name, void* arg, profile_callback callback, const char* file,
                                int line) noexcept {
    if (!name) return nullptr;
    core::owned_object<profile_ctx> profile(core::create<profile_ctx>(file, line, nullptr, arg, callback));
    if (!profile) return nullptr;
    const guard_t guard(bus().lock);
    topic_t* topic = find_topic(name);
    if (!topic) topic = make_topic(name, file, line);
    if (!topic) return nullptr;
    ++topic->handles;
    ++topic->users;
    profile->topic = topic;
    if (callback) {
        profile->number = ++bus().last_number;
        profile_ctx** link = &topic->first;
        while (*link)
            link = &(*link)->next;
        *link = profile.get();
    }
    return profile.release();
}

void profile_close(profile_ctx*& profile) noexcept {
    profile_ctx* const closing = profile;
    profile = nullptr;
    if (!closing) return;
    guard_t guard(bus().lock);
    closing->closed = true;
    drop_name(closing->topic);
    // Within its own callback, or in a ring of such calls, there is no end to wait for.
    if (runs_elsewhere(closing)) wait_for(guard, closing, true);
    unpin(closing);
}

uint32_t core_profile_put(profile_ctx* profile, const param_t* params) noexcept {
    if (!profile) return 0;
    if (!params) params = no_params;
    guard_t guard(bus().lock);
    keep_data(profile->topic, params);
    return call_all(guard, profile, {profile_put, params, nullptr});
}

param_t* core_profile_data(profile_ctx* profile, const char* file, int line) noexcept {
    const guard_t guard(bus().lock);
    return copy_data(profile ? profile->topic : nullptr, file, line);
}

param_t* profile_data(const char* name, const char* file, int line) noexcept {
    const guard_t guard(bus().lock);
    return copy_data(name ? find_topic(name) : nullptr, file, line);
}

char* profile_request(profile_ctx* profile, const param_t* params, const char* file, int line) noexcept {
    if (!profile) return nullptr;
    request_t request{nullptr, file, line};
    guard_t guard(bus().lock);
    call_all(guard, profile, {profile_ask, params ? params : no_params, &request});
    return request.answer.release();
}

void core_profile_answer(profile_ctx* profile, const char* text) noexcept {
    if (!profile || !text) return;
    const guard_t guard(bus().lock);
    request_t* const request = profile->runner == core_thread_id() ? profile->request : nullptr;
    if (request) request->answer.reset(core_strdup(text, request->file, request->line));
}

uint32_t core_profile_wake(profile_ctx* profile) noexcept {
    if (!profile) return 0;
    guard_t guard(bus().lock);
    return call_all(guard, profile, {profile_woken, nullptr, nullptr});
}

uint32_t core_archive_play(profile_ctx* profile, uint64_t start, double speed) noexcept {
    char text[400];  // the longest double without an exponent has 309 digits before the point
    const auto end = std::to_chars(text, text + sizeof text - 1, speed, std::chars_format::fixed);
    if (end.ec != std::errc()) return 0;
    *end.ptr = 0;
    const param_t params[] = {
        {"command", "play"}, {"start", static_cast<int64_t>(start)}, {"speed", static_cast<const char*>(text)}, {}};
    return core_profile_put(profile, params);
}
