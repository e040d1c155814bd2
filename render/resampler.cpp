#include "render/resampler.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "render/formant.h"
#include "render/wavefile.h"
#include "support/log.h"
#include "voicebank/freqtable.h"
#include "voicebank/pitch.h"
#include "voicebank/spectrum.h"
#include "voicebank/voiceset.h"

const int32_t SampleRateOut = 44100;

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int32_t kFftSize = 1024;
constexpr int32_t kBins = kFftSize / 2 + 1;  // 0..512
constexpr int32_t kPaddingFrames = 3072;
constexpr int32_t kResynthesisStep = 256;

// Whole numbers from doubles that hostile timings (an oto entry of 1e30
// ms, a tempo of 1e-30) can take anywhere: saturated at the type's range,
// 0 for what is not a number, where a plain conversion is undefined.
int32_t toInt32(double v) {
  return v >= INT32_MIN ? (v <= INT32_MAX ? static_cast<int32_t>(v) : INT32_MAX) : (v < 0.0 ? INT32_MIN : 0);
}
int64_t toInt64(double v) {
  constexpr double kLimit = 9.2e18;
  return v >= -kLimit ? (v <= kLimit ? static_cast<int64_t>(v) : static_cast<int64_t>(kLimit))
                      : (v < 0.0 ? -static_cast<int64_t>(kLimit) : 0);
}

struct FftTables {
  double cosTable[kFftSize];
  double sinTable[kFftSize];
  FftTables() { calc_cossin(kFftSize, cosTable, sinTable); }
};

const FftTables& fftTables() {
  static const FftTables tables;
  return tables;
}

// Fixed windows: a 512-point Hann for the consonant crossfade and a
// 1024-point sine window for analysis and resynthesis.
struct Windows {
  double hann[512];
  double sine[kFftSize];
  Windows() {
    for (int k = 0; k < 512; ++k) hann[k] = 0.5 - 0.5 * std::cos(k * kPi / 256.0);
    for (int k = 0; k < kFftSize; ++k) sine[k] = std::sin(k * kPi / 1024.0);
  }
};

const Windows& windows() {
  static const Windows w;
  return w;
}

// --- Flags ---------------------------------------------------------------------

// A flags text: a letter, then (for most) a number; the first occurrence
// of a letter counts; letters are case-sensitive.
class FlagText {
 public:
  explicit FlagText(const char* text) : text_(text != nullptr ? text : "") {}
  bool has(char letter) const { return strchr(text_, letter) != nullptr; }
  // The number after the first `letter`; false when there is none.
  bool number(char letter, double* value) const {
    const char* at = strchr(text_, letter);
    if (at == nullptr) return false;
    char* end = nullptr;
    const double parsed = strtod(at + 1, &end);
    if (end == at + 1) return false;
    *value = parsed;
    return true;
  }
  bool integer(char letter, int32_t* value) const {
    const char* at = strchr(text_, letter);
    if (at == nullptr) return false;
    char* end = nullptr;
    const long parsed = strtol(at + 1, &end, 10);
    if (end == at + 1) return false;
    *value = static_cast<int32_t>(std::clamp<long>(parsed, INT32_MIN, INT32_MAX));
    return true;
  }

 private:
  const char* text_;
};

// Voiced and aperiodic gains from a balance value 0..100 (50: both 1).
void balance(double value, double* voiced, double* aperiodic) {
  if (value >= 0.0 && value < 50.0) {
    *aperiodic = value * 0.02;
  } else if (value > 50.0 && value <= 100.0) {
    *voiced = (100.0 - value) * 0.02;
  }
}

// --- Curves from the environment ----------------------------------------------

struct Curve {
  std::vector<double> values;
  double step = 256.0;
  bool present = false;

  // Linear interpolation at sample i; past the end, the last value.
  double at(double i) const {
    const double position = i / step;
    const size_t k = static_cast<size_t>(std::max(0.0, position));
    if (k + 1 >= values.size()) return values.empty() ? 0.0 : values.back();
    const double e = position - static_cast<double>(k);
    return values[k] + (values[k + 1] - values[k]) * e;
  }
};

int32_t tempoStep(double tempo) { return toInt32(0.625 / tempo * SampleRateOut + 0.5); }

// "TEMPO CURVE" (or, when the tempo may be left out, just "CURVE"): the
// curve's step comes from the tempo; `points` values are decoded (missing
// ones take `fill`) and the last is repeated once more.
bool readCurveVariable(const char* name, int32_t samples, int32_t fill, bool tempoOptional, Curve* curve) {
  const char* text = getenv(name);
  if (text == nullptr) return false;
  double tempo = 0.0;
  const char* encoded = text;
  if (sscanf(text, "%lf", &tempo) == 1 && tempo > 0.0) {
    curve->step = std::max(1, tempoStep(tempo));
    const char* blank = strchr(text, ' ');
    encoded = blank != nullptr ? blank + 1 : "";
  } else if (!tempoOptional) {
    return false;
  } else {
    curve->step = 256.0;
  }
  const int32_t points = std::max(1, static_cast<int32_t>(samples / curve->step) + 1);
  std::vector<int32_t> raw(static_cast<size_t>(points), fill);
  decpit(encoded, raw.data(), points);
  curve->values.assign(raw.begin(), raw.end());
  curve->values.push_back(curve->values.back());
  curve->present = true;
  return true;
}

#if defined(__SSE2__)
// Lane by lane: where mask is set, a; elsewhere b.
inline __m128d select(__m128d mask, __m128d a, __m128d b) {
  return _mm_or_pd(_mm_and_pd(mask, a), _mm_andnot_pd(mask, b));
}
#endif

// --- Sample reads ---------------------------------------------------------------

// The read kernel w(v) = sin(pi v) / (pi v) x cos(pi v / 4) over v = (j - x)
// / r, tabulated for linear interpolation: reads need no sine or cosine.
// The taps of a read lie within |v| < 3 (2 r either side, plus the
// rounding of the ends); the table covers a little more so that no index
// needs a test.
class ReadKernel {
 public:
  static constexpr int kPerUnit = 1024;
  static constexpr int kHalfWidth = 4;

  // Each point is kept with its slope to the next, side by side: one cache
  // line per tap, and the slope is the difference at() used to take.
  ReadKernel() : table_(2 * (2 * kHalfWidth * kPerUnit + 1)) {
    std::vector<double> points(2 * kHalfWidth * kPerUnit + 2);
    for (size_t k = 0; k < points.size(); ++k) points[k] = direct(static_cast<double>(k) / kPerUnit - kHalfWidth);
    for (size_t k = 0; k + 1 < points.size(); ++k) {
      table_[2 * k] = points[k];
      table_[2 * k + 1] = points[k + 1] - points[k];
    }
  }
  static double direct(double v) {
    const double u = v * kPi;
    return u == 0.0 ? 1.0 : std::sin(u) / u * std::cos(u / 4.0);
  }
  double at(double v) const {
    const double position = (v + kHalfWidth) * kPerUnit;
    const size_t k = static_cast<size_t>(position);
    const double e = position - static_cast<double>(k);
    return table_[2 * k] + table_[2 * k + 1] * e;
  }
  const double* pairs() const { return table_.data(); }

 private:
  std::vector<double> table_;
};

const ReadKernel& readKernel() {
  static const ReadKernel kernel;
  return kernel;
}

// The loaded sample, its first channel read with a band limit.
struct Sample {
  int16_t* words = nullptr;
  int32_t stride = 1;
  int32_t frames = 0;  // including the zeroed padding
  // The first channel as doubles (the same values): the reads' loops load
  // them side by side without conversions.
  std::vector<double> line;
  ~Sample() { free(words); }

