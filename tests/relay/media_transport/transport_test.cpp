#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "relay/media/sdp/negotiation.h"
#include "relay/media/transport/media_transport.h"
#include "relay/media_transport/wire.h"
#include "relay/peer/services.h"
#include "waiting.h"

namespace sarnet::relay {
namespace {

using wire::Packet;
using Clock = std::chrono::steady_clock;

Packet rtp(std::uint16_t sequence, std::uint32_t ssrc, std::size_t size = 1000) {
  Packet packet(size, static_cast<std::uint8_t>(sequence));
  packet[0] = 0x80;
  packet[1] = 96;
  packet[2] = static_cast<std::uint8_t>(sequence >> 8);
  packet[3] = static_cast<std::uint8_t>(sequence);
  for (int i = 0; i < 4; ++i) packet[8 + i] = static_cast<std::uint8_t>(ssrc >> (24 - 8 * i));
  return packet;
}

const Packet kReport{0x80, 201, 0, 1, 0, 0, 0, 9};

// One end of a call, which remembers what it is told.
class End : public TransportObserver {
 public:
  void on_local_candidate(const std::string& candidate) override {
    candidates.push_back(candidate);
    if (other != nullptr && other->transport) {
      other->transport->add_remote_candidate(
          cable != nullptr && !candidate.empty() ? cable->replace(number, candidate) : candidate);
    }
  }
  void on_transport_connected() override { ++connected; }
  void on_transport_interrupted() override { ++interruptions; }
  void on_transport_failed(const std::string& reason) override { failures.push_back(reason); }
  void on_rtp(std::span<const std::uint8_t> packet) override {
    media.emplace_back(packet.begin(), packet.end());
    if (on_media) on_media();
  }
  void on_rtcp(std::span<const std::uint8_t> packet) override {
    reports.emplace_back(packet.begin(), packet.end());
  }
  void on_text(std::string_view text) override { texts.emplace_back(text); }

