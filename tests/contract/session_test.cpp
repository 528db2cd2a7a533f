#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "contract/harness.h"

namespace contract {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

TEST(Session, RaisesEventsInOrderAndAnswersTheDisconnection) {
  LibraryUse library;
  Participant program;
  std::string own_id;
  std::string own_session;
  std::int64_t joined_at = 0;
  program.on_connected = [&] {
    srn_connection* const own = srn_session_get_connection(program.handle);
    own_id = srn_connection_get_id(own);
    own_session = srn_connection_get_session_id(own);
    joined_at = srn_connection_get_creation_time(own);
    srn_connection_delete(own);
  };
  EXPECT_EQ(srn_session_get_connection(program.handle), nullptr);
  ASSERT_TRUE(program.join());
  ASSERT_TRUE(program.wait_for_stream());
  EXPECT_THAT(program.log.lines(),
              ElementsAre("connected", StartsWith("connection+"), StartsWith("stream+")));
  EXPECT_FALSE(own_id.empty());
  EXPECT_EQ(own_session, companions_place().session);
  const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  EXPECT_NEAR(static_cast<double>(joined_at), static_cast<double>(now), 60'000);

  EXPECT_EQ(srn_session_disconnect(program.handle), SRN_SUCCESS);
  ASSERT_TRUE(program.log.await("disconnected", 1, std::chrono::seconds(5)));
  EXPECT_EQ(srn_session_disconnect(program.handle), SRN_SESSION_NOT_CONNECTED);
  EXPECT_EQ(srn_session_get_connection(program.handle), nullptr);
  EXPECT_EQ(program.log.count("disconnected"), 1);
}

TEST(Session, ChoosesAnEngineByTheHostOrRefuses) {
  LibraryUse library;
  struct Row {
    const char* host;
    const char* event;  // the first one; null: refused at once
  };
  for (const Row& row :
       {Row{"relay.tavrin.localhost", "connected"}, Row{"embedded:", "connected"},
        Row{"embedded:/no/such/file", "error 1006"}, Row{"sfu.example.invalid", "error 1006"},
        Row{"api.sarnet.localhost:8989", "error 1006"}, Row{"wss://[::1]:8989/janus", "error 1006"},
        Row{"ws://127.0.0.1:1", "error 1006"}, Row{"ws://sfu.example.invalid", "error 1023"},
        Row{"", nullptr}, Row{"two words", nullptr}, Row{"https://sfu.example.invalid", nullptr},
        Row{"host:70000", nullptr}, Row{"host:", nullptr}, Row{"host/path", nullptr},
        Row{"wss://", nullptr}}) {
    SCOPED_TRACE(row.host);
    Participant program({row.host, "session", "token"});
    ASSERT_EQ(program.connect(), row.event != nullptr ? SRN_SUCCESS : 1011);
    if (row.event == nullptr) continue;
    ASSERT_TRUE(program.log.await(row.event)) << testing::PrintToString(program.log.lines());
    EXPECT_THAT(program.log.lines()[0], StartsWith(row.event));
  }
}

TEST(EmbeddedSession, EndsInOneErrorThatSaysWhatTheScenarioDoes) {
  LibraryUse library;
  struct Row {
    const char* json;
    const char* begin;
    const char* within = "";
  };
  for (const Row& row :
       {Row{R"({"token": "right"})", "error 1004"},
        Row{R"({"refuse": {"code": 1027, "text": "full"}})", "error 1027 full"},
        Row{R"({"events": [{"at_ms": 20, "kind": "error", "code": 1022, "text": "lost"}]})",
            "error 1022 lost"},
        Row{R"({"partcipants": []})", "error 1006", "partcipants"},
        Row{R"({"participants": [{"id": "a", "audio": {"file": "scenario.json"}}]})", "error 1006",
            "scenario.json"}}) {
    SCOPED_TRACE(row.json);
    ScenarioFile scenario(row.json);
    Participant program(scenario.place("wrong"));
    ASSERT_EQ(program.connect(), SRN_SUCCESS);
    ASSERT_TRUE(program.log.await("error"));
    EXPECT_THAT(program.log.lines().back(), AllOf(StartsWith(row.begin), HasSubstr(row.within)));
    EXPECT_EQ(srn_session_disconnect(program.handle), SRN_SESSION_NOT_CONNECTED);
  }
}

// Publishes, and subscribes to what comes.
struct Exchange {
  explicit Exchange(const Place& place) : program(place) {
    program.on_stream_received = [this](const srn_stream* stream) {
      receiver = std::make_unique<Receiver>(stream);
      srn_session_subscribe(program.handle, receiver->handle);
      srn_session_publish(program.handle, sender.handle);
    };
  }
  Participant program;
  std::unique_ptr<Receiver> receiver;
  Sender sender{{}};
};

TEST(EmbeddedSession, IsEndedByTheServerAfterAllThatItCarried) {
  LibraryUse library;
  ScenarioFile scenario(R"({
    "participants": [{"id": "peer", "leave_at_ms": 200, "audio": {"tone_hz": 500}}],
    "events": [{"at_ms": 300, "kind": "disconnect"}]})");
  Exchange exchange(scenario.place());
  auto& [program, receiver, sender] = exchange;
  ASSERT_TRUE(program.join());
  ASSERT_TRUE(program.log.await("disconnected"));
  EXPECT_THAT(program.log.lines(),
              ElementsAre("connected", "connection+ peer", "stream+ peer-stream",
                          "stream- peer-stream", "connection- peer", "disconnected"));
  EXPECT_THAT(receiver->log.lines(), ElementsAre("connected", "disconnected"));
  EXPECT_THAT(sender.log.lines(), ElementsAre("init", "settings", "start", StartsWith("created"),
                                              "destroy", "destroyed"));
  EXPECT_EQ(srn_session_publish(program.handle, sender.handle), SRN_SESSION_NOT_CONNECTED);
}

TEST(Session, DisconnectsWhileItIsStillConnecting) {
  LibraryUse library;
  Participant program(silent_place());
  EXPECT_EQ(srn_session_disconnect(program.handle), SRN_SESSION_NOT_CONNECTED);
  ASSERT_EQ(program.connect(), SRN_SUCCESS);
  EXPECT_EQ(program.connect(), SRN_SESSION_ILLEGAL_STATE);
  EXPECT_EQ(srn_session_disconnect(program.handle), SRN_SUCCESS);
  ASSERT_TRUE(program.log.await("disconnected", 1, std::chrono::seconds(5)));
  EXPECT_THAT(program.log.lines(), ElementsAre("disconnected"));
}

TEST(Session, RaisesNothingButTheAnswerOnceItLeaves) {
  LibraryUse library;
  const Place place = empty_place();
  Participant other(place);
  ASSERT_TRUE(other.join());
  Participant program(place);
  program.on_connected = [&] {
    // By then the news of the other participant waits behind this callback.
    EXPECT_TRUE(other.log.await("connection+"));
    EXPECT_EQ(srn_session_disconnect(program.handle), SRN_SUCCESS);
  };
  ASSERT_TRUE(program.join());
  ASSERT_TRUE(program.log.await("disconnected"));
  EXPECT_THAT(program.log.lines(), ElementsAre("connected", "disconnected"));
  EXPECT_TRUE(other.log.await("connection-"));
}

TEST(Session, MeetsAnotherOfTheSameProcess) {
  Meeting meeting;
  auto& [library, place, first, second] = meeting;
  Participant elsewhere(empty_place());
  ASSERT_TRUE(elsewhere.join());
  ASSERT_TRUE(first.log.await("connection+"));
  ASSERT_TRUE(second.log.await("connection+"));

  Sender sender({.audio = false});
  ASSERT_EQ(srn_session_publish(first.handle, sender.handle), SRN_SUCCESS);
  EXPECT_EQ(srn_session_publish(first.handle, sender.handle), SRN_SESSION_ILLEGAL_STATE);
  ASSERT_TRUE(sender.log.await("created"));
  const auto stream = second.wait_for_stream();
  Receiver receiver(stream->get());
  ASSERT_TRUE(subscribe(second, receiver));
  const std::vector<std::uint8_t> bytes(64 * 48 * 3 / 2, 77);
  ASSERT_TRUE(eventually([&] {
    EXPECT_EQ(sender.provide(64, 48, bytes), SRN_SUCCESS);
    return receiver.pictures() > 0;
  }));
  EXPECT_TRUE(receiver.last_picture().is(77));

  EXPECT_EQ(srn_session_unpublish(first.handle, sender.handle), SRN_SUCCESS);
  EXPECT_EQ(srn_session_unpublish(first.handle, sender.handle), SRN_SESSION_PUBLISHER_NOT_FOUND);
  ASSERT_TRUE(receiver.log.await("disconnected"));
  ASSERT_TRUE(second.log.await("stream-"));
  // It ended by itself: no fault of a program that ends it too.
  EXPECT_EQ(srn_session_unsubscribe(second.handle, receiver.handle), SRN_SUCCESS);
  EXPECT_EQ(srn_session_unsubscribe(second.handle, receiver.handle),
            SRN_SESSION_SUBSCRIBER_NOT_FOUND);
  first.remove();
  ASSERT_TRUE(second.log.await("connection-"));
  // The own stream is not received back, and the other session heard of nothing.
  EXPECT_EQ(first.log.count("stream+"), 0);
  EXPECT_THAT(elsewhere.log.lines(), ElementsAre("connected"));
  EXPECT_EQ(sender.log.count("destroyed"), 0);  // the program's own wish
}

TEST(EmbeddedSession, PublisherAndSubscriberFailAtTheScenariosWish) {
  LibraryUse library;
  ScenarioFile scenario(R"({
    "participants": [{"id": "peer", "audio": {"tone_hz": 500}}],
    "events": [{"at_ms": 300, "kind": "publisher_error", "code": 1610, "text": "no route"},
               {"at_ms": 301, "kind": "subscriber_error", "code": 1600, "text": "no ice"}]})");
  Exchange exchange(scenario.place());
  auto& [program, receiver, sender] = exchange;
  ASSERT_TRUE(program.join());
  ASSERT_TRUE(sender.log.await("error 1610 no route"));
  ASSERT_TRUE(receiver->log.await("error 1600 no ice"));
  EXPECT_EQ(sender.log.count("destroy"), 1);
  // Both may be bound again.
  EXPECT_EQ(srn_session_publish(program.handle, sender.handle), SRN_SUCCESS);
  EXPECT_EQ(srn_session_subscribe(program.handle, receiver->handle), SRN_SUCCESS);
  EXPECT_TRUE(receiver->log.await("connected", 2));
  EXPECT_TRUE(sender.log.await("created", 2));
}

