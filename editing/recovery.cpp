#include "editing/recovery.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "editing/undoman.h"
#include "engine/ctonm2.h"
#include "support/regular_file.h"
#include "support/safe_output.h"
#include "support/userdirs.h"

namespace {

const char kPathSuffix[] = ".path";

std::string lockPath(const std::string& folder, long pid) {
  return folder + "/.temp-" + std::to_string(pid) + ".lock";
}

// The owner of an editor window's copy ".temp-PID-N.snt", or 0 for any
// other name.
long ownerOf(const char* name) {
  long pid = 0, window = 0;
  int end = 0;
  if (sscanf(name, ".temp-%ld-%ld.snt%n", &pid, &window, &end) != 2 || name[end] != '\0' || pid <= 0) return 0;
  return pid;
}

// Whether the editor process `pid` still runs: it holds its lock.
bool isRunning(const std::string& folder, long pid) {
  if (pid == static_cast<long>(getpid())) return true;
  const int fd = open(lockPath(folder, pid).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return false;
  struct stat info;
  const bool held = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && flock(fd, LOCK_EX | LOCK_NB) != 0 &&
                    errno == EWOULDBLOCK;
  close(fd);
  return held;
}

bool isCopyName(const char* name) { return strcmp(name, ".temp.snt") == 0 || ownerOf(name) != 0; }

}  // namespace

std::vector<RecoveryCopy> findRecoveryCopies() {
  std::vector<RecoveryCopy> copies;
  const std::string folder = userFolder(UserFolder::kRecovery);
  if (folder.empty()) return copies;
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return copies;
  std::vector<std::string> names;
  std::vector<long> locks;
  while (const dirent* entry = readdir(dir)) {
    long pid = 0;
    int end = 0;
    if (isCopyName(entry->d_name)) {
      names.push_back(entry->d_name);
    } else if (sscanf(entry->d_name, ".temp-%ld.lock%n", &pid, &end) == 1 && entry->d_name[end] == '\0') {
      locks.push_back(pid);
    }
  }
  closedir(dir);
  // The lock of a process that has ended, with no copy of its left, goes.
  for (long pid : locks) {
    const bool copiesLeft = std::any_of(names.begin(), names.end(),
                                        [pid](const std::string& name) { return ownerOf(name.c_str()) == pid; });
    if (!copiesLeft && !isRunning(folder, pid)) unlink(lockPath(folder, pid).c_str());
  }
  for (const std::string& name : names) {
    const long owner = ownerOf(name.c_str());
    if (owner != 0 && isRunning(folder, owner)) continue;
    RecoveryCopy copy;
    copy.file = folder + "/" + name;
    struct stat info;
    if (lstat(copy.file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    copy.written = info.st_mtime;
    copy.projectPath = recoveryCopyProjectPath(copy.file);
    CScaleMan scale;
    CNoteMan notes(&scale);
    if (notes.openSnt(copy.file.c_str(), nullptr) >= 0) {
      copy.noteCount = notes.noteCount();
      // A name the reader made up for a nameless project is not the project's.
      if (strcmp(notes.engine()->projectName, "(no title)") != 0 && name != notes.engine()->projectName) {
        copy.projectName = notes.engine()->projectName;
      }
    }
    copies.push_back(copy);
  }
  std::sort(copies.begin(), copies.end(), [](const RecoveryCopy& a, const RecoveryCopy& b) {
    return a.written != b.written ? a.written > b.written : a.file < b.file;
  });
  return copies;
}

std::string newRecoveryCopyPath() {
  static int lockFd = -1;
  static std::atomic<int> windows{0};
  const std::string folder = userFolder(UserFolder::kRecovery, true);
  if (folder.empty()) return std::string();
  const long pid = static_cast<long>(getpid());
  if (lockFd < 0) {
    lockFd = open(lockPath(folder, pid).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lockFd >= 0) flock(lockFd, LOCK_EX | LOCK_NB);  // kept until the process ends
  }
  return folder + "/.temp-" + std::to_string(pid) + "-" + std::to_string(++windows) + ".snt";
}

bool writeRecoveryCopy(CNoteMan& notes, const std::string& file, const std::string& projectPath) {
  bool written = false;
  {
    SafeOutput out(file + kPathSuffix);
    FILE* side = out.path().empty() ? nullptr : fopen(out.path().c_str(), "wb");
    if (side != nullptr) {
      written = fprintf(side, "%s\n", projectPath.c_str()) >= 0;
      written = fclose(side) == 0 && written;
    }
    written = written && out.commit();
  }
  return writeRecoveryFile(notes, file) && written;
}

std::string recoveryCopyProjectPath(const std::string& file) {
  const std::string side = file + kPathSuffix;
  struct stat info;
  if (lstat(side.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > 65536) return std::string();
  FILE* in = openRegularFile(side.c_str(), "rb");
  if (in == nullptr) return std::string();
  std::string path(static_cast<size_t>(info.st_size), '\0');
  path.resize(fread(&path[0], 1, path.size(), in));
  fclose(in);
  const size_t end = path.find('\n');
  if (end != std::string::npos) path.resize(end);
  return path;
}

void removeRecoveryCopy(const std::string& file) {
  unlink(file.c_str());
  unlink((file + kPathSuffix).c_str());
}
