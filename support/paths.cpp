#include "support/paths.h"

#include <unistd.h>

#include <vector>

namespace {

std::vector<std::string> partsOf(const std::string& absolute) {
  std::vector<std::string> parts;
  size_t at = 0;
  while (at <= absolute.size()) {
    const size_t slash = absolute.find('/', at);
    const std::string part = absolute.substr(at, slash == std::string::npos ? std::string::npos : slash - at);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    if (slash == std::string::npos) break;
    at = slash + 1;
  }
  return parts;
}

std::string join(const std::vector<std::string>& parts, size_t from, bool rooted) {
  std::string out = rooted ? "/" : "";
  for (size_t k = from; k < parts.size(); ++k) {
    if (k > from) out += "/";
    out += parts[k];
  }
  return out;
}

}  // namespace

std::string absolutePath(const std::string& path) {
  if (path.empty()) return path;
  std::string full = path;
  if (path[0] != '/') {
    char here[4096];
    full = std::string(getcwd(here, sizeof here) != nullptr ? here : "") + "/" + path;
  }
  return join(partsOf(full), 0, true);
}

std::string absoluteFrom(const std::string& folder, const std::string& path) {
  if (path.empty() || path[0] == '/') return absolutePath(path);
  return absolutePath((folder.empty() ? "." : folder) + "/" + path);
}

std::string relativeTo(const std::string& folder, const std::string& path) {
  if (path.empty()) return path;
  const std::vector<std::string> base = partsOf(absolutePath(folder.empty() ? "." : folder));
  const std::vector<std::string> target = partsOf(absolutePath(path));
  size_t common = 0;
  while (common < base.size() && common < target.size() && base[common] == target[common]) ++common;
  std::string out;
  for (size_t k = common; k < base.size(); ++k) out += "../";
  return out + join(target, common, false);
}

std::string folderOf(const std::string& file) {
  const size_t slash = file.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : file.substr(0, slash);
}
