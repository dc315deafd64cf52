#include "inet/rtp_capture.h"

#include <algorithm>
#include <memory>

namespace {

constexpr uint64_t some_time = 1448466450042000;

bytes segment(uint8_t marker, const bytes& body) {
    const size_t length = body.size() + 2;
    bytes out{0xFF, marker, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
    append(out, body);
    return out;
}

bytes table(uint8_t id, uint8_t value) {
    bytes out(65, value);
    out[0] = id;
    return out;
}

bytes sof0(uint32_t width, uint32_t height, uint8_t luma, uint8_t chroma) {
    return segment(0xC0, {8, uint8_t(height >> 8), uint8_t(height), uint8_t(width >> 8), uint8_t(width), 3, 1, luma, 0,
                          2, chroma, 1, 3, 0x11, 1});
}

bytes sos() { return segment(0xDA, {3, 1, 0, 2, 0x11, 3, 0x11, 0, 63, 0}); }

bytes join(const std::vector<bytes>& parts) {
    bytes out;
    for (const bytes& part : parts)
        append(out, part);
    return out;
}

const bytes soi{0xFF, 0xD8}, eoi{0xFF, 0xD9};
// A thumbnail with tables of its own must not be taken for the picture's.
const bytes app1 = segment(0xE1, join({soi, segment(0xDB, table(0, 99)), segment(0xDD, {0, 77})}));

TEST(RtpJpeg, WritesTheHeadersOfRfc2435) {
    const bytes luma = segment(0xDB, table(0, 3)), chroma = segment(0xDB, table(1, 4));
    const bytes both = segment(0xDB, join({table(0, 3), table(1, 4)}));
    const bytes both_turned = segment(0xDB, join({table(1, 4), table(0, 3)}));
    const bytes dri = segment(0xDD, {0x01, 0x02});
    const bytes restart{0x01, 0x02, 0xFF, 0xFF};
    struct {
        const char* name;
        bytes headers;
        uint8_t type;
        bytes restart;
        int chroma;  // value of the second table sent, -1 for no tables
    } const cases[] = {
        {"4:2:0 with DRI", join({app1, both, dri, sof0(1280, 720, 0x22, 0x11)}), 65, restart, 4},
        {"4:2:2", join({luma, chroma, sof0(1280, 720, 0x21, 0x11)}), 0, {}, 4},
        {"tables turned round", join({both_turned, sof0(1280, 720, 0x22, 0x11)}), 1, {}, 4},
        {"no chroma table", join({luma, sof0(1280, 720, 0x22, 0x11)}), 1, {}, 3},
        {"no luma table", join({chroma, sof0(1280, 720, 0x22, 0x11)}), 1, {}, -1},
    };
    for (const auto& [name, headers, type, restart_header, second] : cases) {
        SCOPED_TRACE(name);
        capture owner(av::fcc_jpeg, 26);
        const bytes scan = noise(3900);
        owner.send(join({soi, headers, sos(), scan, eoi}), some_time);
        ASSERT_EQ(owner.marks(), "..M");

        bytes sent;
        for (const bytes& packet : owner.packets) {
            bytes expected{0, 0, 0, 0, type, 255, 160, 90};
            expected[2] = static_cast<uint8_t>(sent.size() >> 8);
            expected[3] = static_cast<uint8_t>(sent.size());
            append(expected, restart_header);
            if (sent.empty() && second >= 0) {
                append(expected, {0, 0, 0, 128});
                expected.insert(expected.end(), 64, 3);
                expected.insert(expected.end(), 64, static_cast<uint8_t>(second));
            }
            const auto payload = packet.begin() + 12;
            ASSERT_GE(packet.size(), 12 + expected.size());
            EXPECT_TRUE(std::equal(expected.begin(), expected.end(), payload)) << "at " << sent.size();
            sent.insert(sent.end(), payload + static_cast<ptrdiff_t>(expected.size()), packet.end());
            EXPECT_EQ(packet.size(), sent.size() == scan.size() ? packet.size() : 1400U);
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
        capture owner(av::fcc_jpeg, 26);
        bytes jpeg = join({soi, segment(0xDB, table(0, 3)), sof0(width, height, 0x22, 0x11), sos()});
        append(jpeg, noise(rest - jpeg.size()));
        append(jpeg, eoi);
        owner.send(jpeg, some_time);

        ASSERT_EQ(owner.packets.size(), sizes.size());
        bytes sent = soi;
        for (size_t i = 0; i < owner.packets.size(); ++i) {
            const bytes& packet = owner.packets[i];
            const bool last = i + 1 == sizes.size();
            EXPECT_EQ(packet.size(), sizes[i]);
            EXPECT_EQ(packet[0], 0x90);
            EXPECT_EQ(packet[1], last ? 0x80 | 26 : 26);
            EXPECT_EQ(be32(packet, 12), i ? 0xFFFFFFFFU : 0xFFD8FFD8U);
            EXPECT_EQ(be16(packet, 16) * 4, packet.size() - 18);
            sent.insert(sent.end(), packet.begin() + 18, packet.end());
        }
        // The padding is all that is added.
        ASSERT_GE(sent.size(), jpeg.size());
        EXPECT_EQ(bytes(sent.begin() + static_cast<ptrdiff_t>(jpeg.size()), sent.end()),
                  bytes(sent.size() - jpeg.size(), 0xFF));
        sent.resize(jpeg.size());
        EXPECT_EQ(sent, jpeg);
    }
}

TEST(RtpJpeg, ComplainsOfWhatRfc2435CannotCarryAndSendsOn) {
    struct {
        bytes header;
        const char* complaint;
    } const cases[] = {
        {segment(0xDB, bytes(129, 0x10)), "rtp pack jpeg: Only 8 bit quant table are supported. Aborted!"},
        {sof0(640, 480, 0x22, 0x21), "Only 1x1 chroma blocks are supported. Aborted!"},
        {segment(0xC0, {8, 1, 0, 1, 0, 1, 1, 0x11, 0}), "Only 1x1 chroma blocks are supported. Aborted!"},
    };
    for (const auto& [header, complaint] : cases) {
        capture owner(av::fcc_jpeg, 26);
        test::log_lines console("console");
        test::log_lines log("rtp");
        const bytes jpeg = join({soi, segment(0xDD, {0, 9}), header, sos(), noise(10)});
        owner.send(jpeg, some_time);
        EXPECT_EQ(console.take(), std::vector<std::string>{complaint});
        const auto lines = log.take();
        ASSERT_EQ(lines.size(), 3U);  // with the frame and the report
        EXPECT_EQ(lines[0], complaint);
        // What was scanned before stands in the header; the scan was never found, so all goes out.
        EXPECT_EQ(owner.payload().at(4), 64);
        EXPECT_EQ(owner.payload(12 + 12), jpeg);
    }
}

// Packets made of the first bytes of a file, in a block of exactly that size, whose end the address sanitizer watches.
size_t packets_of_cut(const bytes& jpeg, size_t size) {
    const std::unique_ptr<uint8_t[]> block(new uint8_t[size]);
    std::copy_n(jpeg.begin(), size, block.get());
    capture owner(av::fcc_jpeg, 26);
    av::frame_t frame = frame_of(av::fcc_jpeg, {}, some_time);
    frame.data = block.get();
    frame.size = static_cast<uint32_t>(size);
    owner.object.pack(&frame);
    return owner.packets.size();
}

TEST(RtpJpeg, ReadsNoByteBehindACutFile) {
    const bytes headers = join({soi, app1, segment(0xDB, join({table(0, 3), table(1, 4)})), segment(0xDD, {0, 9}),
                                sof0(640, 480, 0x22, 0x11), sos()});
    const bytes jpeg = join({headers, noise(20), eoi});
    const bytes grey = join({soi, segment(0xC0, {8, 1, 0, 1, 0, 1, 1, 0x11, 0})});
    for (size_t size = 0; size <= jpeg.size(); ++size) {
        EXPECT_EQ(packets_of_cut(jpeg, size) == 0, size == 0 || size == headers.size());
    }
    EXPECT_EQ(packets_of_cut(grey, grey.size()), 1U);
}

}  // namespace
