// A block is a head and the caller's bytes. The head holds the size, the number of the allocating line (its site), and
// a mark made of both and the address, by which a block that is not ours, or was released before, is known.
//
// A site is made at the first allocation of its line, under a lock, and found through a hash without one. Blocks and
// bytes held are counted by site, and each thread counts in cells of its own (a counter: pages of cells, one a site),
// so that neither allocating nor releasing needs a lock or a locked instruction. A block released by another thread
// than its allocator's leaves cells that are right in their sum alone, modulo 2^64, and only the sum is ever asked for.
// A thread that ends leaves its counter, with what it counted, to the next one; threads beyond the 64th share one.
//
// Everything global is ready before any constructor and never destroyed: blocks come and go before main() and after it.
#include "core/memory.h"

#include "platform/toolchain.h"

#include "core/owned.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

namespace {

struct alignas(std::max_align_t) head_t {
    uint64_t size;
    uint32_t site;
    uint32_t mark;  ///< depends on the address and the fields above
};

/// An allocating line. Once published it never changes or goes away.
struct site_t {
    const char* file;
    int line;
    uint32_t index;
    const site_t* next;
};

struct cell_t {
    std::atomic<uint64_t> blocks;
    std::atomic<uint64_t> bytes;

    bool held() const noexcept { return blocks.load(std::memory_order_relaxed) != 0; }
};

constexpr uint32_t page_sites = 1024;
constexpr uint32_t max_pages = 64;
constexpr uint32_t max_sites = page_sites * max_pages;
constexpr uint32_t bucket_bits = 12;
constexpr uint32_t counter_count = 64;

/// Cells of one thread, or of all threads that found no counter free.
struct counter_t {
    std::atomic<bool> taken;
    std::atomic<cell_t*> pages[max_pages];
};

struct site_lock_t {
    std::mutex mutex;
};

using fault_t = bool (*)(size_t size, const char* file, int line);

constinit std::atomic<fault_t> fault_hook{nullptr};
constinit std::atomic<const site_t*> buckets[1 << bucket_bits]{};
constinit std::atomic<site_t*> site_pages[max_pages]{};
constinit std::atomic<uint32_t> site_count{0};
constinit counter_t counters[counter_count]{};
constinit counter_t shared_counter{};

// What a thread counts in when it has no counter of its own: these have no cells, so that counting finds out by the one
// question that it asks anyway.
constinit counter_t not_asked{};
constinit counter_t none_free{};
constinit thread_local counter_t* thread_counter = &not_asked;

// The one place that takes memory from the system.
// NOLINTBEGIN(cppcoreguidelines-no-malloc)
void* system_alloc(size_t size) noexcept { return std::malloc(size); }
void* system_zeroed(size_t size) noexcept { return std::calloc(1, size); }
void* system_realloc(void* block, size_t size) noexcept { return std::realloc(block, size); }
void system_free(void* block) noexcept { std::free(block); }
// NOLINTEND(cppcoreguidelines-no-malloc)

/// Gives the thread's counter, with all it counted, to a thread to come. What the thread still allocates after this
/// goes into the shared one.
struct counter_return_t {
    counter_return_t() noexcept = default;
    counter_return_t(const counter_return_t&) = delete;
    counter_return_t& operator=(const counter_return_t&) = delete;
    ~counter_return_t() { std::exchange(thread_counter, &none_free)->taken.store(false, std::memory_order_release); }
};

void take_counter() noexcept {
    // Set before the thread-local object below registers itself, which may allocate.
    thread_counter = &none_free;
    // Nobody would take it back.
    if constexpr (!core::platform::thread_locals_end_whole) return;
    for (counter_t& counter : counters) {
        bool free = false;
        if (!counter.taken.compare_exchange_strong(free, true, std::memory_order_acquire)) continue;
        static thread_local counter_return_t at_thread_end;
        static_cast<void>(&at_thread_end);
        thread_counter = &counter;
        return;
    }
}

cell_t* make_page(std::atomic<cell_t*>& page) noexcept {
    auto* cells = static_cast<cell_t*>(system_zeroed(page_sites * sizeof(cell_t)));
    page.store(cells, std::memory_order_release);
    return cells;
}

/// Only the thread that owns the cell writes there: a load and a store do, without a locked instruction.
void count_in(cell_t& cell, uint64_t blocks, uint64_t bytes) noexcept {
    cell.blocks.store(cell.blocks.load(std::memory_order_relaxed) + blocks, std::memory_order_relaxed);
    cell.bytes.store(cell.bytes.load(std::memory_order_relaxed) + bytes, std::memory_order_relaxed);
}

/// The first time of a thread or of a page, and for ever where there is no counter or no memory for its page.
[[gnu::noinline]] void count_slowly(uint32_t site, uint64_t blocks, uint64_t bytes) noexcept {
    if (thread_counter == &not_asked) take_counter();
    if (thread_counter != &none_free) {
        std::atomic<cell_t*>& page = thread_counter->pages[site / page_sites];
        cell_t* cells = page.load(std::memory_order_relaxed);
        if (!cells) cells = make_page(page);
        if (cells) return count_in(cells[site % page_sites], blocks, bytes);
    }
    // Made together with the site's page, so always there.
    cell_t& cell = shared_counter.pages[site / page_sites].load(std::memory_order_acquire)[site % page_sites];
    cell.blocks.fetch_add(blocks, std::memory_order_relaxed);
    cell.bytes.fetch_add(bytes, std::memory_order_relaxed);
}

void count(uint32_t site, uint64_t blocks, uint64_t bytes) noexcept {
    cell_t* cells = thread_counter->pages[site / page_sites].load(std::memory_order_relaxed);
    if (!cells) [[unlikely]]
        return count_slowly(site, blocks, bytes);
    count_in(cells[site % page_sites], blocks, bytes);
}

site_t& site_at(uint32_t index) noexcept {
    return site_pages[index / page_sites].load(std::memory_order_acquire)[index % page_sites];
}

std::atomic<const site_t*>& bucket_of(const char* file, int line) noexcept {
    const uint64_t key = reinterpret_cast<uintptr_t>(file) + (static_cast<uint64_t>(line) << 32);
    return buckets[key * 0x9e3779b97f4a7c15u >> (64 - bucket_bits)];
}

const site_t* look_up(const std::atomic<const site_t*>& bucket, const char* file, int line) noexcept {
    const site_t* site = bucket.load(std::memory_order_acquire);
    while (site && (site->file != file || site->line != line))
        site = site->next;
    return site;
}

/// Pages of sites and of shared cells for one more site. @return false when memory is out.
bool prepare_page(uint32_t page) noexcept {
    if (site_pages[page].load(std::memory_order_relaxed)) return true;
    if (!shared_counter.pages[page].load(std::memory_order_relaxed) && !make_page(shared_counter.pages[page]))
        return false;
    auto* sites = static_cast<site_t*>(system_zeroed(page_sites * sizeof(site_t)));
    site_pages[page].store(sites, std::memory_order_release);
    return sites != nullptr;
}

[[gnu::noinline, gnu::cold]] const site_t* make_site(const char* file, int line) noexcept {
    const std::lock_guard lock(core::process_wide<site_lock_t>().mutex);
    std::atomic<const site_t*>& bucket = bucket_of(file, line);
    if (const site_t* made_meanwhile = look_up(bucket, file, line)) return made_meanwhile;
    const uint32_t index = site_count.load(std::memory_order_relaxed);
    // A program with this many allocating lines makes up names as it goes; the last line then stands for the rest.
    if (index == max_sites) return &site_at(max_sites - 1);
    if (!prepare_page(index / page_sites)) return nullptr;
    site_t& site = site_at(index);
    site = {file, line, index, bucket.load(std::memory_order_relaxed)};
    bucket.store(&site, std::memory_order_release);
    site_count.store(index + 1, std::memory_order_release);
    return &site;
}

const site_t* find_site(const char* file, int line) noexcept {
    const site_t* site = look_up(bucket_of(file, line), file, line);
    return site ? site : make_site(file, line);
}

uint32_t mark_of(const void* head, uint64_t size, uint32_t site) noexcept {
    const uint64_t mixed = (reinterpret_cast<uintptr_t>(head) ^ (size << 20) ^ site) * 0xd6e8feb86659fd93u;
    return static_cast<uint32_t>(mixed >> 32) | 1;  // never 0, which stands for a released block
}

[[noreturn, gnu::cold]] void die(const void* block) noexcept {
    std::fprintf(stderr, "core: block %p was released before, is not of this allocator, or its head was overwritten\n",
                 block);
    std::abort();
}

head_t* head_address(const void* block) noexcept { return const_cast<head_t*>(static_cast<const head_t*>(block) - 1); }

/// Copy of a block's head; ends the process when the block is none of ours.
head_t read_head(const void* block) noexcept {
    if (reinterpret_cast<uintptr_t>(block) % alignof(head_t) != 0) die(block);
    const head_t* place = head_address(block);
    const head_t head = core::platform::peek(place);
    if (head.mark != mark_of(place, head.size, head.site)) die(block);
    return head;
}

/// Makes a block of system memory and counts it.
void* open_block(void* memory, size_t size, uint32_t site) noexcept {
    auto* head = static_cast<head_t*>(memory);
    *head = {size, site, mark_of(head, size, site)};
    core::platform::forbid(head, sizeof(*head));
    count(site, 1, size);
    return head + 1;
}

/// Takes a block out of the count. @return the system's memory with a head that is no longer valid.
head_t* close_block(void* block, const head_t& found) noexcept {
    head_t* head = head_address(block);
    core::platform::permit(head, sizeof(*head));
    // Volatile, as a compiler knows that nobody reads what is about to be freed.
    *const_cast<volatile uint32_t*>(&head->mark) = 0;
    count(found.site, ~uint64_t{0}, ~found.size + 1);
    return head;
}

bool refused(size_t size, const char* file, int line) noexcept {
    const fault_t fault = fault_hook.load(std::memory_order_relaxed);
    return (fault && fault(size, file, line)) || size > SIZE_MAX - sizeof(head_t) - 1;
}

/// One byte even for an empty block: its address then lies inside the memory that it holds.
size_t system_size(size_t size) noexcept { return sizeof(head_t) + std::max<size_t>(size, 1); }

template <class System>
void* allocate(size_t size, const char* file, int line, System system) noexcept {
    if (refused(size, file, line)) return nullptr;
    const site_t* site = find_site(file, line);
    if (!site) return nullptr;
    void* memory = system(system_size(size));
    return memory ? open_block(memory, size, site->index) : nullptr;
}

struct held_t {
    size_t blocks = 0;
    size_t bytes = 0;

