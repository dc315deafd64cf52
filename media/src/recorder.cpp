// Gives frames their place and hands them to the files. Sound that comes before the first picture waits for it.
#include "media/recorder.h"

#include "recorder/file.h"
#include "recorder/timeline.h"

#include "avc/fcc.h"

#include <algorithm>
#include <new>

namespace media {

namespace {

constexpr int64_t longest_wait = 2'000'000;
constexpr size_t most_waiting = 512;
constexpr int64_t longest_block = 1'000'000;  ///< of sound that begins before the picture and reaches into it

}  // namespace

struct recorder::inside {
    ~inside() { drop_early(); }

    struct early_t {
        av::frame_t frame;
        int64_t at;
    };

    void tell(failure_t* error) const noexcept { media::tell(error, "%s", failed.text); }
    bool fail(const record::file& which);
    void learn(const av::frame_t& frame, kind_t kind) noexcept;
    bool waits_for_picture() const noexcept;
    bool take(const av::frame_t& frame);
    bool hold(const av::frame_t& frame, int64_t at);
    bool begin(const av::frame_t& frame, int64_t at);
    bool give(const av::frame_t& frame, int64_t at);
    bool each_file(bool (record::file::*call)());
    void drop_early() noexcept;

    core::vector<record::file_ptr> files;
    format_t formats[kind_count];
    core::vector<uint8_t> configs[kind_count];
    bool declared = false;
    record::timeline time;
    bool begun = false;
    int64_t base = 0;
    core::vector<early_t> early;
    failure_t failed;  ///< "" while all can be written
    void (*note)(void* arg, const char* text) = nullptr;
    void* note_arg = nullptr;

