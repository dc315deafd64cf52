#include "inet/net_tab.h"

#include "core/owned.h"
#include "core/text.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string_view>

namespace {

/// A row and how many hold it: the table, and everybody to whom it was given.
struct held_row : tab_row_t {
    core::owned_text own_key;
    value_t** own_values = nullptr;
    std::atomic<uint32_t> holds = 1;

    held_row(core::owned_text name, value_t** copies) noexcept
        : tab_row_t{.key = name.get(), .values = copies}, own_key(std::move(name)), own_values(copies) {}
    ~held_row() { core_value_free(own_values); }
    held_row(const held_row&) = delete;
    held_row& operator=(const held_row&) = delete;
};

void drop(held_row* row) noexcept {
    if (--row->holds == 0) core::destroy(row);
}

void drop(const tab_row_t* row) noexcept {
    // Every row that leaves this room is a held one, and the only constant thing about it is what it shows.
    drop(const_cast<held_row*>(static_cast<const held_row*>(row)));
}

struct tables_t {
    std::mutex lock;
    core::vector<held_row*> rows[tab_count];
};
tables_t& tables() noexcept { return core::process_wide<tables_t>(); }

core::vector<held_row*>* rows_of(uint32_t table) noexcept {
    return table >= 1 && table <= tab_count ? &tables().rows[table - 1] : nullptr;
}

auto find(core::vector<held_row*>& rows, std::string_view key) noexcept {
    return std::ranges::find_if(rows, [&](const held_row* each) { return each->key == key; });
}

/// @return false when memory is out
bool copy(value_t* const* values, value_t**& out, const char* file, int line) noexcept {
    for (uint32_t i = 0; values && values[i]; ++i) {
        out = core_value_put_at(out, i, values[i]->key, values[i]->value, file, line);
        if (value_count(out) != i + 1 || (values[i]->value && !out[i]->value)) return false;
    }
    return true;
}

held_row* make(const char* key, value_t* const* values, const char* file, int line) noexcept {
    core::owned_text name(core_strdup(key, file, line));
    value_t** copies = nullptr;
    if (name && copy(values, copies, file, line)) {
        if (auto* made = core::create<held_row>(file, line, std::move(name), copies)) return made;
    }
    core_value_free(copies);
    return nullptr;
}

}  // namespace

void tab_init() noexcept {}

void tab_free() noexcept {
    for (auto& rows : tables().rows) {
        core::vector<held_row*> gone;
        {
            const std::lock_guard guard(tables().lock);
            gone.swap(rows);
        }
        for (held_row* each : gone)
            drop(each);
    }
}

int tab_put(uint32_t table, const char* key, value_t* const* values, const char* file, int line) noexcept {
    auto* rows = rows_of(table);
    held_row* made = rows && key ? make(key, values, file, line) : nullptr;
    if (!made) return 0;
    held_row* gone = made;
    try {
        const std::lock_guard guard(tables().lock);
        if (const auto place = find(*rows, key); place != rows->end())
            std::swap(*place, gone);
        else
            rows->push_back(std::exchange(gone, nullptr));
    } catch (const std::bad_alloc&) {
        gone = made;
    }
    const int done = gone != made;
    if (gone) drop(gone);
    return done;
}

int tab_remove(uint32_t table, const char* key) noexcept {
    auto* rows = rows_of(table);
    if (!rows || !key) return 0;
    held_row* gone = nullptr;
    {
        const std::lock_guard guard(tables().lock);
        const auto place = find(*rows, key);
        if (place == rows->end()) return 0;
        gone = *place;
        rows->erase(place);
    }
    drop(gone);
    return 1;
}

const tab_row_t* tab_find(uint32_t table, const char* key) noexcept {
    auto* rows = rows_of(table);
    if (!rows || !key) return nullptr;
    const std::lock_guard guard(tables().lock);
    const auto place = find(*rows, key);
    if (place == rows->end()) return nullptr;
    ++(*place)->holds;
    return *place;
}

void tab_close(const tab_row_t*& row) noexcept {
    if (row) drop(std::exchange(row, nullptr));
}

const tab_row_t** tab_select(uint32_t table, const char* file, int line) noexcept {
    auto* rows = rows_of(table);
    if (!rows) return nullptr;
    const std::lock_guard guard(tables().lock);
    const size_t count = rows->size();
    if (count == 0) return nullptr;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the items are pointers
    auto* out = static_cast<const tab_row_t**>(core_malloc((count + 1) * sizeof(tab_row_t*), file, line));
    if (!out) return nullptr;
    for (size_t i = 0; i < count; ++i) {
        ++(*rows)[i]->holds;
        out[i] = (*rows)[i];
    }
    out[count] = nullptr;
    return out;
}

void tab_close_all(const tab_row_t**& rows) noexcept {
    for (const tab_row_t** row = rows; row && *row; ++row)
        drop(*row);
    core_mfree(std::exchange(rows, nullptr));
}