    void add(const counter_t& counter, uint32_t site) noexcept {
        const cell_t* cells = counter.pages[site / page_sites].load(std::memory_order_acquire);
        if (!cells) return;
        blocks += cells[site % page_sites].blocks.load(std::memory_order_relaxed);
        bytes += cells[site % page_sites].bytes.load(std::memory_order_relaxed);
    }
};

held_t held_by(uint32_t site) noexcept {
    held_t held;
    held.add(shared_counter, site);
    for (const counter_t& counter : counters)
        held.add(counter, site);
    return held;
}

held_t held_in_all() noexcept {
    held_t all;
    const uint32_t end = site_count.load(std::memory_order_acquire);
    for (uint32_t i = 0; i < end; ++i) {
        const held_t held = held_by(i);
        all.blocks += held.blocks;
        all.bytes += held.bytes;
    }
    return all;
}

/// The same line under another address: an inline function compiled into several sources. Texts are compared only
/// while both lines hold blocks, as the text of an unloaded module may be gone.
bool same_line(const site_t& a, const site_t& b) noexcept {
    return a.line == b.line && (a.file == b.file || std::strcmp(a.file, b.file) == 0);
}

bool visited_before(uint32_t index) noexcept {
    for (uint32_t i = 0; i < index; ++i)
        if (site_at(i).line == site_at(index).line && held_by(i).blocks && same_line(site_at(i), site_at(index)))
            return true;
    return false;
}

}  // namespace

