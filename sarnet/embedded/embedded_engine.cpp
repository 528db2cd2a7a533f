#include "embedded/embedded_engine.h"

#include <sarnet/sarnet.h>

#include <map>
#include <utility>

#include "common/mutex.h"
#include "embedded/room.h"

namespace sarnet {
namespace {

// The rooms of this process by API key and session id. A room lives as long as its members and its
// thread.
class Rooms {
 public:
  static Rooms& instance() {
    static auto* const rooms = new Rooms;  // never destroyed: sessions may end while we exit
    return *rooms;
  }

  // Null when the existing room plays another scenario.
  std::shared_ptr<Room> join(const JoinRequest& request, const std::string& scenario_path,
                             const void* member, const std::shared_ptr<SessionSink>& sink) {
    const common::LockGuard lock(mutex_);
    std::erase_if(rooms_, [](const auto& each) { return each.second.expired(); });
    auto& place = rooms_[{request.api_key, request.session_id}];
    auto room = place.lock();
    if (room && room->scenario_path() == scenario_path && room->join(member, request.token, sink)) {
      return room;
    }
    if (room && !room->closed() && room->scenario_path() != scenario_path) return nullptr;
    room = std::make_shared<Room>(request.session_id, scenario_path);
    room->join(member, request.token, sink);
    room->open();
    place = room;
    return room;
  }

 private:
  common::Mutex mutex_;
  std::map<std::pair<std::string, std::string>, std::weak_ptr<Room>> rooms_ GUARDED_BY(mutex_);
};

class EmbeddedEngine : public Engine {
 public:
  explicit EmbeddedEngine(std::string scenario_path) : scenario_path_(std::move(scenario_path)) {}

  void join(const JoinRequest& request, std::shared_ptr<SessionSink> sink) override {
    const common::LockGuard lock(mutex_);
    if (left_) return;
    room_ = Rooms::instance().join(request, scenario_path_, this, sink);
    if (!room_) {
      sink->session_failed(SRN_SESSION_ILLEGAL_STATE,
                           "This session is under way in this process with another scenario");
    }
  }

  void leave() override {
    std::shared_ptr<Room> room;
    {
      const common::LockGuard lock(mutex_);
      left_ = true;
      room.swap(room_);
    }
    if (room) room->leave(this);
  }

  std::shared_ptr<PublishedStream> publish(const PublishRequest& request,
                                           std::shared_ptr<PublicationSink> sink) override {
    const auto room = this->room();
    return room ? room->publish(this, request, std::move(sink)) : nullptr;
  }

  void unpublish(const std::shared_ptr<PublishedStream>& stream) override {
    if (const auto room = this->room()) room->unpublish(this, stream.get());
  }

  void subscribe(const std::string& stream_id, std::shared_ptr<SubscriptionSink> sink) override {
    if (const auto room = this->room()) room->subscribe(this, stream_id, std::move(sink));
  }

  void unsubscribe(const std::shared_ptr<SubscriptionSink>& sink) override {
    if (const auto room = this->room()) room->unsubscribe(sink.get());
  }

 private:
  std::shared_ptr<Room> room() const {
    const common::LockGuard lock(mutex_);
    return room_;
  }

  const std::string scenario_path_;
  mutable common::Mutex mutex_;
  std::shared_ptr<Room> room_ GUARDED_BY(mutex_);
  bool left_ GUARDED_BY(mutex_) = false;
};

}  // namespace

std::shared_ptr<Engine> make_embedded_engine(const std::string& scenario_path) {
  return std::make_shared<EmbeddedEngine>(scenario_path);
}

}  // namespace sarnet
