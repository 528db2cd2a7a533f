#include "model_serializers/create_objects.h"
#include "tavrin_video_module/callback_bridge.h"
#include "tavrin_video_module/event_delivery.h"

using namespace models;

namespace {

// State events know their stream from what was subscribed to.
std::string stream_of(const MRSubscriber& subscriber) {
  return subscriber.getSubscriberInfo().publisher_stream_id;
}

}  // namespace

void on_subscriber_connected_impl(const MRSubscriber& subscriber) {
  LOG4CXX_DEBUG(logger, "Subscriber connected callback");
  const std::string stream_id = stream_of(subscriber);
  deliver(SubscriptionTarget(stream_id, SubscriberEvent::kConnected), "subscriber_on_connected",
          [&](EventArguments& arguments) {
            return arguments.add(create_subscriber_object(subscriber.getStreamInfo()),
                                 "Failed to create Subscriber object for connected callback");
          });
}

void on_subscriber_disconnected_impl(const MRSubscriber& subscriber) {
  LOG4CXX_DEBUG(logger, "Subscriber disconnected callback");
  const std::string stream_id = stream_of(subscriber);
  deliver(SubscriptionTarget(stream_id, SubscriberEvent::kDisconnected),
          "subscriber_on_disconnected", [&](EventArguments& arguments) {
            return arguments.add(create_subscriber_object(subscriber.getStreamInfo()),
                                 "Failed to create Subscriber object for disconnected callback");
          });
}

void on_subscriber_error_impl(const MRSubscriber& subscriber, const std::string& error_message,
                              int error_code) {
  LOG4CXX_DEBUG(logger,
                "Subscriber error callback: " << error_message << " (" << error_code << ")");
  const std::string stream_id = stream_of(subscriber);
  deliver(SubscriptionTarget(stream_id, SubscriberEvent::kError), "subscriber_on_error",
          [&](EventArguments& arguments) {
            const char* failure = "Failed to create Subscriber object for error callback";
            return arguments.add(create_subscriber_object(subscriber.getStreamInfo()), failure) &&
                   arguments.addError(error_message, error_code, failure);
          });
}

void on_subscriber_audio_data_impl(const MRStreamInfo& stream, const MRAudioData& audio) {
  deliver(SubscriptionTarget(stream.stream_id, SubscriberEvent::kAudioData),
          "subscriber_on_audio_data", [&](EventArguments& arguments) {
            const char* failure =
                "Failed to create Subscriber or AudioData objects for audio data callback";
            return arguments.add(create_subscriber_object(stream), failure) &&
                   arguments.add(create_audio_data_object(audio, arguments.mediaMemory()), failure);
          });
}

void on_subscriber_render_frame_impl(const MRStreamInfo& stream, const MRVideoFrameData& frame) {
  deliver(SubscriptionTarget(stream.stream_id, SubscriberEvent::kRenderFrame),
          "subscriber_on_render_frame", [&](EventArguments& arguments) {
            const char* failure =
                "Failed to create Subscriber or VideoFrame objects for render frame callback";
            return arguments.add(create_subscriber_object(stream), failure) &&
                   arguments.add(create_video_frame_object(frame, arguments.mediaMemory()),
                                 failure);
          });
}

void on_subscriber_caption_text_impl(const MRStreamInfo& stream, const std::string& text,
                                     bool is_final) {
  deliver(SubscriptionTarget(stream.stream_id, SubscriberEvent::kCaptionText),
          "subscriber_on_caption_text", [&](EventArguments& arguments) {
            return arguments.add(create_subscriber_object(stream),
                                 "Failed to create Subscriber object for caption text callback") &&
                   arguments.add(create_captions_data_object(text, is_final),
                                 "Failed to create CaptionsData object for caption text callback");
          });
}
