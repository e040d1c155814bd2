#include "support/userdirs.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

namespace {

struct FolderRule {
  const char* xdgVariable;
  const char* homeFallback;  // below $HOME
  const char* leaf;          // below the base folder
};

FolderRule ruleFor(UserFolder which) {
  switch (which) {
    case UserFolder::kVoice: return {"XDG_DATA_HOME", "/.local/share", "/tona/voice"};
    case UserFolder::kRecovery: return {"XDG_STATE_HOME", "/.local/state", "/tona/temp"};
    case UserFolder::kCache: break;
  }
  return {"XDG_CACHE_HOME", "/.cache", "/tona/cache"};
}

bool isFolder(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

bool makeFolders(const std::string& path) {
  if (path.empty()) return false;
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0777);
  }
  if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) return false;
  return isFolder(path);
}

std::string userFolder(UserFolder which, bool create) {
  FolderRule rule = ruleFor(which);
  std::string base;
  const char* xdg = getenv(rule.xdgVariable);
  if (xdg != nullptr && xdg[0] == '/') {
    base = xdg;
  } else {
    const char* home = getenv("HOME");
    if (home == nullptr || home[0] == '\0') return std::string();
    base = std::string(home) + rule.homeFallback;
  }
  while (base.size() > 1 && base.back() == '/') base.pop_back();
  std::string path = base + rule.leaf;
  if (create) makeFolders(path);
  return path;
}
