// CCacheSys: each note's resampled buffer on disk (raw doubles), named
// "%d_%s_%s.raw" after the note's index, its sound and a digest of what
// shapes its audio, in the per-user render cache folder. At most one file
// per note index. Files that cannot be written are skipped; a missing file
// is a miss.
#pragma once

#include <cstdint>
#include <string>

#include "engine/notedata.h"

// Puts into copy->reserved a digest of what decides a note's sound beside
// the note itself: the length asked of the resampler and the identity,
// size and times of the sample and of its frequency and spectrum tables.
void markRenderInputs(NoteData* copy, double lengthMs, const std::string& samplePath);

class CCacheSys {
 public:
  // The digest (MD5, in base 62) covers the serialized note, its rendered
  // pitch curve, and the timing the note arrangement gave it (lengths,
  // pre-utterance, overlap, start point, tempo, the voice entry's timing):
  // a change to any of them is a new name.
  static std::string getCacheName(int32_t index, const NoteData* note);
  static bool isCached(int32_t index, const NoteData* note);
  // A malloc block of *size bytes, or null on a miss.
  static double* getCache(int32_t index, const NoteData* note, int32_t* size);
  // Replaces the note index's file. 0 on success, -1 when it could not be written.
  static int32_t putCache(int32_t index, const NoteData* note, const double* data, int32_t size);
  static void deleteCache(int32_t index);
  static void deleteCacheAll();
  static std::string folder();

  // The files in the cache and their bytes.
  static void usage(int64_t* files, int64_t* bytes);
  // Removes the oldest files (by last change) until the cache holds at
  // most `limit` bytes; returns the bytes removed.
  static int64_t trim(int64_t limit);
  static constexpr int64_t kDefaultLimit = int64_t(1) << 30;  // 1 GiB
};
