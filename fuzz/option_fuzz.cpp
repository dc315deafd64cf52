// A file of options as it may lie on a disk: whatever is read is saved and read again as the same.
#include "fuzz.h"
#include "support/files.h"
#include "support/scratch.h"

#include "core/file.h"
#include "core/option.h"

namespace {

std::string stored(const std::string& path) {
    const core::owned<uint8_t> content(core_file_load(path.c_str(), 8 << 20, nullptr, CORE_HERE));
    return content ? reinterpret_cast<const char*>(content.get()) : "";
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    static const test::scratch own;
    static const std::string path = own / "options";
    test::write_file(path, input);
    std::string first;
    for (int round = 0; round < 2; ++round) {
        opt_ctx* opt = core_opt_create(path.c_str(), CORE_HERE);
        // Escapes can only grow a file; past the limit it is not saved.
        require((opt && core_opt_save(opt)) || fuzz::starved);
        core_opt_free(opt);
        if (round == 0) first = stored(path);
    }
    require(stored(path) == first || fuzz::starved);
}
