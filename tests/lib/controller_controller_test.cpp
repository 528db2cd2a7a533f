#include "controller/mr_controller.h"

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include "lib_test.h"

using namespace lib_test;
using testing::Contains;
using testing::Not;

namespace {

class ControllerTest : public ScriptedTest {
 protected:
  ControllerTest() {
    MRSessionCallbacks callbacks;
    callbacks.on_connected = [this](const std::string& id) { told("connected " + id); };
    callbacks.on_disconnected = [this](const std::string& id) { told("disconnected " + id); };
    callbacks.on_stream_received = [this](const std::string&, const MRStream& stream) {
      told("received " + stream.getStreamInfo().stream_id);
    };
    callbacks.on_connection_created = [this](const std::string&, const MRConnectionInfo& info) {
      told("created " + info.connection_id);
    };
    callbacks.on_error = [this](const std::string& id, const std::string& text, int code) {
      told("error " + id + " " + text + " " + std::to_string(code));
    };
    callbacks.on_audio_data = [this](const std::string& id, const MRAudioData&) {
      heard.add("audio " + id);
    };
    callbacks.on_ready_to_publish = [this](const std::string& id) { told("ready " + id); };
    controller.emplace(callbacks);
  }
  void TearDown() override {
    controller.reset();
    ScriptedTest::TearDown();
  }
  /// Has the test do something from inside the next such event.
  void when(const std::string& line, std::function<void()> react) {
    const std::scoped_lock lock(reactions_mutex);
    reactions[line] = std::move(react);
  }
  void told(const std::string& line) {
    std::function<void()> react;
    {
      const std::scoped_lock lock(reactions_mutex);
      if (auto reaction = reactions.extract(line)) react = std::move(reaction.mapped());
    }
    heard.add(line);
    if (react) react();
  }
  bool connect(const std::string& session_id) {
    return controller->connect({session_id, "token", "12345", "ignored"}, {});
  }
  void join(const std::string& session_id = "s") {
    ASSERT_TRUE(connect(session_id));
    ASSERT_TRUE(heard.await("connected " + session_id));
  }
  /// All that the library has to tell has been told.
  void settle() {
    controller->getCurrentBufferStats();
    ASSERT_EQ(scripted_wait_idle(20000), 1);
    controller->getCurrentBufferStats();
  }

  Journal heard;
  std::mutex reactions_mutex;
  std::map<std::string, std::function<void()>> reactions;
  std::optional<MRController> controller;
};

TEST_F(ControllerTest, TearsDownInOrderWhenAsked) {
  join();
  when("received stream", [this] {
    // The stream is known by the time that it is told of, and the worker may wait for itself.
    EXPECT_EQ(controller->subscribe("stream", {}, {}), "subscriber-1");
  });
  scripted_stream_received("stream", "peer", "", 1);
  MRPublisherSettings both;
  both.name = "bot";
  both.has_audio = both.has_video = true;
  EXPECT_EQ(controller->publish(both, {}), "publisher-1");
  EXPECT_TRUE(controller->isPublishing());
  ASSERT_TRUE(heard.await("ready s"));
  settle();

  EXPECT_TRUE(controller->disconnect());
  EXPECT_FALSE(controller->isRunning());
  EXPECT_FALSE(controller->isPublishing());
  EXPECT_TRUE(controller->disconnect());
  const std::vector<std::string> order = {"srn_session_unsubscribe", "srn_subscriber_delete",
                                          "srn_session_unpublish",   "srn_publisher_delete",
                                          "srn_session_disconnect",  "srn_session_delete"};
  EXPECT_EQ(callNames(order), order);
  EXPECT_EQ(scripted_live("stream"), 0);
  EXPECT_EQ(scripted_device_slot("is_capturer_started"), 0);
  settle();
  EXPECT_THAT(heard.lines(), Not(Contains("disconnected s")));
}

TEST_F(ControllerTest, GivesTheLibraryTheFormatsOfTheSession) {
  MRSessionSettings settings;
  settings.audio = {{16000, 1}, {24000, 2}};
  ASSERT_TRUE(controller->connect({"s", "t", "k", ""}, settings));
  ASSERT_TRUE(heard.await("connected s"));
  settle();
  int32_t rate = 0;
  int32_t channels = 0;
  EXPECT_EQ(scripted_device_settings("get_capture_settings", &rate, &channels), 1);
  EXPECT_EQ(rate * 10 + channels, 160001);
  EXPECT_EQ(scripted_device_settings("get_render_settings", &rate, &channels), 1);
  EXPECT_EQ(rate * 10 + channels, 240002);
}

TEST_F(ControllerTest, HearsOfACapturerThatStartsWhileTheWorkerIsBusy) {
  join("one");
  ASSERT_TRUE(heard.await("ready one"));
  when("error one gone 1022", [this] {
    EXPECT_TRUE(connect("two"));
    EXPECT_EQ(scripted_device_slot("init_capturer"), 1);
    EXPECT_EQ(scripted_device_slot("start_capturer"), 1);
  });
  scripted_session_error(1022, "gone");
  ASSERT_TRUE(heard.await("ready two"));
  settle();
  EXPECT_THAT(heard.lines(), testing::IsSupersetOf({"connected two", "ready two"}));
  EXPECT_EQ(heard.count("ready one"), 1);
  EXPECT_EQ(heard.count("ready two"), 1);
}

TEST_F(ControllerTest, DeliversTheMixOnlyWhileThereIsASession) {
  join("one");
  ASSERT_TRUE(heard.await("audio one"));
  Latch reached;
  Latch go_on;
  when("created slow", [&] {
    reached.open();
    EXPECT_TRUE(go_on.wait());
    EXPECT_TRUE(controller->disconnect());
    heard.add("torn down");
  });
  scripted_connection_created("slow", "", 1);
  ASSERT_TRUE(reached.wait());
  go_on.open();
  ASSERT_TRUE(heard.await("torn down"));
  const long before = heard.count("audio one");
  join("two");
  ASSERT_TRUE(heard.await("audio two", 3));
  EXPECT_LE(heard.count("audio one"), before + 1);  // one may have been on its way
}

TEST_F(ControllerTest, RunsWhatIsQueuedBeforeItEndsAndForgetsLateStreams) {
  join();
  Latch queued;
  when("created slow", [&] { EXPECT_TRUE(queued.wait()); });
  scripted_connection_created("slow", "", 1);
  ASSERT_TRUE(heard.await("created slow"));
  std::thread ending([this] { controller.reset(); });
  scripted_stream_received("late", "peer", "", 1);
  EXPECT_EQ(scripted_wait_idle(20000), 1);
  queued.open();
  ending.join();
  EXPECT_EQ(heard.count("received late"), 1);
  const auto names = callNames({"srn_stream_delete", "srn_session_delete", "srn_destroy"});
  EXPECT_EQ(names.back(), "srn_destroy");
}

}  // namespace
