// As amf0_fuzz.cpp, for AMF3: with references between values, of which the input holds as many as it will.
#include "amf_again.h"

void fuzz_target(std::span<const uint8_t> input) { fuzz::again<inet::rtmp::AMF3Serializer>(input); }
