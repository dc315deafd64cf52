#include "core/option.h"

#include "platform/system.h"

#include "core/owned.h"
#include "core/text.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string_view>

namespace {

constexpr size_t file_limit = 1'048'576;
constexpr size_t key_limit = 255;

// Ordered by key: the file reads the same whatever the order of the calls, and a large file loads in n log n.
using values_t =
    std::map<core::string, core::string, std::less<>, core::allocator<std::pair<const core::string, core::string>>>;

bool is_key(std::string_view key) noexcept {
    constexpr std::string_view excluded("=\n\r\0", 4);
    return !key.empty() && key.size() <= key_limit && key.find_first_of(excluded) == std::string_view::npos;
}

/// What a backslash and this letter stand for; 0 for other letters, before which a backslash is itself.
constexpr char unescaped(char letter) noexcept {
    switch (letter) {
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case '\\':
            return '\\';
        default:
            return 0;
    }
}

constexpr char escaped(char special) noexcept { return special == '\n' ? 'n' : special == '\r' ? 'r' : special; }

void append_escaped(core::string& out, std::string_view value) {
    while (true) {
        const size_t plain = value.find_first_of("\n\r\\");
        out += value.substr(0, plain);
        if (plain == std::string_view::npos) return;
        out += '\\';
        out += escaped(value[plain]);
        value.remove_prefix(plain + 1);
    }
}

void append_unescaped(core::string& out, std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i) {
        const char special = text[i] == '\\' && i + 1 < text.size() ? unescaped(text[i + 1]) : '\0';
        if (special) ++i;
        out += special ? special : text[i];
    }
}

void set(values_t& values, std::string_view key, core::string&& value) {
    const auto found = values.lower_bound(key);
    if (found != values.end() && found->first == key) {
        found->second = std::move(value);
    } else {
        values.emplace_hint(found, core::string(key, value.get_allocator()), std::move(value));
    }
}

/// Takes what is a line of this file; what is not (a remark, zeros that a broken disk left) is passed over.
void read_line(values_t& values, std::string_view line) {
    if (line.ends_with('\r')) line.remove_suffix(1);
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || !is_key(line.substr(0, equals))) return;
    const std::string_view text = line.substr(equals + 1);
    if (text.find('\0') != std::string_view::npos) return;
    core::string value{core::allocator<char>(values.get_allocator())};
    append_unescaped(value, text);
    set(values, line.substr(0, equals), std::move(value));
}

