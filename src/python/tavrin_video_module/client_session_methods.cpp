#include "model_serializers/convert_objects.h"
#include "model_serializers/create_objects.h"
#include "tavrin_video_module/client_methods.h"

namespace {

// Borrowed from the arguments, for the length of the call.
struct ConnectionParams {
  const char* application_id = nullptr;
  const char* session_id = nullptr;
  const char* token = nullptr;
  PyObject* session_settings = nullptr;
  std::array<PyObject*, kSessionSlots.size()> callables{};  // in the order of the slots
};

bool parse_connection_params(PyObject* args, PyObject* kwargs, ConnectionParams& params) {
  static const char* const keywords[] = {"application_id",
                                         "session_id",
                                         "token",
                                         "session_settings",
                                         "on_error_cb",
                                         "on_connected_cb",
                                         "on_disconnected_cb",
                                         "on_connection_created_cb",
                                         "on_connection_dropped_cb",
                                         "on_stream_received_cb",
                                         "on_stream_dropped_cb",
                                         "on_audio_data_cb",
                                         "on_ready_for_audio_cb",
                                         "on_media_buffer_drained_cb",
                                         nullptr};
  auto& callables = params.callables;
  return PyArg_ParseTupleAndKeywords(
             args, kwargs, "sss|$OOOOOOOOOOO", const_cast<char**>(keywords), &params.application_id,
             &params.session_id, &params.token, &params.session_settings, &callables[0],
             &callables[1], &callables[2], &callables[3], &callables[4], &callables[5],
             &callables[6], &callables[7], &callables[8], &callables[9]) != 0;
}

MRAudioSettings to_native(const models::SessionAudioSettings& settings) {
  return {settings.sample_rate, settings.number_of_channels};
}

MRVideoSettings to_native(const models::SessionVideoPublisherSettings& settings) {
  return {settings.resolution.width, settings.resolution.height, settings.fps,
          MRVideoFrameFormatUtils::to_snt_video_frame_format(settings.format)};
}

void apply(const models::SessionAVSettings& av, MRSessionSettings& settings) {
  if (av.audio_publisher) settings.audio.publisher = to_native(*av.audio_publisher);
  if (av.audio_subscribers_mix) settings.audio.subscriber = to_native(*av.audio_subscribers_mix);
  LOG4CXX_INFO(logger, "Using custom audio settings: " << settings.audio);
  if (av.video_publisher) settings.video_publisher = to_native(*av.video_publisher);
  LOG4CXX_INFO(logger, "Using custom video settings: " << settings.video_publisher);
}

void apply(const models::SessionSettings& given, MRController& controller,
           MRSessionSettings& settings) {
  if (given.logging) {
    controller.setLogLevel(given.logging->level);
    LOG4CXX_INFO(logger, "Session logging level set to: " << given.logging->level);
  }
  if (given.av) apply(*given.av, settings);
  LOG4CXX_INFO(logger, "Session migration " << (given.enable_migration ? "enabled" : "disabled"));
  settings.enable_migration = given.enable_migration;
}

}  // namespace

PyObject* sdk_wrapper_connect(MRController& controller, PyObject* args, PyObject* kwargs) {
  if (controller.isRunning()) {
    LOG4CXX_WARN(logger, "Already connected to a session");
    return python_bool(false);
  }
  ConnectionParams params;
  if (!parse_connection_params(args, kwargs, params)) {
    LOG4CXX_ERROR(logger, "Failed to parse connect() args");
    return nullptr;
  }
  MRSessionInfo info{params.session_id, params.token, params.application_id, ""};
  LOG4CXX_INFO(logger, "Connecting to session: " << params.session_id << " with application_id: "
                                                 << params.application_id);

  // The callables of an earlier attempt are dropped once all the new ones are in place.
  auto replaced = exchange_callables(kSessionSlots, params.callables);
  drop_in_order(replaced);

  MRSessionSettings settings;
  if (params.session_settings != nullptr && params.session_settings != Py_None) {
    models::SessionSettings given;
    if (!models::convert_session_settings_from_python(params.session_settings, given)) {
      LOG4CXX_ERROR(logger, "Failed to parse SessionSettings");
      return nullptr;
    }
    apply(given, controller, settings);
  }

  if (!call_unlocked(false, [&] { return controller.connect(std::move(info), settings); })) {
    LOG4CXX_ERROR(logger, "Failed to connect to session");
    return python_bool(false);
  }
  LOG4CXX_INFO(logger, "Connection initiated for session: " << params.session_id);
  return python_bool(true);
}

PyObject* sdk_wrapper_disconnect(MRController& controller, PyObject* /*args*/,
                                 PyObject* /*kwargs*/) {
  LOG4CXX_INFO(logger, "Disconnecting from session");
  const bool disconnected = call_unlocked(false, [&] { return controller.disconnect(); });
  if (!disconnected) LOG4CXX_ERROR(logger, "Failed to disconnect from session");

  // Everything is taken out before anything is dropped: a finaliser may call back here.
  auto session_callables = exchange_callables(kSessionSlots, {});
  SubscriberCallbacksMap subscriber_callables = g_subscriber_callbacks.removeAll();
  auto publisher_callables = exchange_callables(kPublisherSlots, {});
  drop_in_order(session_callables);
  for (auto& [stream_id, callables] : subscriber_callables) drop_in_order(callables);
  drop_in_order(publisher_callables);
  return python_bool(disconnected);
}

PyObject* sdk_wrapper_is_connected(MRController& controller, PyObject* /*args*/,
                                   PyObject* /*kwargs*/) {
  return python_bool(controller.isRunning());
}

PyObject* sdk_wrapper_get_connection(MRController& controller, PyObject* /*args*/,
                                     PyObject* /*kwargs*/) {
  const MRConnectionInfo info =
      call_unlocked(MRConnectionInfo(), [&] { return controller.getSessionConnectionInfo(); });
  if (info.connection_id.empty()) return Py_NewRef(Py_None);
  return models::create_connection_object(info).release();
}
