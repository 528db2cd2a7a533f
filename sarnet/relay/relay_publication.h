#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "core/engine.h"
#include "relay/publishing_peer.h"
#include "relay/relay_failure.h"
#include "relay/room_access.h"
#include "relay/room_member.h"

namespace sarnet::relay {

// Where the program's media enter from the moment it publishes: drops them until there is a peer,
// and after it. Any thread.
class PublishedFeed : public PublishedStream {
 public:
  // Null: nowhere.
  void connect(std::shared_ptr<PublishedStream> peer);

  void on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) override;
  void on_captured_audio(const AudioFormat& format, std::span<const std::int16_t> samples) override;
  void on_picture(const PictureRef& picture) override;
  void on_caption(std::string_view text, bool is_final) override;

 private:
  std::shared_ptr<PublishedStream> peer() const;

  mutable std::mutex mutex_;
  std::shared_ptr<PublishedStream> peer_;
};

// One stream that the session publishes: negotiation over a handle of the server, and its peer. A
// participation of the server publishes one stream, so the first takes the session's own handle and
// each further one joins the room on a handle of its own. The main loop's thread alone; held by the
// session until it is over.
class RelayPublication : public PeerObserver,
                         public std::enable_shared_from_this<RelayPublication> {
 public:
  // `over` is called once it failed, after the sink was told.
  RelayPublication(RoomAccess& access, PublishRequest request, std::shared_ptr<PublishedFeed> feed,
                   std::shared_ptr<PublicationSink> sink, std::function<void()> over);
  ~RelayPublication() override;

  // On the session's own handle, or with 0 on a new one.
  void start(std::uint64_t handle);
  // What the server says on the handle.
  void notice(const json& message);
  // Ends the media; takes some milliseconds. May be repeated.
  void stop();
  // Has the server end the stream too: on the session's handle it stays a participant.
  void withdraw();

  std::uint64_t handle() const { return handle_; }
  const PublishedFeed* feed() const { return feed_.get(); }
  bool shares_handle() const { return !own_handle_; }
  // Whether the server has a media connection on the handle that it must hang up first.
  bool negotiated() const { return negotiated_; }

  void on_local_description(const std::string& type, const std::string& sdp) override;
  void on_local_candidate(unsigned mline, const std::string& candidate) override;
  void on_peer_connected() override;
  void on_peer_failed(const std::string& reason) override;

 private:
  void join();
  void negotiate();
  Display display() const;
  void fail(const Failure& failure);

  RoomAccess& access_;
  const PublishRequest request_;
  const std::shared_ptr<PublishedFeed> feed_;
  const std::shared_ptr<PublicationSink> sink_;
  const std::function<void()> over_;
  std::shared_ptr<PublishingPeer> peer_;
  std::string id_;  // of the participation that publishes
  std::uint64_t handle_ = 0;
  bool own_handle_ = false;
  bool negotiated_ = false;
  bool published_ = false;
  bool stopped_ = false;
  MainLoop::Timer limit_;
};

}  // namespace sarnet::relay
