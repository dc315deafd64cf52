// A map is a block of its own: pointers to the entries in order, and each entry a block with its key behind it, so that
// references to values stay valid while entries come and go. Share() counts a map once more instead of copying it; who
// changes a map that is shared takes a copy of its own first. A plain copy shares only what is shared already: into the
// rest, references may lead that are used later.
#include "common/variant.h"

#include "core/memory.h"
#include "core/owned.h"
#include "core/text.h"
#include "core/time.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

namespace {

constexpr std::string_view index_prefix = "__index__value__";

constexpr size_t first_room = 8;                                // entries: most maps have fewer
constexpr int64_t seconds_in_period = int64_t{146097} * 86400;  // 400 years, after which the calendar repeats
constexpr int64_t year_0 = -62167219200;
constexpr int64_t year_10000 = 253402300800;

}  // namespace

struct Variant::key_t {
    explicit key_t(uint32_t number) noexcept : is_index(true), index(number) {}
    explicit key_t(std::string_view name) noexcept : text(name) {
        if (!name.starts_with(index_prefix)) return;
        name.remove_prefix(index_prefix.size());
        if (name.empty() || name.size() > 10 || (name[0] == '0' && name.size() > 1)) return;
        uint64_t number = 0;
        for (const char digit : name) {
            if (digit < '0' || digit > '9') return;
            number = number * 10 + static_cast<uint64_t>(digit - '0');
        }
        if (number > UINT32_MAX) return;
        is_index = true;
        index = static_cast<uint32_t>(number);
    }
    explicit key_t(const Entry& entry) noexcept : is_index(entry.IsIndex()), index(entry.Index()), text(entry.Key()) {}

    bool operator<(const key_t& other) const noexcept {
        if (is_index && other.is_index) return index < other.index;
        if (is_index) return other.text > index_prefix;
        return other.is_index ? text <= index_prefix : text < other.text;
    }

    bool is_index = false;
    uint32_t index = 0;
    std::string_view text;
};

class Variant::map_t {
public:
    static map_t* create() noexcept { return core::create<map_t>(CORE_HERE); }
    map_t() noexcept = default;
    map_t(const map_t&) = delete;
    map_t& operator=(const map_t&) = delete;
    ~map_t() {
        for (Entry* entry : entries)
            release(entry);
    }

    // A copy whose values are copies; null when memory is out.
    map_t* clone(bool sharing) noexcept;

    void drop() noexcept {
        if (uses.fetch_sub(1, std::memory_order_acq_rel) == 1) core::destroy(this);
    }
    bool shared() const noexcept { return uses.load(std::memory_order_acquire) > 1; }

    // Where an entry stands, or would stand.
    size_t place(const key_t& key) const noexcept {
        if (entries.empty() || key_t(*entries.back()) < key) return entries.size();
        const auto before = [](const Entry* entry, const key_t& wanted) { return key_t(*entry) < wanted; };
        return static_cast<size_t>(std::lower_bound(entries.begin(), entries.end(), key, before) - entries.begin());
    }
    Entry* find(const key_t& key) const noexcept {
        const size_t at = place(key);
        return at < entries.size() && !(key < key_t(*entries[at])) ? entries[at] : nullptr;
    }
    Entry* insert(size_t at, const key_t& key) noexcept;
    void remove(const key_t& key) noexcept;
    void settle() noexcept;

    std::atomic<uint32_t> uses{1};
    core::vector<Entry*> entries;
    core::string type_name;

private:
    static Entry* make(const key_t& key) noexcept;
    static void release(Entry* entry) noexcept {
        entry->~Entry();
        core_mfree(entry);
    }
};

