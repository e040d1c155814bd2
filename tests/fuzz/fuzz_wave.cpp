// A WAVE file, then what callers do with it: conversion and analysis.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "render/wavefile.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = scratchFile("sample.wav", data, size);
  WaveFormat format = {};
  int32_t bytes = 0;
  int16_t* samples = loadWaveFile(path.c_str(), &format, 16, &bytes);
  if (samples != nullptr && format.channels >= 1 && format.channels <= 2 && bytes >= 2) {
    const int32_t frames = bytes / 2 / format.channels;
    std::vector<double> values(static_cast<size_t>(frames));
    short2double(values.data(), samples, 0, frames, format.channels);
  }
  free(samples);
  return 0;
}
