// The handshake of an RTMP server session, its digests and ciphers beside OpenSSL.
#include "rtmp_player.h"
#include "support/log_keeper.h"

#include "common/dh.h"
#include "common/digest.h"
#include "common/iobuffer.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

using inet::Rtmp;
using test::rtmp_player;

namespace {

using bytes = std::string;

constexpr size_t packet = 1536;
constexpr size_t key_size = DHWrapper::key_size;

const bytes client_key = bytes(30, 'c') + bytes(32, '\x81');
const bytes server_key = bytes(36, 's') + bytes(32, '\x92');

const uint8_t* raw(const bytes& text) { return reinterpret_cast<const uint8_t*>(text.data()); }

bytes hmac(const bytes& key, const bytes& data) {
    bytes out(32, '\0');
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), raw(data), data.size(),
         reinterpret_cast<uint8_t*>(out.data()), nullptr);
    return out;
}

/// The place of the digest, as the four bytes before its region say.
size_t digest_at(const bytes& of, int scheme) {
    const size_t sum = scheme == 0 ? 8 : 772;
    size_t total = 0;
    for (size_t i = 0; i < 4; ++i)
        total += static_cast<uint8_t>(of[sum + i]);
    return total % 728 + sum + 4;
}

size_t key_at(const bytes& of, int scheme) {
    const size_t sum = scheme == 0 ? 1532 : 768;
    size_t total = 0;
    for (size_t i = 0; i < 4; ++i)
        total += static_cast<uint8_t>(of[sum + i]);
    return total % 632 + (scheme == 0 ? 772 : 8);
}

bytes digest_of(const bytes& of, int scheme, const bytes& key) {
    return hmac(key, bytes(of).erase(digest_at(of, scheme), 32));
}

bytes random_packet() {
    bytes made(packet, '\0');
    common_random(made.data(), made.size());
    return made;
}

/// The first packet of a client that signs it; scheme -1 for one that does not.
bytes signed_packet(int scheme) {
    bytes made = random_packet();
    if (scheme >= 0) made.replace(digest_at(made, scheme), 32, digest_of(made, scheme, client_key.substr(0, 30)));
    return made;
}

void expect_signed(const bytes& answer, const bytes& client, int scheme) {
    ASSERT_EQ(answer.size(), 1 + 2 * packet);
    const bytes first = answer.substr(1, packet), second = answer.substr(1 + packet);
    EXPECT_EQ(first.substr(4, 4), bytes(4, '\0'));
    EXPECT_EQ(first.substr(digest_at(first, scheme), 32), digest_of(first, scheme, server_key.substr(0, 36)));
    const bytes key = hmac(server_key, client.substr(digest_at(client, scheme), 32));
    EXPECT_EQ(second.substr(packet - 32), hmac(key, second.substr(0, packet - 32)));
}

/// RC4 is set beside OpenSSL in posix_dh_test.cpp.
struct cipher_t {
    cipher_t(const bytes& shared, const bytes& public_key) : key(raw(hmac(shared, public_key)), 16) {
        key.skip(packet);
    }
    bytes apply(bytes data) {
        auto* at = reinterpret_cast<uint8_t*>(data.data());
        key.apply(at, at, data.size());
        return data;
    }
    Rc4 key;
};

class RtmpHandshake : public testing::Test {
protected:
    RtmpHandshake() { Rtmp::set_keys(raw(client_key), raw(server_key)); }
    ~RtmpHandshake() override { Rtmp::set_keys(nullptr, nullptr); }
};

}  // namespace

TEST_F(RtmpHandshake, SeeksDigestAndKeyWhereFourBytesSay) {
    bytes full(packet, '\0');
    for (const size_t at : {8, 768, 772, 1532})
        full.replace(at, 4, bytes(4, '\xFF'));
    const bytes zero(packet, '\0');
    EXPECT_EQ(Rtmp::GetDigestOffset(raw(full), 0), 304U);
    EXPECT_EQ(Rtmp::GetDigestOffset(raw(full), 1), 1020U % 728 + 776);
    EXPECT_EQ(Rtmp::GetDHOffset(raw(full), 0), 1020U % 632 + 772);
    EXPECT_EQ(Rtmp::GetDHOffset(raw(full), 1), 1020U % 632 + 8);
    EXPECT_EQ(Rtmp::GetDigestOffset(raw(zero), 0) + Rtmp::GetDHOffset(raw(zero), 1), 20U);
}