TEST(Session, SeesStreamsComeAndGoTwiceAndTwoAtOnce) {
  Meeting meeting;
  auto& [library, place, speaker, listener] = meeting;
  Sender sender({.audio = false});
  Sender second({.audio = false});
  for (long round = 1; round <= 2; ++round) {
    ASSERT_EQ(srn_session_publish(speaker.handle, sender.handle), SRN_SUCCESS);
    ASSERT_TRUE(listener.log.await("stream+", round));
    ASSERT_TRUE(sender.log.await("created", round));
    ASSERT_EQ(srn_session_unpublish(speaker.handle, sender.handle), SRN_SUCCESS);
    ASSERT_TRUE(listener.log.await("stream-", round));
  }
  const auto gone = listener.wait_for_stream();
  Receiver late(gone->get());
  EXPECT_EQ(srn_session_subscribe(listener.handle, late.handle), SRN_SUCCESS);
  EXPECT_TRUE(late.log.await("error 1604"));

  ASSERT_EQ(srn_session_publish(speaker.handle, sender.handle), SRN_SUCCESS);
  ASSERT_EQ(srn_session_publish(speaker.handle, second.handle), SRN_SUCCESS);
  ASSERT_TRUE(listener.log.await("stream+", 4));
  srn_session_disconnect(speaker.handle);
  ASSERT_TRUE(listener.log.await("connection-"));
  EXPECT_EQ(listener.log.count("stream-"), 4) << "streams end before their connection";
  EXPECT_EQ(listener.log.count("connection+"), 1) << "a further stream is no connection";
}

