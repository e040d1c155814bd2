// The formant-correction stage of the resampler.
//
// Reading a sample faster or slower moves its pitch and, with it, its
// resonances. For each output frame (1024 samples, every 256) this stage
// looks up the spectral envelope of the input frame the output was read
// from, moves it along the frequency axis by the "gen" factor, and imposes
// it on the output: the output's own envelope is divided out and the
// target multiplied in, above a low band that stays as it is, by a
// strength that the flags set; by overlap-add of sine-windowed frames.
//
// The output's own envelope is the input's, moved by the rate the
// periodic part was read at (the resampler knows it for every sample), not
// an estimate from the output: a note sung higher than its sample has
// fewer harmonics to estimate an envelope from, and an estimate smoothed
// differently from the input's would put its own error into every gain.
// Both sides of the division then come from the same table and cancel
// exactly where no shift is asked for.
//
// The aperiodic buffer is resynthesised from an analysis at the sample's
// own rate (moved by gen only, through the analysis stride), so its
// envelope already is the target: it gets the equalizer alone. For the
// same reason the resampler hands y over without the aperiodic share of
// its first mix, and adds that share back from the equalized buffer.
#pragma once

#include <cstdint>
#include <vector>

#include "voicebank/spectrum.h"

struct FormantStage {
  // The input's envelopes, and where the output came from: the read
  // position in input samples at every 256th output sample.
  const SpectrumTable* input = nullptr;
  std::vector<double> inputPositions;
  // At every 256th output sample, how much faster than the input's own
  // rate the periodic part was read there (in frequency: an input
  // frequency f sounds at f x scale).
  std::vector<double> readScale;
  int32_t rateOut = 44100;
  // Output bins below this are left alone (a 1024-point spectrum at rateOut).
  int32_t lowBin = 0;
  // The envelope moves up by this factor (10^(g / 200)); with a curve (one
  // value per output sample, gfactors), by gen times its value.
  double gen = 1.0;
  const std::vector<double>* genCurve = nullptr;
  // How much of the correction is applied: fce x (1 - keep); keep is the Y
  // flag (0..1, the share of the uncorrected timbre that stays).
  double fce = 1.0;
  double keep = 0.0;
  // 512 gains of the equalizer variable (null: none), raised to the power
  // of the eqzparams curve (one value per output sample; null: 1).
  const double* equalizer = nullptr;
  const std::vector<double>* equalizerStrength = nullptr;
};

// Corrects n samples of y and of aperiodic in place. Buffers are set up
// once per call; nothing is allocated per sample.
void CorrectFormant(const FormantStage& stage, double* y, double* aperiodic, int32_t n);

// The equalizer variable: 256 two-digit hexadecimal values v, gains
// 10^((v - 128) / 100), mirrored into 512 entries. False when the text is
// shorter than 512 characters.
bool parseEqualizer(const char* text, double* gains512);
