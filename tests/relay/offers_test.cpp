#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "relay/media/sdp/negotiation.h"
#include "relay/peer/receiving_peer.h"

namespace sarnet::relay {
namespace {

class Nobody : public MediaSink {
 public:
  void on_audio(const AudioFormat&, std::span<const std::int16_t>) override {}
  void on_picture(const PictureRef&) override {}
  void on_caption(std::string_view, bool) override {}
};

class Told : public PeerObserver {
 public:
  void on_local_description(const std::string& type, const std::string& sdp) override {
    EXPECT_EQ(type, "answer");
    answers.push_back(sdp);
  }
  void on_local_candidate(unsigned, const std::string&) override {}
  void on_peer_connected() override {}
  void on_peer_interrupted() override {}
  void on_peer_failed(const std::string& reason) override { failures.push_back(reason); }

  std::vector<std::string> answers;
  std::vector<std::string> failures;
};

sdp::Description whole_offer() {
  sdp::TransportInfo own;
  own.ufrag = "abcd";
  own.pwd = std::string(24, 'a');
  own.fingerprint = {"sha-256", std::vector<std::uint8_t>(32, 0xAB)};
  return sdp::make_offer({.data = true, .audio_ssrc = 1, .video_ssrc = 2, .cname = "test"}, own);
}

// A peer that receives, on a loop that this thread runs, after these offers in one go.
void offer(const std::vector<sdp::Description>& offers, Told& told) {
  const auto loop = std::make_shared<MainLoop>();
  loop->post([&] {
    std::string error;
    const auto peer = ReceivingPeer::create(
        {.loop = loop, .loopback = true, .ice_servers = {}, .identity = nullptr},
        std::make_shared<Nobody>(), told, error);
    ASSERT_NE(peer, nullptr) << error;
    for (const auto& each : offers) peer->set_remote_offer(sdp::write_description(each, 1, 1));
    loop->post([loop, peer] {
      peer->stop();
      loop->quit();
    });
  });
  loop->run();
}

TEST(LaterOffers, ThatContradictTheLastAreRefusedByName) {
  struct Row {
    std::function<void(std::vector<sdp::Section>&)> change;
    const char* fault;  // empty: none
  };
  const std::vector<Row> rows{
      {[](auto&) {}, ""},
      {[](auto& sections) { sections.back().accepted = false; }, ""},
      {[](auto& sections) { std::swap(sections[0], sections[1]); },
       "section 0 was audio \"audio0\" and is now video \"video1\""},
      {[](auto& sections) { sections.pop_back(); }, "sections of the last one are missing"},
      {[](auto& sections) { sections[1].mid = "other"; },
       "section 1 was video \"video1\" and is now video \"other\""}};
  for (const Row& row : rows) {
    sdp::Description next = whole_offer();
    row.change(next.sections);
    Told told;
    offer({whole_offer(), next}, told);
    const std::string fault = row.fault;
    const std::vector<std::string> refused{"the server's offer cannot be used: " + fault};
    EXPECT_EQ(told.answers.size(), fault.empty() ? 2U : 1U) << fault;
    EXPECT_EQ(told.failures, fault.empty() ? std::vector<std::string>() : refused);
  }
}

TEST(LaterOffers, ThatComeBeforeTheLastIsAnsweredAreAnsweredInTurn) {
  sdp::Description silent = whole_offer();
  silent.sections[0].direction = sdp::Direction::kInactive;
  Told told;
  offer({whole_offer(), silent, whole_offer()}, told);
  EXPECT_TRUE(told.failures.empty());
  ASSERT_EQ(told.answers.size(), 3U);
  for (std::size_t i = 0; i < 3; ++i) {
    const std::string version = " " + std::to_string(i + 1) + " IN ";
    EXPECT_NE(told.answers[i].find(version), std::string::npos) << told.answers[i];
    EXPECT_EQ(told.answers[i].find("a=inactive") != std::string::npos, i == 1) << told.answers[i];
  }
}

}  // namespace
}  // namespace sarnet::relay
