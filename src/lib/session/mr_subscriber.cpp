#include "session/mr_subscriber.h"

#include <atomic>
#include <ostream>
#include <utility>

#include "session/callback_gate.h"
#include "support/callback_guard.h"
#include "support/logger.h"

const log4cxx::LoggerPtr& MRSubscriber::logger_ = lastingLogger("MRSubscriber");

/// All that the callbacks use. State events pass the gate, and so may touch the subscriber; media
/// use only this state, since they may outlast the subscriber.
struct MRSubscriber::CallbackState {
  CallbackState(MRSubscriber* owner, MRSubscriberObserver* observer)
      : subscriber(owner), manager(observer) {}

  MRSubscriber* const subscriber;
  MRSubscriberObserver* const manager;
  CallbackGate gate;

  std::atomic<bool> subscribed{false};
  // Set, once, when the two after it are complete.
  std::atomic<bool> installed{false};
  MRSubscriberDataCallbacks data_callbacks;
  MRStreamInfo stream_info;
  // The channel count that audio is locked to; 0 until the first buffer with a signal. The audio
  // thread's own.
  std::size_t consolidated_num_channels = 0;
};

std::ostream& operator<<(std::ostream& out, const MRSubscriberInfo& info) {
  return out << "MRSubscriberInfo: {subscriberId: " << info.subscriber_id
             << ", sessionId: " << info.session_id
             << ", publisherStreamId: " << info.publisher_stream_id << "}";
}

std::ostream& operator<<(std::ostream& out, const MRSubscriberSettings& settings) {
  out << "MRSubscriberSettings: {wantsAudio: " << settings.wants_audio
      << ", wantsVideo: " << settings.wants_video << ", wantsCaptions: " << settings.wants_captions;
  if (settings.preferred_framerate) {
    out << ", preferredFramerate: " << *settings.preferred_framerate;
  }
  if (settings.preferred_resolution) {
    out << ", preferredResolution: {width: " << settings.preferred_resolution->width
        << " height: " << settings.preferred_resolution->height << "}";
  }
  return out << "}";
}

MRSubscriber::MRSubscriber(const std::shared_ptr<MRSession>& session, MRSubscriberObserver* manager)
    : session_(session),
      callback_state_(std::make_shared<CallbackState>(this, manager)),
      ticket_(CallbackStates<CallbackState>::instance().open(callback_state_)) {}

MRSubscriber::~MRSubscriber() {
  LOG4CXX_DEBUG(logger_, "MRSubscriber::~MRSubscriber");
  release();
}

std::shared_ptr<MRSubscriber> MRSubscriber::subscribe(const MRStream& stream,
                                                      const std::shared_ptr<MRSession>& session,
                                                      MRSubscriberObserver* manager,
                                                      const MRSubscriberSettings& settings) {
  LOG4CXX_DEBUG(logger_, "MRSubscriber::subscribe");
  if (session == nullptr || session->getSrnSession() == nullptr) {
    LOG4CXX_ERROR(logger_, "MRSubscriber::subscribe: Invalid session");
    return nullptr;
  }
  if (!settings.wants_audio && !settings.wants_video) {
    LOG4CXX_ERROR(logger_,
                  "MRSubscriber::subscribe: At least one of subscribe_to_audio or "
                  "subscribe_to_video must be true");
    return nullptr;
  }
  std::shared_ptr<MRSubscriber> subscriber(new MRSubscriber(session, manager));
  const MRStreamInfo stream_info = stream.getStreamInfo();
  // An event may come as soon as the library knows the subscriber, and must name its stream.
  subscriber->setSubscriberInfo({{}, stream_info.stream_id, session->getSessionId()});

  const srn_subscriber_callbacks callbacks = subscriber->createCallbacks(settings);
  SrnSubscriberPtr handle(srn_subscriber_new(stream.getStream(), &callbacks));
  if (handle == nullptr) {
    LOG4CXX_ERROR(
        logger_,
        "MRSubscriber::subscribe (static): Couldn't create subscriber for stream:" << stream_info);
    return nullptr;
  }
  if (!configure(handle.get(), settings)) return nullptr;
  const srn_status status = srn_session_subscribe(session->getSrnSession(), handle.get());
  if (status != SRN_SUCCESS) {
    LOG4CXX_ERROR(logger_,
                  "MRSubscriber::subscribe (static): Failed to bind subscriber to session. status:"
                      << status);
    return nullptr;
  }
  subscriber->callback_state_->subscribed = true;
  subscriber->subscriber_ = std::move(handle);
  subscriber->createSubscriberInfo(stream_info.stream_id, session->getSessionId());
  LOG4CXX_DEBUG(logger_, "MRSubscriber::subscribe (static): Successfully created subscriber:"
                             << subscriber->getSubscriberInfo());
  return subscriber;
}

