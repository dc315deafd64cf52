// A file of options as it may lie on a disk: whatever is read is saved and read again as the same.
#include "core/file.h"
#include "core/memory.h"
#include "core/option.h"
#include "core/owned.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

/// A directory where flushing to the disk costs nothing, if there is such a place; gone at the end.
class directory {
public:
    directory() {
        for (const char* pattern : {"/dev/shm/inet_option_fuzz_XXXXXX", "/tmp/inet_option_fuzz_XXXXXX"}) {
            path_ = pattern;
            if (mkdtemp(path_.data())) return;
        }
        std::abort();
    }
    directory(const directory&) = delete;
    directory& operator=(const directory&) = delete;
    ~directory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string file() const { return path_ + "/options"; }

private:
    std::string path_;
};

void store(const std::string& path, const uint8_t* data, size_t size) {
    std::FILE* const file = std::fopen(path.c_str(), "wb");
    if (!file || std::fwrite(data, 1, size, file) != size || std::fclose(file) != 0) std::abort();
}

std::string stored(const std::string& path) {
    const core::owned<uint8_t> content(core_file_load(path.c_str(), 8 << 20, nullptr, CORE_HERE));
    return content ? reinterpret_cast<const char*>(content.get()) : "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const directory own;
    static const std::string path = own.file();
    store(path, data, size);
    std::string first;
    for (int round = 0; round < 2; ++round) {
        opt_ctx* opt = core_opt_create(path.c_str(), CORE_HERE);
        // Escapes can only grow a file; past the limit it is not saved.
        if (!opt || !core_opt_save(opt)) std::abort();
        core_opt_free(opt);
        if (round == 0) first = stored(path);
    }
    if (stored(path) != first || core_mem_blocks() != 0) std::abort();
    return 0;
}