void* core_malloc(size_t size, const char* file, int line) noexcept { return allocate(size, file, line, system_alloc); }

void* core_calloc(size_t count, size_t size, const char* file, int line) noexcept {
    if (size != 0 && count > SIZE_MAX / size) return nullptr;
    return allocate(count * size, file, line, system_zeroed);
}

void* core_realloc(void* block, size_t size, const char* file, int line) noexcept {
    if (!block) return core_malloc(size, file, line);
    const head_t old = read_head(block);
    if (refused(size, file, line)) return nullptr;
    const site_t* site = find_site(file, line);
    if (!site) return nullptr;
    head_t* head = close_block(block, old);
    void* memory = system_realloc(head, system_size(size));
    if (memory) return open_block(memory, size, site->index);
    open_block(head, old.size, old.site);
    return nullptr;
}

void core_mfree(void* block) noexcept {
    if (!block) return;
    system_free(close_block(block, read_head(block)));
}

size_t core_mem_size(const void* block) noexcept { return block ? read_head(block).size : 0; }

const char* core_mem_file(const void* block) noexcept { return block ? site_at(read_head(block).site).file : nullptr; }

int core_mem_line(const void* block) noexcept { return block ? site_at(read_head(block).site).line : 0; }

size_t core_mem_blocks() noexcept { return held_in_all().blocks; }

size_t core_mem_bytes() noexcept { return held_in_all().bytes; }

size_t core_mem_report(void (*visit)(void* arg, const mem_site_t* site), void* arg) noexcept {
    size_t lines = 0;
    const uint32_t end = site_count.load(std::memory_order_acquire);
    for (uint32_t i = 0; i < end; ++i) {
        held_t held = held_by(i);
        if (held.blocks == 0 || visited_before(i)) continue;
        const site_t& site = site_at(i);
        for (uint32_t k = i + 1; k < end; ++k) {
            const held_t more = site_at(k).line == site.line ? held_by(k) : held_t{};
            if (more.blocks == 0 || !same_line(site, site_at(k))) continue;
            held.blocks += more.blocks;
            held.bytes += more.bytes;
        }
        const mem_site_t report{site.file, site.line, held.blocks, held.bytes};
        if (visit) visit(arg, &report);
        ++lines;
    }
    return lines;
}

void core_mem_set_fault(bool (*fault)(size_t size, const char* file, int line)) noexcept {
    fault_hook.store(fault, std::memory_order_relaxed);
}