  void makeLine() {
    line.resize(static_cast<size_t>(frames));
    for (int32_t j = 0; j < frames; ++j) line[static_cast<size_t>(j)] = words[static_cast<int64_t>(j) * stride];
  }

  // target_value through the tabulated kernel; indices outside the loaded
  // frames read as 0 (their weights still count).
  double read(double x, double r) const {
    // A position or width that is not a number, or absurdly far out,
    // reads silence (the index conversions below would be undefined).
    if (!(x - 2.0 * r > -1e12 && x + 2.0 * r < 1e12 && r < 1e6)) return 0.0;
    const ReadKernel& kernel = readKernel();
    const int64_t first = static_cast<int64_t>(x - 2.0 * r);
    const int64_t last = static_cast<int64_t>(x + 2.0 * r);
    const double inverse = 1.0 / r;
    const double* values = line.data();
    double sum = 0.0, weights = 0.0;
    for (int64_t j = first; j <= last; ++j) {
      const double w = kernel.at((static_cast<double>(j) - x) * inverse);
      weights += w;
      if (j >= 0 && j < frames) sum += values[j] * w;
    }
    return weights != 0.0 ? sum / weights : 0.0;
  }

  // read(xa, r) and read(xb, r) at once, for two points well inside the
  // sample: the two sums run side by side, each in read's order.
  void readPair(double xa, double xb, double r, double* a, double* b) const {
    // Written so that a position that is not a number takes read's way.
    if (!(xa - 2.0 * r >= 0.0 && xb - 2.0 * r >= 0.0 && xa + 2.0 * r < frames && xb + 2.0 * r < frames)) {
      *a = read(xa, r);
      *b = read(xb, r);
      return;
    }
    const int64_t firstA = static_cast<int64_t>(xa - 2.0 * r), lastA = static_cast<int64_t>(xa + 2.0 * r);
    const int64_t firstB = static_cast<int64_t>(xb - 2.0 * r), lastB = static_cast<int64_t>(xb + 2.0 * r);
    const ReadKernel& kernel = readKernel();
    const double inverse = 1.0 / r;
    const int64_t tapsA = lastA - firstA + 1, tapsB = lastB - firstB + 1;
    const double* atA = line.data() + firstA;
    const double* atB = line.data() + firstB;
    double sumA = 0.0, weightsA = 0.0, sumB = 0.0, weightsB = 0.0;
    int64_t t = 0;
#if defined(__SSE2__)
    {
      // Lane 0 reads a, lane 1 reads b; each lane does kernel.at's
      // operations (the index truncated, the slope times the remainder).
      const double* pairs = kernel.pairs();
      const __m128d x = _mm_set_pd(xb, xa), scale = _mm_set1_pd(inverse);
      const __m128d half = _mm_set1_pd(ReadKernel::kHalfWidth), perUnit = _mm_set1_pd(ReadKernel::kPerUnit);
      const __m128d one = _mm_set1_pd(1.0);
      __m128d j = _mm_set_pd(static_cast<double>(firstB), static_cast<double>(firstA));
      __m128d sums = _mm_setzero_pd(), weights = _mm_setzero_pd();
      for (; t < tapsA && t < tapsB; ++t) {
        const __m128d position = _mm_mul_pd(_mm_add_pd(_mm_mul_pd(_mm_sub_pd(j, x), scale), half), perUnit);
        const __m128i index = _mm_cvttpd_epi32(position);
        const __m128d e = _mm_sub_pd(position, _mm_cvtepi32_pd(index));
        const __m128d pointA = _mm_loadu_pd(pairs + 2 * _mm_cvtsi128_si32(index));
        const __m128d pointB = _mm_loadu_pd(pairs + 2 * _mm_cvtsi128_si32(_mm_srli_si128(index, 4)));
        const __m128d w = _mm_add_pd(_mm_unpacklo_pd(pointA, pointB), _mm_mul_pd(_mm_unpackhi_pd(pointA, pointB), e));
        weights = _mm_add_pd(weights, w);
        sums = _mm_add_pd(sums, _mm_mul_pd(_mm_set_pd(atB[t], atA[t]), w));
        j = _mm_add_pd(j, one);
      }
      double lanes[2];
      _mm_storeu_pd(lanes, sums);
      sumA = lanes[0];
      sumB = lanes[1];
      _mm_storeu_pd(lanes, weights);
      weightsA = lanes[0];
      weightsB = lanes[1];
    }
#else
    for (; t < tapsA && t < tapsB; ++t) {
      const double wA = kernel.at((static_cast<double>(firstA + t) - xa) * inverse);
      const double wB = kernel.at((static_cast<double>(firstB + t) - xb) * inverse);
      weightsA += wA;
      sumA += atA[t] * wA;
      weightsB += wB;
      sumB += atB[t] * wB;
    }
#endif
    for (int64_t u = t; u < tapsA; ++u) {
      const double w = kernel.at((static_cast<double>(firstA + u) - xa) * inverse);
      weightsA += w;
      sumA += atA[u] * w;
    }
    for (int64_t u = t; u < tapsB; ++u) {
      const double w = kernel.at((static_cast<double>(firstB + u) - xb) * inverse);
      weightsB += w;
      sumB += atB[u] * w;
    }
    *a = weightsA != 0.0 ? sumA / weightsA : 0.0;
    *b = weightsB != 0.0 ? sumB / weightsB : 0.0;
  }

  // out[m] = read(x + m * spacing, r) for m = 0..count-1. When the spacing
  // is a whole number of samples every read has the same fractional offset,
  // so the kernel's weights are worked out once and the reads become a
  // short filter; the sums are the same as read's, term by term. Two
  // outputs are summed side by side where the machine has SSE2.
  void readRun(double x, double spacing, int32_t count, double r, double* out) const {
    const double lastX = x + (count - 1) * spacing;
    const bool whole = spacing == std::floor(spacing) && spacing >= 1.0;
    if (!whole || !(x - 2.0 * r >= 0.0 && lastX + 2.0 * r < frames)) {
      for (int32_t m = 0; m < count; ++m) out[m] = read(x + m * spacing, r);
      return;
    }
    const ReadKernel& kernel = readKernel();
    const int64_t first = static_cast<int64_t>(x - 2.0 * r);
    const int64_t last = static_cast<int64_t>(x + 2.0 * r);
    const int taps = static_cast<int>(last - first + 1);
    double w[16];
    if (taps > 16) {
      for (int32_t m = 0; m < count; ++m) out[m] = read(x + m * spacing, r);
      return;
    }
    const double inverse = 1.0 / r;
    double weights = 0.0;
    for (int t = 0; t < taps; ++t) {
      w[t] = kernel.at((static_cast<double>(first + t) - x) * inverse);
      weights += w[t];
    }
    const int64_t step = static_cast<int64_t>(spacing);
    const double* values = line.data() + first;
    int32_t m = 0;
#if defined(__SSE2__)
    if (weights != 0.0) {
      const __m128d divisor = _mm_set1_pd(weights);
      for (; m + 1 < count; m += 2) {
        const double* at0 = values + m * step;
        const double* at1 = at0 + step;
        __m128d sum = _mm_setzero_pd();
        for (int t = 0; t < taps; ++t) {
          sum = _mm_add_pd(sum, _mm_mul_pd(_mm_set_pd(at1[t], at0[t]), _mm_set1_pd(w[t])));
        }
        _mm_storeu_pd(out + m, _mm_div_pd(sum, divisor));
      }
    }
#endif
    for (; m < count; ++m) {
      const double* at = values + m * step;
      double sum = 0.0;
      for (int t = 0; t < taps; ++t) sum += at[t] * w[t];
      out[m] = weights != 0.0 ? sum / weights : 0.0;
    }
  }
};

}  // namespace

// --- Public helpers ----------------------------------------------------------------

