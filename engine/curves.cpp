// Pitch, vibrato and envelope curves of the engine.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "engine/ctonm2.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

// Values on the pitch grid for a stretch ending at `end` msec.
int32_t gridLength(double end) {
  double n = std::ceil(end / ctonm2::kPitchStepMs) + 1.0;
  if (!(n >= 1.0)) return 1;
  if (n > 16777216.0) return 16777216;
  return static_cast<int32_t>(n);
}

// Makes `buffer` hold at least n values, the new ones zero. Returns false
// (buffer and length untouched) when memory ran out.
bool growCurve(float** buffer, int32_t* length, int32_t n) {
  if (*buffer == nullptr) {
    float* fresh = static_cast<float*>(calloc(static_cast<size_t>(n), sizeof(float)));
    if (fresh == nullptr) return false;
    *buffer = fresh;
    *length = n;
    return true;
  }
  if (*length >= n) return true;
  float* grown = static_cast<float*>(realloc(*buffer, sizeof(float) * static_cast<size_t>(n)));
  if (grown == nullptr) return false;
  std::fill(grown + *length, grown + n, 0.0f);
  *buffer = grown;
  *length = n;
  return true;
}

int16_t clampToInt16(double value) {
  if (!(value > -32768.0)) return -32768;
  if (value > 32767.0) return 32767;
  return static_cast<int16_t>(value);  // toward zero
}

}  // namespace

float* ctonm2::genPitch(int mode, double start, double end, const NoteData* prevNote,
                        const NoteData* note, float* buffer, int32_t* length) {
  const int32_t n = gridLength(end);
  int32_t held = buffer != nullptr ? *length : 0;
  if (!growCurve(&buffer, &held, n)) return buffer;
  *length = held;
  if (note == nullptr || note->PBS == nullptr) return buffer;

  const float* pbs = note->PBS;
  const float* pbw = note->PBW;
  const float* pby = note->PBY;
  const uint8_t* pbm = note->PBM;
  const int32_t startCount = floatListCount(pbs);
  const int32_t w = floatListCount(pbw);
  const int32_t yCount = floatListCount(pby);
  const int32_t mCount = byteListCount(pbm);

  // Segments lying wholly before time 0 are skipped.
  double t = start + (startCount >= 1 ? pbs[1] : 0.0f);
  int32_t k = 1;
  while (k < w && t + pbw[k] <= 0.0) {
    t += pbw[k];
    ++k;
  }

  double base = 0.0, y1 = 0.0;
  if (prevNote != nullptr && !is_r(prevNote->Lyric)) {
    double d = prevNote->NoteNum - note->NoteNum;
    base = d * 100.0;
    y1 = mode == 0 ? 0.0 : -d * 100.0;
  } else if (startCount == 2) {
    base = pbs[2] * 10.0;
  }
  const double y0 = base + y1;

  double width = (k <= w && pbw[k] != 0.0f) ? pbw[k] : 0.001;
  double omega = kPi / width;
  for (int32_t j = 0; j < n; ++j) {
    if (end < (j - 1) * kPitchStepMs) break;
    const double tj = j * kPitchStepMs;
    if (tj < t) {
      buffer[j] += static_cast<float>(y0);
      continue;
    }
    if (w > k && tj > t + width) {
      t += width;
      ++k;
      width = pbw[k];  // a later zero width is used as it is
      omega = kPi / width;
    }
    if (k <= w && tj <= t + width) {
      double ya = y1;
      if (pby != nullptr && yCount >= k) ya += pby[k] * 10.0;
      double yb;
      if (pby == nullptr) {
        yb = y0;
      } else if (k - 1 > yCount) {
        yb = base;
      } else {
        yb = k == 1 ? y0 : pby[k - 1] * 10.0 + y1;
      }
      const double u = tj - t;
      const uint8_t shape = (pbm != nullptr && k <= mCount) ? pbm[k] : 0;
      double f;
      if (shape == 's') {
        f = u / width;
      } else if (shape == 'r') {
        f = std::sin(u * omega / 2.0);
      } else if (shape == 'j') {
        f = 1.0 - std::cos(u * omega / 2.0);
      } else {
        f = 0.5 - 0.5 * std::cos(u * omega);
      }
      buffer[j] += static_cast<float>(f * (ya - yb) + yb);
    } else {
      buffer[j] += static_cast<float>(y1);
    }
  }
  *length = n;
  return buffer;
}

