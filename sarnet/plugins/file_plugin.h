#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "base/audio_format.h"
#include "base/picture.h"

namespace sarnet {

// Media files are read and written by a separate shared object, libsarnet_files.so beside
// libsarnet.so, loaded when the first file is named: the decoders cost 20 to 30 MB of resident
// memory, and most programs name no file.
//
// Readers and writers: one thread at a time each, any thread. All of their calls may block on the
// disk and take milliseconds, so decode ahead on a thread that nothing waits for. Only regular
// files are read and written. Error texts name the file, the operation and the reason; they are
// empty without an error.

// Whether to stop reading. Polled by a reader's calls on their thread; true ends them with kError
// within the decoding of one picture or one block of sound. May be empty.
using Interrupted = std::function<bool()>;

// The minimum length of a looped file, in seconds: each round reopens it.
inline constexpr double kShortestRound = 0.00999;

enum class ReadStatus {
  kOk,
  kEnd,    // the file is over (never with `loop`)
  kError,  // see error()
};

class AudioReader {
 public:
  virtual ~AudioReader() = default;
  // Fills `samples` (whole frames in the requested format). `frames` is the number filled: fewer
  // than requested only with kEnd or kError. A loop joins the end to the beginning without a gap.
  virtual ReadStatus read(std::span<std::int16_t> samples, std::size_t& frames) = 0;
  // Length in seconds as the file states it, 0 when unknown.
  virtual double duration() const = 0;
  virtual const std::string& error() const = 0;
};

class VideoReader {
 public:
  virtual ~VideoReader() = default;
  // What read() expects, after the reader's defaults were filled in.
  virtual int width() const = 0;
  virtual int height() const = 0;
  virtual double fps() const = 0;
  // The picture for the next 1/fps seconds, scaled to the target, whose size must be width() x
  // height(). At another rate, pictures are repeated or skipped by the file's timestamps. A still
  // picture ends after one read unless it loops.
  virtual ReadStatus read(const MutablePictureView& target) = 0;
  // Length in seconds as the file states it, 0 when unknown or for a still picture.
  virtual double duration() const = 0;
  virtual const std::string& error() const = 0;
};

// Both writers create or truncate the file and flush it in the destructor, if close() did not.
// After an error further writes do nothing and give false. A file whose process was killed is
// playable up to the last second: a WAV header is rewritten about once a second, a Y4M file needs
// no end.
class AudioWriter {
 public:
  virtual ~AudioWriter() = default;
  virtual bool write(std::span<const std::int16_t> samples) = 0;
  virtual bool close() = 0;
  virtual const std::string& error() const = 0;
};

class VideoWriter {
 public:
  virtual ~VideoWriter() = default;
  // The picture must have the size the writer was made with.
  virtual bool write(const PictureView& picture) = 0;
  virtual bool close() = 0;
  virtual const std::string& error() const = 0;
};

class FilePlugin {
 public:
  virtual ~FilePlugin() = default;

  // The plug-in beside this library, loaded by the first call and kept for the life of the process;
  // any thread. Null when it cannot be loaded: `error` then says which file and why.
  static const FilePlugin* load(std::string& error);
  // The same from a given file, without remembering it.
  static const FilePlugin* load_from(const std::string& path, std::string& error);

  // Opens a file of any kind the decoders know and converts to `format`. Null and `error` on
  // failure, also when there is no audio in it, or at a rate beyond 4 to 384 kHz.
  virtual std::unique_ptr<AudioReader> open_audio(const std::string& path,
                                                  const AudioFormat& format, bool loop,
                                                  const Interrupted& interrupted,
                                                  std::string& error) const = 0;

  // Opens a video or a still picture (PNG, JPEG, WebP, ...). A width, height or fps of 0 means the
  // file's own (30 fps for a still picture; with one side given, the other keeps the aspect ratio).
  // Pictures beyond 8192x8192 and more than 1000 a second are refused.
  virtual std::unique_ptr<VideoReader> open_video(const std::string& path, int width, int height,
                                                  double fps, bool loop,
                                                  const Interrupted& interrupted,
                                                  std::string& error) const = 0;

  // A WAV file of 16-bit PCM.
  virtual std::unique_ptr<AudioWriter> create_audio(const std::string& path,
                                                    const AudioFormat& format,
                                                    std::string& error) const = 0;

  // A Y4M file of I420 pictures, odd sizes included.
  virtual std::unique_ptr<VideoWriter> create_video(const std::string& path, int width, int height,
                                                    int fps, std::string& error) const = 0;
};

}  // namespace sarnet
