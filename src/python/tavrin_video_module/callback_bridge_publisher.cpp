#include "model_serializers/create_objects.h"
#include "tavrin_video_module/callback_bridge.h"
#include "tavrin_video_module/event_delivery.h"

using namespace models;

void on_publisher_stream_created_impl(const MRPublisher& publisher) {
  LOG4CXX_DEBUG(logger, "Publisher stream created callback");
  deliver(SlotTarget(g_publisher_callbacks.on_stream_created_cb), "publisher_on_stream_created",
          [&](EventArguments& arguments) {
            return arguments.add(
                create_publisher_object(publisher.getStreamInfo()),
                "Failed to create Publisher or Stream objects for stream created callback");
          });
}

void on_publisher_stream_destroyed_impl(const MRPublisher& publisher) {
  LOG4CXX_DEBUG(logger, "Publisher stream destroyed callback");
  deliver(SlotTarget(g_publisher_callbacks.on_stream_destroyed_cb), "publisher_on_stream_destroyed",
          [&](EventArguments& arguments) {
            return arguments.add(
                create_publisher_object(publisher.getStreamInfo()),
                "Failed to create Publisher or Stream objects for stream destroyed callback");
          });
}

void on_publisher_error_impl(const MRPublisher& publisher, const std::string& error_message,
                             int error_code) {
  LOG4CXX_DEBUG(logger, "Publisher error callback: " << error_message << " (" << error_code << ")");
  deliver(SlotTarget(g_publisher_callbacks.on_error_cb), "publisher_on_error",
          [&](EventArguments& arguments) {
            const char* failure = "Failed to create Publisher object for error callback";
            return arguments.add(create_publisher_object(publisher.getStreamInfo()), failure) &&
                   arguments.addError(error_message, error_code, failure);
          });
}