void init_render(int32_t sampleRate) {
  fftTables();
  readKernel();
  windows();
  initToneTable(sampleRate, 3072);
}

const char* resampErrorText(ResampError error) {
  switch (error) {
    case ResampError::kNone:
      return "";
    case ResampError::kLoad:
      return "file load error.";
    case ResampError::kFormat:
      return "file format error.(16 bit only.";
    case ResampError::kNoFrequencies:
      return "no frequency table: the sample has no voiced frame.";
    case ResampError::kNotEnoughSamples:
      return "Parameter error. Not enough samples.";
  }
  return "";
}

double target_value(double x, const int16_t* samples, double r, int32_t stride) {
  const int64_t first = static_cast<int64_t>(x - 2.0 * r);
  const int64_t last = static_cast<int64_t>(x + 2.0 * r);
  double sum = 0.0, weights = 0.0;
  for (int64_t j = first; j <= last; ++j) {
    const double w = ReadKernel::direct((static_cast<double>(j) - x) / r);
    weights += w;
    if (j >= 0) sum += samples[j * stride] * w;
  }
  return weights != 0.0 ? sum / weights : 0.0;
}

double current_value(double x, int32_t base, const double* a, const double* b, const double* c, const double* d) {
  const double i = std::floor(x);
  const double t = x - i;
  const int64_t k = static_cast<int64_t>(i) - base;
  const int64_t kc = k + 1408;
  return ((d[kc] * t + c[kc]) * t + b[kc]) * t + a[k];
}

int32_t get64(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return 0;
}

namespace {

// Decodes `text`, handing each value to `store`.
template <class Store>
void decodeCurve(const char* text, Store store) {
  if (text == nullptr) return;
  int32_t last = 0;
  const char* p = text;
  while (*p != '\0') {
    if (*p == '#') {
      int repeat = 0;
      sscanf(p + 1, "%d", &repeat);
      for (int k = 0; k < repeat; ++k) {
        if (!store(last)) return;
      }
      const char* close = strchr(p + 1, '#');
      if (close == nullptr) return;
      p = close + 1;
      continue;
    }
    if (p[1] == '\0') return;  // half a value
    int32_t value = get64(p[0]) * 64 + get64(p[1]);
    if (value >= 2048) value -= 4096;
    last = value;
    if (!store(value)) return;
    p += 2;
  }
}

}  // namespace

int32_t decpit(const char* text, int32_t* out, int32_t capacity) {
  int32_t count = 0;
  decodeCurve(text, [&](int32_t value) {
    if (count < capacity) out[count++] = value;
    return true;  // values past the capacity are dropped
  });
  return count;
}

int16_t* decpit2(const char* text, int32_t* count) {
  int16_t* values = nullptr;
  int32_t n = 0;
  decodeCurve(text, [&](int32_t value) {
    int16_t* grown = static_cast<int16_t*>(realloc(values, sizeof(int16_t) * (static_cast<size_t>(n) + 1)));
    if (grown == nullptr) return false;
    values = grown;
    values[n++] = static_cast<int16_t>(value);
    return true;
  });
  if (count != nullptr) *count = n;
  return values;
}

// --- resamp --------------------------------------------------------------------------

namespace {

// Everything one call of resamp works with, filled in step by step.
struct Resampling {
  Resampling(const char* samplePath, const NoteData* noteRecord, float length, float noteTempo)
      : path(samplePath), note(noteRecord), lengthMs(length), tempo(noteTempo), flags(noteRecord->Flags) {}
  ~Resampling() {
    free(table);
    free(periodic);
  }
  Resampling(const Resampling&) = delete;
  Resampling& operator=(const Resampling&) = delete;

  // What was asked.
  const char* path;
  const NoteData* note;
  float lengthMs;
  float tempo;
  FlagText flags;
  // The sample and its frequency table (one value per 256 input samples).
  Sample sample;
  int32_t rateIn = 0;
  int32_t loadedFrames = 0;
  double* table = nullptr;
  int32_t tableLast = 0;  // the table's extra element
  std::vector<double> tracked;  // the table's voiced periods measured again on the signal
  double average = 0.0;
  double ratio = 1.0;  // input rate / output rate
  // The lengths.
  double fixedIn = 0.0, fixedOut = 0.0;
  double velocityFactor = 1.0;
  double volume = 1.0;
  double stretch = 1.0;
  int32_t lead = 0, start = 0, n = 0;
  // The pitch.
  double noteFrequency = 0.0;
  int32_t pitchStep = 1;
  std::vector<double> pitch;
  // The environment and the flags read before the loop.
  Curve gfactors, eqzparams, breath;
  const char* equalizerText = nullptr;
  std::vector<double> expression;
  double expressionStep = 1.0;
  bool sawtooth = false;
  double gFlag = 0.0, analysisFactor = 1.0, yFlag = 0.0;
  // The two parts, and where each 256th output sample was read from and
  // how fast.
  double* periodic = nullptr;  // handed to the caller at the end
  std::vector<double> aperiodic;
  std::vector<double> readAt, readScale;
  // The first mix's weights of the two parts (the B flag's balance; the
  // breath curve, when given, decides sample by sample).
  double mixVoiced = 1.0, mixBreathy = 1.0;

