#include "data_models.h"
#include "model_serializers/create_objects.h"
#include "model_serializers/media_memory.h"
#include "model_serializers/member_names.h"
#include "model_serializers/model_builder.h"
#include "model_serializers/serializer_logger.h"

namespace models {

namespace {

using python_utils::enter_python;
using python_utils::PyGILLock;
using python_utils::set_error_if_not_present;

PyObjectPtr create_view(const PyObjectPtr& memory) {
  return PyObjectPtr(memory == nullptr ? nullptr : enter_python([&] {
    return PyMemoryView_FromObject(memory.get());
  }));
}

// Counts beyond Python's limit or the address space are refused as well.
PyObjectPtr create_count(std::size_t count) { return PyObjectPtr(PyLong_FromSize_t(count)); }

}  // namespace

PyObjectPtr create_captions_data_object(const std::string& text, bool is_final) {
  const PyGILLock lock;
  PyObject* captions_class = get_captions_data_class();
  if (captions_class == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get CaptionsData type");
    return nullptr;
  }
  const PyObjectPtr python_text = create_string(text);
  const PyObjectPtr python_is_final(PyBool_FromLong(is_final ? 1 : 0));
  return call_with_keywords(captions_class, {{names::kText, python_text.get()},
                                             {names::kIsFinal, python_is_final.get()}});
}

PyObjectPtr create_resolution_object(int width, int height) {
  const PyGILLock lock;
  PyObject* resolution_class = get_video_resolution_class();
  if (resolution_class == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get VideoResolution type");
    return nullptr;
  }
  const PyObjectPtr python_width(PyLong_FromLong(width));
  const PyObjectPtr python_height(PyLong_FromLong(height));
  return call_with_keywords(resolution_class, {{names::kWidth, python_width.get()},
                                               {names::kHeight, python_height.get()}});
}

PyObjectPtr create_audio_data_object(const MRAudioData& audio, PyObjectPtr& memory) {
  const PyGILLock lock;
  PyObject* audio_data_class = get_audio_data_class();
  if (audio_data_class == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get AudioData type");
    return nullptr;
  }
  const PyObjectPtr sample_rate(PyLong_FromLong(audio.sample_rate_));
  const PyObjectPtr channels = create_count(audio.number_of_channels_);
  const PyObjectPtr frames = create_count(audio.number_of_frames_);
  if (sample_rate == nullptr || channels == nullptr || frames == nullptr) {
    set_error_if_not_present(PyExc_MemoryError, "Failed to create Python integer objects");
    return nullptr;
  }
  if (const std::optional<std::size_t> count = audio.sampleCount()) {
    memory = create_sample_memory(audio.sample_buffer_, *count);
  }
  const PyObjectPtr view = create_view(memory);
  if (view == nullptr) {
    set_error_if_not_present(PyExc_MemoryError, "Failed to create memory view");
    return nullptr;
  }
  return call_with_keywords(audio_data_class, {{names::kSampleRate, sample_rate.get()},
                                               {names::kNumberOfChannels, channels.get()},
                                               {names::kNumberOfFrames, frames.get()},
                                               {names::kSampleBuffer, view.get()}});
}

PyObjectPtr create_video_frame_object(const MRVideoFrameData& frame, PyObjectPtr& memory) {
  const PyGILLock lock;
  PyObject* video_frame_class = get_video_frame_class();
  if (video_frame_class == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get VideoFrame type");
    return nullptr;
  }
  const PyObjectPtr resolution = create_resolution_object(frame.width, frame.height);
  if (resolution == nullptr) return nullptr;
  const PyObjectPtr format = create_string(MRVideoFrameFormatUtils::to_string(frame.format));
  const int size = MRVideoFrame::bufferSize(frame.width, frame.height, frame.format);
  memory = create_pixel_memory(frame.buffer, static_cast<std::size_t>(size), frame.keep_alive);
  const PyObjectPtr view = create_view(memory);
  if (format == nullptr || view == nullptr) {
    set_error_if_not_present(PyExc_MemoryError, "Failed to create Python objects");
    return nullptr;
  }
  const PyObjectPtr model_construct =
      python_utils::get_attribute(video_frame_class, names::kModelConstruct);
  if (model_construct == nullptr) {
    LOG4CXX_ERROR(serializer_logger, "Failed to get model_construct method from VideoFrame");
    return nullptr;
  }
  return call_with_keywords(model_construct.get(), {{names::kResolution, resolution.get()},
                                                    {names::kFormat, format.get()},
                                                    {names::kFrameBuffer, view.get()}});
}

}  // namespace models
