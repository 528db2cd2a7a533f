#pragma once

#include <sarnet/sarnet.h>

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "base/engine.h"
#include "base/event_gate.h"
#include "common/mutex.h"
#include "pictures/video_track.h"
#include "session/binding_slot.h"
#include "session/context.h"

namespace sarnet {

class Publication;
class Strand;

// The object behind srn_publisher_settings. One thread at a time, as with any plain record.
struct PublisherSettings {
  std::string name;
  bool audio_track = true;
  bool video_track = true;
  bool stereo = false;
  // The next three are accepted and ignored: nothing here processes sound.
  bool noise_suppression = false;
  bool echo_cancellation = false;
  bool disable_audio_processing = false;
  bool opus_dtx = false;
  const srn_video_capturer_callbacks* capturer = nullptr;
};

// The object behind srn_publisher. Its events and its capturer's slots run on the strand of the
// session that it is bound to, one at a time; only the capturer's `destroy` may also run on the
// thread that deletes. Copies the program's tables, but reads the publisher table's user_data in
// place at each call, since the program may blank it there before it deletes.
class Publisher : public std::enable_shared_from_this<Publisher> {
 public:
  Publisher(const Context& context, const srn_publisher_callbacks& callbacks,
            const PublisherSettings& settings);

  void set_handle(srn_publisher* handle) { handle_ = handle; }
  const Context& context() const { return context_; }
  const std::string& id() const { return id_; }
  const PublisherSettings& settings() const { return settings_; }
  void set_captions(bool enabled) { captions_ = enabled; }
  // False when nothing is published, or not with captions. Any thread; does not wait.
  bool send_caption(std::string_view text, bool is_final);

  // Makes the binding to a session and starts it on the session's strand. Null when the publisher
  // is bound already or closed.
  std::shared_ptr<Publication> bind(const void* session, std::shared_ptr<Strand> strand,
                                    std::shared_ptr<Engine> engine);
  // Ends the binding to that session; false when there is none. Does not wait for callbacks.
  bool unbind(const void* session);
  // srn_publisher_delete: unbinds, waits for a callback on another thread, and ends the capturer.
  void close();

 private:
  friend class Publication;

  void* user_data() const;
  srn_publisher* handle() const { return handle_; }

  // On the strand, inside the gate. False when the program's capturer refuses.
  bool init_capturer(int& fps);
  bool start_capturer();
  // Any thread; the first call after init_capturer has an effect.
  void stop_capturer();

  const Context& context_;
  const srn_publisher_callbacks* const table_;
  const srn_publisher_callbacks slots_;
  const PublisherSettings settings_;
  srn_video_capturer_callbacks capturer_{};
  const std::string id_;
  srn_publisher* handle_ = nullptr;  // set before the program knows the handle
  std::atomic<bool> captions_{false};
  const std::shared_ptr<VideoTrack> video_;
  EventGate gate_;
  BindingSlot<Publication> binding_;

  common::Mutex mutex_;
  srn_video_capturer* capturer_handle_ GUARDED_BY(mutex_) = nullptr;  // between init and destroy
};

// One binding of a publisher to a session. Held by the publisher and by the engine until it ends.
class Publication : public PublicationSink, public std::enable_shared_from_this<Publication> {
 public:
  Publication(std::shared_ptr<Publisher> publisher, const void* session,
              std::shared_ptr<Strand> strand, std::shared_ptr<Engine> engine);

  const void* session() const { return session_; }
  void begin();
  // Stops the media and leaves the engine; the capturer's end is posted. Any thread; may be
  // repeated; raises no event.
  void end();
  bool send_caption(std::string_view text, bool is_final);
  // On the strand: ends it because the session is over, and notifies the program.
  void session_over();

  void published(const StreamInfo& stream) override;
  void unpublished() override;
  void publication_failed(int code, const std::string& text) override;

 private:
  void begin_on_strand();
  void lost();
  void failed(int code, const std::string& text);

  const std::shared_ptr<Publisher> publisher_;
  const void* const session_;
  const std::shared_ptr<Strand> strand_;
  const std::shared_ptr<Engine> engine_;

  common::Mutex mutex_;
  std::shared_ptr<PublishedStream> stream_ GUARDED_BY(mutex_);
  bool ended_ GUARDED_BY(mutex_) = false;

  // On the strand alone.
  StreamInfo info_;
  bool announced_ = false;
};

}  // namespace sarnet
