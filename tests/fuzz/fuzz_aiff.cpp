#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "render/wavefile.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = scratchFile("sample.aiff", data, size);
  WaveFormat format = {};
  int32_t bytes = 0;
  int16_t* samples = loadAiffFile(path.c_str(), &format, 16, &bytes);
  if (samples != nullptr && format.channels >= 1 && format.channels <= 2) {
    // Every word the loader claims must be inside the block: the data
    // (as callers count it) and the padding.
    const int32_t words = bytes / 2 + 16;
    int64_t sum = 0;
    for (int32_t k = 0; k < words && k < (1 << 24); ++k) sum += samples[k];
    volatile int64_t keep = sum;
    (void)keep;
  }
  free(samples);
  return 0;
}