float* ctonm2::genVibrato(double start, double end, const NoteData* note, float* buffer,
                          int32_t* length, int16_t** exprs, int32_t* exprsCount) {
  const int32_t n = gridLength(end);
  if (exprs != nullptr && exprsCount != nullptr && (*exprs == nullptr || *exprsCount < n)) {
    const int32_t had = *exprs != nullptr ? *exprsCount : 0;
    int16_t* grown = static_cast<int16_t*>(realloc(*exprs, sizeof(int16_t) * static_cast<size_t>(n)));
    if (grown == nullptr) {
      free(*exprs);
      *exprs = nullptr;
      *exprsCount = 0;
    } else {
      std::fill(grown + had, grown + n, static_cast<int16_t>(0));
      *exprs = grown;
      *exprsCount = n;
    }
  }
  int32_t held = buffer != nullptr ? *length : 0;
  if (!growCurve(&buffer, &held, n)) return buffer;
  *length = held;
  if (note == nullptr) return buffer;

  const int16_t* vbr = note->VBR;
  const double noteLength = note->_notelen;
  const double cycle = vbr[1] != 0 ? vbr[1] : 200.0;
  const double omega = 2.0 * kPi / cycle;
  const double vibratoLength = vbr[0] * 0.01 * noteLength;
  const double vibratoEnd = start + noteLength;
  const double vibratoBegin = vibratoEnd - vibratoLength;
  const double drift = std::pow(2.0, vbr[8] * 0.01);
  const double phase = vbr[5] * 0.0628318530717958;
  const double depth = vbr[2];
  const double height = vbr[6] * 0.01;
  const double share = vbr[7] * 0.01;
  const double fadeIn = std::min(vibratoLength, std::max(1.0, vbr[3] * vibratoLength * 0.01));
  const double fadeOut = std::min(vibratoLength, std::max(1.0, vbr[4] * vibratoLength * 0.01));
  int16_t* expression = (exprs != nullptr) ? *exprs : nullptr;

  // The first grid point of the vibrato; one past the grid when it begins
  // after it (or at no finite time: a damaged project's values).
  const double begin = std::ceil(vibratoBegin / kPitchStepMs);
  const int32_t first = begin < static_cast<double>(n) ? static_cast<int32_t>(std::max(0.0, begin)) : n;
  for (int32_t j = first; j < n; ++j) {
    const double tj = j * kPitchStepMs;
    if (tj < vibratoBegin) continue;
    if (tj >= vibratoEnd) break;
    double gain = tj < vibratoBegin + fadeIn ? (tj - vibratoBegin) / fadeIn : 1.0;
    if (tj >= vibratoEnd - fadeOut) gain *= (vibratoEnd - tj) / fadeOut;
    const double q = (vibratoEnd - tj) * (1.0 - drift) / vibratoLength;
    const double v =
        (std::sin(std::pow(5.0, q) * omega * (tj - vibratoBegin) - phase) + height) * depth * gain;
    buffer[j] += static_cast<float>(0.5 + v);
    if (expression != nullptr) expression[j] = clampToInt16(expression[j] + v * share);
  }
  *length = n;
  return buffer;
}

void ctonm2::makePitchMode2() { makePitchMode2(0, noteCount - 1); }

void ctonm2::makePitchMode2(int32_t first, int32_t last) {
  first = first < 0 ? 0 : first;
  last = last >= noteCount ? noteCount - 1 : last;
  for (int32_t i = first; i <= last; ++i) {
    NoteData* note = &notes[i];
    if (is_r(note->Lyric)) continue;
    const int32_t prevIndex = getprenote(i, note->layer);
    const int32_t nextIndex = getnextnote(i, note->layer);
    NoteData* prev = prevIndex >= 0 ? &notes[prevIndex] : nullptr;
    NoteData* next = nextIndex >= 0 ? &notes[nextIndex] : nullptr;

    // A start height is kept only after a rest, and only when the line
    // starts at or before the consonant. The previous-note search skips
    // rests, so the rest branch below is never taken: after a rest there
    // is no previous note, and the height always stays.
    if (prev != nullptr && floatListCount(note->PBS) >= 2) {
      if (is_r(prev->Lyric)) {
        if (note->_preuttr > -note->PBS[1]) note->PBS[2] = 0.0f;
      } else {
        note->PBS[2] = 0.0f;
      }
    }

    const double start = static_cast<double>(note->_preuttr) + note->_stp + note->stptrim;
    const double end = start + note->_truelen;
    float* curve = nullptr;
    int32_t length = 0;
    if (note->PBS != nullptr) curve = genPitch(0, start, end, prev, note, curve, &length);
    if (prev != nullptr && prev->PBS != nullptr) {
      const int32_t before = getprenote(prevIndex, prev->layer);
      curve = genPitch(0, start - note->_pos + prev->_pos, end, before >= 0 ? &notes[before] : nullptr,
                       prev, curve, &length);
    }
    if (next != nullptr && next->PBS != nullptr) {
      curve = genPitch(1, start - note->_pos + next->_pos, end, note, next, curve, &length);
    }

    int16_t* exprs = nullptr;
    int32_t exprsCount = 0;
    bool vibrato = false;
    if (note->VBR[2] != 0) {
      curve = genVibrato(start, end, note, curve, &length, &exprs, &exprsCount);
      vibrato = true;
    }
    if (prev != nullptr && prev->VBR[2] != 0) {
      curve = genVibrato(start - note->_pos + prev->_pos, end, prev, curve, &length, &exprs, &exprsCount);
      vibrato = true;
    }
    if (next != nullptr && next->VBR[2] != 0) {
      curve = genVibrato(start - note->_pos + next->_pos, end, next, curve, &length, &exprs, &exprsCount);
      vibrato = true;
    }

    free(note->_pitch);
    note->_pitch = curve;
    note->_pitchlen = curve != nullptr ? length : 0;
    free(note->Exprs);
    if (vibrato && exprs != nullptr) {
      note->Exprs = exprs;
      note->ExprsCount = note->_pitchlen;
    } else {
      free(exprs);
      note->Exprs = nullptr;
      note->ExprsCount = 0;
    }
  }
}

