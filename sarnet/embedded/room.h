#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/engine.h"
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
// the engine that joined and only ever compared.
class Room : public std::enable_shared_from_this<Room> {
 public:
  Room(std::string session_id, std::string scenario_path);

  // Throws std::system_error when no thread can be made.
  void open();
  const std::string& scenario_path() const { return scenario_path_; }

  bool closed() const;
  // False when the room is closed: a new one has to be made.
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

  struct Publication {
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
    std::vector<Publication> publications;
  };
  struct Actor {
    ScenarioParticipant script;
    ConnectionInfo connection;
    bool present = false;
    std::shared_ptr<Player> player;  // until it has played
    std::shared_ptr<RoomStream> stream;
  };
  struct Subscription {
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

  // All below: under the lock.
  void at(Clock::time_point time, std::function<void()> action);
  void soon(std::function<void()> action);
  void admit(const void* key);
  std::string refusal_of(const Member& member, int& code) const;
  void begin_script();
  void enter(Actor& actor);
  void exit(Actor& actor);
  void drop_stream(Actor& actor);
  void perform(const ScenarioEvent& event);
  void end_for_all(const std::function<void(SessionSink&)>& tell);
  void fail_publications(const ScenarioEvent& event);
  void fail_subscriptions(const ScenarioEvent& event);
  void announce(const void* key, const RoomStream* stream);
  void answer_subscription(const SubscriptionSink* sink);
  void remove_publication(Member& member, const Publication& publication);
  void end_subscriptions(const std::string& stream_id);
  void tell_others(const void* key, const std::function<void(SessionSink&)>& tell);
  Member* find_member(const void* key);
  // Null for a stream that is not there, or is the member's own.
  std::shared_ptr<RoomStream> find_stream(const std::string& id, const void* member);
  void close_if_empty();
  void record(const char* event, std::initializer_list<std::pair<const char*, std::string>> fields);

  const std::string session_id_;
  const std::string scenario_path_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::multimap<Clock::time_point, std::function<void()>> actions_;
  bool ready_ = false;
  bool closed_ = false;
  // The same for those that open and play files.
  const std::shared_ptr<std::atomic<bool>> over_ = std::make_shared<std::atomic<bool>>(false);
  bool script_begun_ = false;
  std::string fault_;  // why the scenario cannot be played; empty: it can
  Scenario scenario_;
  std::shared_ptr<Recorder> recorder_;
  std::vector<std::unique_ptr<Actor>> actors_;
  std::vector<std::unique_ptr<Member>> members_;
  std::vector<Subscription> subscriptions_;
};

}  // namespace sarnet