TEST(Session, ReportsACapturerThatIsNotThere) {
  LibraryUse library;
  Participant program(empty_place());
  ASSERT_TRUE(program.join());
  Sender sender({.init_result = false});
  EXPECT_EQ(srn_session_publish(program.handle, sender.handle), SRN_SUCCESS);
  EXPECT_TRUE(sender.log.await("error 1500"));
}

TEST(Library, WorksAgainAfterItsEnd) {
  EXPECT_EQ(srn_destroy(), SRN_SUCCESS);
  EXPECT_EQ(Participant().handle, nullptr);  // not initialised
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(srn_init(nullptr), SRN_SUCCESS);
    EXPECT_EQ(srn_init(nullptr), SRN_SUCCESS);
    Participant program;
    ASSERT_TRUE(program.join());
    const auto stream = program.wait_for_stream();
    Receiver receiver(stream->get());
    ASSERT_EQ(srn_session_subscribe(program.handle, receiver.handle), SRN_SUCCESS);
    ASSERT_TRUE(eventually([&] { return receiver.audio_blocks() > 0; }));
    const std::string id = srn_stream_get_id(stream->get());
    // With everything open.
    EXPECT_EQ(srn_destroy(), SRN_SUCCESS);
    const std::size_t heard = receiver.audio_blocks();
    EXPECT_EQ(srn_session_disconnect(program.handle), SRN_SESSION_NOT_CONNECTED);
    EXPECT_EQ(srn_stream_get_id(stream->get()), id);
    EXPECT_EQ(receiver.audio_blocks(), heard);
    EXPECT_EQ(program.log.count("disconnected"), 0);
  }
}

