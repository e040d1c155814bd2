#include "support/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

FILE* openRegularFile(const char* path, const char* mode) {
  if (path == nullptr || mode == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat info;
  if (fstat(fd, &info) != 0) {
    const int reason = errno;
    close(fd);
    errno = reason;
    return nullptr;
  }
  if (!S_ISREG(info.st_mode)) {
    close(fd);
    errno = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
    return nullptr;
  }
  const int flags = fcntl(fd, F_GETFL);
  if (flags >= 0) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  FILE* file = fdopen(fd, mode);
  if (file == nullptr) close(fd);
  return file;
}