    /// Runs what may throw. @return 1, or 0 when it or something before it failed
    template <class Work>
    int run(failure_t* error, const Work& work) noexcept {
        if (!*failed.text) {
            try {
                work();
            } catch (const std::exception&) {
                media::tell(&failed, "no memory");
            }
        }
        if (!*failed.text) return 1;
        tell(error);
        return 0;
    }
};

recorder::recorder() noexcept : inside_(core::create<inside>(CORE_HERE)) {}

recorder::~recorder() {
    finish();
    core::destroy(inside_);
}

int recorder::takes(const char* path) noexcept { return path && record::is_file_name(path) ? 1 : 0; }

int recorder::add(const char* path, failure_t* error) noexcept {
    try {
        record::file_ptr made = path && inside_ ? record::make_file(path) : nullptr;
        const auto standard = [](const record::file_ptr& each) { return each->out().is_standard(); };
        if (!made) {
            tell(error, inside_ ? "%s: no kind of file that can be recorded to" : "no memory", path ? path : "");
        } else if (standard(made) && std::ranges::any_of(inside_->files, standard)) {
            tell(error, "%s: the standard output takes one file", path);
        } else if (!made->check()) {
            tell(error, "cannot write %s: %s", path, made->cause());
        } else {
            inside_->files.push_back(std::move(made));
            return 1;
        }
    } catch (const std::exception&) {
        tell(error, "no memory");
    }
    return 0;
}

void recorder::declare(const format_t& format) noexcept {
    if (!inside_ || !format.fcc) return;
    const auto index = static_cast<size_t>(kind_of(format.fcc));
    format_t& known = inside_->formats[index];
    if (inside_->begun || (inside_->declared && known.fcc && known.fcc != format.fcc)) return;
    inside_->run(nullptr, [&] {
        auto& config = inside_->configs[index];
        config.assign(format.config.data, format.config.data + format.config.size);
        known = format;
        known.config = {config.data(), static_cast<uint32_t>(config.size())};
        inside_->declared = true;
    });
}

/// What nobody has declared.
void recorder::inside::learn(const av::frame_t& frame, kind_t kind) noexcept {
    format_t& known = formats[static_cast<size_t>(kind)];
    if (!known.fcc) known.fcc = frame.fcc;
    if (known.fcc != frame.fcc) return;
    if (!known.rate) known.rate = frame.rate;
    if (!known.channels) known.channels = frame.channels;
}

/// Whether sound waits: for pictures that are known to come, and in a film of which nothing was declared.
bool recorder::inside::waits_for_picture() const noexcept {
    const uint32_t pictures = formats[static_cast<size_t>(kind_t::video)].fcc;
    return std::ranges::any_of(files, [&](const record::file_ptr& each) {
        return (pictures && each->takes(pictures)) || (!declared && each->is_film());
    });
}

bool recorder::inside::fail(const record::file& which) {
    media::tell(&failed, "cannot write %s: %s", which.out().path(), which.cause());
    return false;
}

bool recorder::inside::give(const av::frame_t& frame, int64_t at) {
    bool all = true;
    for (const record::file_ptr& each : files) {
        if (!each->takes(frame.fcc)) continue;
        each->touched = true;
        if (!each->take({frame, at})) all = fail(*each);
        const core::string text = each->take_note();
        if (note && !text.empty()) {
            const core::string whole = core::string(each->out().path()) += ": " + text;
            note(note_arg, whole.c_str());
        }
    }
    return all;
}

bool recorder::inside::take(const av::frame_t& frame) {
    const kind_t kind = kind_of(frame.fcc);
    if (!begun) learn(frame, kind);
    if (kind == kind_t::meta) return give(frame, 0);
    if (frame.fcc == av::fcc_h264 && !begun && !frame.key) return true;
    const int64_t at = time.place(kind, frame.time + frame.shown_after);
    if (begun) return give(frame, at - base);
    if (kind == kind_t::audio && waits_for_picture()) return hold(frame, at);
    return begin(frame, at);
}

bool recorder::inside::hold(const av::frame_t& frame, int64_t at) {
    while (!early.empty() && (early.size() >= most_waiting || at - early.front().at > longest_wait)) {
        avc_frame_drop(&early.front().frame);
        early.erase(early.begin());
    }
    early.reserve(early.size() + 1);
    early_t held{.frame = {}, .at = at};
    if (!avc_frame_share(&held.frame, &frame, CORE_HERE)) throw std::bad_alloc();
    early.push_back(held);
    return true;
}

/// The recording starts here, also for the sound that came before.
bool recorder::inside::begin(const av::frame_t& frame, int64_t at) {
    begun = true;
    base = at;
    for (const record::file_ptr& each : files)
        each->begin(formats);
    bool all = give(frame, 0);
    for (const early_t& each : early) {
        if (each.at > base - longest_block) all = give(each.frame, each.at - base) && all;
    }
    drop_early();
    return all;
}

void recorder::inside::drop_early() noexcept {
    for (early_t& each : early)
        avc_frame_drop(&each.frame);
    early.clear();
}

int recorder::take(const av::frame_t& frame, failure_t* error) noexcept {
    if (!inside_) return 0;
    return inside_->run(error, [&] { inside_->take(frame); });
}

int recorder::take(read_t found, const entry_t& entry, failure_t* error) noexcept {
    if (found == read_t::gap) return pause(error);
    if (found == read_t::format && entry.format) declare(*entry.format);
    return found == read_t::frame ? take(entry.frame, error) : 1;
}

bool recorder::inside::each_file(bool (record::file::*call)()) {
    bool all = true;
    for (const record::file_ptr& each : files) {
        if (!(each.get()->*call)()) all = fail(*each);
    }
    return all;
}

int recorder::pause(failure_t* error) noexcept {
    if (!inside_) return 0;
    inside_->time.pause();
    return inside_->run(error, [&] { inside_->each_file(&record::file::flush); });
}

int recorder::finish(failure_t* error) noexcept {
    if (!inside_) return 0;
    return inside_->run(error, [&] { inside_->each_file(&record::file::finish); });
}

const char* recorder::untouched() const noexcept {
    if (!inside_) return nullptr;
    const auto found = std::ranges::find(inside_->files, false, &record::file::touched);
    return found == inside_->files.end() ? nullptr : (*found)->out().path();
}

void recorder::on_note(void (*note)(void* arg, const char* text), void* arg) noexcept {
    if (!inside_) return;
    inside_->note = note;
    inside_->note_arg = arg;
}

}  // namespace media
