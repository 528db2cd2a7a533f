#include "api/border.h"
#include "api/library.h"

using sarnet::guarded_result;
using sarnet::kInvalid;
using sarnet::Library;
using sarnet::VideoFrame;

namespace {

template <class Result, class Getter>
Result get(const srn_video_frame* frame, Result if_none, Getter getter) {
  const auto object = Library::instance().frames.find(frame);
  return object ? static_cast<Result>(getter(*object)) : if_none;
}

}  // namespace

extern "C" {

srn_video_frame* srn_video_frame_new_contiguous_memory_wrapper(
    enum srn_video_frame_format format, int32_t width, int32_t height, srn_bool,
    const uint8_t* buffer, size_t buffer_size, srn_video_frame_memory_release_callback release,
    void* release_argument) {
  return guarded_result<srn_video_frame*>(
      "srn_video_frame_new_contiguous_memory_wrapper", nullptr, [&]() -> srn_video_frame* {
        if (!VideoFrame::valid(format, width, height, buffer, buffer_size)) return nullptr;
        return Library::instance().frames.add(
            VideoFrame::make(format, width, height, buffer, buffer_size,
                             VideoFrame::Release{release, release_argument}));
      });
}

srn_status srn_video_frame_delete(srn_video_frame* frame) {
  if (frame == nullptr) return SRN_SUCCESS;
  return Library::instance().frames.remove(frame) ? SRN_SUCCESS : kInvalid;
}

enum srn_video_frame_format srn_video_frame_get_format(const srn_video_frame* frame) {
  return get(frame, SRN_VIDEO_FRAME_FORMAT_UNKNOWN,
             [](const VideoFrame& each) { return each.format(); });
}

int32_t srn_video_frame_get_width(const srn_video_frame* frame) {
  return get<int32_t>(frame, 0, [](const VideoFrame& each) { return each.width(); });
}

int32_t srn_video_frame_get_height(const srn_video_frame* frame) {
  return get<int32_t>(frame, 0, [](const VideoFrame& each) { return each.height(); });
}

const uint8_t* srn_video_frame_get_buffer(const srn_video_frame* frame) {
  return get<const uint8_t*>(frame, nullptr, [](const VideoFrame& each) { return each.buffer(); });
}

size_t srn_video_frame_get_buffer_size(const srn_video_frame* frame) {
  return get<size_t>(frame, 0, [](const VideoFrame& each) { return each.size(); });
}

const uint8_t* srn_video_frame_get_plane_binary_data(const srn_video_frame* frame,
                                                     enum srn_video_frame_plane plane) {
  return get<const uint8_t*>(frame, nullptr,
                             [&](const VideoFrame& each) { return each.plane(plane); });
}

int32_t srn_video_frame_get_plane_stride(const srn_video_frame* frame,
                                         enum srn_video_frame_plane plane) {
  return get<int32_t>(frame, 0, [&](const VideoFrame& each) { return each.stride(plane); });
}

int32_t srn_video_frame_get_plane_height(const srn_video_frame* frame,
                                         enum srn_video_frame_plane plane) {
  return get<int32_t>(frame, 0, [&](const VideoFrame& each) { return each.plane_height(plane); });
}

}  // extern "C"
