#include <cstdint>
#include <cstdlib>
#include <string>

#include "tests/fuzz/fuzz_util.h"
#include "voicebank/freqtable.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string sample = scratchFile("a.wav", data, 0);
  scratchFile("a.wav.f0", data, size);
  double* values = nullptr;
  const int32_t count = readSpecTable(sample.c_str(), &values);
  if (count > 0) {
    volatile double last = values[count - 1];
    (void)last;
  }
  free(values);
  return 0;
}
