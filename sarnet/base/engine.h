#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "base/audio_format.h"
#include "base/picture.h"

namespace sarnet {

// The interface between the contract's sessions and their transport: an engine joins one session
// for its owner and moves events and media both ways. Everything else (handles, threads of the
// program's callbacks, the audio device, the mix) belongs to the core.

struct ConnectionInfo {
  std::string id;
  std::string data;
  std::string session_id;
  std::int64_t created_ms = 0;  // since the Unix epoch
};

struct StreamInfo {
  std::string id;
  std::string name;
  ConnectionInfo connection;
};

struct JoinRequest {
  std::string api_key;
  std::string session_id;
  std::string host;
  std::string path;
  std::uint32_t port = 0;
  bool secure = true;
  std::string token;
};

struct PublishRequest {
  std::string publisher_id;
  std::string name;
  bool has_audio = false;
  bool has_video = false;
  int video_fps = 30;
  bool stereo = false;
  bool opus_dtx = false;
  bool captions = false;
};

// What a subscriber wants at most; a size or rate of 0: any.
struct MediaPreferences {
  bool audio = true;
  bool video = true;
  int max_width = 0;
  int max_height = 0;
  float max_framerate = 0;

  bool operator==(const MediaPreferences&) const = default;
};

// Takes media. Called on threads of the engine, or of the core for what the program publishes.
// Neither blocks nor calls back into the engine; one thread at a time for each kind of media.
class MediaSink {
 public:
  virtual ~MediaSink() = default;
  // 10 ms of audio as a rule, whole frames.
  virtual void on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) = 0;
  virtual void on_picture(const PictureRef& picture) = 0;
  virtual void on_caption(std::string_view text, bool is_final) = 0;
};

// Takes what the program publishes, as soon as publish() has returned.
class PublishedStream : public MediaSink {
 public:
  // The captured audio in the program's own format, in addition to the 48 kHz blocks of on_audio.
  virtual void on_captured_audio(const AudioFormat& format,
                                 std::span<const std::int16_t> samples) = 0;
};

// The sinks below are called on threads of the engine, sometimes with its locks held: they only
// post.

class PublicationSink {
 public:
  virtual ~PublicationSink() = default;
  virtual void published(const StreamInfo& stream) = 0;
  // The publication was ended by the peer.
  virtual void unpublished() = 0;
  virtual void publication_failed(int code, const std::string& text) = 0;
};

class SubscriptionSink : public MediaSink {
 public:
  virtual void subscribed() = 0;
  // The stream is gone.
  virtual void subscription_ended() = 0;
  virtual void subscription_failed(int code, const std::string& text) = 0;
};

class SessionSink {
 public:
  virtual ~SessionSink() = default;
  virtual void joined(const ConnectionInfo& own) = 0;
  // The last event of a session is one of these two.
  virtual void session_ended() = 0;
  virtual void session_failed(int code, const std::string& text) = 0;
  // The other participants' only, never the session's own connection and streams.
  virtual void participant_joined(const ConnectionInfo& participant) = 0;
  virtual void participant_left(const ConnectionInfo& participant) = 0;
  virtual void stream_added(const StreamInfo& stream) = 0;
  virtual void stream_removed(const StreamInfo& stream) = 0;
};

// One participation in one session. Any thread; no call waits for the network, the disk or a sink.
class Engine {
 public:
  virtual ~Engine() = default;

  // Once. Answered by joined() or session_failed(). The engine keeps the sink until leave().
  virtual void join(const JoinRequest& request, std::shared_ptr<SessionSink> sink) = 0;
  // Ends everything, in any state; afterwards no sink of this engine is called, except for calls
  // already under way. May be repeated.
  virtual void leave() = 0;

  // Answered by published() or publication_failed(). Null when there is no session.
  virtual std::shared_ptr<PublishedStream> publish(const PublishRequest& request,
                                                   std::shared_ptr<PublicationSink> sink) = 0;
  // Not answered.
  virtual void unpublish(const std::shared_ptr<PublishedStream>& stream) = 0;

  // Answered by subscribed() or subscription_failed().
  virtual void subscribe(const std::string& stream_id, std::shared_ptr<SubscriptionSink> sink) = 0;
  // Not answered. Keeps the peer from sending more than preferred, as far as the engine can; the
  // core drops the excess in any case.
  virtual void prefer(const std::shared_ptr<SubscriptionSink>& /*sink*/,
                      const MediaPreferences& /*preferences*/) {}
  // Not answered.
  virtual void unsubscribe(const std::shared_ptr<SubscriptionSink>& sink) = 0;
};

}  // namespace sarnet