TEST(Library, AsksTheProgramWhoItIsForEachSession) {
  LibraryUse library;
  const int asked = device_info_requests();
  Participant first;
  Participant second;
  ASSERT_TRUE(first.join());
  ASSERT_TRUE(second.join());
  EXPECT_EQ(device_info_requests(), asked + 2);
}

long entries(const char* folder) {
  return std::distance(std::filesystem::directory_iterator(folder),
                       std::filesystem::directory_iterator());
}

TEST(Library, LeavesNothingBehind) {
  const char* const asked = std::getenv("SARNET_TEST_ROUNDS");
  const int rounds = asked != nullptr ? std::stoi(asked) : 12;
  long threads = 0;
  long files = 0;
  for (int round = 0; round < rounds; ++round) {
    LibraryUse library;
    Participant program;
    ASSERT_TRUE(program.join());
    Sender sender({});
    ASSERT_EQ(srn_session_publish(program.handle, sender.handle), SRN_SUCCESS);
    const auto stream = program.wait_for_stream();
    Receiver receiver(stream->get());
    ASSERT_TRUE(subscribe(program, receiver));
    const auto leaving = std::chrono::steady_clock::now();
    srn_session_disconnect(program.handle);
    ASSERT_EQ(srn_destroy(), SRN_SUCCESS);
    EXPECT_LT(std::chrono::steady_clock::now() - leaving, std::chrono::seconds(2));
    if (round != 3) continue;
    threads = entries("/proc/self/task");
    files = entries("/proc/self/fd");
  }
  EXPECT_TRUE(eventually([&] { return entries("/proc/self/task") <= threads; }));
  EXPECT_LE(entries("/proc/self/fd"), files);
}

TEST(Handles, NullIsNeverAFault) {
  LibraryUse library;
  for (const srn_status status :
       {srn_session_disconnect(nullptr), srn_session_connect_to_host(nullptr, "h", "", 1, 1, "t"),
        srn_session_publish(nullptr, nullptr), srn_publisher_settings_set_name(nullptr, "n"),
        srn_video_capturer_provide_frame(nullptr, 0, nullptr),
        srn_audio_device_write_capture_data(nullptr, 480)}) {
    EXPECT_EQ(status, 1011);
  }
  EXPECT_EQ(srn_audio_device_read_render_data(nullptr, 480), 0U);
  EXPECT_EQ(srn_stream_copy(nullptr), nullptr);
  EXPECT_EQ(srn_subscriber_new(nullptr, nullptr), nullptr);
  EXPECT_EQ(srn_session_new_with_settings(nullptr, "s", nullptr, srn_session_settings_new()),
            nullptr);
  EXPECT_EQ(srn_session_delete(nullptr), SRN_SUCCESS);
  EXPECT_EQ(srn_connection_get_creation_time(nullptr), 0);
}

}  // namespace
}  // namespace contract