  // The weights of the periodic and the aperiodic part at sample k.
  void mixWeights(int32_t k, double* v, double* a) const {
    *v = mixVoiced;
    *a = mixBreathy;
    if (breath.present) {
      const double u = breath.at(k);
      if (u < 0.0) {
        *a = u + 1.0;
      } else {
        *v = 1.0 - u;
      }
    }
  }
};

// A table made by another program, or by hand, may carry frame-to-frame
// jitter that the voice does not have; the read follows the table, so at
// modulation 0 that jitter would be sung. Each voiced frame (centred
// where the read takes its value, 128 samples in) is measured again on
// the signal: from the table's period, the normalised correlation of two
// stretches of the window's length climbs lag by lag to its peak, which a
// parabola through its neighbours refines. A frame whose climb leaves 6 %
// of the table's period, or whose peak is weak, keeps the table's value.
// Only the frames of samples [from, to) are tracked: those the note reads.
void trackPeriods(const Sample& sample, int32_t from, int32_t to, int32_t rateIn, double average, double* table,
                  int32_t tableLast) {
  from = std::max(from, 0);
  to = std::min(to, sample.frames);
  if (from >= to) return;
  const double* x = sample.line.data() + from;
  // Running energies from `from` on: the correlation's norms in two subtractions.
  std::vector<double> energy(static_cast<size_t>(to - from) + 1, 0.0);
  for (int32_t t = 0; t < to - from; ++t) {
    energy[static_cast<size_t>(t) + 1] = energy[static_cast<size_t>(t)] + x[t] * x[t];
  }
  const int32_t length = to - from;
  for (int32_t j = std::max(from / kAnalysisStep, 0); j <= std::min(to / kAnalysisStep, tableLast); ++j) {
    const double f = table[j];
    if (!(f > 55.0 && f <= 3.0 * average)) continue;
    const double period = rateIn / f;
    const int32_t low = static_cast<int32_t>(period * 0.94), high = static_cast<int32_t>(period * 1.06) + 1;
    const int32_t window = std::min(static_cast<int32_t>(period), 1024);
    const int32_t centre = kAnalysisStep * j + kAnalysisStep / 2 - from;
    if (centre - (window + high) / 2 < 0 || centre + (window + high) / 2 + 1 >= length) continue;
    // The two stretches lie symmetrically about the centre.
    auto score = [&](int32_t lag) {
      const int32_t a = centre - (window + lag) / 2, b = a + lag;
      double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
      int32_t t = 0;
      for (; t + 4 <= window; t += 4) {
        s0 += x[a + t] * x[b + t];
        s1 += x[a + t + 1] * x[b + t + 1];
        s2 += x[a + t + 2] * x[b + t + 2];
        s3 += x[a + t + 3] * x[b + t + 3];
      }
      for (; t < window; ++t) s0 += x[a + t] * x[b + t];
      const double norm = (energy[static_cast<size_t>(a + window)] - energy[static_cast<size_t>(a)]) *
                          (energy[static_cast<size_t>(b + window)] - energy[static_cast<size_t>(b)]);
      return norm > 0.0 ? (s0 + s1 + s2 + s3) / std::sqrt(norm) : -1.0;
    };
    int32_t lag = static_cast<int32_t>(period + 0.5);
    double before = score(lag - 1), here = score(lag), after = score(lag + 1);
    while (after > here && lag + 1 < high) {
      ++lag;
      before = here;
      here = after;
      after = score(lag + 1);
    }
    while (before > here && lag - 1 > low) {
      --lag;
      after = here;
      here = before;
      before = score(lag - 1);
    }
    if (before > here || after > here || here < 0.5) continue;
    const double bend = before - 2.0 * here + after;
    const double offset = bend < 0.0 ? 0.5 * (before - after) / bend : 0.0;
    table[j] = rateIn / (static_cast<double>(lag) + offset);
  }
}

// Set-up: loads the sample and its frequency table and works out the
// lengths: where the usable stretch starts, the consonant's part, the
// stretch and the output length.
ResampError setUp(Resampling& r) {
  const char* path = r.path;
  const NoteData* note = r.note;
  const float lengthMs = r.lengthMs;
  const FlagText& flags = r.flags;
  const std::string file = path;
  const bool aiff = file.size() >= 5 && file.compare(file.size() - 5, 5, ".aiff") == 0;
  WaveFormat format;
  memset(&format, 0, sizeof format);
  int32_t dataBytes = 0;
  Sample& sample = r.sample;
  sample.words = aiff ? loadAiffFile(path, &format, kPaddingFrames, &dataBytes)
                      : loadWaveFile(path, &format, kPaddingFrames, &dataBytes);
  if (sample.words == nullptr || format.blockAlign == 0 || format.channels < 1 || format.sampleRate == 0) {
    log_printf(5, "file load error.\n");
    return ResampError::kLoad;
  }
  if (format.bitsPerSample != 16) {
    log_printf(5, "file format error.(16 bit only.\n");
    return ResampError::kFormat;
  }
  const int32_t rateIn = static_cast<int32_t>(format.sampleRate);
  sample.stride = format.channels;
  int32_t frames = std::min<int32_t>(dataBytes / format.blockAlign, dataBytes / 2 / format.channels);
  const int32_t loadedFrames = frames;  // before the blank is cut: the spectrum covers the whole sample
  // The padding after the data comes uncleared from the loader: reads past
  // the usable end must find silence.
  const size_t loadedWords = static_cast<size_t>(dataBytes) / 2;
  const size_t paddedWords = static_cast<size_t>(frames + kPaddingFrames) * static_cast<size_t>(format.channels);
  const size_t blockWords = loadedWords + static_cast<size_t>(kPaddingFrames) * format.blockAlign / 2;
  if (paddedWords <= blockWords)
    std::fill(sample.words + loadedWords, sample.words + paddedWords, static_cast<int16_t>(0));
  sample.frames = frames + kPaddingFrames;
  sample.makeLine();

  const char* tune = getenv("tune");
  if (tune != nullptr) {
    double base = 0.0;
    if (sscanf(tune, "%lf", &base) == 1 && base > 0.0) setToneBase(base);
  }
  double* amplitudes = nullptr;
  double average = 0.0;
  double* table = initFrequenciesList(&amplitudes, &average, path, note->Flags, sample.words, frames, rateIn,
                                      format.channels, kPaddingFrames, kAnalysisStep);
  free(amplitudes);
  r.table = table;  // owned by r from here
  if (table == nullptr) return ResampError::kNoFrequencies;
  const int32_t tableLast = frames / kAnalysisStep + 1;  // the extra element's index
  // A table is a file anyone can edit: an average that is no frequency
  // (0, not a number, past the Nyquist limit) is taken again from its
  // voiced frames; with none, the table is as good as missing.
  if (!(average > 0.0 && average < rateIn / 2.0)) {
    double sum = 0.0;
    int32_t voiced = 0;
    for (int32_t k = 0; k <= tableLast; ++k) {
      if (table[k] > 55.0 && table[k] < rateIn / 2.0) {
        sum += table[k];
        ++voiced;
      }
    }
    if (voiced == 0) return ResampError::kNoFrequencies;
    average = sum / voiced;
  }

  const double ratio = static_cast<double>(rateIn) / SampleRateOut;
  log_printf(5, ":%0.4lf\n", ratio);

  const VoiceData* entry = reinterpret_cast<const VoiceData*>(note->VoiceFile);
  const double offsetMs = entry != nullptr ? entry->offset : 0.0;
  const double consonantMs = entry != nullptr ? entry->fixed : 0.0;
  const double blankMs = entry != nullptr ? entry->blank : 0.0;

  double fixedIn = rateIn * consonantMs / 1000.0;
  double fixedOut = 0.0;
  if (fixedIn < 128.0) {
    fixedIn = 0.0;
  } else {
    fixedOut = fixedIn / ratio;
  }
  log_printf(5, "fixed:%0.3lf %0.3lf\n", fixedIn, fixedOut);

  const int32_t offsetS = toInt32(offsetMs * rateIn / 1000.0 + 0.5);
  const double blankS = rateIn * blankMs / 1000.0;
  if (blankS < 0.0) {
    frames = std::min(frames, toInt32(offsetS - blankS));
  } else if (frames > blankS) {
    log_printf(5, "end blank %0.3lf\n", blankS);
    frames -= toInt32(blankS);
  }
  if (frames <= offsetS) {
    log_printf(2, "Parameter error. Not enough samples.\n");
    return ResampError::kNotEnoughSamples;
  }

  // The "a" flag is read and then replaced by the note's velocity.
  double velocityFactor = 1.0;
  double aFlag = 0.0;
  if (flags.number('a', &aFlag)) velocityFactor = std::pow(2.0, aFlag / 100.0 - 1.0);
  velocityFactor = std::pow(2.0, note->Velocity / 100.0 - 1.0);
  const double volume = note->Intensity / 100.0;
  const double startPointMs = static_cast<double>(note->_stp) + note->stptrim;
  const int32_t lead = toInt32(startPointMs / 1000.0 * SampleRateOut * ratio * velocityFactor + 0.5);
  const int32_t start = toInt32(static_cast<double>(offsetS) + lead);
  fixedIn -= lead;
  fixedOut -= lead / ratio;
  double usable = static_cast<double>(frames) - start;  // start may be far out (a hostile start point)

  double stretch = 1.0;
  if (lengthMs > 0.0f) {
    const double target = (lengthMs - startPointMs + 1.0) / 1000.0 * SampleRateOut;
    const double consonant = fixedOut / velocityFactor;
    if (consonant > target) {  // the note ends inside the consonant
      const double m = static_cast<double>(toInt64(velocityFactor * target * ratio + 0.5));
      if (usable > m) {
        usable = m;
      } else {
        stretch = usable / m;
      }
    } else {
      const double rest = (target - consonant) * ratio;
      if (usable - fixedIn > rest) {
        usable = static_cast<double>(toInt64(rest + fixedIn));
      } else {
        stretch = rest / (usable - fixedIn);
        log_printf(5, "velocity=%lf\n", velocityFactor);
      }
    }
  } else {
    // The whole stretch: the consonant at its natural rate, the rest
    // lengthened or shortened by the velocity.
    stretch = velocityFactor;
    velocityFactor = 1.0;
  }
  // fixedOut is in output samples already: only the input part is divided
  // by the rate ratio (the same at 44.1 kHz, where the ratio is 1).
  const double lengthOut = fixedIn != 0.0 ? (usable - fixedIn) * stretch / ratio + fixedOut / velocityFactor + 0.5
                                          : usable * stretch / ratio + 0.5;
  // Timings so absurd that the read would run at an infinite or undefined
  // rate (a velocity of 1e30) sing nothing.
  const bool sound = std::isfinite(velocityFactor) && std::isfinite(stretch) && std::isfinite(fixedIn) &&
                     std::isfinite(fixedOut) && std::isfinite(ratio / stretch);
  const int32_t n = sound && lengthOut > 0.0 && lengthOut < 1e9 ? static_cast<int32_t>(lengthOut) : 0;
  log_printf(5, "Length %d -> %d\n", toInt32(usable), n);

  // The read follows the periods as tracked over the stretch it reads
  // (the start, less the margin a frame's window takes, to the usable
  // end); the spectrum file is made from the table as it is, so that it
  // does not depend on who made it.
  r.tracked.assign(table, table + tableLast + 1);
  if (n > 0) {
    const int64_t margin = 4 * kAnalysisStep + 2048;
    trackPeriods(sample, static_cast<int32_t>(std::max<int64_t>(int64_t{start} - margin, 0)), frames + margin, rateIn,
                 average, r.tracked.data(), tableLast);
  }

  r.rateIn = rateIn;
  r.loadedFrames = loadedFrames;
  r.tableLast = tableLast;
  r.average = average;
  r.ratio = ratio;
  r.fixedIn = fixedIn;
  r.fixedOut = fixedOut;
  r.velocityFactor = velocityFactor;
  r.volume = volume;
  r.lead = lead;
  r.start = start;
  r.stretch = stretch;
  r.n = n;
  return ResampError::kNone;
}

// The target frequency at every pitch step: the note's frequency (with
// the t flag) moved by its pitch curve.
void makePitchCurve(Resampling& r) {
  const NoteData* note = r.note;
  const FlagText& flags = r.flags;
  const int32_t n = r.n, lead = r.lead;
  const float tempo = r.tempo;
  double& noteFrequency = r.noteFrequency;
  noteFrequency = num2freq(note->NoteNum) * getToneBase() / 440.0;
  int32_t transpose = 0;
  if (flags.integer('t', &transpose)) noteFrequency *= std::pow(2.0, transpose * 0.1 / 12.0);
  const bool floatCurve = note->_pitch != nullptr && note->_pitchlen > 0;
  r.pitchStep = floatCurve ? 256 : std::max(1, tempoStep(tempo > 0.0f ? tempo : 120.0f));
  const int32_t pitchStep = r.pitchStep;
  const int32_t points = (n + lead) / pitchStep;
  std::vector<double>& pitch = r.pitch;
  pitch.assign(static_cast<size_t>(std::max(points, 0)) + 8, noteFrequency);
  for (size_t k = 0; k < pitch.size(); ++k) {
    double cents = 0.0;
    if (floatCurve && static_cast<int64_t>(k) < note->_pitchlen) {
      cents = note->_pitch[k];
    } else if (!floatCurve && note->Pitches != nullptr && static_cast<int64_t>(k) < note->PitchCount) {
      cents = note->Pitches[k];
    }
    pitch[k] = noteFrequency * std::pow(2.0, cents / 1200.0);
  }
}

// The environment's curves, the expression curve and the flags read here.
void readEnvironment(Resampling& r) {
  const NoteData* note = r.note;
  const FlagText& flags = r.flags;
  const int32_t n = r.n, lead = r.lead, pitchStep = r.pitchStep;
  Curve& gfactors = r.gfactors;
  Curve& eqzparams = r.eqzparams;
  Curve& breath = r.breath;
  Curve expressionEnv, envelopex;
  const int32_t curveSamples = n + lead;
  if (readCurveVariable("gfactors", curveSamples, 0, false, &gfactors)) {
    for (double& v : gfactors.values) v = std::pow(10.0, v / 8000.0);
    log_printf(5, "gfactors enabled.\n");
  }
  if (readCurveVariable("expression", curveSamples, -2048, false, &expressionEnv)) {
    for (double& v : expressionEnv.values) v = std::pow(10.0, v / 2000.0);
    log_printf(5, "expression enabled.\n");
  }
  if (readCurveVariable("envelopex", curveSamples, -2048, false, &envelopex)) {
    for (double& v : envelopex.values) v = std::exp((v - 2047.0) / 393.855746162687) * 32768.0 - 1.0;
    log_printf(5, "envelopex enabled.\n");  // parsed; where it applies is not settled
  }
  if (readCurveVariable("eqzparams", curveSamples, 0, false, &eqzparams)) {
    for (double& v : eqzparams.values) v = (v + 2048.0) / 2048.0;
    log_printf(5, "equalizer params enabled.\n");  // for the formant stage
  }
  if (readCurveVariable("breath", curveSamples, 0, true, &breath)) {
    for (double& v : breath.values) v /= 2048.0;
    log_printf(5, "breathiness params enabled.\n");
  }
  const char* equalizerText = r.equalizerText = getenv("equalizer");
  if (equalizerText != nullptr && strlen(equalizerText) >= 512) {
    // The equalizer gains feed the formant stage only.
    log_printf(5, "equalizer enabled. (%d elements)\n", 256);
  }
  // The expression curve: the variable's, or the note's own on the pitch grid.
  std::vector<double>& expression = r.expression;
  double& expressionStep = r.expressionStep;
  expressionStep = pitchStep;
  if (expressionEnv.present) {
    expression = expressionEnv.values;
    expressionStep = expressionEnv.step;
  } else if (note->Exprs != nullptr && note->ExprsCount > 0) {
    expression.resize(static_cast<size_t>(note->ExprsCount));
    for (size_t k = 0; k < expression.size(); ++k) expression[k] = std::pow(10.0, note->Exprs[k] / 1024.0);
  }

  r.sawtooth = flags.has('W');
  double& gFlag = r.gFlag;
  double& analysisFactor = r.analysisFactor;
  if (flags.number('g', &gFlag)) {
    gFlag = std::clamp(gFlag, -100.0, 100.0);
    analysisFactor = std::pow(10.0, -gFlag / 200.0);
  }
  double& yFlag = r.yFlag;
  if (flags.number('Y', &yFlag)) yFlag = std::clamp(yFlag, 0.0, 100.0) / 100.0;
  log_printf(5, "Process Started.\n");
}

// The aperiodic (breath) part: a 1024-point analysis of the difference of
// the signal half a period before and after the read point at every new
// input frame, and a phase-vocoder resynthesis every 256 output samples.
struct AperiodicPart {
  // Per bin: magnitude, phase advance and last analysed phase, and the
  // accumulated phase of the resynthesis, as unit phasors (all start at 0).
  std::vector<double> magnitude = std::vector<double>(kBins, 0.0);
  std::vector<double> advanceRe = std::vector<double>(kBins, 1.0), advanceIm = std::vector<double>(kBins, 0.0);
  std::vector<double> lastRe = std::vector<double>(kBins, 1.0), lastIm = std::vector<double>(kBins, 0.0);
  std::vector<double> phaseRe = std::vector<double>(kBins, 1.0), phaseIm = std::vector<double>(kBins, 0.0);
  std::vector<double> binRe = std::vector<double>(kBins + 1), binIm = std::vector<double>(kBins + 1);
  std::vector<double> re = std::vector<double>(kFftSize), behind = std::vector<double>(kFftSize),
                      ahead = std::vector<double>(kFftSize);

