#include "session/mr_publisher.h"

#include <atomic>
#include <ostream>
#include <utility>

#include "session/callback_gate.h"
#include "support/callback_guard.h"
#include "support/logger.h"

namespace {

const char* word(bool flag) { return flag ? "true" : "false"; }

srn_bool toSrnBool(bool flag) { return flag ? SRN_TRUE : SRN_FALSE; }

}  // namespace

const log4cxx::LoggerPtr& MRPublisher::logger_ = lastingLogger("MRPublisher");

std::ostream& operator<<(std::ostream& out, const MRPublisherSettings& settings) {
  return out << "MRPublisherSettings: {name: '" << settings.name
             << "', hasAudio: " << word(settings.has_audio)
             << ", hasVideo: " << word(settings.has_video)
             << ", stereoAudioMode: " << word(settings.stereo_audio_mode)
             << ", audioNoiseSuppresion: " << word(settings.audio_noise_suppresion)
             << ", audioEchoCancellation: " << word(settings.audio_echo_cancellation)
             << ", audioProcessing: " << word(settings.audio_processing)
             << ", audioEnableDTX: " << word(settings.audio_enable_dtx)
             << ", enableCaptions: " << word(settings.enable_captions) << "}";
}

std::ostream& operator<<(std::ostream& out, const MRPublisherInfo& info) {
  return out << "MRPublisherInfo: {publisherId: " << info.publisher_id
             << ", sessionId: " << info.session_id << "}";
}

MRPublisher::MRPublisher(const std::shared_ptr<MRSession>& session, MRPublisherObserver* manager,
                         const MRVideoSettings& video_settings)
    : session_(session),
      callbacks_{
          .on_stream_created = &MRPublisher::onStreamCreated,
          .on_stream_destroyed = &MRPublisher::onStreamDestroyed,
          .on_render_frame = nullptr,
          .on_audio_level_updated = nullptr,
          .on_publisher_mute_forced = nullptr,
          .on_audio_stats = nullptr,
          .on_video_stats = nullptr,
          .on_error = &MRPublisher::onError,
          .on_video_disabled = nullptr,
          .on_video_enabled = nullptr,
          .on_video_disable_warning = nullptr,
          .on_video_disable_warning_lifted = nullptr,
          .user_data = manager,
          .reserved = nullptr,
      },
      video_capturer_(video_settings) {}

std::unique_ptr<MRPublisher> MRPublisher::publish(const MRPublisherSettings& settings,
                                                  const std::shared_ptr<MRSession>& session,
                                                  MRPublisherObserver* manager) {
  LOG4CXX_DEBUG(logger_, "MRPublisher::publish");
  if (session == nullptr || session->getSrnSession() == nullptr) {
    LOG4CXX_ERROR(logger_, "MRPublisher::publish: Invalid session");
    return nullptr;
  }
  if (!settings.has_audio && !settings.has_video) {
    LOG4CXX_ERROR(logger_, "MRPublisher::publish: publisher must have at least audio or video");
    return nullptr;
  }
  std::unique_ptr<MRPublisher> publisher(
      new MRPublisher(session, manager, session->getSessionSettings().video_publisher));

  SrnPublisherSettingsPtr srn_settings = createSrnEquivalent(settings);
  if (srn_settings == nullptr) {
    LOG4CXX_ERROR(logger_, "MRPublisher::publish: Couldn't create publisher settings");
    return nullptr;
  }
  srn_status status = srn_publisher_settings_set_video_capturer(
      srn_settings.get(), publisher->video_capturer_.getSrnCallbacks());
  if (status != SRN_SUCCESS) {
    LOG4CXX_ERROR(logger_,
                  "MRPublisher::publish:: Couldn't bind the video capturer. status:" << status);
    return nullptr;
  }
  // Declared after the object whose table it uses, so that a failure deletes it first.
  SrnPublisherPtr handle(
      srn_publisher_new_with_settings(&publisher->callbacks_, srn_settings.get()));
  srn_settings.reset();
  if (handle == nullptr) {
    LOG4CXX_ERROR(logger_, "MRPublisher::publish: Couldn't create publisher");
    return nullptr;
  }
  // Before the publisher is bound, so that a failure leaves no trace in the session.
  status = srn_publisher_set_publish_captions(handle.get(), toSrnBool(settings.enable_captions));
  if (status != SRN_SUCCESS) {
    LOG4CXX_ERROR(logger_,
                  "MRPublisher::publish: Failed to enable caption publishing. status:" << status);
    return nullptr;
  }
  status = srn_session_publish(session->getSrnSession(), handle.get());
  if (status != SRN_SUCCESS) {
    LOG4CXX_ERROR(logger_,
                  "MRPublisher::publish: Failed to bind publisher to session. status=" << status);
    return nullptr;
  }
  publisher->publisher_ = std::move(handle);
  publisher->createPublisherInfo(session->getSessionId());
  LOG4CXX_DEBUG(logger_, "MRPublisher::publish: Successfully created publisher="
                             << publisher->publisher_info_);
  return publisher;
}

MRPublisher::~MRPublisher() { unpublish(); }

