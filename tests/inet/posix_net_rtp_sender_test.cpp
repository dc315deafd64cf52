// The legacy RTP sender: exact bytes, and what GStreamer makes of them. That other systems have the same bytes, the
// replay program shows (fuzz/rtp_pack_fuzz.cpp).
#include "support/log_keeper.h"
#include "support/program.h"

#include "core/owned.h"
#include "core/text.h"
#include "inet/net_rtp_sender.h"
#include "inet/rtp_owner.h"

namespace {

using namespace std::string_literals;

struct handler : net::rtp::IRtp {
    void on_rtp_event(net::rtp::Rtp* rtp, net::rtp::rtp_event_e event) noexcept override { call(*rtp, event); }
    std::function<void(const net::rtp::Rtp&, net::rtp::rtp_event_e)> call;
};

std::string hex(buffer_t of) { return core::owned_text(core_strhex(of.data, of.size, CORE_HERE)).get(); }

// Times as in RtpReport.AndPacketsHaveTheBytesOfRfc3550OnEitherClock; 2 s later 180000 ticks more. The second handler
// closes what the first has opened.
TEST(LegacyRtp, SendsTheseBytesToEachHandlerInTurn) {
    const bytes code{0, 0, 1}, aud{9, 1}, sei{6, 1}, sps{0x67, 1}, pps{0x68, 2},
        slice = join({{0x65}, noise(1385), {0xB9}});
    const struct {
        uint32_t fcc;
        bytes frame;
        uint64_t after;
        std::string sent, lines;
    } cases[] = {
        {av::fcc("h264"), join({code, aud, code, slice, code, sei, code, sps, code, pps}), 0,
         "(80c8000601020304da0056920ac08312000000000000000100000000+) (80e10001438a46e401020304+6701) "
         "(80e10002438a46e401020304+6802) (80610003438a46e4010203047c85+1385) (80e10004438a46e4010203047c45+b9) ",
         "rtp:7: 16909060: 2015-11-25 15:47:30.042 rtcp 3657455250.180388626 rtp:0 count:1 bytes:0 "
         "rtp:7: 16909060: 2015-11-25 15:47:30.042 rtp:1133135588 count:5 bytes:1442 "},
        {av::fcc_jpeg, slice, 1999999, "", "rtp:7: 16909060: unknown fcc:JPEG "},
        {av::fcc_h264, {}, 1999999, "", ""},
        {av::fcc_h264, slice, 2000000, "(80c8000601020304da0056940ac0831216e5ae0300000005000005a2+) ",
         "rtp:7: 16909060: 2015-11-25 15:47:32.042 rtcp 3657455252.180388626 rtp:384151043 count:5 bytes:1442 "},
        {av::fcc_h264, join({code, {0x41}}), 3999999, "(80e10005438fc52301020304+41) ",
         "rtp:7: 16909060: 2015-11-25 15:47:34.041 rtp:1133495587 count:6 bytes:1455 "},
    };
    std::string sent;
    handler first, second;
    first.call = [&](const net::rtp::Rtp& rtp, int event) {
        EXPECT_EQ(event, rtp.payload.data ? 0 : 1);
        const uint32_t size = rtp.payload.size;
        sent += '(' + hex(rtp.header) + '+' + (size > 9 ? std::to_string(size) : size ? hex(rtp.payload) : "");
    };
    second.call = [&](const net::rtp::Rtp&, int) { sent += ") "; };
    net::rtp::Rtp* const sender = net::rtp::Rtp::create(CORE_HERE);
    sender->id = 7;
    sender->ssrc = 0x01020304;
    for (handler* each : {&first, static_cast<handler*>(nullptr), &second})
        sender->set_handler(each);
    for (const auto& [fcc, frame, after, packets, lines] : cases) {
        const net::rtp::Rtp copy(*sender);  // goes on where the other is
        *sender = copy;
        bytes own = frame;
        const test::log_keeper log("rtp");
        sender->pack(fcc, {own.data(), static_cast<uint32_t>(own.size())}, some_time + after);
        EXPECT_EQ(std::exchange(sent, {}), packets);
        EXPECT_EQ(log.lines, lines);
    }
    delete sender;
}

TEST(LegacyRtp, GivesAReceiverEveryPicture) {
    const test::scratch dir;
    const std::string source = test::run(
        "ffmpeg -v error -f lavfi -i testsrc=size=640x360 -frames:v 50 -c:v libx264 -pix_fmt yuv420p -x264-params "
        "aud=1 -f h264 -");
    std::string stream;  // packets, each behind its length (RFC 4571)
    handler owner;
    owner.call = [&](const net::rtp::Rtp& rtp, int event) {
        if (event == net::rtp::event_rtcp) return;
        const uint32_t size = rtp.header.size + rtp.payload.size;
        stream += {static_cast<char>(size >> 8), static_cast<char>(size)};
        for (const buffer_t& part : {rtp.header, rtp.payload})
            stream.append(reinterpret_cast<const char*>(part.data), part.size);
    };
    net::rtp::Rtp sender(CORE_HERE);
    sender.set_handler(&owner);
    for (size_t at = 0, next = 0; at != source.npos; at = next) {
        next = source.find("\0\0\0\1\x09"s, at + 1);
        std::string unit = source.substr(at, next - at);
        sender.pack(av::fcc_h264, {reinterpret_cast<uint8_t*>(unit.data()), static_cast<uint32_t>(unit.size())},
                    sender.time + 40000);
    }
    test::write_file(dir / "sent.h264", test::bytes_of(source));
    test::write_file(dir / "packets", test::bytes_of(stream));
    test::run("gst-launch-1.0 -q filesrc location=" + dir / "packets" +
              " ! application/x-rtp-stream,media=video,clock-rate=90000,encoding-name=H264 ! rtpstreamdepay "
              "! rtph264depay ! video/x-h264,stream-format=byte-stream ! filesink location=" +
              dir / "taken.h264");
    const auto pictures = [&](const char* file) {
        return test::run("ffmpeg -v error -xerror -i " + dir / file + " -fps_mode passthrough -f framemd5 -");
    };
    EXPECT_EQ(pictures("taken.h264"), pictures("sent.h264"));
}

}  // namespace
