// A fuzz target as libFuzzer calls it.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_target({data, size});
    fuzz::require(core_mem_blocks() == 0);
    return 0;
}