  int number = 0;
  End* other = nullptr;
  wire::Wire* cable = nullptr;
  std::shared_ptr<MediaTransport> transport;
  std::vector<std::string> candidates;
  int connected = 0;
  int interruptions = 0;
  std::vector<std::string> failures;
  std::vector<Packet> media;
  std::vector<Packet> reports;
  std::vector<std::string> texts;
  std::function<void()> on_media;
};

// Both ends of a call, on a loop that is run by whoever waits for something.
class Call {
 public:
  Call() {
    static std::once_flag lent;
    std::call_once(lent, [] {
      set_services({.start_thread = nullptr,
                    .log_enabled = [](LogLevel level) { return level <= LogLevel::kWarn; },
                    .write_log =
                        [](LogLevel, const std::string& text) {
                          std::fprintf(stderr, "%s\n", text.c_str());
                        }});
    });
    g_main_context_push_thread_default(loop->context());
    for (int i = 0; i < 2; ++i) {
      ends[i].number = i;
      ends[i].other = &ends[1 - i];
    }
  }
  ~Call() {
    for (End& end : ends) end.transport.reset();
    while (g_main_context_iteration(loop->context(), FALSE) != FALSE) {
    }
    g_main_context_pop_thread_default(loop->context());
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // The offering end is the first. `edit` may change what it is told of the other.
  void start(const std::function<void(sdp::Description&)>& edit = nullptr) {
    for (End& end : ends) {
      std::string error;
      const auto identity = DtlsIdentity::create(error);
      if (!identity) throw std::runtime_error(error);
      end.transport = MediaTransport::create({.loop = loop,
                                              .identity = identity,
                                              .offers = end.number == 0,
                                              .loopback = true,
                                              .ice_servers = {},
                                              .channel_label = "captions"},
                                             end, error);
      if (!end.transport) throw std::runtime_error(error);
    }
    const sdp::Description offer =
        sdp::make_offer({.data = true, .audio_ssrc = 1, .video_ssrc = 2, .cname = "test"},
                        ends[0].transport->local_info());
    ends[1].transport->set_remote(offer, offer.transport.setup == sdp::Setup::kPassive);
    sdp::Description answer = sdp::make_answer(offer, ends[1].transport->local_info());
    if (edit) edit(answer);
    ends[0].transport->set_remote(answer, answer.transport.setup == sdp::Setup::kPassive);
    for (End& end : ends) end.transport->gather();
  }

  bool run_until(const std::function<bool()>& condition,
                 std::chrono::milliseconds limit = kDeadline) {
    const auto deadline = Clock::now() + limit;
    MainLoop::Timer waker(
        *loop, std::chrono::milliseconds(10), [] {}, true);
    while (!condition()) {
      if (Clock::now() > deadline) return false;
      g_main_context_iteration(loop->context(), TRUE);
    }
    return true;
  }
  void run_for(std::chrono::milliseconds time) {
    run_until([] { return false; }, time);
  }
  bool both_connected() {
    return run_until([this] { return ends[0].connected > 0 && ends[1].connected > 0; });
  }

  std::shared_ptr<MainLoop> loop = std::make_shared<MainLoop>();
  End ends[2];
};

TEST(IceEndpoints, AreReadInTheirParts) {
  struct Row {
    const char* text;
    const char* parts;  // user, password, host, port, how; empty: not understood
  };
  const std::vector<Row> rows{
      {"stun:stun.example.org", "|||stun.example.org|3478|udp"},
      {"stun:[2001:db8::1]:99", "|||2001:db8::1|99|udp"},
      {"turn:anna:pa@s:s%25@10.0.0.1:99?transport=tcp", "relay|anna|pa@s:s%|10.0.0.1|99|tcp"},
      {"turn:an%3Ana:secret@turn.example.org", "relay|an:na|secret|turn.example.org|3478|udp"},
      {"turn:anna:secret@turn.example.org?transport=tls", ""},
      {"turn:anna@turn.example.org", ""},
      {"turn:turn.example.org", ""},
      {"turn:anna:secret@", ""},
      {"stun:anna:secret@stun.example.org", ""},
      {"stun:", ""},
      {"http://example.org", ""},
      {"turns:anna:secret@turn.example.org", ""},
      {"stun:stun.example.org:0", ""},
      {"stun:stun.example.org:65536", ""},
      {"stun:[2001:db8::1", ""},
      {"", ""}};
  for (const Row& row : rows) {
    std::string parts;
    if (const auto found = parse_ice_endpoint(row.text)) {
      parts = std::string(found->is_relay ? "relay" : "") + "|" + found->user + "|" +
              found->password + "|" + found->host + "|" + std::to_string(found->port) + "|" +
              (found->over_tcp ? "tcp" : "udp");
    }
    EXPECT_EQ(parts, row.parts) << row.text;
  }
}

TEST(Transport, CarriesMediaReportsAndText) {
  Call call;
  call.start();
  EXPECT_FALSE(call.ends[0].transport->send_rtp(rtp(1, 7)));
  EXPECT_FALSE(call.ends[0].transport->send_text("too early"));
  ASSERT_TRUE(call.both_connected());
  const std::vector<std::string> texts{"plain", "", std::string(sdp::kMaxText, 'x'), "last"};
  for (End& from : call.ends) {
    End& to = *from.other;
    ASSERT_TRUE(call.run_until([&] { return from.transport->send_text("first"); }));
    EXPECT_FALSE(from.transport->send_text(std::string(sdp::kMaxText + 1, 'x')));
    EXPECT_FALSE(from.transport->send_rtp(Packet(11, 0x80)));
    EXPECT_FALSE(from.transport->send_rtp(Packet(SrtpPair::kMaxPacket + 1, 0x80)));
    for (std::uint16_t i = 0; i < 20; ++i) EXPECT_TRUE(from.transport->send_rtp(rtp(i, i % 3 + 1)));
    EXPECT_TRUE(from.transport->send_rtcp(kReport));
    for (const std::string& text : texts) EXPECT_TRUE(from.transport->send_text(text));
    ASSERT_TRUE(call.run_until([&] {
      return to.media.size() == 20 && to.reports.size() == 1 && to.texts.size() == 5;
    })) << to.media.size()
        << " " << to.reports.size() << " " << to.texts.size();
    for (std::uint16_t i = 0; i < 20; ++i) EXPECT_EQ(to.media[i], rtp(i, i % 3 + 1));
    EXPECT_EQ(to.reports.front(), kReport);
    EXPECT_EQ(to.texts[0], "first");
    EXPECT_EQ(std::vector(to.texts.begin() + 1, to.texts.end()), texts);
    EXPECT_EQ(to.connected, 1);
    EXPECT_TRUE(to.failures.empty());
    EXPECT_TRUE(call.run_until([&] { return to.candidates.back().empty(); }));
  }
}

TEST(Transport, TakesNoOtherCertificate) {
  Call call;
  call.start([](sdp::Description& answer) { answer.transport.fingerprint.hash[31] ^= 1; });
  ASSERT_TRUE(call.run_until([&] { return !call.ends[0].failures.empty(); }));
  EXPECT_EQ(call.ends[0].failures.front(),
            "DTLS: the certificate is not the one that was announced");
  ASSERT_TRUE(call.run_until([&] { return !call.ends[1].failures.empty(); }));
  EXPECT_TRUE(call.ends[1].failures.front().starts_with("DTLS: the handshake failed"))
      << call.ends[1].failures.front();
  EXPECT_EQ(call.ends[0].connected + call.ends[1].connected, 0);
}

TEST(Transport, GivesOnOnlyWhatTheOtherSideSent) {
  Call call;
  wire::Wire cable(*call.loop);
  for (End& end : call.ends) end.cable = &cable;
  call.start();
  ASSERT_TRUE(call.both_connected());
  int count = 0;
  cable.treat = [&](const Packet& packet) -> std::vector<Packet> {
    if ((packet[0] & 0xC0) != 0x80) return {packet};
    Packet forged = packet;
    forged[20] ^= 1;
    Packet stump(packet.begin(), packet.begin() + 13);
    if (++count % 4 == 0) return {};
    return {forged, stump, packet, packet};
  };
  for (std::uint16_t i = 0; i < 100; ++i) {
    call.ends[0].transport->send_rtp(rtp(i, 5));
    ASSERT_TRUE(call.run_until([&] { return count == i + 1; }));
  }
  // A break: nothing at all gets through until the other side sent much in vain.
  cable.treat = [&](const Packet&) -> std::vector<Packet> { return {}; };
  for (std::uint16_t i = 100; i < 150; ++i) call.ends[0].transport->send_rtp(rtp(i, 5));
  call.run_for(std::chrono::milliseconds(300));
  cable.treat = nullptr;
  // More streams than anyone has: those that are many are left out.
  for (std::uint32_t i = 0; i < 300; ++i) {
    call.ends[0].transport->send_rtp(rtp(1, 1000 + i));
    if (i % 20 == 0) call.run_for(std::chrono::milliseconds(1));
  }
  call.ends[0].transport->send_rtp(rtp(200, 5));
  ASSERT_TRUE(call.run_until([&] { return call.ends[1].media.back() == rtp(200, 5); }));
  EXPECT_EQ(call.ends[1].media.size(), 75U + 127U + 1U);
  EXPECT_TRUE(call.ends[0].failures.empty() && call.ends[1].failures.empty());
}

TEST(Transport, BeginsIceAnewWhenTheOtherSideDoes) {
  Call call;
  call.start();
  ASSERT_TRUE(call.both_connected());
  ASSERT_TRUE(call.run_until([&] { return call.ends[0].candidates.back().empty(); }));
  const sdp::TransportInfo before = call.ends[0].transport->local_info();
  const std::size_t told = call.ends[0].candidates.size();
  sdp::Description renewed;
  renewed.transport = call.ends[1].transport->local_info();
  renewed.transport.ufrag = "anew";
  call.ends[0].transport->set_remote(renewed, false);
  EXPECT_NE(call.ends[0].transport->local_info().ufrag, before.ufrag);
  EXPECT_EQ(call.ends[0].transport->local_info().fingerprint, before.fingerprint);
  ASSERT_TRUE(call.run_until([&] { return call.ends[0].candidates.size() == 2 * told; }));
  renewed.transport.fingerprint.hash[0] ^= 1;
  call.ends[0].transport->set_remote(renewed, false);
  ASSERT_TRUE(call.run_until([&] { return !call.ends[0].failures.empty(); }));
  EXPECT_EQ(call.ends[0].failures.front(), "DTLS: the other side changed its certificate");
}

TEST(Transport, MayBeLetGoFromInsideAPacket) {
  Call call;
  call.start();
  ASSERT_TRUE(call.both_connected());
  call.ends[1].on_media = [&] { call.ends[1].transport.reset(); };
  for (std::uint16_t i = 0; i < 5; ++i) call.ends[0].transport->send_rtp(rtp(i, 5));
  ASSERT_TRUE(call.run_until([&] { return call.ends[1].transport == nullptr; }));
  EXPECT_EQ(call.ends[1].media.size(), 1U);
}

// Sessions share the stack of the data channels and run its timers for each other.
TEST(Transport, CarriesTextOfSessionsSideBySide) {
  constexpr std::size_t kTexts = 300;
  std::vector<std::thread> sessions;
  for (int i = 0; i < 3; ++i) {
    sessions.emplace_back([i] {
      for (int round = 0; round < 3; ++round) {
        Call call;
        call.start();
        ASSERT_TRUE(call.both_connected());
        for (End& end : call.ends) {
          ASSERT_TRUE(call.run_until([&] { return end.transport->send_text("first"); }));
        }
        for (std::size_t at = 1; at < kTexts; ++at) {
          const std::string text = std::to_string(i) + ":" + std::to_string(at);
          for (End& end : call.ends) {
            ASSERT_TRUE(call.run_until([&] { return end.transport->send_text(text); }));
          }
        }
        for (End& end : call.ends) {
          ASSERT_TRUE(call.run_until([&] { return end.texts.size() == kTexts; }));
          EXPECT_EQ(end.texts.back(), std::to_string(i) + ":" + std::to_string(kTexts - 1));
        }
      }
    });
  }
  for (std::thread& session : sessions) session.join();
}

std::size_t entries(const char* folder) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder),
                                                std::filesystem::directory_iterator()));
}

