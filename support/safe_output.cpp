#include "support/safe_output.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <strings.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

// Where a chain of symbolic links ends (the link's own name when it is
// not one, or when the chain cannot be followed).
std::string followLinks(const std::string& path) {
  std::string current = path;
  for (int depth = 0; depth < 40; ++depth) {
    struct stat info;
    if (lstat(current.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) return current;
    std::vector<char> target(PATH_MAX + 1);
    const ssize_t n = readlink(current.c_str(), target.data(), PATH_MAX);
    if (n <= 0) return current;
    std::string next(target.data(), static_cast<size_t>(n));
    if (next[0] != '/') {
      const size_t slash = current.rfind('/');
      if (slash != std::string::npos) next = current.substr(0, slash + 1) + next;
    }
    current = next;
  }
  return current;
}

// The extension of a path's last part ("" for none), in lower case.
std::string extensionOf(const std::string& path) {
  const size_t slash = path.rfind('/'), dot = path.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return std::string();
  std::string extension = path.substr(dot);
  for (char& c : extension) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return extension;
}

// Removes the temporaries that writers of `target` left behind when they
// were killed: "TARGET.tmp-XXXXXX" files that no writer holds locked.
void removeStaleTemporaries(const std::string& target) {
  const size_t slash = target.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : target.substr(0, slash == 0 ? 1 : slash);
  const std::string prefix = (slash == std::string::npos ? target : target.substr(slash + 1)) + ".tmp-";
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.size() != prefix.size() + 6 || name.compare(0, prefix.size(), prefix) != 0) continue;
    const std::string path = folder + "/" + name;
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) continue;
    struct stat info;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && flock(fd, LOCK_EX | LOCK_NB) == 0) unlink(path.c_str());
    close(fd);
  }
  closedir(dir);
}

}  // namespace

SafeOutput::SafeOutput(const std::string& target, bool removeStale) : target_(followLinks(target)) {
  if (target == "-") {
    if (fcntl(STDOUT_FILENO, F_GETFD) < 0) return;  // standard output is closed: EBADF
    temporary_ = "/dev/stdout";
    direct_ = true;
    return;
  }
  struct stat info;
  if (stat(target.c_str(), &info) != 0 && errno == ELOOP) return;  // a loop of links: nothing to write to
  if (stat(target_.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    if (S_ISDIR(info.st_mode)) {
      errno = EISDIR;
      return;
    }
    temporary_ = target_;  // a device or a FIFO: written as it is
    direct_ = true;
    return;
  }
  // A link is judged by the file it leads to: a ".wav" link to a text file
  // is not written through.
  if (target_ != target && extensionOf(target_) != extensionOf(target)) {
    errno = EPERM;
    return;
  }
  if (removeStale) removeStaleTemporaries(target_);
  std::string pattern = target_ + ".tmp-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int fd = mkstemp(name.data());
  if (fd < 0) return;
  // Held locked while it is written: a temporary nobody holds is stale.
  flock(fd, LOCK_EX | LOCK_NB);
  // mkstemp makes the file private; the result gets the usual mode, or
  // the mode of the file it replaces.
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, stat(target_.c_str(), &info) == 0 ? (info.st_mode & 07777) : (0666 & ~mask));
  lock_ = fd;
  temporary_ = name.data();
}

SafeOutput::~SafeOutput() {
  if (!temporary_.empty() && !direct_) unlink(temporary_.c_str());
  if (lock_ >= 0) close(lock_);
}

bool SafeOutput::commit() {
  if (temporary_.empty()) return false;
  if (direct_) return true;
  const bool ok = rename(temporary_.c_str(), target_.c_str()) == 0;
  if (ok) {
    temporary_.clear();
  } else {
    const int saved = errno;
    unlink(temporary_.c_str());
    temporary_.clear();
    errno = saved;
  }
  return ok;
}

std::string outputProblem(const std::string& output, const std::vector<std::string>& inputs,
                          const std::vector<std::string>& extensions) {
  if (output == "-") return "";
  struct stat out;
  const bool exists = stat(output.c_str(), &out) == 0;
  if (!exists && errno == ELOOP) return "'" + output + "' is a loop of symbolic links; nothing written";
  for (const std::string& input : inputs) {
    struct stat in;
    if (exists && stat(input.c_str(), &in) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
      return "the output '" + output + "' is the input '" + input + "'; nothing written";
    }
  }
  if (exists && !S_ISREG(out.st_mode)) return "";
  // A link is judged by the file it leads to.
  const std::string written = followLinks(output);
  if (written != output && extensionOf(written) != extensionOf(output)) {
    return "'" + output + "' leads to '" + written + "', which is no " + extensionOf(output) + " file; nothing written";
  }
  const size_t slash = written.rfind('/');
  const size_t dot = written.rfind('.');
  const size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
  if (dot == std::string::npos || dot <= nameStart || dot + 1 == written.size()) return "";
  const std::string extension = written.substr(dot);
  std::string formats;
  for (const std::string& allowed : extensions) {
    if (strcasecmp(extension.c_str(), allowed.c_str()) == 0) return "";
    formats += (formats.empty() ? "" : ", ") + allowed;
  }
  return "'" + output + "': this command writes " + formats + " files, not " + extension;
}
