#include "inet/rtp_owner.h"

namespace {

bytes segment(uint8_t marker, const bytes& body) {
    const size_t length = body.size() + 2;
    return join({{0xFF, marker, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)}, body});
}

bytes table(uint8_t id, uint8_t value) { return join({{id}, bytes(64, value)}); }

bytes sof0(uint32_t width, uint32_t height, uint8_t luma, uint8_t cb = 0x11, uint8_t cr = 0x11) {
    return segment(0xC0, {8, uint8_t(height >> 8), uint8_t(height), uint8_t(width >> 8), uint8_t(width), 3, 1, luma, 0,
                          2, cb, 1, 3, cr, 1});
}

const bytes soi{0xFF, 0xD8}, eoi{0xFF, 0xD9}, sos = segment(0xDA, {3, 1, 0, 2, 0x11, 3, 0x11, 0, 63, 0});

TEST(RtpJpeg, WritesTheHeadersOfRfc2435) {
    // A thumbnail with tables of its own must not be taken for the picture's.
    const bytes app1 = segment(0xE1, join({soi, segment(0xDB, table(0, 99)), segment(0xDD, {0, 77})}));
    const bytes luma = segment(0xDB, table(0, 3)), chroma = segment(0xDB, table(1, 4));
    const bytes both = segment(0xDB, join({table(0, 3), table(1, 4)}));
    const bytes both_turned = segment(0xDB, join({table(1, 4), table(0, 3)}));
    const bytes dri = segment(0xDD, {0x01, 0x02}), sof = sof0(1280, 720, 0x22);
    const bytes sent_both = join({{0, 0, 0, 128}, bytes(64, 3), bytes(64, 4)});
    struct {
        const char* name;
        bytes headers;
        uint8_t type;
        bytes restart, tables;
    } const cases[] = {
        {"4:2:0 with DRI", join({app1, both, dri, sof}), 65, {0x01, 0x02, 0xFF, 0xFF}, sent_both},
        {"4:2:2", join({luma, chroma, sof0(1280, 720, 0x21)}), 0, {}, sent_both},
        {"tables turned round", join({both_turned, sof}), 1, {}, sent_both},
        {"no chroma table", join({luma, sof}), 1, {}, join({{0, 0, 0, 128}, bytes(128, 3)})},
        {"no luma table", join({chroma, sof}), 1, {}, {}},
    };
    for (const auto& [name, headers, type, restart, tables] : cases) {
        SCOPED_TRACE(name);
        rtp_owner owner(av::fcc_jpeg);
        const bytes scan = noise(3900);
        owner.send(join({soi, headers, sos, scan, eoi}));
        ASSERT_EQ(owner.packets.size(), 3U);
        bytes sent;
        for (const bytes& packet : owner.packets) {
            const auto offset = static_cast<uint32_t>(sent.size());
            const bytes header = join({{0, 0, uint8_t(offset >> 8), uint8_t(offset), type, 255, 160, 90},
                                       restart,
                                       offset == 0 ? tables : bytes{}});
            ASSERT_GE(packet.size(), 12 + header.size());
            EXPECT_TRUE(std::equal(header.begin(), header.end(), packet.begin() + 12)) << "at " << offset;
            sent = join({sent, behind(packet, 12 + header.size())});
            const bool last = sent.size() == scan.size();
            EXPECT_EQ(packet[1], last ? 0x80 | 26 : 26);
            EXPECT_TRUE(last || packet.size() == 1400) << packet.size();
        }
        EXPECT_EQ(sent, scan);
    }
}

TEST(RtpJpeg, SendsALargePictureWholeInAHeaderExtension) {
    struct {
        uint32_t width, height;
        size_t rest;                // bytes behind SOI
        std::vector<size_t> sizes;  // of the packets
    } const cases[] = {
        {2048, 1536, 1373, {18 + 1376}},
        {1536, 2041, 1374, {18 + 1372, 18 + 4}},
        {4000, 3000, 1372 + 1373, {18 + 1372, 18 + 1376}},
    };
    for (const auto& [width, height, rest, sizes] : cases) {
        SCOPED_TRACE(width);
        rtp_owner owner(av::fcc_jpeg);
        const bytes headers = join({soi, segment(0xDB, table(0, 3)), sof0(width, height, 0x22), sos});
        const bytes jpeg = join({headers, noise(rest - headers.size()), eoi});
        owner.send(jpeg);

        ASSERT_EQ(owner.packets.size(), sizes.size());
        for (size_t i = 0; i < sizes.size(); ++i) {
            const bytes& packet = owner.packets[i];
            EXPECT_EQ(packet.size(), sizes[i]);
            EXPECT_EQ(be16(packet, 0), i + 1 == sizes.size() ? 0x909AU : 0x901AU);
            EXPECT_EQ(be32(packet, 12), i ? 0xFFFFFFFFU : 0xFFD8FFD8U);
            EXPECT_EQ(be16(packet, 16) * 4, packet.size() - 18);
        }
        // Padding up to words of 4 bytes is all that is added.
        const bytes sent = join({soi, join(owner.payloads(18))});
        ASSERT_GE(sent.size(), jpeg.size());
        EXPECT_EQ(sent, join({jpeg, bytes(sent.size() - jpeg.size(), 0xFF)}));
    }
}

TEST(RtpJpeg, SendsWholeWhatRfc2435CannotDescribe) {
    const bytes wide_tables = segment(0xDB, bytes(129, 0x10)), grey = segment(0xC0, {8, 1, 0, 1, 0, 1, 1, 0x11, 0});
    for (const bytes& header : {wide_tables, grey, sof0(640, 480, 0x22, 0x21), sof0(640, 480, 0x22, 0x11, 0x21)}) {
        rtp_owner owner(av::fcc_jpeg);
        const bytes jpeg = join({soi, segment(0xDD, {0, 9}), header, sos, noise(10)});
        owner.send(jpeg);
        // What was scanned before stands in the header.
        EXPECT_EQ(owner.payloads(), std::vector<bytes>{join({{0, 0, 0, 0, 64, 255, 0, 0, 0, 9, 0xFF, 0xFF}, jpeg})});
    }
}

}  // namespace
