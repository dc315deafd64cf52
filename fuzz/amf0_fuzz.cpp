// Any bytes are read as an AMF0 value without a fault or refused. What is read can be written, and is read as the same
// again. Names of digits become indexes in arrays, and names lose a prefix, so that the second reading is the measure.
#include "amf_again.h"

void fuzz_target(std::span<const uint8_t> input) { fuzz::again<inet::rtmp::AMF0Serializer>(input); }
