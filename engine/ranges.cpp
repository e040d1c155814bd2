#include "engine/ranges.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

double ValueRange::clamp(double value, bool* moved) const {
  const double kept = std::isnan(value) ? low : std::clamp(value, low, high);
  *moved = !(kept == value);
  return kept;
}

namespace {

template <class T>
void keep(T* field, const ValueRange& range, const std::string& where, const std::string& name,
          std::vector<std::string>* notices) {
  bool moved = false;
  const double value = static_cast<double>(*field);
  const double kept = range.clamp(value, &moved);
  if (!moved) return;
  *field = static_cast<T>(kept);
  char text[240];
  snprintf(text, sizeof text, "%s: %s=%g is outside %g..%g: read as %g", where.c_str(),
           (name.empty() ? std::string(range.name) : name).c_str(), value, range.low, range.high, kept);
  notices->push_back(text);
}

// A list's values, named "PBW[2]"; the second value of PBS is a height.
void keepList(float* list, const ValueRange& range, const std::string& where, std::vector<std::string>* notices,
              const ValueRange* second = nullptr) {
  const int32_t n = floatListCount(list);
  for (int32_t k = 1; k <= n; ++k) {
    keep(&list[k], k == 2 && second != nullptr ? *second : range, where,
         std::string(range.name) + "[" + std::to_string(k) + "]", notices);
  }
}

}  // namespace

void clampValue(float* value, const ValueRange& range, const std::string& where, const std::string& field,
                std::vector<std::string>* notices) {
  keep(value, range, where, field, notices);
}

void clampValue(double* value, const ValueRange& range, const std::string& where, const std::string& field,
                std::vector<std::string>* notices) {
  keep(value, range, where, field, notices);
}

void clampValue(int32_t* value, const ValueRange& range, const std::string& where, const std::string& field,
                std::vector<std::string>* notices) {
  keep(value, range, where, field, notices);
}

void clampNoteValues(NoteData* note, int index, std::vector<std::string>* notices) {
  using namespace ranges;
  char where[32];
  snprintf(where, sizeof where, "note [#%04d]", index);
  keep(&note->Delta, kDelta, where, "", notices);
  // A negative length or a note number past 0..127 is no note at all: the
  // render leaves such a note out (and names it) rather than sing a guess.
  if (note->Length > kLength.high) keep(&note->Length, kLength, where, "", notices);
  keep(&note->Intensity, kIntensity, where, "", notices);
  keep(&note->Modulation, kModulation, where, "", notices);
  if (!std::isnan(note->Velocity)) keep(&note->Velocity, kVelocity, where, "", notices);
  // Not set (NaN): the voice entry's values apply.
  if (!std::isnan(note->PreUtterance)) keep(&note->PreUtterance, kPreUtterance, where, "", notices);
  if (!std::isnan(note->VoiceOverlap)) keep(&note->VoiceOverlap, kVoiceOverlap, where, "", notices);
  keep(&note->StartPoint, kStartPoint, where, "", notices);
  keep(&note->stptrim, kStartTrim, where, "", notices);
  // 0 is no tempo change, and so is a tempo below 0.
  if (note->Tempo < 0.0f) {
    char text[120];
    snprintf(text, sizeof text, "%s: Tempo=%g is below 0: read as no tempo change", where, note->Tempo);
    notices->push_back(text);
    note->Tempo = 0.0f;
  } else if (note->Tempo != 0.0f) {
    keep(&note->Tempo, kTempo, where, "", notices);
  }
  keepList(note->PBS, kPitchStart, where, notices, &kPitchHeight);
  keepList(note->PBW, kPitchWidth, where, notices);
  keepList(note->PBY, kPitchHeight, where, notices);
  for (int k = 0; k < 16; ++k) {
    if (k == 7 || k == 11) continue;
    keep(&note->Envelope[k], kEnvelopeIsTime[k] ? kEnvelopeTime : kEnvelopeLevel, where,
         "Envelope[" + std::to_string(k) + "]", notices);
  }
  for (int k = 0; k < 10; ++k) keep(&note->VBR[k], kVibrato[k], where, "VBR[" + std::to_string(k) + "]", notices);
}
