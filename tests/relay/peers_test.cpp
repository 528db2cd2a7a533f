#include <gtest/gtest.h>

#include "relay/loopback.h"

namespace {

using loopback::Call;
using loopback::Listener;
using namespace std::chrono_literals;
using sarnet::relay::PublishSettings;

TEST(Peers, CarrySoundPicturesAndCaptions) {
  Call call({.has_audio = true, .has_video = true, .fps = 30, .stereo = true, .captions = true});
  call.start();
  ASSERT_TRUE(call.connected()) << call.failure();
  Listener& listener = call.listener();
  call.feed([&] { return listener.wait([](const Listener& l) { return l.blocks >= 300; }, 0ms); },
            20s);
  EXPECT_GE(listener.frames.size(), 60U);
  EXPECT_EQ(listener.channels, 2);
  call.publisher().on_caption("héllo", false);
  EXPECT_TRUE(listener.wait([](const Listener& l) { return !l.captions.empty(); }));
  call.stop();
}

}  // namespace