  // The analysis around read position p, reads `sigma` input samples apart.
  void analyse(const Sample& sample, double p, double period, double sigma) {
    const Windows& win = windows();
    const FftTables& fft = fftTables();
    const double width = std::max(sigma, 1.0) * 1.03125;
    const double x = p - 512 * sigma;
    sample.readRun(x - period / 2.0, sigma, kFftSize, width, behind.data());
    sample.readRun(x + period / 2.0, sigma, kFftSize, width, ahead.data());
    int m = 0;
#if defined(__SSE2__)
    for (; m < kFftSize; m += 2) {
      const __m128d difference =
          _mm_sub_pd(_mm_loadu_pd(&behind[static_cast<size_t>(m)]), _mm_loadu_pd(&ahead[static_cast<size_t>(m)]));
      _mm_storeu_pd(&re[static_cast<size_t>(m)], _mm_mul_pd(difference, _mm_loadu_pd(win.sine + m)));
    }
#endif
    for (; m < kFftSize; ++m) {
      re[static_cast<size_t>(m)] = (behind[static_cast<size_t>(m)] - ahead[static_cast<size_t>(m)]) * win.sine[m];
    }
    fftRealForward(re.data(), kFftSize, binRe.data(), binIm.data(), fft.cosTable, fft.sinTable);
    // Each bin's magnitude, and its phase advance since the last analysis
    // as a unit phasor (the new phase's phasor times the conjugate of the
    // old one): angles without atan2, sine or cosine.
    int k = 0;
#if defined(__SSE2__)
    const __m128d zero = _mm_setzero_pd(), one = _mm_set1_pd(1.0), two = _mm_set1_pd(2.0);
    for (; k + 1 < kBins; k += 2) {
      const size_t at = static_cast<size_t>(k);
      const __m128d a = _mm_loadu_pd(&binRe[at]), b = _mm_loadu_pd(&binIm[at]);
      const __m128d length = _mm_sqrt_pd(_mm_add_pd(_mm_mul_pd(a, a), _mm_mul_pd(b, b)));
      _mm_storeu_pd(&magnitude[at], _mm_div_pd(length, two));
      const __m128d voiced = _mm_cmpgt_pd(length, zero);
      const __m128d ur = select(voiced, _mm_div_pd(a, length), one);
      const __m128d ui = select(voiced, _mm_div_pd(b, length), zero);
      const __m128d lr = _mm_loadu_pd(&lastRe[at]), li = _mm_loadu_pd(&lastIm[at]);
      _mm_storeu_pd(&advanceRe[at], _mm_add_pd(_mm_mul_pd(ur, lr), _mm_mul_pd(ui, li)));
      _mm_storeu_pd(&advanceIm[at], _mm_sub_pd(_mm_mul_pd(ui, lr), _mm_mul_pd(ur, li)));
      _mm_storeu_pd(&lastRe[at], ur);
      _mm_storeu_pd(&lastIm[at], ui);
    }
#endif
    for (; k < kBins; ++k) {
      const double a = binRe[static_cast<size_t>(k)], b = binIm[static_cast<size_t>(k)];
      const double length = std::sqrt(a * a + b * b);
      magnitude[static_cast<size_t>(k)] = length / 2.0;
      const double ur = length > 0.0 ? a / length : 1.0, ui = length > 0.0 ? b / length : 0.0;
      const double lr = lastRe[static_cast<size_t>(k)], li = lastIm[static_cast<size_t>(k)];
      advanceRe[static_cast<size_t>(k)] = ur * lr + ui * li;
      advanceIm[static_cast<size_t>(k)] = ui * lr - ur * li;
      lastRe[static_cast<size_t>(k)] = ur;
      lastIm[static_cast<size_t>(k)] = ui;
    }
  }

