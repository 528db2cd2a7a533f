#pragma once

#include <gmock/gmock.h>
#include <log4cxx/appenderskeleton.h>
#include <log4cxx/logger.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "runtime/event_queue.h"
#include "scripted_sarnet/scripted_sarnet.h"
#include "session/mr_session.h"
#include "waiting.h"

namespace lib_test {

/// What is logged at `level` and above from here on, "LEVEL message" to a line; of one logger, or
/// of all.
class LogCapture {
 public:
  explicit LogCapture(const log4cxx::LevelPtr& level = log4cxx::Level::getInfo(),
                      const std::string& logger = "")
      : source_(logger.empty() ? root() : log4cxx::Logger::getLogger(logger)),
        before_(root()->getLevel()) {
    // Another thread may have asked for the level before, and only now come to write its line.
    appender_->setThreshold(level);
    root()->setLevel(level);
    source_->addAppender(appender_);
  }
  ~LogCapture() {
    source_->removeAppender(appender_);
    root()->setLevel(before_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const { return appender_->journal.lines(); }
  long count(const std::string& begin) const { return appender_->journal.count(begin); }
  bool await(const std::string& begin, long times = 1) const {
    return appender_->journal.await(begin, times);
  }
  void clear() { appender_->journal.clear(); }

 private:
  class Appender : public log4cxx::AppenderSkeleton {
   public:
    void close() override {}
    bool requiresLayout() const override { return false; }
    Journal journal;

   protected:
    void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool&) override {
      journal.add(event->getLevel()->toString() + " " + event->getMessage());
    }
  };
  static log4cxx::LoggerPtr root() { return log4cxx::Logger::getRootLogger(); }

  const log4cxx::LoggerPtr source_;
  const log4cxx::LevelPtr before_;
  const std::shared_ptr<Appender> appender_ = std::make_shared<Appender>();
};

/// The names of the library's calls so far, of those that are among `wanted`.
inline std::vector<std::string> callNames(const std::vector<std::string>& wanted) {
  std::istringstream calls(scripted_calls());
  std::vector<std::string> names;
  for (std::string call; std::getline(calls, call);) {
    call.resize(call.find('('));
    if (std::find(wanted.begin(), wanted.end(), call) != wanted.end()) names.push_back(call);
  }
  return names;
}

/// Starts each test with a fresh library, and ends it with one that has seen no breach and nothing
/// left.
class ScriptedTest : public testing::Test {
 protected:
  ScriptedTest() {
    srn_set_audio_device(nullptr);  // that of an earlier test is gone
    scripted_reset();
  }
  void TearDown() override {
    EXPECT_EQ(scripted_wait_idle(20000), 1);
    EXPECT_STREQ(scripted_fault_texts(), "");
    for (const char* kind : {"session", "session_settings", "publisher", "publisher_settings",
                             "subscriber", "stream", "connection", "frame"}) {
      EXPECT_EQ(scripted_live(kind), 0) << kind;
    }
    scripted_reset();
  }
};

/// Writes down what it hears.
class RecordingObserver final : public MRSessionObserver {
 public:
  void onSessionConnected(const std::string& id) override { heard.add("connected " + id); }
  void onSessionDisconnected(const std::string& id) override { heard.add("disconnected " + id); }
  void onSessionError(const std::string& id, const std::string& text, int code) override {
    if (before_error) before_error();
    heard.add("error " + id + " " + text + " " + std::to_string(code));
  }
  void onStreamReceived(const std::string&, const MRStream&) override { heard.add("received"); }
  void onStreamDropped(const std::string&, const MRStreamInfo&) override { heard.add("dropped"); }
  void onConnectionCreated(const std::string&, const MRConnection&) override {}
  void onConnectionDropped(const std::string&, const MRConnection&) override {}
  void onSessionMediaBufferDrained(const MediaBufferStats&) override {}

  Journal heard;
  std::function<void()> before_error;
};

inline MRSessionInfo sessionInfo() { return {"the-session", "the-token", "12345", "the-host"}; }

/// A session that is connected, and a worker as the controller has one.
class JoinedTest : public ScriptedTest {
 protected:
  JoinedTest() {
    queue.start();
    session = MRSession::connect(sessionInfo(), {}, &observer);
    EXPECT_TRUE(observer.heard.await("connected the-session"));
  }
  void TearDown() override {
    session.reset();
    queue.stop();
    ScriptedTest::TearDown();
  }
  /// All that the library has to tell has reached the callbacks.
  void settle() {
    queue.flush();
    ASSERT_EQ(scripted_wait_idle(20000), 1);
    queue.flush();
  }

  Journal heard;
  RecordingObserver observer;
  std::shared_ptr<MRSession> session;
  EventQueue queue{"test"};
};

}  // namespace lib_test
