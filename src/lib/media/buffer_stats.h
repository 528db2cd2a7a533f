#pragma once

#include <cstdint>
#include <optional>

#include "runtime/event_queue_result.h"

/// How much media of one kind waits to be sent.
struct BufferStats {
  std::int64_t duration_millis = 0;

  bool operator==(const BufferStats&) const = default;
};

using AudioBufferStats = BufferStats;
using VideoBufferStats = BufferStats;

/// An empty side was not measured or does not exist; 0 in a drained report: it has just run dry.
struct MediaBufferStats {
  std::optional<AudioBufferStats> audio_stats;
  std::optional<VideoBufferStats> video_stats;

  bool operator==(const MediaBufferStats&) const = default;
};

template <>
inline constexpr bool kIsEventQueueResult<MediaBufferStats> = true;