Variant::Entry* Variant::map_t::make(const key_t& key) noexcept {
    if (key.text.size() > UINT32_MAX) return nullptr;
    const size_t text = key.is_index ? 0 : key.text.size();
    void* const block = core_malloc(sizeof(Entry) + text, CORE_HERE);
    if (!block) return nullptr;
    auto* const entry = ::new (block) Entry;
    entry->is_index_ = key.is_index;
    entry->number_ = key.is_index ? key.index : static_cast<uint32_t>(text);
    if (text > 0) std::memcpy(reinterpret_cast<char*>(entry + 1), key.text.data(), text);
    return entry;
}

Variant::Entry* Variant::map_t::insert(size_t at, const key_t& key) noexcept {
    Entry* const entry = make(key);
    if (!entry) return nullptr;
    try {
        if (entries.capacity() == 0) entries.reserve(first_room);
        entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(at), entry);
    } catch (...) {
        release(entry);
        return nullptr;
    }
    return entry;
}

void Variant::map_t::remove(const key_t& key) noexcept {
    const size_t at = place(key);
    if (at == entries.size() || key < key_t(*entries[at])) return;
    release(entries[at]);
    entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(at));
}

void Variant::map_t::settle() noexcept {
    const auto before = [](const Entry* a, const Entry* b) { return key_t(*a) < key_t(*b); };
    // Most senders have their keys in some order of their own; indexes come in order.
    const auto not_above = [&](const Entry* a, const Entry* b) { return !before(a, b); };
    if (std::adjacent_find(entries.begin(), entries.end(), not_above) == entries.end()) return;
    std::stable_sort(entries.begin(), entries.end(), before);
    size_t kept = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
        if (i + 1 < entries.size() && !before(entries[i], entries[i + 1]))
            release(entries[i]);
        else
            entries[kept++] = entries[i];
    }
    entries.resize(kept);
}

Variant::map_t* Variant::map_t::clone(bool sharing) noexcept {
    core::owned_object<map_t> made(create());
    if (!made) return nullptr;
    try {
        made->type_name = type_name;
        made->entries.reserve(entries.size());
    } catch (...) {
        return nullptr;
    }
    for (Entry* entry : entries) {
        Entry* const twin = make(key_t(*entry));
        if (!twin) return nullptr;
        made->entries.push_back(twin);
        twin->value = sharing ? entry->value.Share() : entry->value;
        if (twin->value.Type() == variant_lost) return nullptr;
    }
    return made.release();
}

// Takes what is put into maps for which there was no memory. It never changes.
Variant& Variant::sink() noexcept {
    struct lost_t {
        lost_t() noexcept { value.type_ = variant_lost; }
        Variant value;
    };
    return core::process_wide<lost_t>().value;
}

// --- Copies ---

// Of a null value alone.
void Variant::take(Variant& other) noexcept {
    if (type_ == variant_lost) return;  // the sink
    if (other.type_ == variant_lost && &other == &sink()) {
        type_ = variant_lost;
        return;
    }
    share(other);
    other.type_ = variant_null;
}

// What the other one holds is then held by two.
void Variant::share(const Variant& other) noexcept {
    type_ = other.type_;
    array_ = other.array_;
    length_ = other.length_;
    std::memcpy(short_, other.short_, sizeof(short_));
}

Variant::Variant(const Variant& other) noexcept : Variant() {
    share(other);
    if (!other.holds_memory()) return;
    if (other.type_ == variant_lost) {
        length_ = 0;
    } else if (other.IsText()) {
        type_ = variant_null;
        set_text(other.type_, static_cast<std::string_view>(other));
    } else if (other.map_->shared()) {
        other.map_->uses.fetch_add(1, std::memory_order_relaxed);
    } else {
        map_ = other.map_->clone(false);
        if (map_) return;
        type_ = variant_lost;
        length_ = 0;
    }
}

Variant::Variant(Variant&& other) noexcept : Variant() { take(other); }

Variant& Variant::operator=(const Variant& other) noexcept {
    if (this == &other) return *this;
    Variant twin(other);  // the other one may be a part of this
    Reset();
    take(twin);
    return *this;
}

