// Pictures: those the program wraps and those the library makes.
#pragma once

#include <sarnet/sarnet.h>

#include <array>
#include <memory>
#include <vector>

#include "handles.h"
#include "scripted_sarnet.h"

struct srn_video_frame : scripted::HandleOf<scripted::Kind::frame> {
  struct Plane {
    const uint8_t* data = nullptr;
    int32_t stride = 0;
    int32_t rows = 0;
  };

  ~srn_video_frame() override;

  srn_video_frame_format format = SRN_VIDEO_FRAME_FORMAT_UNKNOWN;
  int32_t width = 0;
  int32_t height = 0;
  const uint8_t* buffer = nullptr;
  size_t buffer_size = 0;
  std::array<Plane, 3> planes{};
  // Each block separate, so that a sanitizer detects a read past a plane.
  std::vector<std::vector<uint8_t>> storage;
  srn_video_frame_memory_release_callback release = nullptr;
  void* release_argument = nullptr;
};

namespace scripted {

std::shared_ptr<srn_video_frame> makeFrame(const scripted_frame_spec& spec);

// The frames that the program gave to its capturers.
void resetProvided();

}  // namespace scripted
