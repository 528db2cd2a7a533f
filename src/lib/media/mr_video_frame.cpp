#include "media/mr_video_frame.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <utility>

#include "media/memory_pool.h"
#include "support/logger.h"

namespace {

using Pool = MemoryPool<std::uint8_t>;

constexpr std::uint8_t kBlackLuma = 16;
constexpr std::uint8_t kBlackChroma = 128;

}  // namespace

const log4cxx::LoggerPtr& MRVideoFrame::logger_ = lastingLogger("MRVideoFrame");

namespace MRVideoFrameFormatUtils {

std::string to_string(const MRVideoFrameFormat& format) {
  switch (format) {
    case MRVideoFrameFormat::YUV420P:
      return "YUV420P";
    case MRVideoFrameFormat::RGB24:
      return "RGB24";
    case MRVideoFrameFormat::ARGB32:
      return "ARGB32";
    case MRVideoFrameFormat::UNKNOWN:
      break;
  }
  return "UNKNOWN";
}

MRVideoFrameFormat to_snt_video_frame_format(const std::string& name) {
  if (name == "YUV420P") return MRVideoFrameFormat::YUV420P;
  if (name == "RGB24") return MRVideoFrameFormat::RGB24;
  if (name == "ARGB32") return MRVideoFrameFormat::ARGB32;
  return MRVideoFrameFormat::UNKNOWN;
}

srn_video_frame_format to_srn_video_frame_format(const MRVideoFrameFormat& format) {
  switch (format) {
    case MRVideoFrameFormat::YUV420P:
      return SRN_VIDEO_FRAME_FORMAT_YUV420P;
    case MRVideoFrameFormat::RGB24:
      return SRN_VIDEO_FRAME_FORMAT_RGB24;
    case MRVideoFrameFormat::ARGB32:
      return SRN_VIDEO_FRAME_FORMAT_ARGB32;
    case MRVideoFrameFormat::UNKNOWN:
      break;
  }
  return SRN_VIDEO_FRAME_FORMAT_UNKNOWN;
}

}  // namespace MRVideoFrameFormatUtils

std::ostream& operator<<(std::ostream& out, const MRVideoFrameFormat& format) {
  return out << MRVideoFrameFormatUtils::to_string(format);
}

bool MRVideoFrameData::operator==(const MRVideoFrameData& other) const {
  return width == other.width && height == other.height && buffer == other.buffer &&
         format == other.format;
}

MRVideoFrame::MRVideoFrame(int width, int height, std::unique_ptr<std::uint8_t[]> buffer,
                           MRVideoFrameFormat format)
    : buffer_(std::move(buffer)),
      frame_data_{.width = width, .height = height, .buffer = buffer_.get(), .format = format} {}

MRVideoFrame::~MRVideoFrame() {
  // The library's wrapper points into the buffer, which another thread may be given as soon as the
  // pool has it.
  srn_video_frame_ptr_.reset();
  Pool::instance().returnBuffer(
      bufferSize(frame_data_.width, frame_data_.height, frame_data_.format), std::move(buffer_));
}

int MRVideoFrame::getYuv420pChromaWidth(int width) {
  return static_cast<int>((std::int64_t{width} + 1) / 2);
}

int MRVideoFrame::getYuv420pChromaHeight(int height) {
  return static_cast<int>((std::int64_t{height} + 1) / 2);
}

std::int64_t MRVideoFrame::getYuv420pYPlaneSize(int width, int height) {
  return std::int64_t{width} * height;
}

std::int64_t MRVideoFrame::getYuv420pChromaPlanesSize(int width, int height) {
  return std::int64_t{2} * getYuv420pChromaWidth(width) * getYuv420pChromaHeight(height);
}

int MRVideoFrame::bufferSize(int width, int height, MRVideoFrameFormat format) {
  if (width <= 0 || height <= 0) {
    LOG4CXX_ERROR(
        logger_,
        "MRVideoFrame::bufferSize: Cannot calculate buffer size with non-positive dimensions");
    return 0;
  }
  const std::int64_t pixels = getYuv420pYPlaneSize(width, height);
  constexpr std::int64_t kLargest = std::numeric_limits<int>::max();
  if (pixels > kLargest) return 0;
  std::int64_t bytes = 0;
  switch (format) {
    case MRVideoFrameFormat::YUV420P:
      bytes = pixels + getYuv420pChromaPlanesSize(width, height);
      break;
    case MRVideoFrameFormat::RGB24:
      bytes = pixels * 3;
      break;
    case MRVideoFrameFormat::ARGB32:
      bytes = pixels * 4;
      break;
    default:
      LOG4CXX_ERROR(logger_, "MRVideoFrame::bufferSize: Unsupported video frame format "
                                 << MRVideoFrameFormatUtils::to_string(format));
      return 0;
  }
  return bytes > kLargest ? 0 : static_cast<int>(bytes);
}

