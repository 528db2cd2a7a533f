#pragma once

#include <sarnet/sarnet.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "audio/render_path.h"
#include "base/delivery_queue.h"
#include "base/engine.h"
#include "base/event_gate.h"
#include "session/binding_slot.h"
#include "session/context.h"
#include "session/stream.h"

namespace sarnet {

class Strand;
class Subscription;

struct SubscriberCounters {
  DeliveryCounter audio;
  DeliveryCounter pictures;
  DeliveryCounter captions;
};

// The object behind srn_subscriber. State events run on the session's strand; sound, pictures and
// captions each on a thread of their own, if the program's table (which is copied) has a slot for
// them.
class Subscriber : public std::enable_shared_from_this<Subscriber> {
 public:
  Subscriber(const Context& context, StreamInfo stream, const srn_subscriber_callbacks& callbacks);

  void set_handle(srn_subscriber* handle) { handle_ = handle; }
  srn_subscriber* handle() const { return handle_; }
  const Context& context() const { return context_; }
  const std::string& id() const { return id_; }
  const StreamInfo& stream() const { return stream_; }
  const srn_subscriber_callbacks& slots() const { return slots_; }
  EventGate& gate() { return gate_; }
  SubscriberCounters& counters() { return counters_; }

  // The program's preferences; they may change while media flow.
  std::atomic<bool> wants_audio{true};
  std::atomic<bool> wants_video{true};
  std::atomic<bool> wants_captions{false};
  std::atomic<float> max_framerate{0};           // frames per second, 0: any
  std::atomic<std::uint64_t> max_resolution{0};  // width << 32 | height, 0: any

  // Passes a change of the above to the engine.
  void preferences_changed();

  // As with Publisher.
  std::shared_ptr<Subscription> bind(const void* session, std::shared_ptr<Strand> strand,
                                     std::shared_ptr<Engine> engine);
  bool unbind(const void* session);
  // srn_subscriber_delete: waits for a state event on another thread, never for media.
  void close();

  bool is_current(const Subscription* subscription) const { return binding_.holds(subscription); }
  void forget(const Subscription* subscription) { binding_.forget(subscription); }
  MediaPreferences preferences() const;

 private:
  const Context& context_;
  const StreamInfo stream_;
  const srn_subscriber_callbacks slots_;
  const std::string id_;
  srn_subscriber* handle_ = nullptr;  // set before the program knows the handle
  SubscriberCounters counters_;
  EventGate gate_;
  BindingSlot<Subscription> binding_;
};

// One binding of a subscriber to a session. Held by the subscriber and the engine until it ends,
// and by its delivery threads until their last callback has returned.
class Subscription : public SubscriptionSink, public std::enable_shared_from_this<Subscription> {
 public:
  Subscription(std::shared_ptr<Subscriber> subscriber, const void* session,
               std::shared_ptr<Strand> strand, std::shared_ptr<Engine> engine);

  const void* session() const { return session_; }
  // Throws std::system_error when a delivery thread cannot be made.
  void begin();
  void prefer(const MediaPreferences& preferences);
  // Stops all delivery. Any thread; may be repeated; waits for no callback and raises no event.
  void end();
  // On the strand: ends it because the session is over, and notifies the program.
  void session_over();

  void subscribed() override;
  void subscription_ended() override;
  void subscription_failed(int code, const std::string& text) override;
  void on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) override;
  void on_picture(const PictureRef& picture) override;
  void on_caption(std::string_view text, bool is_final) override;

 private:
  using Clock = std::chrono::steady_clock;

  // 10 ms of the largest format; longer blocks are cut.
  static constexpr std::size_t kMaxSamples = 960;
  struct AudioBlock {
    AudioFormat format;
    std::size_t samples = 0;
    std::array<std::int16_t, kMaxSamples> data;
  };
  struct Caption {
    std::string text;
    bool is_final = false;
  };

  // The queue of a slow callback: a good second of sound, a few pictures.
  static constexpr std::size_t kAudioQueue = 128;
  static constexpr std::size_t kPictureQueue = 4;
  static constexpr std::size_t kCaptionQueue = 256;

  void start_threads();
  void deliver_audio();
  void deliver_pictures();
  void deliver_captions();

  const std::shared_ptr<Subscriber> subscriber_;
  const Context& context_;
  const void* const session_;
  const std::shared_ptr<Strand> strand_;
  const std::shared_ptr<Engine> engine_;
  const std::shared_ptr<RenderSource> render_source_;
  std::unique_ptr<DeliveryQueue<AudioBlock>> audio_;  // null without a slot for it
  std::unique_ptr<DeliveryQueue<PictureRef>> pictures_;
  std::unique_ptr<DeliveryQueue<Caption>> captions_;
  std::atomic<bool> ended_{false};

  Clock::time_point next_picture_{};  // on the engine's video thread
};

}  // namespace sarnet
