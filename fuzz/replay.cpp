// Every fuzz target over its seeds: each as it is, each of its prefixes, four changes of each of its bytes, and with
// each of its allocations failing in turn. Names the input when a target aborts.
//   inet_replay TARGET FILE...
#include "fuzz.h"
#include "replay_targets.h"
#include "support/files.h"

#include <csignal>
#include <cstdio>

namespace {

using bytes = std::vector<uint8_t>;
using target_t = void (*)(std::span<const uint8_t>);

struct named_t {
    std::string_view name;
    target_t run;
};

constexpr named_t targets[] = {INET_REPLAY_TARGETS};

// For whom reads the failure: what was being tried.
const char* seed = "";
const char* change = "as it is";
size_t place = 0;
uint8_t value = 0;

void tell(int) {
    std::fprintf(stderr, "replay: %s: %s %zu (0x%02x)\n", seed, change, place, value);
    std::fflush(stderr);
    std::signal(SIGABRT, SIG_DFL);
    std::abort();
}

void run(target_t target, const bytes& input) {
    const size_t held = core_mem_blocks();
    fuzz::starved = false;
    target(input);
    fuzz::require(core_mem_blocks() == held);
}

void cut(target_t target, const bytes& whole) {
    change = "cut to";
    for (place = 0; place < whole.size(); ++place)
        run(target, bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(place)));
}

void change_bytes(target_t target, const bytes& whole) {
    change = "with another byte at";
    bytes changed = whole;
    for (place = 0; place < whole.size(); ++place) {
        const uint8_t was = whole[place];
        for (const int other : {was ^ 1, was ^ 0x80, was == 0 ? 0x0A : 0, was == 0xFF ? 0x20 : 0xFF}) {
            changed[place] = value = static_cast<uint8_t>(other);
            run(target, changed);
        }
        changed[place] = was;
    }
}

size_t until_failure = 0;

bool fails(size_t, const char*, int) {
    if (until_failure == 0 || --until_failure > 0) return false;
    return fuzz::starved = true;
}

void starve(target_t target, const bytes& whole) {
    change = "without allocation";
    value = 0;
    core_mem_set_fault(fails);
    place = 0;
    do {
        until_failure = ++place;
        run(target, whole);
    } while (fuzz::starved);
    core_mem_set_fault(nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view wanted = argc > 1 ? argv[1] : "";
    for (const auto& [name, target] : targets) {
        if (name != wanted || argc < 3) continue;
        std::signal(SIGABRT, tell);
        for (int i = 2; i < argc; ++i) {
            seed = argv[i];
            const std::string content = test::read_file(seed);
            const bytes whole(content.begin(), content.end());
            run(target, whole);
            cut(target, whole);
            change_bytes(target, whole);
            starve(target, whole);
        }
        return 0;
    }
    std::fprintf(stderr, "inet_replay TARGET FILE...\n");
    return 2;
}
