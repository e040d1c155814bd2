#include "app/safe_output.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

SafeOutput::SafeOutput(const std::string& target) : target_(target) {
  std::string pattern = target + ".tmp-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int fd = mkstemp(name.data());
  if (fd < 0) return;
  // mkstemp makes the file private; the result gets the usual mode.
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, 0666 & ~mask);
  close(fd);
  temporary_ = name.data();
}

SafeOutput::~SafeOutput() {
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

bool SafeOutput::commit() {
  if (temporary_.empty()) return false;
  const bool ok = rename(temporary_.c_str(), target_.c_str()) == 0;
  if (ok) temporary_.clear();
  return ok;
}
