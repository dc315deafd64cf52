// Phones of ours that call each other through our relay.
#include "media/sip.h"

#include "support/files.h"
#include "support/frames.h"
#include "support/sockets.h"

#include "avc/fcc.h"
#include "core/thread.h"
#include "core/time.h"
#include "media/station.h"

#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <string>

namespace {

using media::sip_event_t;
using media::sip_reason_t;

/// What a phone tells, and what comes of its calls.
struct phone {
    explicit phone(media::sip_settings_t wanted) {
        wanted.on_event = on_event;
        wanted.on_frame = on_frame;
        wanted.arg = this;
        service = media::sip_service(wanted);
        media::failure_t why;
        EXPECT_TRUE(station.add(service, &why) && station.start(&why)) << why.text;
    }
    static void on_event(void* arg, const sip_event_t& event) {
        auto& self = *static_cast<phone*>(arg);
        const std::lock_guard held(self.lock);
        self.story += std::to_string(event.what) + "/" + std::to_string(static_cast<int>(event.reason)) + " ";
        self.changed.notify_all();
    }
    static void on_frame(void* arg, uint32_t, const av::frame_t& frame) {
        auto& self = *static_cast<phone*>(arg);
        const std::lock_guard held(self.lock);
        (frame.fcc == av::fcc_h264 ? self.pictures : self.sound).append(frame.data, frame.data + frame.size);
        self.changed.notify_all();
    }
    template <class Is>
    bool until(Is is) {
        std::unique_lock held(lock);
        return changed.wait_for(held, std::chrono::seconds(30), [&] { return is(*this); });
    }
    bool tells(sip_event_t::what_t what, sip_reason_t why = sip_reason_t::none) {
        const std::string event = std::to_string(what) + "/" + std::to_string(static_cast<int>(why)) + " ";
        const bool told = until([&](const phone& self) { return self.story.find(event) != std::string::npos; });
        EXPECT_TRUE(told) << event << "of " << story;
        return told;
    }

    std::mutex lock;
    std::condition_variable changed;
    std::string story, pictures, sound;
    media::sip_service_t* service = nullptr;
    media::station station;  // the last one: its threads use what stands above
};

class SipPhones : public testing::Test {
protected:
    SipPhones() {
        port_ = test::free_port();
        EXPECT_TRUE(relay_.add(media::sip_relay_service({.port = port_, .users = "door,anna,boris"})) &&
                    relay_.start());
    }
    media::sip_settings_t as(const char* user) const {
        return {.user = user, .server = "127.0.0.1", .port = port_, .tcp = true};
    }
    uint16_t port_;
    media::station relay_;
};

TEST_F(SipPhones, PassStreamsOn) {
    media::stream* const live = media::stream::create("live", {}, CORE_HERE);
    media::stream* const taken = media::stream::create("taken", {}, CORE_HERE);
    const std::string past("\0\0\0\1\x67past\0\0\1\x68past\0\0\1\x65past", 25);
    const std::string present("\0\0\0\1\x67here\0\0\1\x68here\0\0\1\x65here", 25);
    const auto push = [&](uint32_t fcc, const std::string& bytes) {
        av::frame_t frame = test::borrowed(fcc, test::bytes_of(bytes), time_now());
        frame.key = 1;
        frame.rate = fcc == av::fcc_pcma ? 8000 : 0;
        EXPECT_EQ(live->push(frame), 1);
    };
    push(av::fcc_pcma, std::string(160, '\x2a'));
    push(av::fcc_h264, past);
    {
        media::sip_settings_t door_settings = as("door"), anna_settings = as("anna");
        door_settings.sends = live;
        anna_settings.takes = taken;
        phone door(door_settings);
        ASSERT_TRUE(door.tells(sip_event_t::registered));
        phone anna(anna_settings);
        const uint32_t call = anna.service->call("door");  // before it is registered
        ASSERT_TRUE(anna.tells(sip_event_t::answered) && door.tells(sip_event_t::answered));
        // The past goes out, then the present, which no other picture follows. Sound is converted: A-law 0xD5 is 8.
        ASSERT_TRUE(anna.until([&](const phone& self) { return self.pictures == past; }));
        push(av::fcc_pcma, std::string(400, '\xd5'));
        push(av::fcc_h264, present);
        EXPECT_TRUE(anna.until([&](const phone& self) { return self.pictures == past + present; }));
        EXPECT_TRUE(anna.until([&](const phone& self) { return self.sound == std::string(320, '\xfe'); }));
        EXPECT_EQ(taken->status().pushed, 4U);
        anna.service->hang_up(call);
        EXPECT_TRUE(door.tells(sip_event_t::ended, sip_reason_t::hung_up));
    }
    media::stream::drop(live);
    media::stream::drop(taken);
}

TEST_F(SipPhones, TellWhyACallEnds) {
    media::sip_settings_t deaf = as("door"), other = as("boris");
    deaf.silence = 1;
    phone door(deaf), anna(as("anna")), stranger(as("nobody"));
    ASSERT_TRUE(door.tells(sip_event_t::registered));
    EXPECT_TRUE(stranger.tells(sip_event_t::unregistered, sip_reason_t::refused));
    stranger.service->call("door");
    EXPECT_TRUE(stranger.tells(sip_event_t::ended, sip_reason_t::refused));
    anna.service->call("door");  // neither is sent anything
    EXPECT_TRUE(door.tells(sip_event_t::ended, sip_reason_t::silent));
    EXPECT_TRUE(anna.tells(sip_event_t::ended, sip_reason_t::hung_up));
    relay_.stop();
    EXPECT_TRUE(anna.tells(sip_event_t::unregistered, sip_reason_t::no_server));
    media::station second;
    EXPECT_TRUE(relay_.start());
    media::failure_t why;
    EXPECT_FALSE(second.add(media::sip_relay_service({.port = port_, .users = "x"})) && second.start(&why));
    EXPECT_STRNE(why.text, "");
    EXPECT_EQ(anna.story.find(std::to_string(sip_event_t::calling) + "/"), std::string::npos);
    other.answers = false;
    phone boris(other);
    ASSERT_TRUE(boris.tells(sip_event_t::registered));
    anna.service->call("boris");
    EXPECT_TRUE(anna.tells(sip_event_t::ended, sip_reason_t::busy));
}

}  // namespace