SrnPublisherSettingsPtr MRPublisher::createSrnEquivalent(const MRPublisherSettings& settings) {
  static constexpr const char* kPrefix = "MRPublisherInfo::createSrnEquivalent: ";
  SrnPublisherSettingsPtr result(srn_publisher_settings_new());
  if (result == nullptr) {
    LOG4CXX_ERROR(logger_, kPrefix << "Couldn't create srn settings");
    return nullptr;
  }
  const auto done = [](srn_status status, const char* failure) {
    if (status != SRN_SUCCESS) LOG4CXX_ERROR(logger_, kPrefix << failure << " status:" << status);
    return status == SRN_SUCCESS;
  };
  srn_publisher_settings* const srn = result.get();
  const bool complete =
      done(srn_publisher_settings_set_name(srn, settings.name.c_str()), "Couldn't set the name.") &&
      done(srn_publisher_settings_set_audio_track(srn, toSrnBool(settings.has_audio)),
           "Couldn't (de)activate the audio track.") &&
      done(srn_publisher_settings_set_video_track(srn, toSrnBool(settings.has_video)),
           "Couldn't (de)activate the video track.") &&
      done(srn_publisher_settings_set_stereo(srn, toSrnBool(settings.stereo_audio_mode)),
           "Couldn't set the stereo/mono audio.") &&
      done(srn_publisher_settings_set_noise_suppression(srn,
                                                        toSrnBool(settings.audio_noise_suppresion)),
           "Couldn't (de)activate the audio noise suppresion.") &&
      done(srn_publisher_settings_set_echo_cancellation(
               srn, toSrnBool(settings.audio_echo_cancellation)),
           "Couldn't (de)activate the audio echo cancellation.") &&
      done(srn_publisher_settings_set_disable_audio_processing(
               srn, toSrnBool(!settings.audio_processing)),
           "Couldn't (de)activate the audio processsing.") &&
      done(srn_publisher_settings_set_opus_dtx(srn, toSrnBool(settings.audio_enable_dtx)),
           "Couldn't (de)activate the audio DTX.");
  return complete ? std::move(result) : nullptr;
}

void MRPublisher::createPublisherInfo(const std::string& session_id) {
  publisher_info_.publisher_id = textOrEmpty(srn_publisher_get_publisher_id(publisher_.get()));
  publisher_info_.session_id = session_id;
}

void MRPublisher::unpublish() {
  LOG4CXX_DEBUG(logger_, "MRPublisher::unpublish");
  if (publisher_ == nullptr) return;
  if (session_ != nullptr && session_->getSrnSession() != nullptr) {
    const srn_status status = srn_session_unpublish(session_->getSrnSession(), publisher_.get());
    if (status != SRN_SUCCESS) {
      LOG4CXX_ERROR(logger_,
                    "MRPublisher::unpublish: Failed to unbind publisher from session. status:"
                        << status << " session_:" << session_->getSrnSession()
                        << " publisher_:" << publisher_.get());
    } else {
      LOG4CXX_INFO(logger_, "MRPublisher::unpublish Success unpublishing...");
    }
  }
  // A late event then finds no observer. The library reads the field by address on its threads.
  const SrnPublisherPtr publisher = std::move(publisher_);
  std::atomic_ref(callbacks_.user_data).store(nullptr);
}

bool MRPublisher::addVideo(std::unique_ptr<MRVideoFrame> frame) {
  return video_capturer_.addVideo(std::move(frame));
}

bool MRPublisher::clearVideoBuffers() {
  LOG4CXX_DEBUG(logger_, "MRPublisher::clearVideoBuffers");
  return video_capturer_.clearVideoBuffers();
}

std::chrono::milliseconds MRPublisher::getVideoBufferDuration() const {
  return video_capturer_.getVideoBufferDuration();
}

void MRPublisher::setOnVideoBufferDrainedCallback(MRVideoBufferDrainedCallback&& callback) {
  video_capturer_.setOnVideoBufferDrainedCallback(std::move(callback));
}

MRVideoBufferDrainedCallback MRPublisher::getOnVideoBufferDrainedCallback() const {
  return video_capturer_.getOnVideoBufferDrainedCallback();
}

void MRPublisher::onStreamCreated(srn_publisher* publisher, void* user_data,
                                  const srn_stream* stream) {
  LOG4CXX_DEBUG(logger_, "MRPublisher::onStreamCreated");
  if (publisher == nullptr) {
    LOG4CXX_WARN(logger_, "MRPublisher::onStreamCreated: publisher is NULL");
    return;
  }
  if (stream == nullptr) {
    LOG4CXX_WARN(logger_, "MRPublisher::onStreamCreated: stream is NULL");
    return;
  }
  if (user_data == nullptr) return;
  guardCallback(logger_, "MRPublisher::onStreamCreated", [=] {
    static_cast<MRPublisherObserver*>(user_data)->onStreamCreated(MRStream(stream).getStreamInfo());
  });
}

void MRPublisher::onStreamDestroyed(srn_publisher* publisher, void* user_data, const srn_stream*) {
  LOG4CXX_DEBUG(logger_, "MRPublisher::onStreamDestroyed");
  if (publisher == nullptr) {
    LOG4CXX_WARN(logger_, "MRPublisher::onStreamDestroyed: publisher is NULL");
    return;
  }
  if (user_data == nullptr) return;
  guardCallback(logger_, "MRPublisher::onStreamDestroyed",
                [=] { static_cast<MRPublisherObserver*>(user_data)->onStreamDestroyed(); });
}

void MRPublisher::onError(srn_publisher* publisher, void* user_data, const char* description,
                          srn_publisher_error_code code) {
  description = textOrEmpty(description);
  const auto number = static_cast<int32_t>(code);
  LOG4CXX_ERROR(logger_,
                "MRPublisher::onError: code:" << number << ", description:" << description);
  if (publisher == nullptr) {
    LOG4CXX_WARN(logger_, "MRPublisher::onError: publisher is NULL");
    return;
  }
  if (user_data == nullptr) return;
  guardCallback(logger_, "MRPublisher::onError", [=] {
    static_cast<MRPublisherObserver*>(user_data)->onError(description, number);
  });
}
