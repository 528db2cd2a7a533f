#include <climits>
#include <string>
#include <utility>

#include "model_serializers/attribute_reader.h"
#include "model_serializers/convert_objects.h"
#include "model_serializers/member_names.h"

namespace models {

namespace {

using python_utils::enter_python;
using python_utils::get_member_value;
using python_utils::MemberName;
using python_utils::PyGILLock;
using python_utils::PyObjectPtr;
using python_utils::set_error_if_not_present;

bool get_buffer(PyObject* object, Py_buffer& view, const char* message) {
  if (enter_python([&] { return PyObject_GetBuffer(object, &view, PyBUF_SIMPLE); }) != 0) {
    set_error_if_not_present(PyExc_TypeError, message);
    return false;
  }
  return true;
}

void release_buffer(Py_buffer& view) {
  enter_python([&] { PyBuffer_Release(&view); });
}

// A negative value becomes too large a count for any buffer.
bool read_count(PyObject* object, MemberName& name, std::size_t& count) {
  const std::optional<long> value = python_utils::get_member_value_as_long(object, name);
  if (value) count = static_cast<std::size_t>(*value);
  return value.has_value();
}

bool read_samples(PyObject* object, MRAudioData& audio, const Py_buffer& view) {
  audio.sample_buffer_ = view.buf;
  if (!read(object, names::kSampleRate, audio.sample_rate_) ||
      !read_count(object, names::kNumberOfChannels, audio.number_of_channels_) ||
      !read_count(object, names::kNumberOfFrames, audio.number_of_frames_)) {
    return false;
  }
  const std::optional<std::size_t> count = audio.sampleCount();
  if (!count || *count > static_cast<std::size_t>(view.len) / sizeof(MRAudio::sample_t)) {
    set_error_if_not_present(PyExc_ValueError, "sample_buffer is too small");
    return false;
  }
  return true;
}

bool holds_frame(const Py_buffer& view, int width, int height, MRVideoFrameFormat format) {
  if (width <= 0 || height <= 0 || format == MRVideoFrameFormat::UNKNOWN) {
    return true;  // no such frame: refused later, with the reason
  }
  const int needed = MRVideoFrame::bufferSize(width, height, format);
  return view.len >= (needed > 0 ? needed : Py_ssize_t{INT_MAX} + 1);
}

bool read_frame(PyObject* object, const Py_buffer& view, std::unique_ptr<MRVideoFrame>& frame) {
  const PyObjectPtr resolution = get_member_value(object, names::kResolution);
  if (resolution == nullptr) {
    set_error_if_not_present(PyExc_AttributeError, "Failed to get resolution attribute");
    return false;
  }
  int width = 0;
  if (!read(resolution.get(), names::kWidth, width)) {
    set_error_if_not_present(PyExc_AttributeError, "Failed to get width attribute from resolution");
    return false;
  }
  int height = 0;
  if (!read(resolution.get(), names::kHeight, height)) {
    set_error_if_not_present(PyExc_AttributeError,
                             "Failed to get height attribute from resolution");
    return false;
  }
  std::string format_name;
  if (!read(object, names::kFormat, format_name)) {
    set_error_if_not_present(PyExc_AttributeError, "Failed to get format attribute");
    return false;
  }
  const MRVideoFrameFormat format = MRVideoFrameFormatUtils::to_snt_video_frame_format(format_name);
  if (!holds_frame(view, width, height, format)) {
    set_error_if_not_present(PyExc_ValueError, "frame_buffer is too small");
    return false;
  }
  frame = MRVideoFrame::create(width, height, static_cast<const uint8_t*>(view.buf), format);
  return frame != nullptr;
}

}  // namespace

bool convert_audio_data_from_python(PyObject* object, MRAudioData& audio, Py_buffer& view) {
  if (!is_given(object, "AudioData")) return false;
  const PyGILLock lock;
  const PyObjectPtr samples = get_member_value(object, names::kSampleBuffer);
  if (samples == nullptr ||
      !get_buffer(samples.get(), view, "sample_buffer must be a bytes-like object")) {
    return false;
  }
  if (!read_samples(object, audio, view)) {
    release_buffer(view);
    return false;
  }
  return true;
}

bool convert_video_frame_from_python(PyObject* object, std::unique_ptr<MRVideoFrame>& frame) {
  if (object == nullptr || object == Py_None) {
    set_error_if_not_present(PyExc_ValueError, "Python VideoFrame cannot be None");
    return false;
  }
  const PyGILLock lock;
  const PyObjectPtr pixels = get_member_value(object, names::kFrameBuffer);
  if (pixels == nullptr) {
    set_error_if_not_present(PyExc_AttributeError, "Failed to get frame_buffer attribute");
    return false;
  }
  Py_buffer view;
  if (!get_buffer(pixels.get(), view, "frame_buffer must be a bytes-like object")) return false;
  const bool converted = read_frame(object, view, frame);
  release_buffer(view);
  return converted;
}

}  // namespace models
