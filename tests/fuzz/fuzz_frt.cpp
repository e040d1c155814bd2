#include <cstdint>
#include <cstdlib>
#include <string>

#include "tests/fuzz/fuzz_util.h"
#include "voicebank/freqtable.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string sample = scratchFile("a.wav", data, 0);
  scratchFile("a_wav.frt", data, size);
  double *freq = nullptr, *amp = nullptr;
  double average = 0.0;
  const int32_t count = readFrequenciesText(sample.c_str(), &freq, &amp, &average, 256);
  if (count > 0) {
    volatile double sum = freq[count - 1] + amp[count - 1];
    (void)sum;
  }
  free(freq);
  free(amp);
  return 0;
}
