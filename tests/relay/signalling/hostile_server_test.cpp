// Servers that mean no good: whatever they send, a session ends ready or with an error, and leaves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <random>

#include "base/printable_text.h"
#include "relay/signalling/joined_session.h"
#include "relay/signalling/wire_limits.h"

namespace sarnet::relay {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

TEST(PrintableText, IsOneShortLineOfOneDirection) {
  struct Row {
    std::string text;
    std::string printable;
  };
  const std::string bad = "\uFFFD";
  for (const Row& row :
       {Row{"plain \u00E9 \U0001F600", "plain \u00E9 \U0001F600"},
        Row{"\x1b[31m\r\n\x7f", bad + "[31m" + bad + bad + bad},
        Row{"\u0085\u2028\u2029", bad + bad + bad},
        Row{"\u202Egnp\u2066\u200F\u061C", bad + "gnp" + bad + bad + bad},
        Row{"\xff\xc3(\xed\xa0\x80", bad + bad + "(" + bad + bad + bad},
        Row{std::string(21, 'a'), std::string(17, 'a') + "\u2026"},
        Row{std::string(16, 'a') + "\u00E9\u00E9\u00E9", std::string(16, 'a') + "\u2026"}}) {
    const bool is_cut = row.printable.ends_with("\u2026");
    EXPECT_EQ(printable_text(row.text, is_cut ? 20 : kPrintableLength), row.printable);
  }
}

json without_sdp(const char* kind) {
  return {{"janus", "event"}, {"plugindata", {{"data", {{"videoroom", kind}}}}}};
}

// Takes what becomes of a subscription.
class Subscriber : public SubscriptionSink {
 public:
  explicit Subscriber(std::shared_ptr<Story> story) : story_(std::move(story)) {}
  void subscribed() override { story_->log.add("subscribed"); }
  void subscription_ended() override { story_->log.add("subscription ended"); }
  void subscription_failed(int code, const std::string& text) override {
    story_->log.add("subscription failed " + std::to_string(code) + ' ' + text);
  }
  void on_audio(const AudioFormat&, std::span<const std::int16_t>) override {}
  void on_picture(const PictureRef&) override {}
  void on_caption(std::string_view, bool) override {}

