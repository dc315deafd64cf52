#include "keeper.h"

#include "options.h"
#include "program.h"
#include "recording.h"

#include "avc/fcc.h"
#include "core/json.h"
#include "core/owned.h"
#include "core/thread.h"
#include "core/time.h"
#include "media/recorder.h"

#include <algorithm>
#include <memory>
#include <system_error>
#include <vector>

namespace camera {

namespace {

constexpr uint64_t second = 1'000'000;
constexpr uint64_t length = 60 * second;
constexpr uint64_t reserved = 10 * second;  ///< of frames held while the disk is slow
constexpr uint64_t pause = 10 * second;     ///< after a file that could not be written
constexpr uint32_t look_again = 500;        ///< milliseconds
constexpr uint32_t kinds = media::only(media::kind_t::video) | media::only(media::kind_t::audio);

}  // namespace

/// A stream and the file at work.
class kept_stream {
public:
    kept_stream(media::stream& of, const std::filesystem::path& folder) : from_(of), folder_(folder) { from_.keep(); }
    ~kept_stream() { media::stream::drop(&from_); }
    kept_stream(const kept_stream&) = delete;
    kept_stream& operator=(const kept_stream&) = delete;

    std::string_view name() const { return from_.name(); }
    const std::filesystem::path& path() const { return path_; }

    /// Writes what is new. @return whether a file has been completed
    bool step(event_ctx* news) {
        if (!reader_.is_open() && !(reader_.open(from_, {.kinds = kinds, .reserve = reserved}) &&
                                    reader_.told([](void* arg) { event_set(static_cast<event_ctx*>(arg)); }, news)))
            return false;
        bool completed = false;
        media::entry_t entry;
        media::read_t found = reader_.next(entry);
        for (; found != media::read_t::nothing && found != media::read_t::ended; found = reader_.next(entry)) {
            const bool key = found == media::read_t::frame && entry.frame.fcc == av::fcc_h264 && entry.frame.key;
            // A film has one set of parameters.
            const bool other = found == media::read_t::format && entry.kind == media::kind_t::video;
            if (other || (key && entry.frame.time >= began_ + length)) completed = finish() || completed;
            if (key && !film_ && core_timer() >= next_try_) begin(entry.frame.time);
            if (film_ && !film_->take(found, entry, &why_)) fail();
        }
        return completed;
    }

    /// @return whether there was a file
    bool finish() {
        if (!film_) return false;
        if (!film_->finish(&why_)) complain();
        film_.reset();
        path_.clear();
        return true;
    }

    void close() {
        finish();
        reader_.close();
    }

private:
    void begin(uint64_t time) {
        began_ = time;
        path_ = folder_ / apps::utf8_path(apps::recording_file(name(), time));
        film_ = std::make_unique<media::recorder>();
        if (!film_->add(apps::utf8_text(path_).c_str(), &why_)) return fail();
        for (const media::kind_t kind : {media::kind_t::video, media::kind_t::audio}) {
            media::format_t format;
            buf_t config{};
            if (!from_.format(kind, &format, &config)) continue;
            format.config = {config.data, config.length};
            film_->declare(format);
            core_buf_free(&config);
        }
    }

    void fail() {
        complain();
        film_.reset();
        path_.clear();
        next_try_ = core_timer() + pause;
    }

    /// Once, until something else goes wrong.
    void complain() {
        if (told_ == why_.text) return;
        told_ = why_.text;
        apps::complain(program_name, told_);
    }

