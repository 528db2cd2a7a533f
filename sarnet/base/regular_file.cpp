#include "base/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace sarnet {
namespace {

int fail(int fd, int status, std::string& reason) {
  if (fd >= 0) ::close(fd);
  reason = std::generic_category().message(status);
  return -1;
}

int open_checked(const std::string& path, int flags, std::string& reason) {
  // Checked before opening, since opening a device may have effects, and again afterwards, since
  // the file may have been replaced.
  struct stat about {};
  int fd = -1;
  const auto acceptable = [&] {
    if (S_ISREG(about.st_mode)) return true;
    fail(fd, EISDIR, reason);
    if (!S_ISDIR(about.st_mode)) reason = "not a regular file";
    return false;
  };
  if (::stat(path.c_str(), &about) == 0) {
    if (!acceptable()) return -1;
  } else if (errno != ENOENT || (flags & O_CREAT) == 0) {
    return fail(fd, errno, reason);
  }
  fd = ::open(path.c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
  if (fd < 0 || ::fstat(fd, &about) != 0) return fail(fd, errno, reason);
  return acceptable() ? fd : -1;
}

}  // namespace

int open_regular(const std::string& path, std::string& reason) {
  return open_checked(path, O_RDONLY, reason);
}

int create_regular(const std::string& path, bool append, std::string& reason) {
  const int fd = open_checked(path, O_WRONLY | O_CREAT | (append ? O_APPEND : 0), reason);
  if (fd >= 0 && !append && ::ftruncate(fd, 0) != 0) return fail(fd, errno, reason);
  return fd;
}

}  // namespace sarnet
