#include "tests/fuzz/fuzz_util.h"

#include <ftw.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

struct Scratch {
  std::string folder;
  Scratch() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/tona-fuzz-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) != nullptr) folder = std::string(name.data()) + "/";
  }
  ~Scratch() {
    if (folder.empty()) return;
    nftw(folder.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return remove(p); }, 8,
         FTW_DEPTH | FTW_PHYS);
  }
};

Scratch& scratch() {
  static Scratch s;
  return s;
}

}  // namespace

const std::string& scratchFolder() { return scratch().folder; }

std::string scratchFile(const char* name, const uint8_t* data, size_t size) {
  const std::string path = scratchFolder() + name;
  FILE* file = fopen(path.c_str(), "wb");
  if (file != nullptr) {
    if (size > 0) fwrite(data, 1, size, file);
    fclose(file);
  }
  return path;
}