long resident_kilobytes() {
  long pages = 0;
  long resident = 0;
  if (std::FILE* file = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(file, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(file);
  }
  return resident * 4;
}

TEST(Transport, LeavesNothingBehindAtAnyMoment) {
  Call call;
  std::mt19937 random(5);  // NOLINT: the same moments each time
  std::size_t files = 0;
  std::size_t threads = 0;
  [[maybe_unused]] long memory = 0;
  for (int round = 0; round < 200; ++round) {
    call.start();
    if (round % 10 == 0) {
      for (End& end : call.ends) end.connected = 0;
      ASSERT_TRUE(call.both_connected());
    } else {
      // From before the first packet to behind the handshake.
      call.run_for(std::chrono::milliseconds(random() % 80));
    }
    for (End& end : call.ends) {
      end.transport.reset();
      end.candidates.clear();
    }
    if (round == 50) {
      files = entries("/proc/self/fd");
      threads = entries("/proc/self/task");
      memory = resident_kilobytes();
    }
  }
  EXPECT_LE(entries("/proc/self/fd"), files);
  EXPECT_LE(entries("/proc/self/task"), threads);
#ifndef __SANITIZE_ADDRESS__  // keeps what was freed
  EXPECT_LT(resident_kilobytes() - memory, 8192);
#endif
}

}  // namespace
}  // namespace sarnet::relay
