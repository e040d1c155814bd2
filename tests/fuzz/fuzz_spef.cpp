// A spectrum file beside a sample, read as the resampler reads it (any
// rate and length the header claims), then the same bytes through the
// lookups a table that was trusted gets.
#include <cstdint>
#include <string>

#include "tests/fuzz/fuzz_util.h"
#include "voicebank/spectrum.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = scratchFile("a_wav.spef", data, size);
  SpectrumTable table;
  if (readSpectrumFile(path.c_str(), 0, 0, &table)) {
    volatile double v = table.at(table.frames + 3.5, 1e9) + table.at(-2.0, -5.0) + table.at(table.frames / 2.0, 440.0);
    (void)v;
    double row[kSpectrumBins];
    table.row(table.frames * 0.5, row);
  }
  // The same bytes where a 44.1 kHz sample of 1 s expects its table.
  readSpectrumFile(std::string(reinterpret_cast<const char*>(data), size), 44100, 44100 / 256 + 1, &table);
  return 0;
}
