// Joining, losing and leaving a room, against a server that says what the test has it say.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sarnet/sarnet.h>

#include "relay/room/relay_room.h"
#include "relay/room/relay_settings.h"
#include "relay/room/relay_subscription.h"
#include "relay/signalling/joined_session.h"

namespace sarnet::relay {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

json person(const std::string& id, const std::string& display) {
  return {{"id", id}, {"display", display}};
}

struct RoomCase {
  const char* name;
  std::vector<json> notices;
  std::vector<std::string> events;
};
void PrintTo(const RoomCase& each, std::ostream* out) { *out << each.name; }

class RoomNotices : public testing::TestWithParam<RoomCase> {};

TEST_P(RoomNotices, AreToldOnceAndInOrder) {
  const auto story = std::make_shared<Story>();
  RelayRoom room("session", "me", *story);
  for (const json& notice : GetParam().notices) {
    notice.is_array() ? room.resynchronise(notice) : room.take(notice);
  }
  EXPECT_EQ(story->log.lines(), GetParam().events);
}

const json kAnna = person("a", R"({"data":"Anna","joined":5,"stream":"camera"})");
const json kFurther = person("f", R"({"data":"Anna","stream":"screen","owner":"a"})");

INSTANTIATE_TEST_SUITE_P(
    All, RoomNotices,
    testing::Values(
        RoomCase{"doubled notices",
                 {{{"joining", kAnna}},
                  {{"joining", kAnna}},
                  {{"publishers", {kAnna}}},
                  {{"publishers", {kAnna}}},
                  {{"unpublished", "a"}},
                  {{"unpublished", "a"}},
                  {{"leaving", "a"}},
                  {{"leaving", "a"}}},
                 {"connection+ a Anna", "stream+ a of a camera", "stream- a", "connection- a"}},
        RoomCase{"a publisher that nobody announced, gone without a word",
                 {{{"publishers", {person("b", "Bob")}}}, {{"leaving", "b"}}},
                 {"connection+ b Bob", "stream+ b of b Bob", "stream- b", "connection- b"}},
        RoomCase{"ourselves, and our further stream",
                 {{{"attendees", {person("me", "{}")}}},
                  {{"publishers", {person("x", R"({"owner":"me"})")}}}},
                 {}},
        RoomCase{"a further stream, listed before its owner and ending with it",
                 {{{"attendees", {kFurther}}, {"publishers", {kFurther, kAnna}}},
                  {{"leaving", "a"}},
                  {{"leaving", "f"}}},
                 {"connection+ a Anna", "stream+ f of a screen", "stream+ a of a camera",
                  "stream- a", "stream- f", "connection- a"}},
        RoomCase{
            "a stream that comes back",
            {{{"publishers", {kAnna}}}, {{"unpublished", "a"}}, {{"publishers", {kAnna}}}},
            {"connection+ a Anna", "stream+ a of a camera", "stream- a", "stream+ a of a camera"}},
        RoomCase{"what changed while nobody told us",
                 {{{"publishers", {kAnna, person("b", "Bob")}}},
                  json::array({person("a", "{}"), json{{"id", "c"}, {"publisher", true}}})},
                 {"connection+ a Anna", "connection+ b Bob", "stream+ a of a camera",
                  "stream+ b of b Bob", "stream- b", "connection- b", "connection+ c", "stream- a",
                  "stream+ c of c "}},
        RoomCase{"nonsense",
                 {{{"publishers", 3}},
                  {{"joining", "a"}},
                  {{"leaving", {1}}},
                  {{"unpublished", 7}},
                  {{"publishers", {{{"id", 4}}}}}},
                 {}}));

TEST(Requests, AskForTheSmallestLayerThatIsNotTooSmall) {
  struct Row {
    int wish;
    LayerWidths seen;
    int layer;
  };
  for (const Row& row :
       {Row{320, {}, 0}, Row{641, {}, 2}, Row{0, {160}, 2}, Row{320, {160}, 1},
        Row{320, {0, 0, 640}, 1}, Row{160, {0, 0, 640}, 0}, Row{200, {160, 640}, 1},
        Row{900, {0, 640}, 2}, Row{5000, {320, 640, 1280}, 2}}) {
    SCOPED_TRACE(testing::PrintToString(row.seen) + std::to_string(row.wish));
    EXPECT_EQ(stream_preferences({.max_width = row.wish}, row.seen).size_layer, row.layer);
  }
}

TEST(Requests, TakeTheProgramsTokenApart) {
  const Credentials both = parse_credentials("all room pin=42");
  EXPECT_THAT((std::vector{both.request_token, both.room_token, both.pin}),
              ElementsAre("all", "room", "42"));
  EXPECT_EQ(parse_credentials("one").room_token, "one");
  HostAddress address;
  address.host = "::1";
  EXPECT_EQ(relay_settings(address, 443).url, "wss://[::1]:443/");
}

struct Refusal {
  const char* step;  // the request that is refused
  int error;         // 0: not answered
  const char* event;
};
void PrintTo(const Refusal& each, std::ostream* out) { *out << each.step << ' ' << each.error; }

class Refusals : public Signalling, public testing::WithParamInterface<Refusal> {};

TEST_P(Refusals, SayWhatHappenedAtWhichStep) {
  const Refusal& each = GetParam();
  if (std::string(each.step) == "create") server_.refuse("join", 426);
  if (each.error != 0) {
    server_.refuse(each.step, each.error);
  } else {
    server_.ignore(each.step);
    limits_.connect_limit = limits_.answer_limit = 1s;
  }
  join(server_.port());
  ASSERT_TRUE(story_->log.await(each.event)) << testing::PrintToString(story_->log.lines());
  EXPECT_EQ(story_->log.lines().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    All, Refusals,
    testing::Values(
        Refusal{"janus create", 403,
                "failed 1004 The server refused opening a session: not today (403)"},
        Refusal{"janus attach", 405, "failed 1004 The server refused opening the room service"},
        Refusal{"join", 433, "failed 1004 The server refused entering the room"},
        Refusal{"join", 429, "failed 1004"},
        Refusal{"create", 429, "failed 1004 The server refused"},
        Refusal{"join", 499, "failed 1006"},
        Refusal{"janus create", 0, "failed 1021 Cannot connect"},
        Refusal{"join", 0,
                "failed 1021 The server did not answer in time while entering the room"}));

TEST_F(Signalling, TellsWhyThereIsNoConnection) {
  join(1);
  ASSERT_TRUE(story_->log.await("failed 1006 Cannot connect to ws://127.0.0.1:1/"));
}

TEST_F(Signalling, MakesARoomThatIsNotThere) {
  server_.refuse("join", 426);
  server_.rule("create", [this](const json& request) {
    EXPECT_TRUE(member(request["body"], "notify_joining").get<bool>());
    server_.rule("join", [](const json&) {
      return json{{"videoroom", "joined"}, {"publishers", {kAnna}}};
    });
    return json{{"videoroom", "created"}};
  });
  join(server_.port());
  ASSERT_TRUE(story_->log.await("stream+"));
  EXPECT_THAT(story_->log.lines(),
              ElementsAre("joined", "connection+ a Anna", "stream+ a of a camera"));
}

TEST_F(Signalling, EndsWithTheRoom) {
  join(server_.port());
  ASSERT_TRUE(story_->log.await("joined"));
  server_.notice({{"videoroom", "destroyed"}, {"room", "room"}});
  ASSERT_TRUE(story_->log.await("ended"));
  server_.notice({{"videoroom", "event"}, {"joining", kAnna}});
  server_.drop(true);
  leave();
  EXPECT_THAT(story_->log.lines(), ElementsAre("joined", "ended"));
}

TEST_F(Signalling, ComesBackAfterAShortBreakAndAsksWhatItMissed) {
  server_.rule("join", [](const json&) {
    return json{{"videoroom", "joined"}, {"attendees", {kAnna}}};
  });
  server_.rule("listparticipants", [](const json&) {
    return json{{"videoroom", "participants"}, {"participants", {person("b", "Bob")}}};
  });
  join(server_.port());
  ASSERT_TRUE(story_->log.await("connection+ a"));
  server_.drop(true);
  server_.reopen();
  ASSERT_TRUE(story_->log.await("connection+ b"));
  EXPECT_THAT(story_->log.lines(),
              ElementsAre("joined", "connection+ a Anna", "connection- a", "connection+ b Bob"));
}

TEST_F(Signalling, GivesUpWhenTheBreakIsLong) {
  limits_.reconnect_limit = 300ms;
  join(server_.port());
  ASSERT_TRUE(story_->log.await("joined"));
  server_.drop(true);
  ASSERT_TRUE(story_->log.await("failed 1022 The connection to ws://127.0.0.1"));
  EXPECT_THAT(story_->log.lines().back(), HasSubstr("could not be resumed in time"));
}

TEST_F(Signalling, GivesUpSoonerWhenItIsRefused) {
  limits_.refusal_limit = 300ms;
  join(server_.port());
  ASSERT_TRUE(story_->log.await("joined"));
  server_.drop(true);
  ASSERT_TRUE(story_->log.await("failed 1022 The connection to ws://127.0.0.1"));
  EXPECT_THAT(story_->log.lines().back(), HasSubstr("the server refuses another"));
}

TEST_F(Signalling, GivesUpWhenTheServerForgotIt) {
  server_.refuse("janus claim", 458);
  join(server_.port());
  ASSERT_TRUE(story_->log.await("joined"));
  server_.drop(false);
  ASSERT_TRUE(story_->log.await("failed 1022"));
  EXPECT_THAT(story_->log.lines().back(), HasSubstr("does not know the session any more"));
}

TEST_F(Signalling, NoticesASilentServer) {
  limits_.keepalive = 100ms;
  join(server_.port());
  ASSERT_TRUE(story_->log.await("joined"));
  server_.ignore("janus keepalive");
  ASSERT_TRUE(server_.asked.await("janus claim")) << "a new connection";
  EXPECT_THAT(story_->log.lines(), ElementsAre("joined"));
}

TEST_F(Signalling, LeavesInTimeWhateverTheServerDoes) {
  join(server_.port());
  ASSERT_TRUE(story_->log.await("joined"));
  EXPECT_LT(leave(), 1s);

  server_.ignore("janus destroy");
  join(server_.port());
  ASSERT_TRUE(server_.asked.await("join", 2));
  EXPECT_LT(leave(), 2s) << "the farewell is not answered";

  server_.ignore("janus create");
  join(server_.port());
  ASSERT_TRUE(server_.asked.await("janus create", 3));
  EXPECT_LT(leave(), 1s) << "while joining";
  EXPECT_EQ(std::ranges::count_if(story_->log.lines(),
                                  [](const auto& event) { return event.starts_with("failed"); }),
            0)
      << "nothing is told after leaving";
}

}  // namespace
}  // namespace sarnet::relay
