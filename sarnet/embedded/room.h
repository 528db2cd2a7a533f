#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/engine.h"
#include "common/mutex.h"
#include "embedded/player.h"
#include "embedded/recorder.h"
#include "embedded/room_stream.h"
#include "embedded/scenario.h"

namespace sarnet {

// One session of the embedded engine: its members (the sessions of this process that joined it) and
// the scripted participants. A thread of its own, which the ThreadKeeper joins, reads the scenario
// and answers everything a little later, as a server would. It ends with its last member.
//
// Any thread may call. Sinks are called under the room's lock, since they only post; `member` is
// the joined engine, used for comparison only.
class Room : public std::enable_shared_from_this<Room> {
 public:
  Room(std::string session_id, std::string scenario_path);

  // Throws std::system_error when no thread can be made.
  void open();
  const std::string& scenario_path() const { return scenario_path_; }

  bool closed() const;
  // False when the room is closed: make a new one.
  bool join(const void* member, const std::string& token, std::shared_ptr<SessionSink> sink);
  void leave(const void* member);
  std::shared_ptr<PublishedStream> publish(const void* member, const PublishRequest& request,
                                           std::shared_ptr<PublicationSink> sink);
  void unpublish(const void* member, const PublishedStream* stream);
  void subscribe(const void* member, const std::string& stream_id,
                 std::shared_ptr<SubscriptionSink> sink);
  void unsubscribe(const SubscriptionSink* sink);

 private:
  using Clock = std::chrono::steady_clock;

  struct Published {
    std::shared_ptr<RoomStream> stream;
    std::shared_ptr<PublicationSink> sink;
    bool announced = false;
  };
  struct Member {
    const void* key = nullptr;
    std::string token;
    std::shared_ptr<SessionSink> sink;
    ConnectionInfo connection;
    bool joined = false;
    std::vector<Published> publications;
  };
  struct Actor {
    ScenarioParticipant script;
    ConnectionInfo connection;
    bool present = false;
    std::shared_ptr<Player> player;  // until it has played
    std::shared_ptr<RoomStream> stream;
  };
  struct Subscribed {
    const void* member = nullptr;
    std::string stream_id;
    std::shared_ptr<SubscriptionSink> sink;
  };

  void run();
  // On the room's thread, without the lock: reads the scenario and opens its files.
  void prepare();
  // What prepare() finds.
  struct Stage {
    Scenario scenario;
    std::vector<std::unique_ptr<Actor>> actors;
    std::shared_ptr<Recorder> recorder;
  };
  // False and `error` when the scenario cannot be played.
  bool set(Stage& stage, std::string& error) const;

  void at(Clock::time_point time, std::function<void()> action) REQUIRES(mutex_);
  void post(std::function<void()> action) REQUIRES(mutex_);
  void admit(const void* key) REQUIRES(mutex_);
  std::string refusal_of(const Member& member, int& code) const REQUIRES(mutex_);
  void begin_script() REQUIRES(mutex_);
  void enter(Actor& actor) REQUIRES(mutex_);
  void exit(Actor& actor) REQUIRES(mutex_);
  void drop_stream(Actor& actor) REQUIRES(mutex_);
  void perform(const ScenarioEvent& event) REQUIRES(mutex_);
  void end_for_all(const std::function<void(SessionSink&)>& tell) REQUIRES(mutex_);
  void fail_publications(const ScenarioEvent& event) REQUIRES(mutex_);
  void fail_subscriptions(const ScenarioEvent& event) REQUIRES(mutex_);
  void announce(const void* key, const RoomStream* stream) REQUIRES(mutex_);
  void answer_subscription(const SubscriptionSink* sink) REQUIRES(mutex_);
  void remove_publication(Member& member, const Published& publication) REQUIRES(mutex_);
  void end_subscriptions(const std::string& stream_id) REQUIRES(mutex_);
  void notify_others(const void* key, const std::function<void(SessionSink&)>& tell)
      REQUIRES(mutex_);
  Member* find_member(const void* key) REQUIRES(mutex_);
  // Null for an unknown stream, or the member's own.
  std::shared_ptr<RoomStream> find_stream(const std::string& id, const void* member)
      REQUIRES(mutex_);
  void close_if_empty() REQUIRES(mutex_);
  void record(const char* event, std::initializer_list<std::pair<const char*, std::string>> fields)
      REQUIRES(mutex_);

  const std::string session_id_;
  const std::string scenario_path_;

  mutable common::Mutex mutex_;
  std::condition_variable changed_;
  std::multimap<Clock::time_point, std::function<void()>> actions_ GUARDED_BY(mutex_);
  bool ready_ GUARDED_BY(mutex_) = false;
  bool closed_ GUARDED_BY(mutex_) = false;
  // The same for those that open and play files.
  const std::shared_ptr<std::atomic<bool>> over_ = std::make_shared<std::atomic<bool>>(false);
  bool script_begun_ GUARDED_BY(mutex_) = false;
  std::string fault_ GUARDED_BY(mutex_);  // why the scenario cannot be played; empty: it can
  Scenario scenario_ GUARDED_BY(mutex_);
  std::shared_ptr<Recorder> recorder_ GUARDED_BY(mutex_);
  std::vector<std::unique_ptr<Actor>> actors_ GUARDED_BY(mutex_);
  std::vector<std::unique_ptr<Member>> members_ GUARDED_BY(mutex_);
  std::vector<Subscribed> subscriptions_ GUARDED_BY(mutex_);
};

}  // namespace sarnet
