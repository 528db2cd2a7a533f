#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/engine.h"
#include "relay/room/relay_publication.h"
#include "relay/room/relay_room.h"
#include "relay/room/relay_settings.h"
#include "relay/room/relay_subscription.h"
#include "relay/room/room_access.h"
#include "relay/signalling/janus_client.h"
#include "relay/signalling/main_loop.h"
#include "relay/signalling/network_watch.h"

namespace sarnet::relay {

// One participation in a room, from joining to leaving. The main loop's thread alone.
class RelaySession : public JanusObserver, public RoomObserver {
 public:
  // `left` is set, by any thread, once no sink may be called. Of `client` only the limits are used.
  RelaySession(std::shared_ptr<MainLoop> loop, std::shared_ptr<const std::atomic<bool>> left,
               RelaySettings settings, JoinRequest request, std::shared_ptr<SessionSink> sink,
               JanusSettings client);
  ~RelaySession() override;

  void join();
  // Forgets all sinks, ends all media and leaves the room; calls `done` within about a second, even
  // if the server is dead. Once.
  void leave(std::function<void()> done);

  void publish(const PublishRequest& request, std::shared_ptr<PublishedFeed> feed,
               std::shared_ptr<PublicationSink> sink);
  void unpublish(const PublishedStream* stream);
  void subscribe(const std::string& stream_id, std::shared_ptr<SwitchableSink> sink);
  void prefer(const SubscriptionSink* sink, const MediaPreferences& preferences);
  void unsubscribe(const SubscriptionSink* sink);

  void on_notice(std::uint64_t handle, const json& message) override;
  void on_resumed() override;
  void on_lost(const Failure& failure) override;

  void participant_joined(const ConnectionInfo& participant) override;
  void participant_left(const ConnectionInfo& participant) override;
  void stream_added(const StreamInfo& stream) override;
  void stream_removed(const StreamInfo& stream) override;

 private:
  void enter_room(bool may_create);
  void create_room();
  void entered(const json& data);
  void network_changed();
  void room_notice(const json& data);
  // Null once no more events may be reported.
  SessionSink* sink() const;
  // The session failed or was ended by the server: reports it and stops the media.
  void fail(const Failure& failure);
  void end();
  // Copies of the pointers: streams may remove themselves.
  std::vector<std::shared_ptr<RelayStream>> streams() const;
  void stop_media();
  void stop_next(std::function<void()> done);
  void remove(const RelayStream& gone);
  RelaySubscription* find(const SubscriptionSink* sink) const;

  const std::shared_ptr<MainLoop> loop_;
  const RelaySettings settings_;
  const JoinRequest request_;
  std::shared_ptr<SessionSink> sink_;
  JanusClient client_;
  std::optional<NetworkWatch> watch_;  // once joined
  unsigned resumptions_ = 0;
  RoomAccess access_;
  std::uint64_t handle_ = 0;  // of our own participation
  // The first publication takes the handle; another may reuse it after the server hung up.
  bool handle_taken_ = false;
  bool handle_hanging_up_ = false;
  std::optional<RelayRoom> room_;
  std::vector<std::shared_ptr<RelayPublication>> publications_;
  std::vector<std::shared_ptr<RelaySubscription>> subscriptions_;
};

}  // namespace sarnet::relay
