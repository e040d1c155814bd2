#include "editing/scaleman.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

CScaleMan::CScaleMan() { resetScale(); }

CScaleMan::~CScaleMan() { free(entries_); }

void CScaleMan::resetScale() {
  TimeSignature* single = static_cast<TimeSignature*>(realloc(entries_, sizeof(TimeSignature)));
  if (single != nullptr) {
    entries_ = single;
    entries_[0] = {4, 4, 0};
    count_ = 1;
  }
  step_ = position_ = current_ = beatCounter_ = measureCounter_ = 0;
}

int32_t CScaleMan::findEntry(int32_t m, int32_t* start) const {
  // Sums in 64 bits: a list read from a file may hold any counts.
  int64_t s = 0;
  int32_t k = 0;
  for (; k < count_; ++k) {
    if (entries_[k].measures < 1 || s + entries_[k].measures > m) break;
    s += entries_[k].measures;
  }
  if (k == count_ && k > 0) {  // a damaged list whose last entry has an end
    --k;
    s -= entries_[k].measures;
  }
  *start = static_cast<int32_t>(s);
  return k;
}

int32_t CScaleMan::addTimeSignature(int32_t measure, int32_t beats, int32_t note) {
  if (count_ == 0) {
    TimeSignature* first = static_cast<TimeSignature*>(realloc(entries_, sizeof(TimeSignature)));
    if (first == nullptr) return -1;
    entries_ = first;
    entries_[0] = {beats, note, 0};
    count_ = 1;
    return count_;
  }
  if (measure < 0) measure = 0;
  int32_t start = 0;
  const int32_t k = findEntry(measure, &start);
  if (start == measure) {
    entries_[k].beats = beats;
    entries_[k].note = note;
    return count_;
  }
  TimeSignature* grown =
      static_cast<TimeSignature*>(realloc(entries_, sizeof(TimeSignature) * (static_cast<size_t>(count_) + 1)));
  if (grown == nullptr) return -1;
  entries_ = grown;
  // Past the end of a list whose last entry has an end: the new one lasts.
  const bool last = entries_[k].measures < 1 || start + entries_[k].measures <= measure;
  memmove(&entries_[k + 2], &entries_[k + 1], sizeof(TimeSignature) * static_cast<size_t>(count_ - k - 1));
  entries_[k + 1] = {beats, note,
                    last ? 0 : static_cast<int32_t>(static_cast<int64_t>(start) + entries_[k].measures - measure)};
  entries_[k].measures = measure - start;
  ++count_;
  return count_;
}

int32_t CScaleMan::removeTimeSignature(int32_t measure) {
  int32_t start = 0;
  const int32_t k = findEntry(measure, &start);
  if (k < 1 || k >= count_ || start != measure) return count_;
  TimeSignature& before = entries_[k - 1];
  const int64_t joined = static_cast<int64_t>(before.measures) + entries_[k].measures;
  before.measures = entries_[k].measures < 1 || joined > INT32_MAX ? 0 : static_cast<int32_t>(joined);
  memmove(&entries_[k], &entries_[k + 1], sizeof(TimeSignature) * static_cast<size_t>(count_ - k - 1));
  --count_;
  return count_;
}

void CScaleMan::initBoundary(int32_t quarterLength, int32_t* entryIndex) {
  step_ = static_cast<int32_t>(std::clamp<int64_t>(4LL * quarterLength, INT32_MIN, INT32_MAX));
  position_ = 0;
  current_ = 0;
  beatCounter_ = 0;
  measureCounter_ = 0;
  if (entryIndex != nullptr) *entryIndex = 0;
}

int32_t CScaleMan::nextBoundary(int32_t* beatInMeasure, int32_t* measureNumber, int32_t* newEntry) {
  // An empty or damaged entry walks as 4/4 rather than dividing by zero.
  const TimeSignature fallback = {4, 4, 0};
  const TimeSignature& entry = current_ < count_ ? entries_[current_] : fallback;
  const int32_t note = entry.note > 0 ? entry.note : 4;
  const int32_t beats = entry.beats > 0 ? entry.beats : 4;
  position_ = static_cast<int32_t>(std::min<int64_t>(static_cast<int64_t>(position_) + step_ / note, INT32_MAX));
  if (beatCounter_ < INT32_MAX) ++beatCounter_;
  const int32_t beat = beatCounter_ % beats;
  if (beat == 0 && measureCounter_ < INT32_MAX) ++measureCounter_;
  int32_t moved = -1;
  if (entry.measures > 0 && beatCounter_ >= static_cast<int64_t>(entry.measures) * beats && current_ + 1 < count_) {
    beatCounter_ = 0;
    ++current_;
    moved = current_;
  }
  if (beatInMeasure != nullptr) *beatInMeasure = beat;
  if (measureNumber != nullptr) *measureNumber = measureCounter_;
  if (newEntry != nullptr) *newEntry = moved;
  return position_;
}

int32_t CScaleMan::getMeasureNumber(int32_t quarterLength, int32_t position, int32_t* entryChange) {
  int32_t beat = 0, measure = 0, entry = 0;
  initBoundary(quarterLength, &entry);
  int32_t keptBeat = 0, keptMeasure = 0, keptEntry = entry;
  // A walk that cannot advance (a zero quarter) ends at once.
  for (int32_t guard = 0; guard < (1 << 24); ++guard) {
    keptBeat = beat;
    keptMeasure = measure;
    keptEntry = entry;
    const int32_t before = position_;
    if (nextBoundary(&beat, &measure, &entry) >= position || position_ <= before) break;
  }
  if (entryChange != nullptr) *entryChange = keptEntry;
  return keptBeat == 0 ? keptMeasure : -1;
}

int32_t CScaleMan::serialize2text(char* buffer, int32_t capacity) const {
  if (buffer != nullptr && capacity > 0) buffer[0] = '\0';
  int32_t total = 0;
  int32_t written = 0;
  bool fits = true;  // pieces are written only while they fit: never one skipped and a later one kept
  for (int32_t k = 0; k < count_; ++k) {
    char piece[64];
    const int n = snprintf(piece, sizeof piece, "(%d/%d/%d),", entries_[k].beats, entries_[k].note,
                           entries_[k].measures);
    total += n;
    fits = fits && written + n < capacity;
    if (buffer != nullptr && fits) {
      memcpy(buffer + written, piece, static_cast<size_t>(n) + 1);
      written += n;
    }
  }
  return total + 1;
}

int32_t CScaleMan::unserializeText(const char* text) {
  free(entries_);
  entries_ = nullptr;
  count_ = 0;
  if (text == nullptr) return 0;
  std::string pieces(text);
  size_t begin = 0;
  while (begin <= pieces.size()) {
    size_t comma = pieces.find(',', begin);
    if (comma == std::string::npos) comma = pieces.size();
    TimeSignature entry = {0, 0, 0};
    sscanf(pieces.substr(begin, comma - begin).c_str(), "(%d/%d/%d)", &entry.beats, &entry.note,
           &entry.measures);
    if (entry.beats != 0 && entry.note != 0) {
      TimeSignature* grown = static_cast<TimeSignature*>(
          realloc(entries_, sizeof(TimeSignature) * (static_cast<size_t>(count_) + 1)));
      if (grown != nullptr) {
        entries_ = grown;
        entries_[count_++] = entry;
      }
    }
    begin = comma + 1;
  }
  return count_;
}
