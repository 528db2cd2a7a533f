#include "frames.h"

#include <zlib.h>

#include <cstring>
#include <deque>
#include <utility>

#include "script.h"

namespace scripted {
namespace {

constexpr size_t kKeptFrames = 4096;
// A false size is reported, not allocated.
constexpr int64_t kMostBytes = 64 << 20;
constexpr int64_t kBytesOfLie = 64;
constexpr uint8_t kPadding = 0xEE;

struct PlaneShape {
  int64_t row_bytes;
  int64_t rows;
};

std::vector<PlaneShape> planesOf(int32_t format, int64_t width, int64_t height) {
  width = std::max<int64_t>(width, 0);
  height = std::max<int64_t>(height, 0);
  const PlaneShape whole{width, height};
  const PlaneShape chroma{(width + 1) / 2, (height + 1) / 2};
  switch (format) {
    case SRN_VIDEO_FRAME_FORMAT_YUV420P:
      return {whole, chroma, chroma};
    case SRN_VIDEO_FRAME_FORMAT_NV12:
    case SRN_VIDEO_FRAME_FORMAT_NV21:
      return {whole, {2 * chroma.row_bytes, chroma.rows}};
    case SRN_VIDEO_FRAME_FORMAT_RGB24:
      return {{3 * width, height}};
    default:
      return {{4 * width, height}};
  }
}

void paint(uint8_t* out, int64_t bytes, int64_t stride, int64_t row_bytes, int first) {
  for (int64_t at = 0; at < bytes; ++at) {
    const int64_t row = stride > 0 ? at / stride : 0;
    const int64_t column = stride > 0 ? at % stride : at;
    out[at] = column < row_bytes ? static_cast<uint8_t>(first + row + column) : kPadding;
  }
}

// A field of a script: 0 means the true value, -1 means zero.
int64_t reported(int64_t scripted, int64_t truth) {
  return scripted == 0 ? truth : scripted == -1 ? 0 : scripted;
}

struct Provided {
  std::mutex mutex;
  std::deque<scripted_provided_frame> frames;
  long total = 0;
};

Provided& provided() {
  static auto* const instance = new Provided;
  return *instance;
}

}  // namespace

std::shared_ptr<srn_video_frame> makeFrame(const scripted_frame_spec& spec) {
  auto frame = std::make_shared<srn_video_frame>();
  frame->format = static_cast<srn_video_frame_format>(spec.format);
  frame->width = spec.width;
  frame->height = spec.height;
  const auto shapes = planesOf(spec.format, spec.width, spec.height);
  std::vector<int64_t> sizes;
  int64_t total = 0;
  for (size_t i = 0; i < shapes.size(); ++i) {
    const int64_t stride = spec.stride[i] == 0 ? shapes[i].row_bytes : spec.stride[i];
    const int64_t rows = spec.plane_rows[i] == 0 ? shapes[i].rows : spec.plane_rows[i];
    sizes.push_back(std::max<int64_t>(stride, 0) * std::max<int64_t>(rows, 0));
    total += sizes.back();
    frame->planes[i].stride = static_cast<int32_t>(stride);
    frame->planes[i].rows = static_cast<int32_t>(reported(spec.rows[i], shapes[i].rows));
  }
  if (total > kMostBytes) {
    std::fill(sizes.begin(), sizes.end(), kBytesOfLie);
    total = kBytesOfLie * static_cast<int64_t>(sizes.size());
  }
  if (spec.apart == 0) frame->storage.emplace_back(static_cast<size_t>(total));
  int64_t offset = 0;
  for (size_t i = 0; i < shapes.size(); ++i) {
    if (spec.apart != 0) {
      frame->storage.emplace_back(static_cast<size_t>(sizes[i]));
      offset = 0;
    }
    uint8_t* const out = frame->storage.back().data() + offset;
    paint(out, sizes[i], frame->planes[i].stride, shapes[i].row_bytes,
          spec.fill + 50 * static_cast<int>(i));
    frame->planes[i].data = (spec.missing & (1 << i)) != 0 ? nullptr : out;
    offset += sizes[i];
  }
  if (spec.apart == 0) frame->buffer = frame->storage.front().data();
  frame->buffer_size = static_cast<size_t>(reported(spec.buffer_size, total));
  return frame;
}

void resetProvided() {
  const std::lock_guard lock(provided().mutex);
  provided().frames.clear();
  provided().total = 0;
}

}  // namespace scripted

using scripted::provided;

srn_video_frame::~srn_video_frame() {
  if (release != nullptr) release(release_argument);
}