srn_subscriber_callbacks MRSubscriber::createCallbacks(const MRSubscriberSettings& settings) const {
  return {
      .on_connected = &MRSubscriber::onConnected,
      .on_disconnected = &MRSubscriber::onDisconnected,
      .on_reconnected = nullptr,
      .on_render_frame = settings.wants_video ? &MRSubscriber::onRenderFrame : nullptr,
      .on_video_disabled = nullptr,
      .on_video_enabled = nullptr,
      .on_audio_disabled = nullptr,
      .on_audio_enabled = nullptr,
      .on_video_data_received = nullptr,
      .on_video_disable_warning = nullptr,
      .on_caption_text = settings.wants_captions ? &MRSubscriber::onCaptionText : nullptr,
      .on_video_disable_warning_lifted = nullptr,
      .on_audio_stats = nullptr,
      .on_video_stats = nullptr,
      .on_audio_level_updated = nullptr,
      .on_error = &MRSubscriber::onError,
      .on_audio_data = settings.wants_audio ? &MRSubscriber::onAudioData : nullptr,
      .user_data = ticket_,
      .reserved = nullptr,
  };
}

bool MRSubscriber::configure(srn_subscriber* subscriber, const MRSubscriberSettings& settings) {
  const auto done = [](srn_status status, const char* failure) {
    if (status != SRN_SUCCESS) {
      LOG4CXX_ERROR(logger_,
                    "MRSubscriber::subscribe (static): " << failure << " status:" << status);
    }
    return status == SRN_SUCCESS;
  };
  const auto to_srn_bool = [](bool flag) { return flag ? SRN_TRUE : SRN_FALSE; };
  if (!done(srn_subscriber_set_subscribe_to_video(subscriber, to_srn_bool(settings.wants_video)),
            "Failed to configure video subscription.")) {
    return false;
  }
  if (settings.wants_video && settings.preferred_resolution &&
      !done(
          srn_subscriber_set_preferred_resolution(subscriber, settings.preferred_resolution->width,
                                                  settings.preferred_resolution->height),
          "Failed to set preferred resolution.")) {
    return false;
  }
  if (settings.wants_video && settings.preferred_framerate &&
      !done(srn_subscriber_set_preferred_framerate(subscriber, *settings.preferred_framerate),
            "Failed to set preferred framerate.")) {
    return false;
  }
  return done(srn_subscriber_set_subscribe_to_audio(subscriber, to_srn_bool(settings.wants_audio)),
              "Failed to configure audio subscription.") &&
         done(srn_subscriber_set_subscribe_to_captions(subscriber,
                                                       to_srn_bool(settings.wants_captions)),
              "Failed to configure caption subscription.");
}

void MRSubscriber::createSubscriberInfo(const std::string& stream_id,
                                        const std::string& session_id) {
  setSubscriberInfo(
      {textOrEmpty(srn_subscriber_get_subscriber_id(subscriber_.get())), stream_id, session_id});
}