void read_lines(values_t& values, std::string_view text) {
    while (!text.empty()) {
        const size_t end = text.find('\n');
        read_line(values, text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
}

using owned_file = core::owned<std::FILE, std::fclose>;

/// `failed` is a file that is there but cannot be opened or read, as for a lack of descriptors: were it taken for a
/// missing one, the next save would replace what is there.
enum class file_state { read, missing, too_large, failed };

file_state read_file(values_t& values, const char* path) {
    const owned_file file(core::platform::open_file(path, "rb"));
    if (!file) return errno == ENOENT ? file_state::missing : file_state::failed;
    core::string text{core::allocator<char>(values.get_allocator())};
    char piece[4096];
    while (const size_t read = std::fread(piece, 1, sizeof piece, file.get())) {
        text.append(piece, read);
        if (text.size() > file_limit) return file_state::too_large;
    }
    if (std::ferror(file.get())) return file_state::failed;
    read_lines(values, text);
    return file_state::read;
}

core::string to_text(const values_t& values) {
    core::string text{core::allocator<char>(values.get_allocator())};
    for (const auto& [key, value] : values) {
        text += key;
        text += '=';
        append_escaped(text, value);
        text += '\n';
    }
    return text;
}

/// Writes a new file and puts it onto the disk; a crash leaves a file of this name that nobody reads.
bool write_file(const char* path, const char* rights_of, std::string_view text) noexcept {
    owned_file file(core::platform::open_file(path, "wb"));
    if (!file) return false;
    core::platform::adopt_rights(file.get(), rights_of);
    const bool written = std::fwrite(text.data(), 1, text.size(), file.get()) == text.size() &&
                         std::fflush(file.get()) == 0 && core::platform::sync_file(file.get());
    return std::fclose(file.release()) == 0 && written;
}

/// Writes a new file beside the one that the path leads to, and replaces that.
bool replace_file(const char* path, std::string_view text) noexcept {
    constexpr char addition[] = ".new";
    char target[4096], beside[sizeof target + sizeof addition];
    if (!core::platform::follow_links(path, target, sizeof target)) return false;
    std::snprintf(beside, sizeof beside, "%s%s", target, addition);
    if (!write_file(beside, target, text) || !core::platform::rename_file(beside, target)) {
        core::platform::remove_file(beside);
        return false;
    }
    // Without this a power cut may bring the old name back; it is still one of the two files.
    core::platform::sync_entry(target);
    return true;
}

template <class Number>
bool read_number(std::string_view text, Number& number) noexcept {
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
}

}  // namespace

struct opt_ctx {
    opt_ctx(const char* p, const char* file, int line)
        : path(p, core::allocator<char>(file, line)), values(values_t::allocator_type(file, line)) {}

    const core::string path;
    file_state found = file_state::missing;
    std::mutex lock;
    values_t values;
    std::mutex saving;  ///< held around a save, which may wait for the disk, so that readers need not
};

namespace {

/// The value as a number; `missing` when there is none that fits.
template <class Number>
Number get_number(opt_ctx* opt, const char* key, Number missing) noexcept {
    if (!opt || !key) return missing;
    const std::lock_guard guard(opt->lock);
    const auto found = opt->values.find(std::string_view(key));
    Number number{};
    return found != opt->values.end() && read_number(found->second, number) ? number : missing;
}

}  // namespace

opt_ctx* core_opt_create(const char* path, const char* file, int line) noexcept {
    if (!path) return nullptr;
    core::owned_object<opt_ctx> opt(core::create<opt_ctx>(file, line, path, file, line));
    try {
        if (opt) opt->found = read_file(opt->values, path);
        return opt && opt->found != file_state::failed ? opt.release() : nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

const char* core_opt_path(opt_ctx* opt) noexcept { return opt ? opt->path.c_str() : nullptr; }

char* core_opt_get(opt_ctx* opt, const char* key, const char* missing, const char* file, int line) noexcept {
    if (opt && key) {
        const std::lock_guard guard(opt->lock);
        const auto found = opt->values.find(std::string_view(key));
        if (found != opt->values.end()) return core_strdup(found->second.c_str(), file, line);
    }
    return core_strdup(missing, file, line);
}

int32_t core_opt_get_int(opt_ctx* opt, const char* key, int32_t missing) noexcept {
    return get_number(opt, key, missing);
}

int64_t core_opt_get_int64(opt_ctx* opt, const char* key, int64_t missing) noexcept {
    return get_number(opt, key, missing);
}

int core_opt_set(opt_ctx* opt, const char* key, const char* value) noexcept {
    if (!opt || !key || !is_key(key)) return 0;
    const std::lock_guard guard(opt->lock);
    if (!value) {
        const auto found = opt->values.find(std::string_view(key));
        if (found != opt->values.end()) opt->values.erase(found);
        return 1;
    }
    try {
        set(opt->values, key, core::string(value, core::allocator<char>(opt->values.get_allocator())));
    } catch (const std::bad_alloc&) {
        return 0;
    }
    return 1;
}

int core_opt_set_int(opt_ctx* opt, const char* key, int32_t value) noexcept {
    return core_opt_set_int64(opt, key, value);
}

int core_opt_set_int64(opt_ctx* opt, const char* key, int64_t value) noexcept {
    char text[24];
    *std::to_chars(text, text + sizeof text, value).ptr = 0;
    return core_opt_set(opt, key, text);
}

int core_opt_save(opt_ctx* opt) noexcept {
    if (!opt || opt->found == file_state::too_large) return 0;
    const std::lock_guard saving(opt->saving);
    try {
        std::unique_lock guard(opt->lock);
        const core::string text = to_text(opt->values);
        guard.unlock();
        return text.size() <= file_limit && replace_file(opt->path.c_str(), text);
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

void core_opt_free(opt_ctx*& opt) noexcept {
    core::destroy(opt);
    opt = nullptr;
}
