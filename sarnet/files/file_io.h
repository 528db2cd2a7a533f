#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "files/ffmpeg_handles.h"
#include "plugins/file_plugin.h"

namespace sarnet {

// A regular file for FFmpeg's (de)muxers. Replaces FFmpeg's own I/O, which blocks in system calls
// without bound, and opens any file that another one names.
class FileIo {
 public:
  // Null and `reason` on failure. Once `interrupted` gives true nothing more is read.
  static std::unique_ptr<FileIo> open(const std::string& path, const Interrupted& interrupted,
                                      std::string& reason);
  // Creates or empties the file.
  static std::unique_ptr<FileIo> create(const std::string& path, std::string& reason);

  ~FileIo();
  FileIo(const FileIo&) = delete;
  FileIo& operator=(const FileIo&) = delete;

  AVIOContext* context() const { return context_; }
  // Reading fails after this many more bytes; negative: never.
  void limit(std::int64_t bytes) { bytes_left_ = bytes; }
  bool exhausted() const { return bytes_left_ == 0; }
  bool interrupted() const { return refused_ || (interrupted_ && interrupted_()); }
  // Stops all reading, since the demuxer requested another file.
  void refuse() { refused_ = true; }
  bool refused() const { return refused_; }

 private:
  FileIo(int fd, Interrupted interrupted, bool writes);
  static int read(void* opaque, std::uint8_t* buffer, int size);
  static int write(void* opaque, std::uint8_t* buffer, int size);
  static std::int64_t seek(void* opaque, std::int64_t offset, int whence);

  const int fd_;
  const Interrupted interrupted_;
  std::int64_t bytes_left_ = -1;
  bool refused_ = false;
  AVIOContext* context_ = nullptr;
};

}  // namespace sarnet
