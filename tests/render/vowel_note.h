// What the resampler tests share: a note that sings a whole sample of a
// steady vowel, and the average pitch of what comes out.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "engine/notedata.h"
#include "voicebank/freqtable.h"
#include "voicebank/pitch.h"
#include "voicebank/voiceset.h"

// An entry that keeps 100 ms off each end, and an A3 note (57) on it with
// every expression at its neutral value.
inline void setUpVowelNote(VoiceData* entry, NoteData* note) {
  memset(entry, 0, sizeof *entry);
  entry->offset = 100.0f;
  entry->blank = 100.0f;
  memset(note, 0, sizeof *note);
  strcpy(note->Lyric, "a");
  note->NoteNum = 57;
  note->Velocity = 100.0f;
  note->Intensity = 100;
  note->Modulation = 100;
  note->VoiceFile = entry->filename;
}

// The average frequency the analyser finds in 16-bit samples.
inline double averagePitch(const std::vector<int16_t>& words) {
  double* amplitudes = nullptr;
  double average = 0.0;
  const int32_t frames = static_cast<int32_t>(words.size());
  double* f = bcfGetFrequencyList(&amplitudes, &average, frames, frames / 256, 44100, 1, words.data(), "");
  free(f);
  free(amplitudes);
  return average;
}

inline double averagePitch(const std::vector<double>& values) {
  std::vector<int16_t> words(values.size());
  for (size_t k = 0; k < values.size(); ++k) words[k] = static_cast<int16_t>(std::clamp(values[k], -32767.0, 32767.0));
  return averagePitch(words);
}

// The fundamental around `centre` of a signal known to be near
// `expected` Hz: the lag of highest normalised autocorrelation between 0.8
// and 1.25 of the expected period over a 2048-sample window, refined by a
// parabola through its neighbours (a tenth of a cent at these periods).
inline double frequencyAt(const double* x, int32_t count, int32_t centre, double expected) {
  constexpr int32_t kWindow = 2048;
  const double period = 44100.0 / expected;
  const int32_t low = static_cast<int32_t>(period * 0.8), high = static_cast<int32_t>(period * 1.25) + 1;
  const int32_t start = centre - kWindow / 2;
  if (start < 0 || start + kWindow + high >= count) return 0.0;
  std::vector<double> score(static_cast<size_t>(high + 2), -1.0);
  for (int32_t lag = low - 1; lag <= high + 1; ++lag) {
    double xy = 0.0, xx = 0.0, yy = 0.0;
    for (int32_t k = start; k < start + kWindow; ++k) {
      xy += x[k] * x[k + lag];
      xx += x[k] * x[k];
      yy += x[k + lag] * x[k + lag];
    }
    score[static_cast<size_t>(lag)] = xx > 0.0 && yy > 0.0 ? xy / std::sqrt(xx * yy) : -1.0;
  }
  int32_t best = low;
  for (int32_t lag = low; lag <= high; ++lag) {
    if (score[static_cast<size_t>(lag)] > score[static_cast<size_t>(best)]) best = lag;
  }
  const double a = score[static_cast<size_t>(best - 1)], b = score[static_cast<size_t>(best)],
               c = score[static_cast<size_t>(best + 1)];
  const double bend = a - 2.0 * b + c;
  const double offset = bend < 0.0 ? 0.5 * (a - c) / bend : 0.0;
  return 44100.0 / (best + offset);
}

// How far a rendered note is from `target` Hz over the middle 60 % of it,
// measured every 10 ms: the mean distance in cents and the worst over any
// 50 ms (five measurements averaged).
struct PitchDistance {
  double mean = 0.0;
  double worst = 0.0;
  size_t frames = 0;
};
inline PitchDistance pitchDistance(const double* out, int32_t count, double target) {
  std::vector<double> cents;
  for (int32_t at = count / 5; at < count * 4 / 5; at += 441) {
    const double f = frequencyAt(out, count, at, target);
    if (f > 0.0) cents.push_back(1200.0 * std::log2(f / target));
  }
  PitchDistance d;
  d.frames = cents.size();
  for (size_t k = 0; k < cents.size(); ++k) {
    d.mean += std::fabs(cents[k]);
    if (k + 5 <= cents.size()) {
      double stretch = 0.0;
      for (size_t j = k; j < k + 5; ++j) stretch += cents[j];
      d.worst = std::max(d.worst, std::fabs(stretch / 5.0));
    }
  }
  if (!cents.empty()) d.mean /= static_cast<double>(cents.size());
  return d;
}

// Tables made by other programs carry frame-to-frame jitter the voice does
// not have: the sample's table rewritten with every voiced frame moved by
// a normal spread of `cents` (seeded). False when there is no table.
inline bool jitterTable(const char* samplePath, double cents, uint32_t seed) {
  double* frequencies = nullptr;
  double* amplitudes = nullptr;
  double average = 0.0;
  const int32_t count = readFrequenciesList(samplePath, &frequencies, &amplitudes, &average, 256);
  if (count <= 0) return false;
  std::mt19937 random(seed);
  std::normal_distribution<double> spread(0.0, cents);
  for (int32_t k = 0; k <= count; ++k) {
    if (frequencies[k] > 55.0) frequencies[k] *= std::pow(2.0, spread(random) / 1200.0);
  }
  const bool written = writeFrequenciesList(samplePath, frequencies, amplitudes, count, average, 256) == 1;
  free(frequencies);
  free(amplitudes);
  return written;
}
