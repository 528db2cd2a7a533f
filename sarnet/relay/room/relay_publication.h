#pragma once

#include <memory>
#include <string>

#include "base/engine.h"
#include "common/mutex.h"
#include "relay/peer/publishing_peer.h"
#include "relay/room/relay_stream.h"
#include "relay/room/room_member.h"

namespace sarnet::relay {

// Takes the program's media from publishing on; drops them before the peer exists and after it
// ends. Any thread.
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

  mutable common::Mutex mutex_;
  std::shared_ptr<PublishedStream> peer_ GUARDED_BY(mutex_);
};

// One stream that the session publishes. A participation at the server publishes one stream, so the
// first uses the session's own handle and each further one joins the room on a handle of its own.
class RelayPublication final : public RelayStream {
 public:
  RelayPublication(RoomAccess& access, PublishRequest request, std::shared_ptr<PublishedFeed> feed,
                   std::shared_ptr<PublicationSink> sink, Over over);
  ~RelayPublication() override;

  // On the session's own handle, or with 0 on a new one.
  void start(std::uint64_t handle);
  void notice(const json& message) override;
  void stop() override;
  // On the session's handle it stays a participant.
  void withdraw() override;

  const PublishedFeed* feed() const { return feed_.get(); }
  bool shares_handle() const { return !own_handle_; }
  // Whether the server has a media connection on the handle that it must hang up first.
  bool negotiated() const { return negotiated_; }

  void on_local_description(const std::string& type, const std::string& sdp) override;

 private:
  void join();
  void negotiate();
  void restart() override { peer_->restart(); }
  void check_way() override { peer_->check_way(); }
  Display display() const;
  void connected() override;
  void report(const Failure& failure) override;
  void add_remote_candidate(unsigned mline, const std::string& candidate) override;

  const PublishRequest request_;
  const std::shared_ptr<PublishedFeed> feed_;
  const std::shared_ptr<PublicationSink> sink_;
  std::shared_ptr<PublishingPeer> peer_;
  std::string id_;  // of the participation that publishes
  bool own_handle_ = false;
  bool negotiated_ = false;
  unsigned offers_ = 0;
};

}  // namespace sarnet::relay