  // Each bin's accumulated phase moves on by its advance (a rotation of its
  // phasor, kept at unit length), and the real part of the inverse
  // transform of the half spectrum is added into out around sample i.
  void resynthesise(int32_t i, double gain, double* out, int32_t n) {
    const Windows& win = windows();
    const FftTables& fft = fftTables();
    // Re(ifft of the bins 0..512 alone) is the inverse of the mirrored
    // spectrum with the inner bins halved and the two ends real.
    auto rotate = [&](int k) {
      const size_t b = static_cast<size_t>(k);
      const double zr = phaseRe[b] * advanceRe[b] - phaseIm[b] * advanceIm[b];
      const double zi = phaseRe[b] * advanceIm[b] + phaseIm[b] * advanceRe[b];
      const double norm = 1.0 / std::sqrt(zr * zr + zi * zi);
      phaseRe[b] = zr * norm;
      phaseIm[b] = zi * norm;
      const double scale = (k == 0 || k == kBins - 1) ? 1.0 : 0.5;
      binRe[b] = magnitude[b] * phaseRe[b] * scale;
      binIm[b] = (k == 0 || k == kBins - 1) ? 0.0 : magnitude[b] * phaseIm[b] * scale;
    };
    rotate(0);
    int k = 1;
#if defined(__SSE2__)
    const __m128d one = _mm_set1_pd(1.0), half = _mm_set1_pd(0.5);
    for (; k + 1 < kBins - 1; k += 2) {
      const size_t b = static_cast<size_t>(k);
      const __m128d pr = _mm_loadu_pd(&phaseRe[b]), pi = _mm_loadu_pd(&phaseIm[b]);
      const __m128d ar = _mm_loadu_pd(&advanceRe[b]), ai = _mm_loadu_pd(&advanceIm[b]);
      const __m128d zr = _mm_sub_pd(_mm_mul_pd(pr, ar), _mm_mul_pd(pi, ai));
      const __m128d zi = _mm_add_pd(_mm_mul_pd(pr, ai), _mm_mul_pd(pi, ar));
      const __m128d norm = _mm_div_pd(one, _mm_sqrt_pd(_mm_add_pd(_mm_mul_pd(zr, zr), _mm_mul_pd(zi, zi))));
      const __m128d nr = _mm_mul_pd(zr, norm), ni = _mm_mul_pd(zi, norm);
      _mm_storeu_pd(&phaseRe[b], nr);
      _mm_storeu_pd(&phaseIm[b], ni);
      const __m128d m = _mm_loadu_pd(&magnitude[b]);
      _mm_storeu_pd(&binRe[b], _mm_mul_pd(_mm_mul_pd(m, nr), half));
      _mm_storeu_pd(&binIm[b], _mm_mul_pd(_mm_mul_pd(m, ni), half));
    }
#endif
    for (; k < kBins; ++k) rotate(k);
    fftRealInverse(binRe.data(), binIm.data(), kFftSize, re.data(), fft.cosTable, fft.sinTable);
    int m = 0;
#if defined(__SSE2__)
    if (i - 512 >= 0 && i - 512 + kFftSize <= n) {
      double* at = out + (i - 512);
      const __m128d g = _mm_set1_pd(gain);
      for (; m < kFftSize; m += 2) {
        const __m128d add =
            _mm_mul_pd(_mm_mul_pd(_mm_loadu_pd(&re[static_cast<size_t>(m)]), _mm_loadu_pd(win.sine + m)), g);
        _mm_storeu_pd(at + m, _mm_add_pd(_mm_loadu_pd(at + m), add));
      }
    }
#endif
    for (; m < kFftSize; ++m) {
      const int32_t at = i - 512 + m;
      if (at >= 0 && at < n) out[at] += re[static_cast<size_t>(m)] * win.sine[m] * gain;
    }
  }
};

// The periodic part, sample by sample: the read position advanced through
// the consonant and the stretched rest, the pitch moved by a
// period-synchronous two-tap crossfade; and the aperiodic part analysed at
// every new input frame and resynthesised every 256 samples. False when
// the buffers cannot be had.
bool stretchAndShift(Resampling& r) {
  const NoteData* note = r.note;
  const Windows& win = windows();
  const Sample& sample = r.sample;
  const double* table = r.tracked.data();
  const int32_t n = r.n, lead = r.lead, start = r.start, rateIn = r.rateIn, tableLast = r.tableLast;
  const int32_t pitchStep = r.pitchStep;
  const double ratio = r.ratio, stretch = r.stretch, fixedIn = r.fixedIn, fixedOut = r.fixedOut;
  const double velocityFactor = r.velocityFactor, average = r.average, expressionStep = r.expressionStep;
  const std::vector<double>& pitch = r.pitch;
  const std::vector<double>& expression = r.expression;
  const Curve& gfactors = r.gfactors;
  const bool sawtooth = r.sawtooth;
  double analysisFactor = r.analysisFactor;
  const size_t outSize = static_cast<size_t>(1.0 + stretch / ratio * 3072.0) + static_cast<size_t>(n) + 1;
  r.aperiodic.assign(outSize, 0.0);
  r.periodic = static_cast<double*>(calloc(outSize, sizeof(double)));
  if (r.periodic == nullptr) {
    log_printf(1, "Not enough memories(render)\n");
    return false;
  }
  std::vector<double>& aperiodic = r.aperiodic;
  double* periodic = r.periodic;
  AperiodicPart breathy;

  // Where each 256th output sample was read from, and at what pitch: the
  // formant stage looks the input's envelope up there.
  std::vector<double>& readAt = r.readAt;
  std::vector<double>& readScale = r.readScale;
  readAt.reserve(static_cast<size_t>(n / kResynthesisStep + 2));
  readScale.reserve(readAt.capacity());
  const double vfRatio = velocityFactor * ratio;
  double p = start - vfRatio;
  double step = vfRatio;
  double phase = 0.0, sawPhase = 0.0;
  int32_t analysedFrame = -1;
  for (int32_t i = 0; i < n; ++i) {
    // 1. Advance the read position: the consonant at its own rate, then a
    // 256-sample crossfade into the stretched rate.
    if (fixedIn != 0.0) {
      const double c = fixedOut / velocityFactor;
      if (i < c - 128.0) {
        p += step;
        step = vfRatio;
      } else if (i < c + 127.0) {
        const int k = static_cast<int>(i - c + 128.0);
        p += step;
        step = (win.hann[k] / stretch + velocityFactor * win.hann[k + 256]) * ratio;
      } else {
        p += step;
        step = ratio / stretch;
      }
    } else {
      p += step;
      step = ratio / stretch;
    }

    // 2. The sample's own frequency here, from its table.
    const int64_t q = static_cast<int64_t>(p) - 128;
    int32_t j = 0;
    double e = 0.0;
    if (q >= 0) {
      j = static_cast<int32_t>(std::min<int64_t>(q / kAnalysisStep, tableLast - 1));
      e = q / kAnalysisStep >= tableLast - 1 ? 0.0 : static_cast<double>(q % kAnalysisStep) / kAnalysisStep;
    }
    auto trusted = [&](double v) { return std::isnan(v) || v <= 55.0 || v > 3.0 * average ? average : v; };
    const double f0 = trusted(table[j]), f1 = trusted(table[j + 1]);
    const double f = f0 + (f1 - f0) * e;
    double period = rateIn / f;

    // 3. A new input frame: analyse the aperiodic part around p.
    if (j != analysedFrame) {
      log_printf(6, "%d -> %d  \r", j, i / 256);
      analysedFrame = j;
      breathy.analyse(sample, p, period, ratio * analysisFactor);
    }

    // 4. The target frequency and the shift.
    const double position = static_cast<double>(i + lead) / pitchStep;
    const size_t pk = std::min(static_cast<size_t>(position), pitch.size() - 2);
    const double pe = std::min(position - static_cast<double>(pk), 1.0);
    const double target = pitch[pk] + (pitch[pk + 1] - pitch[pk]) * pe;
    double rho = target / average * ratio;
    if (note->Modulation != 100) {
      const double own = target / f * ratio;
      rho = (rho - own) * note->Modulation / 100.0 + own;
    }
    if (i % kResynthesisStep == 0) {
      readAt.push_back(p);
      readScale.push_back(rho / ratio);  // the periodic part is read at rho input samples per output sample
    }
    // 5, 6. The phase within the period.
    while (period < 50.0) period *= 2.0;
    phase += (rho - step) / period;
    phase -= std::floor(phase);

    // 7, 8. The periodic sample.
    double value;
    if (!sawtooth) {
      const double r2 = std::max(rho, 1.0) * 1.03125;
      double a, b;
      sample.readPair(p + phase * period, p + phase * period - period, r2, &a, &b);
      const double w = 0.5 + 0.5 * std::cos(phase * kPi);
      value = w * a + (1.0 - w) * b;
    } else {
      sawPhase += target / SampleRateOut;
      sawPhase -= std::floor(sawPhase);
      const double v0 = table[j] > 55.0 ? 1.0 : 0.0, v1 = table[j + 1] > 55.0 ? 1.0 : 0.0;
      value = (sawPhase - 0.5) * 32768.0 * (v0 + (v1 - v0) * e);
    }

    // 9. Expression, and the analysis stride from the gfactors curve.
    if (!expression.empty()) {
      const double at = i / expressionStep;
      const size_t k = static_cast<size_t>(at);
      if (k + 1 < expression.size()) {
        value *= expression[k] + (expression[k + 1] - expression[k]) * (at - static_cast<double>(k));
      } else if (k + 1 == expression.size()) {
        value *= expression[k];
      }
    }
    periodic[i] = value;
    if (gfactors.present) analysisFactor = 1.0 / gfactors.at(i);

    // 10. Every 256 samples, resynthesise the aperiodic part.
    if (i % kResynthesisStep == 0) breathy.resynthesise(i, 0.5 * f / target, aperiodic.data(), n);
  }
  return true;
}

// Post-processing step 5: the input's spectral envelopes (from the
// sample's spectrum file, made when missing) imposed on the output where
// it came from, moved by gen (formant.h).
void correctFormants(Resampling& r) {
  const char* path = r.path;
  const FlagText& flags = r.flags;
  const int32_t n = r.n;
  const double noteFrequency = r.noteFrequency, gFlag = r.gFlag, yFlag = r.yFlag, average = r.average;
  const Sample& sample = r.sample;
  const Curve& gfactors = r.gfactors;
  const Curve& eqzparams = r.eqzparams;
  const char* equalizerText = r.equalizerText;
  double* y = r.periodic;
  std::vector<double>& aperiodic = r.aperiodic;
  std::vector<double>& readAt = r.readAt;
  std::vector<double>& readScale = r.readScale;
  const double* table = r.table;
  const int32_t rateIn = r.rateIn, loadedFrames = r.loadedFrames, tableLast = r.tableLast;
  int32_t formantFactor = 1, lowBand = 0;
  double fce = 100.0;
  flags.integer('F', &formantFactor);
  flags.integer('L', &lowBand);
  flags.number('f', &fce);
  int32_t low = toInt32(1024.0 / SampleRateOut * noteFrequency * formantFactor + 0.5);
  if (lowBand >= 1) low = 4 * lowBand;
  low = std::clamp(low, 0, 35);
  const double gen = std::pow(10.0, gFlag / 200.0);
  log_printf(5, "filter low=%0.3lfHz factor=%d gen=%0.2lf fce=%0.2lf \n",
             static_cast<double>(low * (SampleRateOut / 1024)), low, gen, fce / 100.0);
  SpectrumTable spectrum;
  if (GetSpectrum(path, sample.words, loadedFrames, sample.stride, rateIn, table, tableLast + 1, average, &spectrum)) {
    FormantStage stage;
    stage.input = &spectrum;
    stage.inputPositions = std::move(readAt);
    stage.readScale = std::move(readScale);
    stage.rateOut = SampleRateOut;
    stage.lowBin = low;
    stage.gen = gen;
    stage.fce = fce / 100.0;
    stage.keep = yFlag;
    std::vector<double> genCurve, eqStrength;
    if (gfactors.present) {
      genCurve.resize(static_cast<size_t>(n));
      for (int32_t k = 0; k < n; ++k) genCurve[static_cast<size_t>(k)] = gfactors.at(k);
      stage.genCurve = &genCurve;
    }
    double equalizer[512];
    if (parseEqualizer(equalizerText, equalizer)) {
      stage.equalizer = equalizer;
      if (eqzparams.present) {
        eqStrength.resize(static_cast<size_t>(n));
        for (int32_t k = 0; k < n; ++k) eqStrength[static_cast<size_t>(k)] = eqzparams.at(k);
        stage.equalizerStrength = &eqStrength;
      }
    }
    // The gains are the periodic part's. The aperiodic share of the first
    // mix already has the target envelope (it was resynthesised at the
    // sample's own rate): it is taken out of y before, and put back after
    // with the equalizer alone, as the aperiodic buffer gets it.
    double v, a;
    for (int32_t k = 0; k < n; ++k) {
      r.mixWeights(k, &v, &a);
      y[k] -= aperiodic[static_cast<size_t>(k)] * a;
    }
    CorrectFormant(stage, y, aperiodic.data(), n);
    for (int32_t k = 0; k < n; ++k) {
      r.mixWeights(k, &v, &a);
      y[k] += aperiodic[static_cast<size_t>(k)] * a;
    }
  }
}

// The chain after the two parts are made: waveshaping, low-pass and
// smoothing, the first mix, the formant correction, more smoothing, the
// second mix and the normalisation.
void postProcess(Resampling& r) {
  const FlagText& flags = r.flags;
  const int32_t n = r.n;
  const double volume = r.volume;
  std::vector<double>& aperiodic = r.aperiodic;
  double* periodic = r.periodic;
  double* y = periodic;
  double x = 1.0;
  if (flags.number('X', &x) && x != 1.0) {
    const double offset = std::pow(0.5, x);
    for (int32_t k = 0; k < n; ++k) y[k] = (std::pow(std::max(0.0, y[k] / 65536.0 + 0.5), x) - offset) * 65536.0;
  }
  auto onePole = [&](char letter) {
    double percent = 0.0;
    if (!flags.number(letter, &percent)) return false;
    const double a = std::sqrt(std::clamp(percent / 100.0, 0.0, 0.9999999));
    if (a <= 0.0) return false;
    for (int32_t k = 1; k < n; ++k) y[k] = (1.0 - a) * y[k] + a * y[k - 1];
    return true;
  };
  // Three-tap smoothing at `spacing`, on the unfiltered values; neighbours
  // past either end read as 0.
  std::vector<double> copy;
  auto smooth = [&](double strength, int spacing) {
    if (!(strength > 0.0)) return;
    copy.assign(y, y + n);
    for (int32_t k = 0; k < n; ++k) {
      const double before = k - spacing >= 0 ? copy[static_cast<size_t>(k - spacing)] : 0.0;
      const double after = k + spacing < n ? copy[static_cast<size_t>(k + spacing)] : 0.0;
      y[k] = strength * (0.25 * before + 0.5 * copy[static_cast<size_t>(k)] + 0.25 * after) +
             (1.0 - strength) * copy[static_cast<size_t>(k)];
    }
  };
  const bool lowPassed = onePole('h');
  double smoothing = lowPassed ? 0.0 : 0.5;
  double cFlag = 0.0;
  if (flags.number('c', &cFlag)) {
    smoothing = std::clamp(cFlag / 100.0, 0.0, 1.0);
  } else if (flags.has('c')) {
    smoothing = smoothing / 100.0;
  }
  smooth(smoothing, 1);

  double bFlag = 0.0;
  if (flags.number('B', &bFlag)) balance(bFlag, &r.mixVoiced, &r.mixBreathy);
  log_printf(5, "Bre=%0.2lf\n", bFlag);
  for (int32_t k = 0; k < n; ++k) {
    double v, a;
    r.mixWeights(k, &v, &a);
    y[k] = y[k] * v + aperiodic[static_cast<size_t>(k)] * a;
  }

  // 5. The formant correction, unless N.
  if (!flags.has('N')) correctFormants(r);

  double strength = 0.0;
  if (flags.number('C', &strength)) smooth(std::clamp(strength / 100.0, 0.0, 1.0), 1);
  if (flags.number('D', &strength)) smooth(std::clamp(strength / 100.0, 0.0, 1.0), 2);
  if (flags.number('E', &strength)) smooth(std::clamp(strength / 100.0, 0.0, 1.0), 3);
  onePole('H');

  double secondVoiced = 1.0, secondBreathy = 0.0, secondFlag = 0.0;
  if (flags.number('b', &secondFlag)) {
    secondBreathy = 1.0;  // then the rule of B
    balance(secondFlag, &secondVoiced, &secondBreathy);
  }
  log_printf(5, "v %lf b %lf\n", secondVoiced, secondBreathy);
  double peak = 0.0;
  for (int32_t k = 0; k < n; ++k) {
    y[k] = y[k] * secondVoiced + aperiodic[static_cast<size_t>(k)] * secondBreathy;
    peak = std::max(peak, std::fabs(y[k]));
  }
  double normalise = 86.0;
  if (flags.number('P', &normalise)) normalise = std::clamp(normalise, 0.0, 100.0);
  if (peak == 0.0) peak = 16384.0;
  const double gain = std::pow(16384.0 / peak, normalise / 100.0) * volume;
  for (int32_t k = 0; k < n; ++k) y[k] *= gain;
}

}  // namespace