std::unique_ptr<MRVideoFrame> MRVideoFrame::create(int width, int height,
                                                   MRVideoFrameFormat format) {
  if (width <= 0 || height <= 0) {
    LOG4CXX_ERROR(logger_,
                  "MRVideoFrame::create: Cannot create frame with non-positive dimensions");
    return nullptr;
  }
  if (format == MRVideoFrameFormat::UNKNOWN) {
    LOG4CXX_ERROR(logger_, "MRVideoFrame::create: Cannot create frame with unknown format");
    return nullptr;
  }
  auto buffer = Pool::instance().getBuffer(bufferSize(width, height, format));
  if (!buffer) {
    LOG4CXX_ERROR(logger_, "MRVideoFrame::create: Cannot create frame, memory allocation failure");
    return nullptr;
  }
  return std::unique_ptr<MRVideoFrame>(new MRVideoFrame(width, height, std::move(buffer), format));
}

std::unique_ptr<MRVideoFrame> MRVideoFrame::create(int width, int height,
                                                   const std::uint8_t* buffer,
                                                   MRVideoFrameFormat format) {
  if (buffer == nullptr) {
    LOG4CXX_ERROR(logger_, "MRVideoFrame::create : buffer is nullptr");
    return nullptr;
  }
  auto frame = create(width, height, format);
  if (frame) {
    std::memcpy(frame->buffer_.get(), buffer,
                static_cast<std::size_t>(bufferSize(width, height, format)));
  }
  return frame;
}

std::unique_ptr<MRVideoFrame> MRVideoFrame::fromSrnVideoFrame(const srn_video_frame* frame) {
  if (frame == nullptr) {
    LOG4CXX_ERROR(logger_,
                  "MRVideoFrame::fromSrnVideoFrame: Cannot create frame from null video_frame");
    return nullptr;
  }
  const std::size_t size = srn_video_frame_get_buffer_size(frame);
  if (size == 0) {
    LOG4CXX_ERROR(logger_,
                  "MRVideoFrame::fromSrnVideoFrame: Cannot create frame from video_frame with "
                  "empty buffer");
    return nullptr;
  }
  const srn_video_frame_format format = srn_video_frame_get_format(frame);
  if (format != SRN_VIDEO_FRAME_FORMAT_YUV420P) {
    LOG4CXX_ERROR(logger_, "MRVideoFrame::fromSrnVideoFrame: Unsupported video frame format "
                               << static_cast<int>(format)
                               << ", only supported video format is YUV420P");
    return nullptr;
  }
  const int width = srn_video_frame_get_width(frame);
  const int height = srn_video_frame_get_height(frame);
  if (width <= 0 || height <= 0) {
    LOG4CXX_ERROR(
        logger_,
        "MRVideoFrame::fromSrnVideoFrame: Cannot create frame with non-positive dimensions");
    return nullptr;
  }
  const auto expected =
      static_cast<std::size_t>(bufferSize(width, height, MRVideoFrameFormat::YUV420P));
  if (size < expected) {
    LOG4CXX_ERROR(logger_,
                  "MRVideoFrame::fromSrnVideoFrame: Buffer length is less than minimum required "
                  "for the format and dimensions, buffer_length = "
                      << size << ", expected_buffer_length = " << expected);
    return nullptr;
  }
  const std::uint8_t* buffer = srn_video_frame_get_buffer(frame);
  if (buffer != nullptr && size == expected) {
    return create(width, height, buffer, MRVideoFrameFormat::YUV420P);
  }
  auto packed = create(width, height, MRVideoFrameFormat::YUV420P);
  if (!packed) {
    LOG4CXX_ERROR(logger_, "MRVideoFrame::fromSrnVideoFrame: Failed to create frame wrapper");
    return nullptr;
  }
  return packed->copyPlanes(frame) ? std::move(packed) : nullptr;
}

