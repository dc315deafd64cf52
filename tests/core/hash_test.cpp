#include "core/hash.h"

#include "support/exact.h"

#include "core/owned.h"
#include "core/text.h"

#include <array>
#include <gtest/gtest.h>
#include <numeric>
#include <string>

namespace {

std::string gost(const std::string& message) {
    const test::exact_bytes exact(message);
    std::array<uint8_t, 32> digest{};
    EXPECT_EQ(core_hash_gost(exact.data(), exact.size(), digest.data()), 1);
    return core::owned_text(core_strhex(digest.data(), digest.size(), CORE_HERE)).get();
}

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
        {"\xd1\xe5\x20\xe2\xe5\xf2\xf0\xe8\x2c\x20\xd1\xf2\xf0\xe8\xe1\xee\xe6\xe8\x20\xe2\xed\xf3\xf6\xe8"
         "\x2c\x20\xe2\xe5\xfe\xf2\xfa\x20\xf1\x20\xec\xee\xf0\xff\x20\xf1\xf2\xf0\xe5\xeb\xe0\xec\xe8\x20"
         "\xed\xe0\x20\xf5\xf0\xe0\xe1\xf0\xfb\xff\x20\xef\xeb\xfa\xea\xfb\x20\xc8\xe3\xee\xf0\xe5\xe2\xfb",
         "9dd2fe4e90409e5da87f53976d7405b0c0cac628fc669a741d50063c557e8f50"},
        // Around the ends of blocks, as libgcrypt 1.10 gives them
        {"", "3f539a213e97c802cc229d474c6aa32a825a360b2a933a949fd925208d9ce1bb"},
        {counting(63), "937c66cf8c151d92d5acac335d951073c69711727172443c93aba97071b8f48b"},
        {counting(64), "1bce2366e4aecd63c75f972bfc6a514e03e2125920bea5b59cbd8ce0be56b8f3"},
        {counting(65), "3ce0351669ec6743d326120c67e27043eb7742a874c61a933c4d8970364cb97c"},
        {counting(127), "50e9dccd71eb50caffa51963c24d8c74d8e0e86cbf653480f3301d9ca523653e"},
        {counting(128), "927285165104e5587233772ce496d96bf108c942f4399986a6bc8e908e9622a4"},
        {counting(129), "7373f7d09afe51640d2dfdb9a2d8bd293455340c35f252906503170eb3e6a37d"},
        // The sum of the blocks carries through every word.
        {std::string(192, '\xff'), "d3ce7eb4da9ad01a0b929025486a2fd99e84f188069f9e5f47f11d1a949be991"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(gost(c.message), c.digest) << c.message.size() << " bytes";
}

TEST(Gost, NeedsBytesOnlyWhenThereAreSome) {
    std::array<uint8_t, 32> digest;
    digest.fill(0x5a);
    const auto before = digest;
    EXPECT_EQ(core_hash_gost(nullptr, 1, digest.data()), 0);
    EXPECT_EQ(digest, before);
    EXPECT_EQ(core_hash_gost("", 0, nullptr), 0);
    EXPECT_EQ(core_hash_gost(nullptr, 0, digest.data()), 1);
    EXPECT_NE(digest, before);
}

}  // namespace
