// CScaleMan: the project's time-signature list and the walk over its beat
// and measure boundaries (for the ruler, the grid and measure numbers).
//
// Entry k starts at the sum of the measures of entries 0..k-1; a measures
// of 0 means "to the end of the song" and belongs to the last entry only.
// A new or reset list is the single entry 4/4 lasting to the end.
// Not thread safe: the main thread owns the application's one instance.
#pragma once

#include <cstdint>

struct TimeSignature {
  int32_t beats;     // per measure
  int32_t note;      // note value of a beat: 4 quarter, 8 eighth
  int32_t measures;  // how long it lasts; 0: to the end
};

class CScaleMan {
 public:
  CScaleMan();
  ~CScaleMan();
  CScaleMan(const CScaleMan&) = delete;
  CScaleMan& operator=(const CScaleMan&) = delete;

  void resetScale();
  int32_t count() const { return count_; }
  // Beats and note of entry k; k must be in range.
  int32_t getBeat(int32_t k) const { return entries_[k].beats; }
  int32_t getNote(int32_t k) const { return entries_[k].note; }
  const TimeSignature* entries() const { return entries_; }

  // A signature from `measure` on, ending where the one it splits ended;
  // at the start of an existing one it replaces that one's beats and note.
  // Returns the new count, -1 when memory ran out (nothing changed).
  int32_t addTimeSignature(int32_t measure, int32_t beats, int32_t note);
  // Removes the signature that starts exactly at `measure` (never the
  // first); the one before absorbs its measures. Returns the count, -1
  // when memory ran out.
  int32_t removeTimeSignature(int32_t measure);

  // The boundary walk, one call per beat. quarterLength is the length of a
  // quarter note in the caller's unit (480 ticks, or pixels). nextBoundary
  // returns the position of the next beat, with the beat within its
  // measure, the measure number, and the index of the entry the walk moved
  // into there (-1 when it did not move).
  void initBoundary(int32_t quarterLength, int32_t* entryIndex);
  int32_t nextBoundary(int32_t* beatInMeasure, int32_t* measureNumber, int32_t* newEntry);
  // The number of the measure that begins at the last beat before
  // `position`, or -1 when that beat does not begin a measure.
  int32_t getMeasureNumber(int32_t quarterLength, int32_t position, int32_t* entryChange);

  // Writes "(beats/note/measures)," per entry, each piece only while it
  // fits below `capacity`. Returns the full length plus 1; a null buffer
  // only measures.
  int32_t serialize2text(char* buffer, int32_t capacity) const;
  // Replaces the list with the entries of a text in that form (pieces
  // whose beats or note read as 0 are dropped). Returns the new count.
  int32_t unserializeText(const char* text);

 private:
  // The index of the entry holding measure m, and its start measure.
  int32_t findEntry(int32_t m, int32_t* start) const;

  TimeSignature* entries_ = nullptr;
  int32_t count_ = 0;
  int32_t step_ = 0;
  int32_t position_ = 0;
  int32_t current_ = 0;
  int32_t beatCounter_ = 0;
  int32_t measureCounter_ = 0;
};