void MRSubscriber::setSubscriberInfo(MRSubscriberInfo info) {
  const common::LockGuard lock(info_mutex_);
  subscriber_info_ = std::move(info);
}

void MRSubscriber::unsubscribe() {
  LOG4CXX_DEBUG(logger_, "MRSubscriber::unsubscribe");
  if (!callback_state_->subscribed.exchange(false)) return;
  if (subscriber_ == nullptr || session_ == nullptr || session_->getSrnSession() == nullptr) return;
  const srn_status status = srn_session_unsubscribe(session_->getSrnSession(), subscriber_.get());
  if (status != SRN_SUCCESS) {
    LOG4CXX_ERROR(logger_,
                  "MRSubscriber::unsubscribe: Failed to unbind subscriber from session. status:"
                      << status << ", session_:" << session_->getSrnSession()
                      << ", subscriber_:" << subscriber_.get());
  }
}

void MRSubscriber::release() {
  unsubscribe();
  // State events only post, so this is short. Media callbacks finish on the state, however long
  // they take.
  callback_state_->gate.close();
  subscriber_.reset();
  CallbackStates<CallbackState>::instance().close(ticket_);
  session_.reset();
}

bool MRSubscriber::isSubscribed() const { return callback_state_->subscribed.load(); }

MRSubscriberInfo MRSubscriber::getSubscriberInfo() const {
  const common::LockGuard lock(info_mutex_);
  return subscriber_info_;
}

const MRStreamInfo& MRSubscriber::getStreamInfo() const { return callback_state_->stream_info; }

void MRSubscriber::setDataCallbacks(const MRSubscriberDataCallbacks& callbacks,
                                    const MRStreamInfo& stream_info) {
  if (callback_state_->installed.load()) return;
  callback_state_->data_callbacks = callbacks;
  callback_state_->stream_info = stream_info;
  callback_state_->installed.store(true, std::memory_order_release);
}

namespace {

const char* const kSubscriberIsNull = ": subscriber is NULL";
const char* const kUserDataIsNull = ": user_data is NULL";

/// Runs `body` with the state of `user_data` if the subscriber is alive, and keeps it so meanwhile.
template <class State, class Body>
void withLiveSubscriber(const log4cxx::LoggerPtr& logger, void* user_data, const char* name,
                        Body&& body) {
  guardCallback(logger, name, [&] {
    const auto state = CallbackStates<State>::instance().find(user_data);
    if (state == nullptr || state->manager == nullptr) return;
    if (const CallbackGate::Pass pass(state->gate); pass) body(*state);
  });
}

/// Runs `body` with the state of `user_data` while media are wanted. The state outlasts the call;
/// the subscriber may not.
template <class State, class Body>
void withMediaState(const log4cxx::LoggerPtr& logger, const srn_subscriber* subscriber,
                    void* user_data, const char* name, Body&& body) {
  if (subscriber == nullptr) {
    LOG4CXX_WARN(logger, name << kSubscriberIsNull);
    return;
  }
  if (user_data == nullptr) {
    LOG4CXX_WARN(logger, name << kUserDataIsNull);
    return;
  }
  guardCallback(logger, name, [&] {
    const auto state = CallbackStates<State>::instance().find(user_data);
    if (state != nullptr && state->subscribed.load() &&
        state->installed.load(std::memory_order_acquire)) {
      body(*state);
    }
  });
}

}  // namespace

void MRSubscriber::onConnected(srn_subscriber* subscriber, void* user_data,
                               const srn_stream* stream) {
  static constexpr const char* kName = "MRSubscriber::onConnected";
  LOG4CXX_DEBUG(logger_, kName);
  if (subscriber == nullptr) {
    LOG4CXX_WARN(logger_, kName << kSubscriberIsNull);
    return;
  }
  if (stream == nullptr) {
    LOG4CXX_WARN(logger_, kName << ": stream is NULL");
    return;
  }
  withLiveSubscriber<CallbackState>(logger_, user_data, kName, [](const CallbackState& state) {
    state.manager->onSubscriberConnected(*state.subscriber);
  });
}