double ctonm2::get_envelope_value(double t, const float* env, double len) {
  const double p1 = env[0], p2 = env[1], p3 = env[2];
  const double v1 = env[3], v2 = env[4], v3 = env[5], v4 = env[6];
  const double p4 = env[8], p5 = env[9], v5 = env[10];
  const bool extended = env[11] != 0.0f;  // a NaN counts as set
  const double p6 = env[12], v6 = env[13], p7 = env[14], v7 = env[15];
  const double a = p1 + p2, b = a + p5, c = b + p6, d = c + p7;
  const double rise = extended ? d : b;
  const double middle = len - rise - (p3 + p4);

  double level;
  if (t < p1) {
    level = p1 == 0.0 ? 0.0 : t * v1 / p1;
  } else if (t < a) {
    level = p2 == 0.0 ? v1 : v1 + (v2 - v1) * (t - p1) / p2;
  } else if (t < b) {
    level = p5 == 0.0 ? v2 : v2 + (v5 - v2) * (t - a) / p5;
  } else if (extended && t < c) {
    level = p6 == 0.0 ? v5 : v5 + (v6 - v5) * (t - b) / p6;
  } else if (extended && t < d) {
    level = p7 == 0.0 ? v6 : v6 + (v7 - v6) * (t - c) / p7;
  } else if (t < len - (p3 + p4) && middle != 0.0) {
    const double from = extended ? v7 : v5;
    level = from + (v3 - from) * (t - rise) / middle;
  } else if (t < len - p4) {
    level = p3 == 0.0 ? v3 : v3 + (v4 - v3) * (t - len + p3 + p4) / p3;
  } else if (t >= len) {
    level = 0.0;
  } else {
    level = p4 == 0.0 ? v4 : v4 - v4 * (t - len + p4) / p4;
  }
  return level * 0.01;
}

void ctonm2::correctEnvelope(float* env, double len) {
  for (int i = 0; i < 16; ++i) {
    if (env[i] < 0.0f) env[i] = 0.0f;
  }
  const bool extended = env[11] != 0.0f;
  const int durations[] = {0, 1, 9, 2, 8, 12, 14};  // p1 p2 p5 p3 p4 (p6 p7)
  const int count = extended ? 7 : 5;
  double total = 0.0;
  for (int i = 0; i < count; ++i) total += env[durations[i]];
  // Durations cannot shrink below 0: a note shorter than 1 msec gets none.
  const double limit = std::max(0.0, len - 1.0);
  if (total > limit) {
    const double scale = limit / total;
    for (int i = 0; i < count; ++i) env[durations[i]] = static_cast<float>(env[durations[i]] * scale);
  }
}

void ctonm2::equalSpaceEnv(float* env, double len) {
  float& p1 = env[0];
  float& p2 = env[1];
  float& p3 = env[2];
  float& v1 = env[3];
  float& v2 = env[4];
  float& v3 = env[5];
  float& v4 = env[6];
  float& p4 = env[8];
  if (p1 == 0.0f && v1 == 0.0f) {
    p1 = p2;
    p2 = 0.0f;
    v1 = v2;
  }
  if (p4 == 0.0f && v4 == 0.0f) {
    p4 = p3;
    p3 = 0.0f;
    v4 = v3;
  }
  const double rest = len - p1 - p4;
  if (rest > 0.0) {
    const bool extended = env[11] != 0.0f;
    const float share = static_cast<float>(rest / (extended ? 6.0 : 4.0));
    env[1] = env[2] = env[9] = share;
    if (extended) env[12] = env[14] = share;
  } else {
    correctEnvelope(env, len);
  }
}

void ctonm2::default_env(float* env) {
  static const float kDefault[16] = {5.0f, 1.0f, 1.0f, 100.0f, 100.0f, 100.0f, 100.0f, 0.0f,
                                     35.0f, 1.0f, 100.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
  memcpy(env, kDefault, sizeof kDefault);
}
