// A binary frequency table beside a sample (the sample older, so the
// table is trusted), read as the resampler and the display read it.
#include <sys/stat.h>
#include <utime.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "tests/fuzz/fuzz_util.h"
#include "voicebank/freqtable.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string sample = scratchFile("a.wav", data, 0);
  struct utimbuf old = {1000, 1000};
  utime(sample.c_str(), &old);
  scratchFile("a_wav.frq", data, size);
  double *freq = nullptr, *amp = nullptr;
  double average = 0.0;
  const int32_t count = readFrequenciesList(sample.c_str(), &freq, &amp, &average, 256);
  if (count > 0) {
    volatile double sum = freq[count] + amp[count];  // the extra element is there
    (void)sum;
  }
  free(freq);
  free(amp);
  int32_t shown = 0;
  free(readFreq(sample.c_str(), &shown));
  return 0;
}