void MRSubscriber::onDisconnected(srn_subscriber* subscriber, void* user_data) {
  static constexpr const char* kName = "MRSubscriber::onDisconnected";
  LOG4CXX_DEBUG(logger_, kName);
  if (subscriber == nullptr) {
    LOG4CXX_WARN(logger_, kName << kSubscriberIsNull);
    return;
  }
  withLiveSubscriber<CallbackState>(logger_, user_data, kName, [](const CallbackState& state) {
    state.manager->onSubscriberDisconnected(*state.subscriber);
  });
}

void MRSubscriber::onError(srn_subscriber* subscriber, void* user_data, const char* description,
                           srn_subscriber_error_code code) {
  static constexpr const char* kName = "MRSubscriber::onError";
  description = textOrEmpty(description);
  const auto number = static_cast<int32_t>(code);
  LOG4CXX_ERROR(logger_, kName << ": code:" << number << ", description:" << description);
  if (subscriber == nullptr) {
    LOG4CXX_WARN(logger_, kName << kSubscriberIsNull);
    return;
  }
  withLiveSubscriber<CallbackState>(logger_, user_data, kName, [=](const CallbackState& state) {
    state.manager->onSubscriberError(*state.subscriber, description, number);
  });
}

void MRSubscriber::onAudioData(srn_subscriber* subscriber, void* user_data,
                               const srn_audio_data* data) {
  static constexpr const char* kName = "MRSubscriber::onAudioData";
  LOG4CXX_TRACE(logger_, kName);
  withMediaState<CallbackState>(
      logger_, subscriber, user_data, kName, [data](CallbackState& state) {
        if (data == nullptr || state.data_callbacks.on_audio_data == nullptr) return;
        const MRAudioData audio(data);
        // Streams begin with silence whose channel count may be wrong.
        std::size_t& locked = state.consolidated_num_channels;
        if (locked == 0) {
          if (audio.isBufferEmpty()) {
            LOG4CXX_TRACE(logger_, kName << ": Discarding empty buffers");
          } else {
            locked = audio.number_of_channels_;
            LOG4CXX_TRACE(logger_,
                          kName << ": From here on only raising callback when num channels is "
                                   "equal to "
                                << locked);
          }
        }
        if (audio.number_of_channels_ == locked) {
          state.data_callbacks.on_audio_data(state.stream_info, audio);
        }
      });
}

void MRSubscriber::onRenderFrame(srn_subscriber* subscriber, void* user_data,
                                 const srn_video_frame* frame) {
  static constexpr const char* kName = "MRSubscriber::onRenderFrame";
  LOG4CXX_TRACE(logger_, kName);
  withMediaState<CallbackState>(
      logger_, subscriber, user_data, kName, [frame](const CallbackState& state) {
        if (state.data_callbacks.on_render_frame == nullptr) return;
        auto owned = MRVideoFrame::fromSrnVideoFrame(frame);
        if (owned == nullptr) {
          LOG4CXX_ERROR(logger_, kName << ": Failed to convert srn_video_frame to MRVideoFrame");
          return;
        }
        state.data_callbacks.on_render_frame(state.stream_info,
                                             MRVideoFrame::share(std::move(owned)));
      });
}

void MRSubscriber::onCaptionText(srn_subscriber* subscriber, void* user_data, const char* text,
                                 srn_bool is_final) {
  static constexpr const char* kName = "MRSubscriber::onCaptionText";
  LOG4CXX_TRACE(logger_, kName);
  withMediaState<CallbackState>(
      logger_, subscriber, user_data, kName, [=](const CallbackState& state) {
        if (state.data_callbacks.on_caption_text != nullptr) {
          state.data_callbacks.on_caption_text(state.stream_info, textOrEmpty(text), is_final == 1);
        }
      });
}
