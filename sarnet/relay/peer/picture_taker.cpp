#include <gst/video/video.h>

#include <cstring>
#include <utility>

#include "relay/peer/stream_decoder.h"

namespace sarnet::relay {

namespace {

void copy_plane(const GstVideoFrame& frame, int plane, std::uint8_t* target, int stride, int width,
                int height) {
  const auto* source = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
  const int source_stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane);
  for (int row = 0; row < height; ++row) {
    std::memcpy(target + static_cast<std::ptrdiff_t>(row) * stride,
                source + static_cast<std::ptrdiff_t>(row) * source_stride,
                static_cast<std::size_t>(width));
  }
}

class PictureTaker final : public StreamDecoder {
 public:
  explicit PictureTaker(std::shared_ptr<MediaSink> sink) : sink_(std::move(sink)) {}

  void take(GstSample* sample) override {
    GstVideoInfo info;
    GstVideoFrame frame;
    if (gst_sample_get_caps(sample) == nullptr ||
        gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) == FALSE ||
        gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample), GST_MAP_READ) == FALSE) {
      return;
    }
    // None is free when the program keeps many: it then misses this one.
    if (const PictureRef picture = pool_.acquire(info.width, info.height)) {
      const MutablePictureView to = picture->mutable_view();
      copy_plane(frame, 0, to.y, to.stride_y, to.width, to.height);
      copy_plane(frame, 1, to.u, to.stride_u, chroma_size(to.width), chroma_size(to.height));
      copy_plane(frame, 2, to.v, to.stride_v, chroma_size(to.width), chroma_size(to.height));
      picture->timestamp_ms =
          static_cast<std::int64_t>(GST_BUFFER_PTS(gst_sample_get_buffer(sample)) / GST_MSECOND);
      sink_->on_picture(picture);
    }
    gst_video_frame_unmap(&frame);
  }

 private:
  // What a slow program may hold, and one or two under way.
  static constexpr std::size_t kPictures = 12;

  const std::shared_ptr<MediaSink> sink_;
  PicturePool pool_{kPictures};
};

}  // namespace

std::unique_ptr<StreamDecoder> make_picture_taker(std::shared_ptr<MediaSink> sink) {
  return std::make_unique<PictureTaker>(std::move(sink));
}

}  // namespace sarnet::relay