bool MRVideoFrame::copyPlanes(const srn_video_frame* frame) {
  struct Plane {
    srn_video_frame_plane id;
    int width;
    int height;
    std::uint8_t black;
  };
  const int chroma_width = getYuv420pChromaWidth(frame_data_.width);
  const int chroma_height = getYuv420pChromaHeight(frame_data_.height);
  const std::array<Plane, 3> planes{{
      {SRN_VIDEO_FRAME_PLANE_Y, frame_data_.width, frame_data_.height, kBlackLuma},
      {SRN_VIDEO_FRAME_PLANE_U, chroma_width, chroma_height, kBlackChroma},
      {SRN_VIDEO_FRAME_PLANE_V, chroma_width, chroma_height, kBlackChroma},
  }};
  std::uint8_t* destination = buffer_.get();
  for (const Plane& plane : planes) {
    const std::uint8_t* source = srn_video_frame_get_plane_binary_data(frame, plane.id);
    if (source == nullptr) {
      LOG4CXX_ERROR(logger_, "MRVideoFrame::fromSrnVideoFrame: plane_buffer is null");
      return false;
    }
    const int stride = srn_video_frame_get_plane_stride(frame, plane.id);
    if (plane.width > stride) {
      LOG4CXX_ERROR(logger_,
                    "MRVideoFrame::fromSrnVideoFrame: Plane stride is less than expected, cannot "
                    "copy data correctly");
      return false;
    }
    const int rows = std::clamp(srn_video_frame_get_plane_height(frame, plane.id), 0, plane.height);
    const auto row_bytes = static_cast<std::size_t>(plane.width);
    for (int row = 0; row < rows; ++row) {
      std::memcpy(destination, source, row_bytes);
      source += stride;
      destination += row_bytes;
    }
    // A recycled buffer would show another picture where the library has no rows.
    const std::size_t missing = static_cast<std::size_t>(plane.height - rows) * row_bytes;
    std::memset(destination, plane.black, missing);
    destination += missing;
  }
  return true;
}

MRVideoFrameData MRVideoFrame::share(std::unique_ptr<MRVideoFrame> frame) {
  if (!frame) {
    return {.width = 0, .height = 0, .buffer = nullptr, .format = MRVideoFrameFormat::UNKNOWN};
  }
  const std::shared_ptr<const MRVideoFrame> owner = std::move(frame);
  const MRVideoFrameData& data = owner->frame_data_;
  return {.width = data.width,
          .height = data.height,
          .buffer = data.buffer,
          .format = data.format,
          .keep_alive = owner};
}

const MRVideoFrameData& MRVideoFrame::getFrameData() const { return frame_data_; }

std::shared_ptr<srn_video_frame> MRVideoFrame::toSrnVideoFrame() {
  if (srn_video_frame_ptr_) return srn_video_frame_ptr_;
  const srn_video_frame_format format =
      MRVideoFrameFormatUtils::to_srn_video_frame_format(frame_data_.format);
  if (format == SRN_VIDEO_FRAME_FORMAT_UNKNOWN) {
    LOG4CXX_ERROR(logger_, "MRVideoFrame::toSrnVideoFrame: Unsupported video frame format "
                               << MRVideoFrameFormatUtils::to_string(frame_data_.format));
    return nullptr;
  }
  const auto size = static_cast<std::size_t>(
      bufferSize(frame_data_.width, frame_data_.height, frame_data_.format));
  srn_video_frame* frame = srn_video_frame_new_contiguous_memory_wrapper(
      format, frame_data_.width, frame_data_.height, SRN_TRUE, buffer_.get(), size, nullptr,
      nullptr);
  if (frame == nullptr) {
    LOG4CXX_ERROR(logger_, "MRVideoFrame::toSrnVideoFrame: Cannot create SRN video frame");
    return nullptr;
  }
  srn_video_frame_ptr_ = std::shared_ptr<srn_video_frame>(frame, srn_video_frame_delete);
  return srn_video_frame_ptr_;
}

void MRVideoFrame::fillBlackColor() {
  if (!buffer_) return;
  const int width = frame_data_.width;
  const int height = frame_data_.height;
  switch (frame_data_.format) {
    case MRVideoFrameFormat::YUV420P: {
      const auto luma = static_cast<std::size_t>(getYuv420pYPlaneSize(width, height));
      const auto chroma = static_cast<std::size_t>(getYuv420pChromaPlanesSize(width, height));
      std::memset(buffer_.get(), kBlackLuma, luma);
      std::memset(buffer_.get() + luma, kBlackChroma, chroma);
      break;
    }
    case MRVideoFrameFormat::RGB24:
    case MRVideoFrameFormat::ARGB32:
      std::memset(buffer_.get(), 0,
                  static_cast<std::size_t>(bufferSize(width, height, frame_data_.format)));
      break;
    case MRVideoFrameFormat::UNKNOWN:
      break;
  }
}