Variant& Variant::operator=(Variant&& other) noexcept {
    Variant taken(std::move(other));
    Reset();
    take(taken);
    return *this;
}

Variant Variant::Share() noexcept {
    if (!IsMap()) return *this;
    Variant twin;
    twin.type_ = type_;
    twin.array_ = array_;
    twin.map_ = map_;
    map_->uses.fetch_add(1, std::memory_order_relaxed);
    return twin;
}

void Variant::Reset() noexcept {
    if (type_ == variant_lost && this == &sink()) return;
    if (holds_memory()) {
        if (IsText())
            core_mfree(text_);
        else
            map_->drop();
    }
    type_ = variant_null;
    array_ = false;
    length_ = 0;
}

// A map stays held: references into it may be in use.
void Variant::lose() noexcept {
    if (type_ == variant_lost) return;
    const bool map = IsMap();
    if (!map) Reset();
    type_ = variant_lost;
    length_ = map ? 1 : 0;
}

// --- Plain values ---

Variant& Variant::set_number(variant_type_t type, double value) noexcept {
    Reset();
    if (type_ == variant_lost) return *this;
    type_ = type;
    number_ = value;
    return *this;
}

Variant& Variant::set_text(variant_type_t type, std::string_view text) noexcept {
    Variant made;  // the text may be a part of this
    if (text.size() > short_size) {
        made.text_ = text.size() <= UINT32_MAX ? static_cast<char*>(core_malloc(text.size(), CORE_HERE)) : nullptr;
        if (!made.text_) {
            lose();
            return *this;
        }
        std::memcpy(made.text_, text.data(), text.size());
    } else if (!text.empty()) {
        std::memcpy(made.short_, text.data(), text.size());
    }
    made.length_ = static_cast<uint32_t>(text.size());
    made.type_ = type;
    Reset();
    take(made);
    return *this;
}

Variant& Variant::operator=(std::string_view text) noexcept { return set_text(variant_string, text); }

Variant& Variant::operator=(const tm& utc) noexcept {
    Reset();
    if (type_ == variant_lost) return *this;
    type_ = variant_timestamp;
    seconds_ = std::clamp(core_timegm(&utc), year_0, year_10000 - 1);
    return *this;
}

void Variant::SetUndefined() noexcept {
    Reset();
    if (type_ != variant_lost) type_ = variant_undefined;
}

Variant::operator bool() const noexcept { return static_cast<double>(*this) != 0; }

Variant::operator double() const noexcept { return type_ == variant_bool || IsNumber() ? number_ : 0; }

Variant::operator uint32_t() const noexcept {
    const auto value = static_cast<double>(*this);
    if (!(value > 0)) return 0;  // not a number, too
    return value < UINT32_MAX ? static_cast<uint32_t>(value) : UINT32_MAX;
}

Variant::operator std::string_view() const noexcept {
    if (!IsText()) return {};
    return {length_ > short_size ? text_ : short_, length_};
}

Variant::operator tm() const noexcept {
    tm fields{};
    int64_t seconds = type_ >= variant_timestamp && type_ <= variant_time ? seconds_ : 0;
    int periods = 0;
    for (; seconds < 0; seconds += seconds_in_period)
        ++periods;
    core_timeUtc(static_cast<uint64_t>(seconds) * 1'000'000, &fields);
    fields.tm_year -= 400 * periods;
    return fields;
}

bool Variant::operator==(std::string_view text) const noexcept {
    return type_ == variant_string && static_cast<std::string_view>(*this) == text;
}

void Variant::IsByteArray(bool bytes) noexcept {
    if (IsText()) type_ = bytes ? variant_byte_array : variant_string;
}

// --- Maps ---

