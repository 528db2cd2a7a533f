#include "frames.h"

#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <utility>

#include "script.h"

namespace scripted {
namespace {

constexpr size_t kKeptFrames = 4096;
// A size that lies is reported, not allocated.
constexpr int64_t kMostBytes = 64 << 20;
constexpr int64_t kBytesOfLie = 64;
constexpr uint8_t kPadding = 0xEE;

struct PlaneShape {
  int64_t row_bytes = 0;
  int64_t rows = 0;
};

int64_t half(int64_t pixels) { return (pixels + 1) / 2; }

std::vector<PlaneShape> planesOf(int32_t format, int64_t width, int64_t height) {
  width = std::max<int64_t>(width, 0);
  height = std::max<int64_t>(height, 0);
  switch (format) {
    case SRN_VIDEO_FRAME_FORMAT_YUV420P:
      return {{width, height}, {half(width), half(height)}, {half(width), half(height)}};
    case SRN_VIDEO_FRAME_FORMAT_NV12:
    case SRN_VIDEO_FRAME_FORMAT_NV21:
      return {{width, height}, {2 * half(width), half(height)}};
    case SRN_VIDEO_FRAME_FORMAT_RGB24:
      return {{3 * width, height}};
    case SRN_VIDEO_FRAME_FORMAT_YUY2:
    case SRN_VIDEO_FRAME_FORMAT_UYVY:
      return {{2 * width, height}};
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

struct Provided {
  std::mutex mutex;
  std::deque<scripted_provided_frame> frames;
  long total = 0;
};

Provided& provided() {
  static Provided* const instance = new Provided;
  return *instance;
}

}  // namespace

std::shared_ptr<srn_video_frame> makeFrame(const scripted_frame_spec& spec) {
  auto frame = std::make_shared<srn_video_frame>();
  frame->format = static_cast<srn_video_frame_format>(spec.format);
  frame->width = spec.width;
  frame->height = spec.height;
  const auto shapes = planesOf(spec.format, spec.width, spec.height);
  std::vector<int64_t> sizes(shapes.size());
  int64_t total = 0;
  for (size_t i = 0; i < shapes.size(); ++i) {
    const int64_t stride = spec.stride[i] == 0 ? shapes[i].row_bytes : spec.stride[i];
    const int64_t rows = spec.plane_rows[i] == 0 ? shapes[i].rows : spec.plane_rows[i];
    sizes[i] = std::max<int64_t>(stride, 0) * std::max<int64_t>(rows, 0);
    frame->planes[i].stride = static_cast<int32_t>(stride);
    frame->planes[i].rows = spec.rows[i] == 0    ? static_cast<int32_t>(shapes[i].rows)
                            : spec.rows[i] == -1 ? 0
                                                 : spec.rows[i];
    total += sizes[i];
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
  frame->buffer_size = spec.buffer_size == 0    ? static_cast<size_t>(total)
                       : spec.buffer_size == -1 ? 0
                                                : static_cast<size_t>(spec.buffer_size);
  return frame;
}

void resetProvided() {
  const std::lock_guard lock(provided().mutex);
  provided().frames.clear();
  provided().total = 0;
}

}  // namespace scripted

using scripted::Fn;
using scripted::Handle;
using scripted::isValid;
using scripted::Kind;
using scripted::script;

srn_video_frame::~srn_video_frame() {
  if (release != nullptr) release(release_argument);
}

srn_video_frame* srn_video_frame_new_contiguous_memory_wrapper(
    enum srn_video_frame_format format, int32_t width, int32_t height, srn_bool allow_shallow_copy,
    const uint8_t* buffer, size_t buffer_size, srn_video_frame_memory_release_callback release,
    void* release_argument) {
  if (script().call(Fn::srn_video_frame_new_contiguous_memory_wrapper, "format", int32_t{format},
                    "width", width, "height", height, "allow_shallow_copy", allow_shallow_copy,
                    "buffer", buffer, "buffer_size", buffer_size, "release",
                    release == nullptr ? nullptr : static_cast<const void*>(buffer),
                    "release_argument", release_argument) ||
      buffer == nullptr) {
    return nullptr;
  }
  auto frame = std::make_shared<srn_video_frame>();
  frame->format = format;
  frame->width = width;
  frame->height = height;
  frame->buffer = buffer;
  frame->buffer_size = buffer_size;
  frame->release = release;
  frame->release_argument = release_argument;
  int64_t offset = 0;
  const auto shapes = scripted::planesOf(format, width, height);
  for (size_t i = 0; i < shapes.size(); ++i) {
    frame->planes[i] = {buffer + offset, static_cast<int32_t>(shapes[i].row_bytes),
                        static_cast<int32_t>(shapes[i].rows)};
    offset += shapes[i].row_bytes * shapes[i].rows;
  }
  return scripted::adopt(std::move(frame));
}

srn_status srn_video_frame_delete(srn_video_frame* frame) {
  const auto status =
      script().call(Fn::srn_video_frame_delete, "frame", static_cast<Handle*>(frame));
  if (frame == nullptr) return SRN_SUCCESS;
  const auto kept = frame->self;
  if (!scripted::retire(frame, Kind::frame, "srn_video_frame_delete")) {
    return SRN_SESSION_NULL_OR_INVALID_PARAMETER;
  }
  if (frame->release != nullptr) std::exchange(frame->release, nullptr)(frame->release_argument);
  return status.value_or(SRN_SUCCESS);
}

namespace {

bool refused(Fn function, const srn_video_frame* frame) {
  return script().call(function, "frame", static_cast<const Handle*>(frame)).has_value() ||
         !isValid(frame, Kind::frame, scripted::nameOf(function));
}

// Null when the call fails or the frame has no such plane.
const srn_video_frame::Plane* planeOf(Fn function, const srn_video_frame* frame,
                                      enum srn_video_frame_plane plane) {
  const auto index = static_cast<size_t>(plane);
  if (script().call(function, "frame", static_cast<const Handle*>(frame), "plane",
                    int32_t{plane}) ||
      !isValid(frame, Kind::frame, scripted::nameOf(function)) || index >= frame->planes.size()) {
    return nullptr;
  }
  return &frame->planes[index];
}

}  // namespace

enum srn_video_frame_format srn_video_frame_get_format(const srn_video_frame* frame) {
  if (refused(Fn::srn_video_frame_get_format, frame)) return SRN_VIDEO_FRAME_FORMAT_UNKNOWN;
  return frame->format;
}

int32_t srn_video_frame_get_width(const srn_video_frame* frame) {
  return refused(Fn::srn_video_frame_get_width, frame) ? 0 : frame->width;
}

int32_t srn_video_frame_get_height(const srn_video_frame* frame) {
  return refused(Fn::srn_video_frame_get_height, frame) ? 0 : frame->height;
}

const uint8_t* srn_video_frame_get_buffer(const srn_video_frame* frame) {
  return refused(Fn::srn_video_frame_get_buffer, frame) ? nullptr : frame->buffer;
}

size_t srn_video_frame_get_buffer_size(const srn_video_frame* frame) {
  return refused(Fn::srn_video_frame_get_buffer_size, frame) ? 0 : frame->buffer_size;
}

const uint8_t* srn_video_frame_get_plane_binary_data(const srn_video_frame* frame,
                                                     enum srn_video_frame_plane plane) {
  const auto* found = planeOf(Fn::srn_video_frame_get_plane_binary_data, frame, plane);
  return found == nullptr ? nullptr : found->data;
}

int32_t srn_video_frame_get_plane_stride(const srn_video_frame* frame,
                                         enum srn_video_frame_plane plane) {
  const auto* found = planeOf(Fn::srn_video_frame_get_plane_stride, frame, plane);
  return found == nullptr ? 0 : found->stride;
}

int32_t srn_video_frame_get_plane_height(const srn_video_frame* frame,
                                         enum srn_video_frame_plane plane) {
  const auto* found = planeOf(Fn::srn_video_frame_get_plane_height, frame, plane);
  return found == nullptr ? 0 : found->rows;
}

srn_status srn_video_capturer_provide_frame(const srn_video_capturer* capturer, int32_t rotation,
                                            const srn_video_frame* frame) {
  constexpr Fn function = Fn::srn_video_capturer_provide_frame;
  script().note(function, "capturer", static_cast<const Handle*>(capturer), "rotation", rotation,
                "frame", static_cast<const Handle*>(frame));
  srn_status status = script().failure(function).value_or(SRN_SUCCESS);
  if (!isValid(capturer, Kind::capturer, scripted::nameOf(function)) ||
      !isValid(frame, Kind::frame, scripted::nameOf(function))) {
    status = SRN_SESSION_NULL_OR_INVALID_PARAMETER;
  } else {
    scripted_provided_frame seen{};
    seen.handle = frame->number;
    seen.rotation = rotation;
    seen.format = frame->format;
    seen.width = frame->width;
    seen.height = frame->height;
    seen.size = frame->buffer_size;
    seen.checksum = scripted_checksum(frame->buffer, frame->buffer_size);
    std::memcpy(seen.first, frame->buffer, std::min(sizeof seen.first, frame->buffer_size));
    seen.time_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                       std::chrono::steady_clock::now().time_since_epoch())
                       .count();
    auto& all = scripted::provided();
    const std::lock_guard lock(all.mutex);
    all.frames.push_back(seen);
    ++all.total;
    if (all.frames.size() > scripted::kKeptFrames) all.frames.pop_front();
  }
  script().count(function);
  return status;
}

long scripted_provided_count(void) {
  const std::lock_guard lock(scripted::provided().mutex);
  return scripted::provided().total;
}

int scripted_provided(long position, struct scripted_provided_frame* out) {
  auto& all = scripted::provided();
  const std::lock_guard lock(all.mutex);
  const long oldest = all.total - static_cast<long>(all.frames.size());
  if (out == nullptr || position < oldest || position >= all.total) return 0;
  *out = all.frames[static_cast<size_t>(position - oldest)];
  return 1;
}

uint32_t scripted_checksum(const uint8_t* bytes, size_t size) {
  return static_cast<uint32_t>(crc32_z(0, bytes, size));
}

const srn_video_capturer* scripted_video_capturer(void) {
  static const auto* const capturer = new srn_video_capturer;
  return capturer;
}

srn_video_frame* scripted_frame_new(const struct scripted_frame_spec* spec) {
  return spec == nullptr ? nullptr : scripted::adopt(scripted::makeFrame(*spec));
}