    media::stream& from_;
    const std::filesystem::path& folder_;
    media::cursor reader_;
    std::unique_ptr<media::recorder> film_;
    std::filesystem::path path_;  ///< of the file at work; empty for none
    uint64_t began_ = 0;
    uint64_t next_try_ = 0;
    media::failure_t why_;
    std::string told_;
};

keeper::keeper() = default;
keeper::~keeper() { stop(); }

bool keeper::open(const std::string& folder, uint64_t limit, media::station& station, media::failure_t& error) {
    folder_ = apps::utf8_path(folder);
    limit_ = limit;
    std::error_code wrong;
    std::filesystem::create_directories(folder_, wrong);
    if (!std::filesystem::is_directory(folder_, wrong)) {
        media::tell(&error, "cannot record to %s: there is no such folder", folder.c_str());
        return false;
    }
    station.streams(
        [](void* arg, media::stream& each) {
            auto& self = *static_cast<keeper*>(arg);
            if (apps::is_recording_name(each.name())) self.streams_.emplace_back(each, self.folder_);
        },
        this);
    return true;
}

std::vector<std::string> keeper::names() const {
    std::vector<std::string> found;
    for (const kept_stream& each : streams_)
        found.emplace_back(each.name());
    return found;
}

/// "stat_single" tells whether there is a recording of a stream, "directory" where.
void keeper::answer(profile_ctx* bus, const param_t* asked) const {
    const auto is = [&](const char* key, std::string_view wanted) {
        const char* text = param_get_text(asked, key);
        return text && text == wanted;
    };
    if (!is("command", "call") || !is("plugin", "archive")) return;
    const char* const params = param_get_text(asked, "params");
    json_t* const read = params ? yajl_tree_parse(params, nullptr, 0) : nullptr;
    const char* const key = json_text(json_get(read, "key2"));
    const std::string stream = key ? key : "";
    yajl_tree_free(read);
    const auto is_it = [&](const kept_stream& each) { return each.name() == stream; };
    if (std::ranges::none_of(streams_, is_it)) return;
    if (is("method", "stat_single")) {
        const size_t files = apps::recordings_of(folder_, stream).size();
        core_profile_answer(bus, files ? ("{\"files\":" + std::to_string(files) + "}").c_str() : "{}");
    } else if (is("method", "directory")) {
        const core::owned_text folder(core_json_encode(apps::utf8_text(folder_).c_str(), CORE_HERE));
        if (folder) core_profile_answer(bus, ("{\"directory\":\"" + std::string(folder.get()) + "\"}").c_str());
    }
}

bool keeper::start() {
    if (streams_.empty()) return true;
    bus_ = core_profile_open2(
        "plugin_methods_archive", this,
        [](void* arg, profile_ctx* bus, profile_event_t event, const param_t* params) {
            if (event == profile_ask) static_cast<const keeper*>(arg)->answer(bus, params);
        },
        CORE_HERE);
    news_ = _event_create(CORE_HERE);
    thread_ = core_thread_start(
        this, [](void* arg, thread_ctx* thread) { static_cast<keeper*>(arg)->work(thread); },
        [](void* arg, thread_ctx*) { event_set(static_cast<keeper*>(arg)->news_); }, CORE_HERE);
    return thread_ != nullptr;
}

void keeper::stop() {
    profile_close(bus_);
    core_thread_stop(thread_);
    _event_free(news_);
}

void keeper::work(thread_ctx* thread) {
    core_thread_setname(thread, "recordings");
    make_room();
    while (!core_thread_iscancel(thread)) {
        bool completed = false;
        for (kept_stream& each : streams_)
            completed = each.step(news_) || completed;
        if (completed) make_room();
        event_wait(news_, look_again);
    }
    for (kept_stream& each : streams_)
        each.close();
    make_room();
}

/// Removes the oldest recordings of all streams until what is left keeps to the limit.
void keeper::make_room() {
    struct kept_file {
        apps::recording file;
        uint64_t size;
    };
    std::vector<kept_file> files;
    uint64_t sum = 0;
    std::error_code wrong;
    for (const kept_stream& each : streams_) {
        for (apps::recording& file : apps::recordings_of(folder_, each.name())) {
            const uint64_t size = std::filesystem::file_size(file.path, wrong);
            if (wrong) continue;
            sum += size;
            if (file.path != each.path()) files.push_back({std::move(file), size});
        }
    }
    std::ranges::sort(files, {}, [](const kept_file& each) { return each.file.start; });
    for (const kept_file& each : files) {
        if (sum <= limit_) return;
        if (std::filesystem::remove(each.file.path, wrong)) sum -= each.size;
    }
}

}  // namespace camera
