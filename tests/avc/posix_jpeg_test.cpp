// The quantisation tables of another encoder, which cjpeg writes.
#include "support/program.h"

#include "avc/jpeg.h"

#include <array>
#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

/// The quantisation tables, one behind the other.
std::string tables_of(const std::string& picture) {
    std::string tables;
    for (size_t at = 0; (at = picture.find("\xff\xdb\0\x43"s, at)) != picture.npos; at += 69)
        tables += picture.substr(at + 5, 64);
    return tables;
}

TEST(Jpeg, TablesAreThoseOfAnEncoderAtEveryQ) {
    std::array<uint8_t, 128> tables{};
    for (uint32_t q = 1; q < 100; ++q) {
        EXPECT_EQ(jpeg_rtp_tables(q, tables.data()), 1);
        const auto tiny = "printf 'P3 1 1 255 0 0 0' | cjpeg -baseline -quality " + std::to_string(q);
        EXPECT_EQ(tables_of(test::run(tiny)), std::string(tables.begin(), tables.end())) << q;
    }
    EXPECT_EQ(jpeg_rtp_tables(0, tables.data()) + jpeg_rtp_tables(100, tables.data()), 0);
}

}  // namespace
