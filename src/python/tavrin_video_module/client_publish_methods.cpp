#include "model_serializers/convert_objects.h"
#include "tavrin_video_module/callback_bridge.h"
#include "tavrin_video_module/client_methods.h"

PyObject* sdk_wrapper_publish(MRController& controller, PyObject* args, PyObject* kwargs) {
  static const char* const keywords[] = {"settings", "on_error_cb", "on_stream_created_cb",
                                         "on_stream_destroyed_cb", nullptr};
  PyObject* given_settings = nullptr;
  std::array<PyObject*, kPublisherSlots.size()> callables{};
  if (PyArg_ParseTupleAndKeywords(args, kwargs, "O|$OOO", const_cast<char**>(keywords),
                                  &given_settings, &callables[0], &callables[1],
                                  &callables[2]) == 0) {
    LOG4CXX_ERROR(logger, "Failed to parse publish() args");
    return nullptr;
  }
  LOG4CXX_INFO(logger, "Publishing stream");
  MRPublisherSettings settings;
  if (!models::convert_publisher_settings_from_python(given_settings, settings)) {
    LOG4CXX_ERROR(logger, "Failed to parse MRPublisherSettings");
    return nullptr;
  }
  const MRPublisherCallbacks callbacks{.on_stream_created = on_publisher_stream_created_impl,
                                       .on_stream_destroyed = on_publisher_stream_destroyed_impl,
                                       .on_error = on_publisher_error_impl};
  const std::string publisher_id =
      call_unlocked(std::string(), [&] { return controller.publish(settings, callbacks); });
  if (publisher_id.empty()) {
    LOG4CXX_WARN(logger, "Failed to publish a stream");
    return python_bool(false);
  }
  auto replaced = exchange_callables(kPublisherSlots, callables);
  drop_in_order(replaced);
  LOG4CXX_INFO(logger, "Publishing initiated with publisher ID: " << publisher_id);
  return python_bool(true);
}

PyObject* sdk_wrapper_unpublish(MRController& controller, PyObject* /*args*/,
                                PyObject* /*kwargs*/) {
  LOG4CXX_INFO(logger, "Unpublishing stream");
  if (!call_unlocked(false, [&] { return controller.unpublish(); })) {
    LOG4CXX_WARN(logger, "Failed to unpublish");
    return python_bool(false);
  }
  auto removed = exchange_callables(kPublisherSlots, {});
  drop_in_order(removed);
  LOG4CXX_INFO(logger, "Successfully unpublished stream");
  return python_bool(true);
}

PyObject* sdk_wrapper_is_publishing(MRController& controller, PyObject* /*args*/,
                                    PyObject* /*kwargs*/) {
  return python_bool(controller.isPublishing());
}

PyObject* sdk_wrapper_subscribe(MRController& controller, PyObject* args, PyObject* kwargs) {
  static const char* const keywords[] = {"stream",
                                         "settings",
                                         "on_error_cb",
                                         "on_connected_cb",
                                         "on_disconnected_cb",
                                         "on_audio_data_cb",
                                         "on_render_frame_cb",
                                         "on_caption_text_cb",
                                         nullptr};
  PyObject* given_stream = nullptr;
  PyObject* given_settings = nullptr;
  std::array<PyObject*, kSubscriberEvents> given{};
  if (PyArg_ParseTupleAndKeywords(args, kwargs, "O|$OOOOOOO", const_cast<char**>(keywords),
                                  &given_stream, &given_settings, &given[0], &given[1], &given[2],
                                  &given[3], &given[4], &given[5]) == 0) {
    LOG4CXX_ERROR(logger, "Failed to parse subscribe() args");
    return nullptr;
  }
  MRStreamInfo info;
  if (!models::convert_stream_from_python(given_stream, info)) {
    LOG4CXX_ERROR(logger, "Failed to parse MRStreamInfo");
    return nullptr;
  }
  LOG4CXX_INFO(logger, "Subscribing to stream: " << info);
  MRSubscriberSettings settings;
  if (given_settings != nullptr && given_settings != Py_None &&
      !models::convert_subscriber_settings_from_python(given_settings, settings)) {
    LOG4CXX_ERROR(logger, "Failed to parse MRSubscriberSettings");
    return nullptr;
  }
  const MRSubscriberCallbacks callbacks{
      .on_connected = on_subscriber_connected_impl,
      .on_disconnected = on_subscriber_disconnected_impl,
      .on_error = on_subscriber_error_impl,
      .data = {.on_audio_data = on_subscriber_audio_data_impl,
               .on_render_frame = on_subscriber_render_frame_impl,
               .on_caption_text = on_subscriber_caption_text_impl}};
  SubscriberCallbacks callables;
  for (std::size_t i = 0; i < kSubscriberEvents; ++i) callables[i] = take_callable(given[i]);
  const std::string subscriber_id = call_unlocked(
      std::string(), [&] { return controller.subscribe(info.stream_id, callbacks, settings); });
  if (subscriber_id.empty()) {
    drop_in_order(callables);
    return python_bool(false);
  }
  SubscriberCallbacks replaced =
      g_subscriber_callbacks.exchange(info.stream_id, std::move(callables));
  drop_in_order(replaced);
  LOG4CXX_INFO(logger, "Subscription initiated for stream with subscriber ID: " << subscriber_id);
  return python_bool(true);
}

PyObject* sdk_wrapper_unsubscribe(MRController& controller, PyObject* args, PyObject* kwargs) {
  static const char* const keywords[] = {"stream", nullptr};
  PyObject* given_stream = nullptr;
  if (PyArg_ParseTupleAndKeywords(args, kwargs, "O", const_cast<char**>(keywords), &given_stream) ==
      0) {
    LOG4CXX_ERROR(logger, "Failed to parse unsubscribe() args");
    return nullptr;
  }
  MRStreamInfo info;
  if (!models::convert_stream_from_python(given_stream, info)) {
    LOG4CXX_ERROR(logger, "Failed to parse MRStreamInfo");
    return nullptr;
  }
  LOG4CXX_INFO(logger, "Unsubscribing from stream: " << info);
  const bool unsubscribed =
      call_unlocked(false, [&] { return controller.unsubscribe(info.stream_id); });
  SubscriberCallbacks removed = g_subscriber_callbacks.remove(info.stream_id);
  drop_in_order(removed);
  if (!unsubscribed) {
    LOG4CXX_WARN(logger, "Failed to unsubscribe");
    return python_bool(false);
  }
  LOG4CXX_INFO(logger, "Successfully unsubscribed from stream: " << info);
  return python_bool(true);
}
