// What the resampler tests share: a note that sings a whole sample of a
// steady vowel, and the average pitch of what comes out.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "engine/notedata.h"
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
