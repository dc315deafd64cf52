#include "core/module.h"

#include "platform/system.h"

#include "core/file.h"
#include "core/owned.h"
#include "core/text.h"

#include <string_view>

namespace {

namespace platform = core::platform;

using owned_library = core::owned<void, platform::close_library>;

/// "reader.so", or "reader.so.6", where a version follows.
bool is_complete(std::string_view name) noexcept {
    const std::string_view suffix = platform::library_suffix;
    for (size_t at = name.find(suffix); at != std::string_view::npos; at = name.find(suffix, at + 1)) {
        const std::string_view rest = name.substr(at + suffix.size());
        if (rest.empty() || rest.starts_with('.')) return true;
    }
    return false;
}

owned_library open_bare(const char* name, const char* file, int line) noexcept {
    const bool complete = is_complete(name);
    const core::owned_text full(
        complete ? core_strdup(name, file, line)
                 : core_sprintf(file, line, "%s%s%s", platform::library_prefix, name, platform::library_suffix));
    if (!full) return {};
    const core::owned_text directory(lib_path(file, line));
    constexpr const char* folders[] = {"inet-modules", "."};
    for (const char* folder : folders) {
        const char slash = platform::path_separators[0];
        const core::owned_text beside(
            directory ? core_sprintf(file, line, "%s%c%s%c%s", directory.get(), slash, folder, slash, full.get())
                      : nullptr);
        owned_library library(beside ? platform::open_library(beside.get()) : nullptr);
        if (library) return library;
    }
    return owned_library(platform::open_library(full.get()));
}

bool find_entries(void* library, dll_entry_t* entries) noexcept {
    bool complete = true;
    for (dll_entry_t* entry = entries; entry && entry->name; ++entry) {
        entry->function = platform::find_symbol(library, entry->name);
        complete = complete && entry->function;
    }
    return complete;
}

void forget_entries(dll_entry_t* entries) noexcept {
    for (dll_entry_t* entry = entries; entry && entry->name; ++entry)
        entry->function = nullptr;
}

}  // namespace

struct dll_ctx {
    owned_library library;
};

dll_ctx* core_dll_open(const char* name, dll_entry_t* entries, const char* file, int line) noexcept {
    forget_entries(entries);
    // An empty name would open the program itself.
    if (core_strlen(name) == 0) return nullptr;
    core::owned_object<dll_ctx> dll(core::create<dll_ctx>(file, line));
    if (!dll) return nullptr;
    const bool is_path = std::string_view(name).find_first_of(platform::path_separators) != std::string_view::npos;
    dll->library = is_path ? owned_library(platform::open_library(name)) : open_bare(name, file, line);
    if (!dll->library || !find_entries(dll->library.get(), entries)) return nullptr;
    return dll.release();
}

void core_dll_close(dll_ctx*& dll) noexcept {
    core::destroy(dll);
    dll = nullptr;
}
