// Runs a fuzz target once over every file named on the command line, or
// found in the folders named: the seed corpus and the saved crash inputs
// replayed in CI, with no fuzzing engine.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int replay(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return 0;
  if (S_ISDIR(info.st_mode)) {
    int count = 0;
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return 0;
    while (struct dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') count += replay(path + "/" + entry->d_name);
    }
    closedir(dir);
    return count;
  }
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return 0;
  std::vector<uint8_t> data(static_cast<size_t>(info.st_size));
  const size_t read = data.empty() ? 0 : fread(data.data(), 1, data.size(), file);
  fclose(file);
  LLVMFuzzerTestOneInput(data.data(), read);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  int count = 0;
  for (int i = 1; i < argc; ++i) count += replay(argv[i]);
  printf("replayed %d inputs\n", count);
  return count > 0 ? 0 : 1;
}