double* resamp(const char* path, const NoteData* note, float lengthMs, int32_t* outCount, float tempo,
               ResampError* error) {
  ResampError ignored;
  ResampError& failure = error != nullptr ? *error : ignored;
  failure = ResampError::kNone;
  if (outCount != nullptr) *outCount = 0;
  if (path == nullptr || note == nullptr) {
    failure = ResampError::kLoad;
    return nullptr;
  }
  Resampling r(path, note, lengthMs, tempo);
  failure = setUp(r);
  if (failure != ResampError::kNone) return nullptr;
  if (r.n == 0) return static_cast<double*>(calloc(1, sizeof(double)));  // nothing to sing: an empty note
  makePitchCurve(r);
  readEnvironment(r);
  if (!stretchAndShift(r)) return nullptr;
  postProcess(r);
  if (outCount != nullptr) *outCount = r.n;
  double* out = r.periodic;
  r.periodic = nullptr;
  return out;
}

int32_t render(const char* path, const char* outPath, const NoteData* note, float lengthMs, float tempo) {
  int32_t count = 0;
  double* values = resamp(path, note, lengthMs, &count, tempo);
  if (values == nullptr) return -1;
  int16_t* words = static_cast<int16_t*>(malloc(static_cast<size_t>(count) * 2 + 512));
  if (words == nullptr) {
    free(values);
    return 1;
  }
  for (int32_t k = 0; k < count; ++k) {
    words[k] = static_cast<int16_t>(std::clamp(values[k], -32767.0, 32767.0));
  }
  const int32_t saved = saveWaveFile(outPath, words, count * 2, 16, 1, SampleRateOut);
  if (saved == 0) log_printf(4, "Complete.\nOutput File : %s\n", outPath);
  free(words);
  free(values);
  return saved == 0 ? 0 : -1;
}
