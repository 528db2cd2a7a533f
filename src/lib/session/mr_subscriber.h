#pragma once

#include <log4cxx/logger.h>
#include <sarnet/sarnet.h>

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>

#include "common/mutex.h"
#include "media/mr_audio_data.h"
#include "media/mr_video_frame.h"
#include "session/mr_session.h"
#include "session/mr_stream.h"
#include "session/mr_subscriber_observer.h"
#include "session/srn_handles.h"

struct MRSubscriberInfo {
  std::string subscriber_id;
  std::string publisher_stream_id;
  std::string session_id;

  bool isValid() const { return !subscriber_id.empty(); }
};

std::ostream& operator<<(std::ostream& out, const MRSubscriberInfo& info);

struct Resolution {
  uint32_t width = 0;  ///< pixels
  uint32_t height = 0;
};

/// What to receive of a stream. The preferences apply only with video.
struct MRSubscriberSettings {
  bool wants_audio = true;
  bool wants_video = true;
  bool wants_captions = false;
  std::optional<float> preferred_framerate;  ///< frames per second
  std::optional<Resolution> preferred_resolution;
};

std::ostream& operator<<(std::ostream& out, const MRSubscriberSettings& settings);

using on_subscriber_audio_data =
    std::function<void(const MRStreamInfo& stream_info, const MRAudioData& audio_data)>;
using on_subscriber_render_frame =
    std::function<void(const MRStreamInfo& stream_info, const MRVideoFrameData& frame_data)>;
using on_subscriber_caption_text =
    std::function<void(const MRStreamInfo& stream_info, const std::string& text, bool is_final)>;

/// Where the received media go, each on the library's thread for it; any may be empty. They may
/// wait for the worker, and may outlast the subscriber. Audio samples are valid during the call;
/// the pixels of a frame as long as its `keep_alive` is kept.
struct MRSubscriberDataCallbacks {
  on_subscriber_audio_data on_audio_data;
  on_subscriber_render_frame on_render_frame;
  on_subscriber_caption_text on_caption_text;
};

/// One received stream: a subscriber of the library, bound to its session until `unsubscribe`.
//
/// All operations and all owning references belong to the worker; `getSubscriberInfo`,
/// `isSubscribed` and `getTicket` may be called on any thread. The library's state events go to the
/// manager; `release` waits for one under way. Its media run on a shared state with data of its own
/// and are never waited for.
class MRSubscriber {
 public:
  /// Makes and binds a subscriber. Empty on failure: the log says why, and nothing is left in the
  /// library. `manager` gets the state events and outlives the subscriber.
  static std::shared_ptr<MRSubscriber> subscribe(const MRStream& stream,
                                                 const std::shared_ptr<MRSession>& session,
                                                 MRSubscriberObserver* manager,
                                                 const MRSubscriberSettings& settings);
  ~MRSubscriber();
  MRSubscriber(const MRSubscriber&) = delete;
  MRSubscriber& operator=(const MRSubscriber&) = delete;

  /// Leaves the stream, for good: no further media reach the callbacks. The handle stays. May be
  /// repeated.
  void unsubscribe();
  /// Unsubscribes, deletes the handle and releases the session. Only the record of the subscription
  /// is left, so that a holder of the object keeps nothing of the library's. May be repeated.
  void release();

  bool isSubscribed() const;
  MRSubscriberInfo getSubscriberInfo() const;
  /// Unique among all subscribers, past ones included; any thread. Events identify their subscriber
  /// by it: an owning reference, even one taken briefly from a weak one, could become the last on
  /// the library's thread, and the destructor would wait there for its own callback.
  const void* getTicket() const { return ticket_; }
  /// Empty until `setDataCallbacks`.
  const MRStreamInfo& getStreamInfo() const;
  /// Lets the media callbacks run. Only the first call counts.
  void setDataCallbacks(const MRSubscriberDataCallbacks& callbacks,
                        const MRStreamInfo& stream_info);

 private:
  struct CallbackState;

  MRSubscriber(const std::shared_ptr<MRSession>& session, MRSubscriberObserver* manager);

  srn_subscriber_callbacks createCallbacks(const MRSubscriberSettings& settings) const;
  static bool configure(srn_subscriber* subscriber, const MRSubscriberSettings& settings);
  void createSubscriberInfo(const std::string& stream_id, const std::string& session_id);
  void setSubscriberInfo(MRSubscriberInfo info);

  static void onConnected(srn_subscriber* subscriber, void* user_data, const srn_stream* stream);
  static void onDisconnected(srn_subscriber* subscriber, void* user_data);
  static void onError(srn_subscriber* subscriber, void* user_data, const char* description,
                      srn_subscriber_error_code code);
  static void onAudioData(srn_subscriber* subscriber, void* user_data, const srn_audio_data* data);
  static void onRenderFrame(srn_subscriber* subscriber, void* user_data,
                            const srn_video_frame* frame);
  static void onCaptionText(srn_subscriber* subscriber, void* user_data, const char* text,
                            srn_bool is_final);

  static const log4cxx::LoggerPtr& logger_;

  SrnSubscriberPtr subscriber_;
  std::shared_ptr<MRSession> session_;
  const std::shared_ptr<CallbackState> callback_state_;  ///< all that the callbacks use
  void* const ticket_;                                   ///< by which they find it
  mutable common::Mutex info_mutex_;                     ///< a leaf
  MRSubscriberInfo subscriber_info_ GUARDED_BY(info_mutex_);
};
