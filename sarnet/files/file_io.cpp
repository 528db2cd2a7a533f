#include "files/file_io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "base/regular_file.h"

namespace sarnet {
namespace {

constexpr int kBuffer = 1 << 16;

}  // namespace

FileIo::FileIo(int fd, Interrupted interrupted, bool writes)
    : fd_(fd), interrupted_(std::move(interrupted)) {
  auto* const buffer = static_cast<unsigned char*>(av_malloc(kBuffer));
  if (buffer != nullptr) {
    context_ = avio_alloc_context(buffer, kBuffer, writes ? 1 : 0, this, &read, &write, &seek);
  }
  if (context_ == nullptr) {
    av_free(buffer);
    ::close(fd_);
    throw std::bad_alloc();
  }
}

FileIo::~FileIo() {
  av_freep(&context_->buffer);
  avio_context_free(&context_);
  ::close(fd_);
}

std::unique_ptr<FileIo> FileIo::open(const std::string& path, const Interrupted& interrupted,
                                     std::string& reason) {
  const int fd = open_regular(path, reason);
  return std::unique_ptr<FileIo>(fd < 0 ? nullptr : new FileIo(fd, interrupted, false));
}

std::unique_ptr<FileIo> FileIo::create(const std::string& path, std::string& reason) {
  const int fd = create_regular(path, false, reason);
  return std::unique_ptr<FileIo>(fd < 0 ? nullptr : new FileIo(fd, nullptr, true));
}

int FileIo::read(void* opaque, std::uint8_t* buffer, int size) {
  auto& self = *static_cast<FileIo*>(opaque);
  if (self.interrupted()) return AVERROR_EXIT;
  if (self.exhausted()) return AVERROR_BUFFER_TOO_SMALL;
  if (self.bytes_left_ > 0 && size > self.bytes_left_) size = static_cast<int>(self.bytes_left_);
  ssize_t count = 0;
  do {
    count = ::read(self.fd_, buffer, static_cast<std::size_t>(size));
  } while (count < 0 && errno == EINTR);
  if (count < 0) return AVERROR(errno);
  if (self.bytes_left_ > 0) self.bytes_left_ -= count;
  return count == 0 ? AVERROR_EOF : static_cast<int>(count);
}

int FileIo::write(void* opaque, std::uint8_t* buffer, int size) {
  const auto& self = *static_cast<FileIo*>(opaque);
  for (int done = 0; done < size;) {
    const ssize_t count = ::write(self.fd_, buffer + done,
                                  static_cast<std::size_t>(size) - static_cast<std::size_t>(done));
    if (count < 0 && errno != EINTR) return AVERROR(errno);
    if (count > 0) done += static_cast<int>(count);
  }
  return size;
}

std::int64_t FileIo::seek(void* opaque, std::int64_t offset, int whence) {
  const auto& self = *static_cast<FileIo*>(opaque);
  if ((whence & AVSEEK_SIZE) != 0) {
    struct stat about {};
    return ::fstat(self.fd_, &about) == 0 ? about.st_size : AVERROR(errno);
  }
  const off_t place = ::lseek(self.fd_, offset, whence & ~AVSEEK_FORCE);
  return place < 0 ? AVERROR(errno) : place;
}

}  // namespace sarnet
