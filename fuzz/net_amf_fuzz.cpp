// The flat reader takes no more than it is given, and makes a record of a whole string alone.
#include "fuzz.h"

#include "inet/net_amf.h"

void fuzz_target(std::span<const uint8_t> input) {
    const std::vector<uint8_t> bytes(input.begin(), input.end());
    net::amf_val* value = nullptr;
    const int used = net::net_amf_read(bytes.data(), bytes.size(), value, CORE_HERE);
    require(used >= 0 && static_cast<size_t>(used) <= bytes.size());
    require(!value || (value->type == 2 && bytes[0] == 2 && used == 3 + (bytes[1] << 8 | bytes[2])));
    if (!value && !bytes.empty() && bytes[0] == 2) require(used == 0);
    net::net_amf_free(value);
}