 private:
  const std::shared_ptr<Story> story_;
};

TEST_F(Signalling, RefusesAnswersThatAreNone) {
  struct Row {
    const char* step;
    json answer;
    const char* event;
  };
  const char* const no_session =
      "failed 1006 The server's answer cannot be used while opening a session: it has no usable id";
  const char* const no_handle =
      "failed 1006 The server's answer cannot be used while opening the room service: it";
  const char* const no_room =
      "failed 1006 The server's answer cannot be used while entering the room: it";
  const auto with_id = [](json id) { return json{{"data", {{"id", std::move(id)}}}}; };
  for (const Row& row :
       {Row{"janus create", with_id("77"), no_session},
        Row{"janus create", json{{"data", json::array()}}, no_session},
        Row{"janus attach", json{{"janus", "success"}}, no_handle},
        Row{"janus attach", with_id("7"), no_handle},
        Row{"janus attach", with_id(json::array({7})), no_handle},
        Row{"janus attach", with_id(-7), no_handle}, Row{"janus attach", with_id(0), no_handle},
        Row{"janus attach", with_id(7.5), no_handle},
        Row{"janus attach", with_id(1e300), no_handle},
        Row{"janus attach", json{{"janus", "webrtcup"}, {"data", {{"id", 7}}}}, no_handle},
        Row{"join", json{{"raw", {{"janus", "event"}}}}, no_room},
        Row{"join", json{{"raw", {{"janus", "event"}, {"plugindata", {1, 2}}}}}, no_room},
        Row{"join", json{{"videoroom", 3}}, no_room},
        Row{"join", json{{"error_code", "426"}, {"error", "text"}},
            "failed 1006 The server refused entering the room: text (0)"},
        Row{"join", json{{"error_code", 1e300}, {"error", 5}},
            "failed 1006 The server refused entering the room:  (0)"},
        Row{"join", json{{"error_code", 499}, {"error", "\x1b[2J\n\u202E"}},
            "failed 1006 The server refused entering the room: \uFFFD[2J\uFFFD\uFFFD (499)"}}) {
    SCOPED_TRACE(std::string(row.step) + ' ' + row.answer.dump());
    ScriptedServer server;
    server.rule(row.step, [&](const json&) { return row.answer; });
    story_->log.clear();
    join(server.port());
    EXPECT_TRUE(story_->log.await(row.event, 1, 5s)) << testing::PrintToString(story_->log.lines());
    leave();
  }
}

TEST_F(Signalling, RefusesOffersThatAreNone) {
  struct Row {
    const char* step;
    json answer;
    const char* event;
  };
  const std::string many(kMaxDescription + 1, 'm');
  json too_long = without_sdp("attached");
  too_long["jsep"] = {{"type", "offer"}, {"sdp", many}};
  for (const Row& row :
       {Row{"janus attach", json{{"data", {{"id", "7"}}}}, "preparing for subscribing: it has no"},
        Row{"join", json{{"raw", without_sdp("attached")}}, "subscribing: it has no session descr"},
        Row{"join", json{{"raw", without_sdp("joined")}},
            "subscribing: it does not say 'attached'"},
        Row{"join", json{{"raw", too_long}}, "subscribing: its session description is too long"}}) {
    SCOPED_TRACE(std::string(row.step) + ' ' + row.event);
    server_.rule("janus attach", [](const json&) { return json{{"data", {{"id", 100}}}}; });
    server_.rule("join", [](const json&) {
      return json{{"videoroom", "joined"}, {"publishers", {{{"id", "a"}, {"display", "Anna"}}}}};
    });
    story_->log.clear();
    join(server_.port());
    ASSERT_TRUE(story_->log.await("stream+ a"));
    server_.rule(row.step, [&](const json&) { return row.answer; });
    engine_->subscribe("a", std::make_shared<Subscriber>(story_));
    ASSERT_TRUE(story_->log.await("subscription failed", 1, 5s));
    EXPECT_THAT(story_->log.lines().back(), HasSubstr(row.event));
    leave();
  }
}

TEST_F(Signalling, EndsWhenMoreComesThanCanBeTaken) {
  constexpr int kEndless = 4096;
  const std::string piece(65536, 'x');
  std::string signs;
  for (int i = 0; i < 1024; ++i) signs += ScriptedServer::frame(0x89, "");
  struct Row {
    const char* name;
    std::string bytes;
    const char* reason;
  };
  for (const Row& row :
       {Row{"fragments", ScriptedServer::frame(0x00, piece), "a message of more than 1 MiB"},
        Row{"messages", ScriptedServer::frame(0x81, piece), "more than can be taken"},
        Row{"signs of life", signs, "more than can be taken"},
        Row{"a frame", ScriptedServer::frame(0x81, std::string(2 * kMaxMessage, 'x')),
            "larger than"}}) {
    SCOPED_TRACE(row.name);
    ScriptedServer server;
    story_->log.clear();
    join(server.port());
    ASSERT_TRUE(story_->log.await("joined"));
    server.repeat(ScriptedServer::frame(0x01, piece), row.name == std::string("fragments") ? 1 : 0);
    EXPECT_LT(server.repeat(row.bytes, kEndless), kEndless) << "all of it was taken";
    EXPECT_TRUE(story_->log.await("failed 1022", 1, 5s));
    EXPECT_THAT(story_->log.lines().back(), HasSubstr(row.reason));
    leave();
  }
}

TEST_F(Signalling, GivesUpWhenTheConnectionBreaksAgainAndAgain) {
  server_.rule("listparticipants", [this](const json&) { return json{{"raw", "not an object"}}; });
  server_.rule("janus claim", [](const json&) { return json::object(); });
  join(server_.port());
  ASSERT_TRUE(story_->log.await("joined"));
  for (int i = 1; i <= kMaxBreaks; ++i) {
    server_.drop(false);
    ASSERT_TRUE(server_.asked.await("listparticipants", i));
  }
  server_.drop(false);
  ASSERT_TRUE(story_->log.await("failed 1022"));
  EXPECT_THAT(story_->log.lines().back(), HasSubstr("again and again"));
}

TEST(RelayRoom, HasAnEnd) {
  const auto story = std::make_shared<Story>();
  RelayRoom room("session", "me", *story);
  json all = json::array();
  for (std::size_t i = 0; i < kMaxMembers + 5; ++i) {
    all.push_back({{"id", std::to_string(i)}, {"display", ""}});
  }
  room.take({{"publishers", all}});
  room.take({{"joining", {{"id", std::string(kMaxId + 1, 'x')}}}});
  EXPECT_EQ(story->log.count("connection+"), static_cast<long>(kMaxMembers));
  room.take({{"leaving", "0"}});
  room.take({{"joining", {{"id", "late"}}}});
  EXPECT_EQ(story->log.count("connection+ late"), 1);
}

// Sends valid messages changed at random.
class Mutator {
 public:
  explicit Mutator(std::uint64_t seed) : random_(seed) {}

