#include "core/hash.h"

#include "support/exact.h"

#include "core/owned.h"
#include "core/text.h"

#include <gtest/gtest.h>
#include <numeric>
#include <string>

namespace {

/// Bytes 0, 1, 2 and so on.
std::string counting(size_t size) {
    std::string bytes(size, '\0');
    std::iota(bytes.begin(), bytes.end(), '\0');
    return bytes;
}

TEST(Gost, GivesTheVectorsOfTheStandardAndOfAnotherImplementation) {
    const struct {
        std::string message;
        const char* digest;
    } cases[] = {
        // RFC 6986, section 10, first byte first
        {"012345678901234567890123456789012345678901234567890123456789012",
         "9d151eefd8590b89daa6ba6cb74af9275dd051026bb149a452fd84e5e57b5500"},
        // Around the ends of blocks, as libgcrypt 1.10 gives them
        {"", "3f539a213e97c802cc229d474c6aa32a825a360b2a933a949fd925208d9ce1bb"},
        {counting(63), "937c66cf8c151d92d5acac335d951073c69711727172443c93aba97071b8f48b"},
        {counting(64), "1bce2366e4aecd63c75f972bfc6a514e03e2125920bea5b59cbd8ce0be56b8f3"},
        {counting(129), "7373f7d09afe51640d2dfdb9a2d8bd293455340c35f252906503170eb3e6a37d"},
        // The sum of the blocks carries through every word.
        {std::string(192, '\xff'), "d3ce7eb4da9ad01a0b929025486a2fd99e84f188069f9e5f47f11d1a949be991"},
    };
    for (const auto& c : cases) {
        const test::exact_bytes exact(c.message);
        uint8_t digest[32];
        EXPECT_EQ(core_hash_gost(exact.data(), exact.size(), digest), 1);
        EXPECT_STREQ(core::owned_text(core_strhex(digest, sizeof digest, CORE_HERE)).get(), c.digest);
    }
}

}  // namespace