TEST_F(RtmpHandshake, SignsItsPacketsByTheSchemeOfTheClient) {
    const struct {
        bool validates;
        int client, answer;  // schemes; -1: not signed
    } cases[] = {{false, -1, 0}, {false, 1, 0}, {true, 0, 0}, {true, 1, 1}, {true, -1, -1}};
    for (const auto& [validates, client, answer] : cases) {
        const test::log_keeper log("rtmp");
        rtmp_player player;
        player.session->set_validate(validates);
        const bytes first = signed_packet(client);
        EXPECT_TRUE(player.say("\3" + first));
        EXPECT_TRUE(player.session->handshaken());
        const bytes sent = player.sent();
        EXPECT_EQ(sent[0], 3);
        EXPECT_EQ(log.lines.find("Client not validated") != bytes::npos, answer < 0);
        if (answer < 0)
            EXPECT_EQ(sent.size(), 1 + packet);
        else
            expect_signed(sent, first, answer);
        IOBuffer input;
        input.ReadFromString(first);
        EXPECT_EQ(player.session->ValidateClient(input), !validates || client >= 0);
        EXPECT_EQ(player.session->ValidateClientScheme(input, 1), client == 1);
    }
}

TEST_F(RtmpHandshake, CiphersWhatFollows) {
    for (const int scheme : {0, 1}) {
        rtmp_player player;
        player.session->set_validate(scheme == 1);
        DHWrapper keys;
        keys.Initialize();
        bytes ours(key_size, '\0'), shared(key_size, '\0'), first = random_packet();
        keys.CopyPublicKey(reinterpret_cast<uint8_t*>(ours.data()), key_size);
        first.replace(key_at(first, scheme), key_size, ours);
        first.replace(digest_at(first, scheme), 32, digest_of(first, scheme, client_key.substr(0, 30)));
        ASSERT_TRUE(player.say("\6" + first));
        const bytes answer = player.sent();
        EXPECT_EQ(answer[0], 6);
        expect_signed(answer, first, scheme);
        const bytes theirs = answer.substr(1 + key_at(answer.substr(1), scheme), key_size);
        ASSERT_TRUE(keys.CreateSharedKey(raw(theirs), key_size));
        keys.CopySharedKey(reinterpret_cast<uint8_t*>(shared.data()), key_size);
        cipher_t out(shared, theirs), in(shared, ours);

        EXPECT_TRUE(player.say(random_packet()));
        for (const bytes& said : {rtmp_player::command("connect", 1, 0), rtmp_player::command("createStream", 2, 0),
                                  rtmp_player::command("play", 3, 1)})
            EXPECT_TRUE(player.say(out.apply(said)));
        EXPECT_NE(in.apply(player.sent()).find("NetStream.Play.Start"), bytes::npos);
        EXPECT_TRUE(player.session->encrypted());
        EXPECT_TRUE(player.session->FeedAAC(raw("sound"), 5, 0));
        EXPECT_TRUE(in.apply(player.sent()).ends_with("\xAF\1sound"));
    }
}

TEST_F(RtmpHandshake, RefusesWhomItCannotTalkToInSecret) {
    const test::log_keeper log("rtmp");
    rtmp_player unsigned_client, degenerate;
    unsigned_client.session->set_validate(true);
    EXPECT_FALSE(unsigned_client.say("\6" + signed_packet(-1)));
    EXPECT_NE(log.lines.find("Unable to validate client"), bytes::npos);
    EXPECT_FALSE(degenerate.say("\6" + bytes(packet, '\0')));
    EXPECT_EQ(unsigned_client.sent() + degenerate.sent(), "");
}
