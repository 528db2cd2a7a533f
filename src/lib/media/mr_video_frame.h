#pragma once

#include <log4cxx/logger.h>
#include <sarnet/sarnet.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

/// Packed pixel layouts. YUV420P: planes Y, U, V, the last two of half the size, rounded up.
enum class MRVideoFrameFormat { UNKNOWN = 0, YUV420P = 1, RGB24 = 2, ARGB32 = 3 };

namespace MRVideoFrameFormatUtils {

/// The name; "UNKNOWN" for any other value.
std::string to_string(const MRVideoFrameFormat& format);

/// The format of exactly that name, case-sensitive; else UNKNOWN.
MRVideoFrameFormat to_snt_video_frame_format(const std::string& name);

/// The library's number of the format.
srn_video_frame_format to_srn_video_frame_format(const MRVideoFrameFormat& format);

}  // namespace MRVideoFrameFormatUtils

std::ostream& operator<<(std::ostream& out, const MRVideoFrameFormat& format);

/// The description of a frame. The pixels are borrowed unless `keep_alive` is set: it then owns
/// them, and a holder of a copy may read `buffer` for the copy's lifetime, on any thread.
struct MRVideoFrameData {
  const int width;
  const int height;
  const std::uint8_t* buffer;
  const MRVideoFrameFormat format;
  std::shared_ptr<const void> keep_alive = {};

  /// Compares the description and the address of the pixels, not their owner.
  bool operator==(const MRVideoFrameData& other) const;
  bool operator!=(const MRVideoFrameData& other) const { return !(*this == other); }
};

/// One picture in a packed buffer of the frame pool. Belongs to one thread at a time; may be made
/// and destroyed on any. Every failure gives an empty result and an Error line.
class MRVideoFrame {
 public:
  /// A frame with unspecified pixels: a recycled buffer shows an older picture.
  static std::unique_ptr<MRVideoFrame> create(int width, int height, MRVideoFrameFormat format);

  /// A frame with a copy of the `bufferSize` bytes at `buffer`, whose length the caller has
  /// checked.
  static std::unique_ptr<MRVideoFrame> create(int width, int height, const std::uint8_t* buffer,
                                              MRVideoFrameFormat format);

  /// A packed copy of a library frame, which must be YUV 4:2:0; missing rows are black.
  static std::unique_ptr<MRVideoFrame> fromSrnVideoFrame(const srn_video_frame* frame);

  /// Bytes of a packed picture; 0 for a size or format that no frame can have, or above INT_MAX.
  static int bufferSize(int width, int height, MRVideoFrameFormat format);

  /// The frame's description, with `keep_alive` owning the frame: the last copy destroys it, which
  /// returns its buffer to the pool. An empty record for an empty frame.
  static MRVideoFrameData share(std::unique_ptr<MRVideoFrame> frame);

  ~MRVideoFrame();

  MRVideoFrame(const MRVideoFrame&) = delete;
  MRVideoFrame& operator=(const MRVideoFrame&) = delete;

  const MRVideoFrameData& getFrameData() const;

  /// The library's view of these pixels, made by the first call and then reused. Valid only while
  /// this frame lives.
  std::shared_ptr<srn_video_frame> toSrnVideoFrame();

  /// Video-range black; for the RGB formats all zeros, alpha too.
  void fillBlackColor();

 private:
  MRVideoFrame(int width, int height, std::unique_ptr<std::uint8_t[]> buffer,
               MRVideoFrameFormat format);

  static int getYuv420pChromaWidth(int width);
  static int getYuv420pChromaHeight(int height);
  static std::int64_t getYuv420pYPlaneSize(int width, int height);
  static std::int64_t getYuv420pChromaPlanesSize(int width, int height);

  bool copyPlanes(const srn_video_frame* frame);

  static const log4cxx::LoggerPtr& logger_;

  std::unique_ptr<std::uint8_t[]> buffer_;
  std::shared_ptr<srn_video_frame> srn_video_frame_ptr_;
  const MRVideoFrameData frame_data_;
};
