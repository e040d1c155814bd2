// Audition: one note heard alone while it is written, its syllable at its
// pitch, straight from the resampler.
//
// The clip is the note's sample from the start of its consonant, at the
// note's number, flags, consonant velocity and intensity, cut to at most
// kMaxMs with short fades at both ends so that neither end clicks. Clips
// are kept in memory (the last kKeep), keyed by everything that shapes
// them including the sample and its tables as the render cache sees them,
// so a note clicked again sounds at once.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "engine/notedata.h"

class cvoiceset;

class Audition {
 public:
  static constexpr double kMaxMs = 500.0;
  static constexpr size_t kKeep = 32;
  static constexpr double kFadeInMs = 5.0;
  static constexpr double kFadeOutMs = 40.0;

  // The clip of `note` sounding for lengthMs (its consonant comes on top,
  // the whole cut to kMaxMs) with the bank `voices` in folder `voiceDir`
  // (ending in "/" or empty). 16-bit samples at 44100 Hz; empty with
  // *error set when the note is a rest, the bank has no entry for it or
  // the sample cannot be rendered.
  std::vector<int16_t> sing(cvoiceset* voices, const char* voiceDir, const NoteData& note, double lengthMs,
                            std::string* error);

  // Clips rendered and clips served from memory, since the start.
  int64_t rendered() const { return rendered_; }
  int64_t reused() const { return reused_; }

 private:
  std::deque<std::pair<std::string, std::vector<int16_t>>> kept_;
  int64_t rendered_ = 0;
  int64_t reused_ = 0;
};