  std::vector<std::string> operator()(json message) {
    std::vector<std::string> texts;
    if (one_in(6)) texts.push_back(notice().dump());
    for (int changes = one_in(2) ? static_cast<int>(below(3)) : 0; changes > 0; --changes) {
      change(message);
    }
    std::string text = message.dump();
    if (one_in(20)) text.resize(below(text.size() + 1));
    if (one_in(30)) text = std::string(100'000, '[');
    if (one_in(30)) {
      std::swap(text, held_);  // comes later, if at all
    } else if (!held_.empty() && one_in(2)) {
      texts.push_back(std::exchange(held_, ""));
    }
    if (!text.empty()) texts.push_back(text);
    if (one_in(10)) texts.push_back(text);
    return texts;
  }

  std::uint64_t below(std::uint64_t end) { return random_() % end; }
  bool one_in(std::uint64_t n) { return below(n) == 0; }

 private:
  json oddity() {
    const json oddities[] = {nullptr,
                             true,
                             0,
                             -1,
                             1.5,
                             1e300,
                             "",
                             "\x1b[31m\n\u202E",
                             "a",
                             json::array(),
                             json::object(),
                             json::array({json::array({1})}),
                             std::numeric_limits<std::uint64_t>::max(),
                             std::string(10'000, 'z'),
                             json{{"id", 5}},
                             json::array({{{"id", "a"}}, 3, "b"})};
    return oddities[below(std::size(oddities))];
  }
  void change(json& value) {
    const bool goes_deeper = value.is_structured() && !value.empty() && !one_in(8);
    if (!goes_deeper) {
      value = oddity();
      return;
    }
    auto at = value.begin();
    std::advance(at, static_cast<std::ptrdiff_t>(below(value.size())));
    if (one_in(6)) {
      value.erase(at);
    } else {
      change(*at);
    }
  }
  json notice() {
    const json person{{"id", "a"}, {"display", R"({"data":"Anna","owner":"b"})"}};
    const json events[] = {{{"joining", person}},        {{"publishers", {person, person}}},
                           {{"leaving", "a"}},           {{"unpublished", "a"}},
                           {{"videoroom", "destroyed"}}, {{"leaving", "ok"}},
                           {{"kicked", "me"}},           {{"substream", 9}}};
    const char* const kinds[] = {"event",   "event",    "event",   "event",   "hangup",
                                 "trickle", "detached", "timeout", "webrtcup"};
    json message{{"janus", kinds[below(std::size(kinds))]},
                 {"sender", ScriptedServer::kHandle + below(2)},
                 {"candidate", {{"sdpMLineIndex", -1}, {"candidate", "candidate:x"}}},
                 {"plugindata", {{"data", events[below(std::size(events))]}}}};
    if (one_in(3)) change(message);
    return message;
  }

  std::mt19937_64 random_;
  std::string held_;
};

std::uint64_t number_from(const char* name, std::uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

// One session with a server of that seed; tells what was wrong.
std::string storm(std::uint64_t seed) {
  Mutator mutator(seed);  // used by the session's server to its end
  JoinedSession session;
  session.server_.rule("join", [](const json& request) {
    const json anna{{"id", "a"}, {"display", "Anna"}};
    if (text_of(member(request, "body"), "ptype") == "subscriber") {
      return json{{"raw", without_sdp("attached")}};
    }
    return json{{"videoroom", "joined"}, {"publishers", {anna}}, {"attendees", {anna}}};
  });
  session.server_.tamper([&](const json& message) { return mutator(message); });
  session.limits_.connect_limit = session.limits_.answer_limit = 200ms;
  session.limits_.keepalive = 50ms;
  session.limits_.reconnect_limit = 200ms;
  session.join(session.server_.port());
  Journal& log = session.story_->log;
  std::string wrong;
  if (!log.await_any({{"joined", 1}, {"failed", 1}, {"ended", 1}}))
    wrong = "neither ready nor an error";
  for (int i = 0; i < 2; ++i) {
    session.engine_->subscribe("a", std::make_shared<Subscriber>(session.story_));
  }
  // The end of the session is theirs as well.
  if (!log.await_any({{"subscription", 2}, {"failed", 1}, {"ended", 1}}))
    wrong = "a subscription neither stands nor fails";
  if (session.leave() > 2s) wrong = "leaving took long";
  for (const std::string& line : log.lines()) {
    const bool is_data = line.starts_with("connection") || line.starts_with("stream");
    if (!is_data && printable_text(line, line.size() + 1) != line) wrong = "not printable: " + line;
  }
  return wrong;
}

// TAVRIN_HUNT_SEED and TAVRIN_HUNT_SCALE have it begin elsewhere and last longer.
TEST(HostileServer, LeavesEverySessionReadyOrFailed) {
  const std::uint64_t first = number_from("TAVRIN_HUNT_SEED", 1);
  const std::uint64_t count = 200 * number_from("TAVRIN_HUNT_SCALE", 1);
  std::atomic<std::uint64_t> next{first};
  std::vector<std::thread> threads;
  for (int i = 0; i < 12; ++i) {
    threads.emplace_back([&] {
      for (std::uint64_t seed = next++; seed < first + count; seed = next++) {
        const std::string wrong = storm(seed);
        EXPECT_EQ(wrong, "") << "with TAVRIN_HUNT_SEED=" << seed;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace sarnet::relay
