#pragma once

#include <log4cxx/appenderskeleton.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/spi/loggingevent.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// Gathers what is logged, as "LEVEL Logger message", while it lives. Any thread may log.
class LogCapture {
 public:
  explicit LogCapture(const log4cxx::LevelPtr& level = log4cxx::Level::getTrace())
      : root_(log4cxx::Logger::getRootLogger()),
        old_level_(root_->getLevel()),
        appender_(std::make_shared<Appender>()) {
    root_->addAppender(appender_);
    root_->setLevel(level);
  }
  ~LogCapture() {
    root_->setLevel(old_level_);
    root_->removeAppender(log4cxx::AppenderPtr(appender_));
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// The lines of all loggers, or of one.
  std::vector<std::string> lines(const std::string& logger = "") const {
    const std::lock_guard lock(appender_->mutex);
    std::vector<std::string> chosen;
    for (const Line& line : appender_->lines) {
      if (logger.empty() || line.logger == logger) {
        chosen.push_back(line.level + " " + line.logger + " " + line.message);
      }
    }
    return chosen;
  }

  void clear() {
    const std::lock_guard lock(appender_->mutex);
    appender_->lines.clear();
  }

  /// Waits until a line holds `text`; false after the deadline.
  bool waitFor(const std::string& text,
               std::chrono::milliseconds deadline = std::chrono::seconds(20)) const {
    std::unique_lock lock(appender_->mutex);
    return appender_->cv.wait_for(lock, deadline, [&] {
      for (const Line& line : appender_->lines) {
        if (line.message.find(text) != std::string::npos) return true;
      }
      return false;
    });
  }

 private:
  struct Line {
    std::string level;
    std::string logger;
    std::string message;
  };

  class Appender : public log4cxx::AppenderSkeleton {
   public:
    void close() override {}
    bool requiresLayout() const override { return false; }

    mutable std::mutex mutex;
    mutable std::condition_variable cv;
    std::vector<Line> lines;

   protected:
    void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool&) override {
      const std::lock_guard lock(mutex);
      lines.push_back({event->getLevel()->toString(), event->getLoggerName(), event->getMessage()});
      cv.notify_all();
    }
  };

  log4cxx::LoggerPtr root_;
  log4cxx::LevelPtr old_level_;
  std::shared_ptr<Appender> appender_;
};