srn_video_frame* srn_video_frame_new_contiguous_memory_wrapper(
    enum srn_video_frame_format format, int32_t width, int32_t height,
    srn_bool /*allow_shallow_copy*/, const uint8_t* buffer, size_t buffer_size,
    srn_video_frame_memory_release_callback release, void* release_argument) {
  SCRIPTED_MEDIA_CALL();
  if (failure || buffer == nullptr) return nullptr;
  const auto frame = std::make_shared<srn_video_frame>();
  frame->format = format;
  frame->width = width;
  frame->height = height;
  frame->buffer = buffer;
  frame->buffer_size = buffer_size;
  frame->release = release;
  frame->release_argument = release_argument;
  const auto shapes = scripted::planesOf(format, width, height);
  const uint8_t* data = buffer;
  for (size_t i = 0; i < shapes.size(); ++i) {
    const auto [row_bytes, rows] = shapes[i];
    frame->planes[i] = {data, static_cast<int32_t>(row_bytes), static_cast<int32_t>(rows)};
    data += row_bytes * rows;
  }
  return scripted::adopt(frame);
}

srn_status srn_video_frame_delete(srn_video_frame* frame) {
  SCRIPTED_MEDIA_CALL();
  if (frame == nullptr) return SRN_SUCCESS;
  const auto kept = scripted::shared(frame);
  if (!function.retire(frame)) return SRN_SESSION_NULL_OR_INVALID_PARAMETER;
  if (frame->release != nullptr) std::exchange(frame->release, nullptr)(frame->release_argument);
  return failure.value_or(SRN_SUCCESS);
}

// The functions that read a frame; they give null or 0 when they fail.
#define FRAME_GETTER(Type, name)                                  \
  Type srn_video_frame_get_##name(const srn_video_frame* frame) { \
    SCRIPTED_MEDIA_CALL();                                        \
    if (failure || !function.valid(frame)) return {};             \
    return frame->name;                                           \
  }
FRAME_GETTER(enum srn_video_frame_format, format)
FRAME_GETTER(int32_t, width)
FRAME_GETTER(int32_t, height)
FRAME_GETTER(const uint8_t*, buffer)
FRAME_GETTER(size_t, buffer_size)

#define PLANE_GETTER(Type, name, member)                                               \
  Type srn_video_frame_get_plane_##name(const srn_video_frame* frame,                  \
                                        enum srn_video_frame_plane plane) {            \
    SCRIPTED_MEDIA_CALL();                                                             \
    const auto index = static_cast<size_t>(plane);                                     \
    if (failure || !function.valid(frame) || index >= frame->planes.size()) return {}; \
    return frame->planes[index].member;                                                \
  }
PLANE_GETTER(const uint8_t*, binary_data, data)
PLANE_GETTER(int32_t, stride, stride)
PLANE_GETTER(int32_t, height, rows)

srn_status srn_video_capturer_provide_frame(const srn_video_capturer* capturer, int32_t rotation,
                                            const srn_video_frame* frame) {
  SCRIPTED_FUNCTION;
  srn_status status = function.failure().value_or(SRN_SUCCESS);
  if (!function.valid(capturer) || !function.valid(frame)) {
    status = SRN_SESSION_NULL_OR_INVALID_PARAMETER;
  } else {
    scripted_provided_frame seen{frame->number,
                                 rotation,
                                 frame->format,
                                 frame->width,
                                 frame->height,
                                 frame->buffer_size,
                                 0,
                                 {}};
    if (scripted::script().log_on.load()) {
      seen.checksum = static_cast<uint32_t>(crc32_z(0, frame->buffer, frame->buffer_size));
    }
    std::memcpy(seen.first, frame->buffer, std::min(sizeof seen.first, frame->buffer_size));
    const std::lock_guard lock(provided().mutex);
    provided().frames.push_back(seen);
    ++provided().total;
    if (provided().frames.size() > scripted::kKeptFrames) provided().frames.pop_front();
  }
  function.count();
  return status;
}

long scripted_provided_count(void) {
  const std::lock_guard lock(provided().mutex);
  return provided().total;
}

int scripted_provided(long position, struct scripted_provided_frame* out) {
  const std::lock_guard lock(provided().mutex);
  const long oldest = provided().total - static_cast<long>(provided().frames.size());
  if (out == nullptr || position < oldest || position >= provided().total) return 0;
  *out = provided().frames[static_cast<size_t>(position - oldest)];
  return 1;
}

const srn_video_capturer* scripted_video_capturer(void) {
  static const auto* const capturer = new srn_video_capturer;
  return capturer;
}

srn_video_frame* scripted_frame_new(const struct scripted_frame_spec* spec) {
  return scripted::adopt(scripted::makeFrame(*spec));
}