// The map to change, which this value alone has; null when memory is out.
Variant::map_t* Variant::own_map() noexcept {
    if (type_ == variant_lost) return nullptr;
    if (IsMap() && !map_->shared()) return map_;
    map_t* const made = IsMap() ? map_->clone(true) : map_t::create();
    if (!made) {
        lose();
        return nullptr;
    }
    if (IsMap()) {
        map_->drop();
    } else {
        Reset();
        type_ = variant_map;
    }
    return map_ = made;
}

Variant& Variant::at(const key_t& key) noexcept {
    map_t* const map = own_map();
    if (!map) return sink();
    const size_t place = map->place(key);
    if (place < map->entries.size() && !(key < key_t(*map->entries[place]))) return map->entries[place]->value;
    Entry* const made = map->insert(place, key);
    if (made) return made->value;
    lose();
    return sink();
}

const Variant& Variant::find(const key_t& key) const noexcept {
    static const Variant null;
    const Entry* const found = IsMap() ? map_->find(key) : nullptr;
    return found ? found->value : null;
}

Variant* Variant::append(const key_t& key) noexcept {
    map_t* const map = own_map();
    Entry* const made = map ? map->insert(map->entries.size(), key) : nullptr;
    if (!made) lose();
    return made ? &made->value : nullptr;
}

Variant& Variant::operator[](std::string_view key) noexcept { return at(key_t(key)); }
Variant& Variant::operator[](uint32_t index) noexcept { return at(key_t(index)); }
const Variant& Variant::operator[](std::string_view key) const noexcept { return find(key_t(key)); }
const Variant& Variant::operator[](uint32_t index) const noexcept { return find(key_t(index)); }
Variant* Variant::Append(std::string_view key) noexcept { return append(key_t(key)); }
Variant* Variant::Append(uint32_t index) noexcept { return append(key_t(index)); }

void Variant::Settle() noexcept {
    if (IsMap()) map_->settle();
}

bool Variant::HasKey(std::string_view key, bool case_sensitive) const noexcept {
    if (!IsMap()) return false;
    if (map_->find(key_t(key))) return true;
    if (case_sensitive) return false;
    return std::any_of(map_->entries.begin(), map_->entries.end(), [key](const Entry* entry) {
        const std::string_view name = entry->Key();
        return !entry->IsIndex() && name.size() == key.size() &&
               core_strncasecmp(name.data(), key.data(), key.size()) == 0;
    });
}

void Variant::RemoveKey(std::string_view key) noexcept {
    if (!HasKey(key)) return;
    if (map_t* map = own_map()) map->remove(key_t(key));
}

void Variant::RemoveAt(uint32_t index) noexcept {
    if (!IsMap() || !map_->find(key_t(index))) return;
    if (map_t* map = own_map()) map->remove(key_t(index));
}

uint32_t Variant::MapSize() const noexcept { return IsMap() ? static_cast<uint32_t>(map_->entries.size()) : 0; }

uint32_t Variant::MapDenseSize() const noexcept {
    if (!IsMap()) return 0;
    const auto& entries = map_->entries;
    const size_t first = map_->place(key_t(0U));
    uint32_t count = 0;
    while (first + count < entries.size() && entries[first + count]->IsIndex() &&
           entries[first + count]->Index() == count)
        ++count;
    return count;
}

void Variant::IsArray(bool array) noexcept {
    if (own_map()) array_ = array;
}

std::string_view Variant::GetTypeName() const noexcept {
    return type_ == variant_typed_map ? std::string_view(map_->type_name) : std::string_view();
}

void Variant::SetTypeName(std::string_view name) noexcept {
    map_t* const map = own_map();
    if (!map) return;
    try {
        map->type_name.assign(name);
        type_ = variant_typed_map;
    } catch (...) {
        lose();
    }
}

Variant::Entry* const* Variant::first() noexcept {
    const map_t* const map = IsMap() ? own_map() : nullptr;
    return map ? map->entries.data() : nullptr;
}

Variant::Entry* const* Variant::peek() const noexcept { return IsMap() ? map_->entries.data() : nullptr; }
