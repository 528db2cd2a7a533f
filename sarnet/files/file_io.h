#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "files/ffmpeg_handles.h"
#include "plugins/file_plugin.h"

namespace sarnet {

// A regular file as FFmpeg's (de)muxers take it. Own reading and writing, since FFmpeg's own waits
// in system calls for as long as they take, and opens whatever another file names.
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
  // Reading fails after so many more bytes; negative: never.
  void limit(std::int64_t bytes) { bytes_left_ = bytes; }
  bool exhausted() const { return bytes_left_ == 0; }
  bool interrupted() const { return refused_ || (interrupted_ && interrupted_()); }
  // From now on nothing more is read, since another file was asked for.
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
