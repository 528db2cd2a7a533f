#pragma once

#include <gmock/gmock.h>
#include <log4cxx/appenderskeleton.h>
#include <log4cxx/logger.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "session/mr_session.h"
#include "support/scripted_sarnet.h"

namespace session_test {

inline constexpr std::chrono::seconds kDeadline{20};

/// Lines of text from any thread, in order.
class Journal {
 public:
  void add(const std::string& line) {
    const std::scoped_lock lock(mutex_);
    lines_.push_back(line);
    added_.notify_all();
  }
  std::vector<std::string> lines() const {
    const std::scoped_lock lock(mutex_);
    return lines_;
  }
  long count(const std::string& line) const {
    const std::scoped_lock lock(mutex_);
    return std::count(lines_.begin(), lines_.end(), line);
  }
  bool waitFor(const std::string& line, long times = 1) const {
    std::unique_lock lock(mutex_);
    return added_.wait_for(lock, kDeadline,
                           [&] { return std::count(lines_.begin(), lines_.end(), line) >= times; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable added_;
  std::vector<std::string> lines_;
};

/// A gate that one thread waits at until another opens it.
class Latch {
 public:
  void open() {
    const std::scoped_lock lock(mutex_);
    open_ = true;
    opened_.notify_all();
  }
  bool wait() {
    std::unique_lock lock(mutex_);
    return opened_.wait_for(lock, kDeadline, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
};

/// The log from here on, "LEVEL message" to a line.
class LogCapture {
 public:
  explicit LogCapture(const log4cxx::LevelPtr& level = log4cxx::Level::getInfo())
      : appender_(std::make_shared<Appender>()), before_(root()->getLevel()) {
    root()->setLevel(level);
    root()->addAppender(appender_);
  }
  ~LogCapture() {
    root()->removeAppender(appender_);
    root()->setLevel(before_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const { return appender_->journal.lines(); }
  long count(const std::string& line) const { return appender_->journal.count(line); }

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

  std::shared_ptr<Appender> appender_;
  log4cxx::LevelPtr before_;
};

inline std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> lines;
  std::string::size_type begin = 0;
  while (begin < text.size()) {
    const auto end = std::min(text.find('\n', begin), text.size());
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

/// The library's calls so far, each without its arguments.
inline std::vector<std::string> callNames() {
  std::vector<std::string> names = split(scripted_calls());
  for (std::string& name : names) name.resize(name.find('('));
  return names;
}

/// Those of the calls whose names are among `wanted`.
inline std::vector<std::string> callNames(const std::vector<std::string>& wanted) {
  std::vector<std::string> names = callNames();
  std::erase_if(names, [&](const std::string& name) {
    return std::find(wanted.begin(), wanted.end(), name) == wanted.end();
  });
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
      EXPECT_EQ(scripted_live(kind),
                kind == std::string("session_settings") ? sessionSettings() : 0)
          << kind;
    }
    scripted_reset();
  }
  /// Settings that no session took over; there is no way to delete those.
  virtual long sessionSettings() const { return 0; }
};

/// Writes down what it hears.
class RecordingObserver final : public MRSessionObserver {
 public:
  void onSessionConnected(const std::string& id) override { heard.add("connected " + id); }
  void onSessionDisconnected(const std::string& id) override { heard.add("disconnected " + id); }
  void onSessionError(const std::string& id, const std::string& text, int code) override {
    heard.add("error " + id + " " + text + " " + std::to_string(code));
  }
  void onStreamReceived(const std::string& id, const MRStream& stream) override {
    heard.add("received " + id + " " + stream.getStreamInfo().stream_id);
  }
  void onStreamDropped(const std::string& id, const MRStreamInfo& stream) override {
    heard.add("dropped " + id + " " + stream.stream_id + " " + stream.connection.connection_id);
  }
  void onConnectionCreated(const std::string& id, const MRConnection& connection) override {
    heard.add("created " + id + " " + connection.getConnectionInfo().connection_id);
  }
  void onConnectionDropped(const std::string& id, const MRConnection& connection) override {
    heard.add("gone " + id + " " + connection.getConnectionInfo().connection_id);
  }
  void onSessionMediaBufferDrained(const MediaBufferStats&) override { heard.add("drained"); }

  Journal heard;
};

inline MRSessionInfo sessionInfo() { return {"the-session", "the-token", "12345", "the-host"}; }

}  // namespace session_test
