#include "voicebank/pitch.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "render/wavefile.h"
#include "support/log.h"
#include "support/textcopy.h"
#include "voicebank/freqtable.h"
#include "voicebank/spectrum.h"
#include "voicebank/voiceset.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

constexpr int kTones = 901;
constexpr double kLn2 = 0.69314718055994530942;
constexpr double kTwoPi = 6.28318530717958647692;

// --- Tone table ------------------------------------------------------------------

struct ToneTable {
  double base = 440.0;
  double frequency[kTones];
  int32_t length[kTones];
  ToneTable() { fill(44100, 2048); }
  void fill(int32_t rate, int32_t largest) {
    for (int j = 0; j < kTones; ++j) {
      frequency[j] = base / 8.0 * std::exp(j * kLn2 / 120.0);
      const double ideal = std::sqrt(rate / frequency[j]) * 2048.0 / std::sqrt(rate / 55.0);
      length[j] = std::min(largest, static_cast<int32_t>(ideal));
    }
  }
};

ToneTable& tones() {
  static ToneTable table;
  return table;
}

// --- Samples ---------------------------------------------------------------------

// The first channel as doubles with zeroed margins, so that every read of
// the analysis stays inside the buffer without a test.
class SampleLine {
 public:
  static constexpr int32_t kBefore = 1024;
  static constexpr int32_t kAfter = 2304;

  SampleLine(const int16_t* samples, int32_t frames, int32_t channels)
      : frames_(std::max(frames, 0)), data_(static_cast<size_t>(frames_) + kBefore + kAfter, 0.0) {
    const int32_t stride = std::max(channels, 1);
    for (int32_t i = 0; i < frames_; ++i)
      data_[static_cast<size_t>(kBefore + i)] = samples[static_cast<size_t>(i) * stride];
  }
  // Sample 0; valid from index -kBefore to frames + kAfter - 1.
  const double* origin() const { return data_.data() + kBefore; }
  int32_t frames() const { return frames_; }

 private:
  int32_t frames_;
  std::vector<double> data_;
};

struct Search {
  int32_t period = 0;
  double minimum = 32768.0;
  double meanSquare = 0.0;
  // -ln(minimum / rms): larger is clearer.
  double clarity() const { return -std::log(minimum / std::sqrt(meanSquare)); }
};

// Four doubles in one register (two on processors without AVX).
typedef double Lanes __attribute__((vector_size(32)));
typedef int64_t LaneBits __attribute__((vector_size(32)));

// Loads (unaligned) and absolute values of lanes, written as macros:
// functions taking or returning them would change the calling convention
// between the AVX2 and the default builds.
#define TONA_LOAD(v, p) memcpy(&(v), (p), sizeof(v))
#define TONA_ABS(v) reinterpret_cast<Lanes>(reinterpret_cast<LaneBits>(v) & kAbsMask)

// The difference function d(T) for T = shortest..longest at centre c (the
// window starts at x[c]), into d[0..longest - shortest]. The hot loop of
// the analyser: eight partial sums (two registers of four) let it run in
// vector lanes, compiled for AVX2 where the processor has it; the order of
// additions differs from a plain running sum only in the last bits of d.
__attribute__((target_clones("avx2", "default"))) void differenceValues(const double* x, int32_t c, int32_t shortest,
                                                                        int32_t longest, const double* w, double* d) {
  const double* frame = x + c;
  for (int32_t t = shortest; t <= longest; ++t) {
    const double* ahead = frame + t;
    const double* behind = frame - t;
    const LaneBits kAbsMask = {INT64_MAX, INT64_MAX, INT64_MAX, INT64_MAX};
    Lanes low = {0, 0, 0, 0}, high = {0, 0, 0, 0};
    for (int n = 0; n < kAnalysisWindow; n += 8) {
      Lanes a0, a1, b0, b1, c0, c1, w0, w1;
      TONA_LOAD(a0, frame + n);
      TONA_LOAD(a1, frame + n + 4);
      TONA_LOAD(b0, ahead + n);
      TONA_LOAD(b1, ahead + n + 4);
      TONA_LOAD(c0, behind + n);
      TONA_LOAD(c1, behind + n + 4);
      TONA_LOAD(w0, w + n);
      TONA_LOAD(w1, w + n + 4);
      low += w0 * (TONA_ABS(a0 - b0) + TONA_ABS(a0 - c0));
      high += w1 * (TONA_ABS(a1 - b1) + TONA_ABS(a1 - c1));
    }
    const double sum = ((low[0] + high[0]) + (low[1] + high[1])) + ((low[2] + high[2]) + (low[3] + high[3]));
    d[t - shortest] = sum / 1024.0;
  }
}
#undef TONA_LOAD
#undef TONA_ABS

// The smallest d (the earliest of equal ones; none below 32768: period 0)
// and the mean square of all.
Search differenceSearch(const double* x, int32_t c, int32_t shortest, int32_t longest, const double* w) {
  Search result;
  if (longest < shortest) return result;
  double d[1024];
  double sumSquares = 0.0;
  for (int32_t from = shortest; from <= longest; from += 1024) {
    const int32_t to = std::min(longest, from + 1023);
    differenceValues(x, c, from, to, w, d);
    for (int32_t t = from; t <= to; ++t) {
      const double value = d[t - from];
      if (value < result.minimum) {
        result.minimum = value;
        result.period = t;
      }
      sumSquares += value * value;
    }
  }
  result.meanSquare = sumSquares / (longest - shortest + 1);
  return result;
}

// |sum w[n] x[c + n] e^(i 2 pi n / T)|: how strongly the frame repeats at T.
double strengthAt(const double* x, int32_t c, double period, const double* w) {
  // A rotating phasor in place of 512 sin/cos calls.
  const double step = kTwoPi / period;
  const double cosStep = std::cos(step), sinStep = std::sin(step);
  double re = 0.0, im = 0.0, cr = 1.0, ci = 0.0;
  for (int n = 0; n < kAnalysisWindow; ++n) {
    const double v = w[n] * x[c + n];
    re += v * cr;
    im += v * ci;
    const double next = cr * cosStep - ci * sinStep;
    ci = cr * sinStep + ci * cosStep;
    cr = next;
  }
  return std::sqrt(re * re + im * im);
}

struct PeriodRange {
  int32_t shortest, longest;
};

// Range j (1..8): floor(50 sqrt(2^(j-1))) + 1 .. floor(50 sqrt(2^j)).
PeriodRange periodRange(int j) {
  return {static_cast<int32_t>(50.0 * std::sqrt(std::pow(2.0, j - 1))) + 1,
          static_cast<int32_t>(50.0 * std::sqrt(std::pow(2.0, j)))};
}

// A search of 0.8 to 1.25 times `period` at frame position p.
Search aroundPeriod(const double* x, int32_t p, double period, const double* w) {
  return differenceSearch(x, p - 128, static_cast<int32_t>(0.8 * period), static_cast<int32_t>(1.25 * period), w);
}

bool strictlyInside(const Search& s, double period) {
  return s.period > static_cast<int32_t>(0.8 * period) && s.period < static_cast<int32_t>(1.25 * period);
}

// The first pass for one frame: amplitude and frequency (0: unvoiced).
double firstPassFrequency(const double* x, int32_t p, int32_t rate, const double* w) {
  const int32_t c = p - 128;
  // A candidate must beat 0: a frame with no strength at any period (a
  // silent window next to a voiced one) stays unvoiced.
  double keptValue = 0.0, keptClarity = -HUGE_VAL;
  int32_t keptPeriod = 0;
  PeriodRange previousRange = periodRange(1);
  Search previous = differenceSearch(x, c, previousRange.shortest, previousRange.longest, w);
  for (int j = 2; j <= 8; ++j) {
    const PeriodRange range = periodRange(j);
    const Search current = differenceSearch(x, c, range.shortest, range.longest, w);
    const Search& better = current.minimum <= previous.minimum ? current : previous;
    if (better.period > previousRange.shortest && better.period < range.longest) {
      const double s = -std::log(better.minimum / std::sqrt((previous.meanSquare + current.meanSquare) / 2.0));
      const double strength = strengthAt(x, c, better.period, w);
      const double value = s / (1.0 + better.minimum * better.minimum) * strength / better.period;
      if (value > keptValue) {
        keptValue = value;
        keptClarity = s;
        keptPeriod = better.period;
      }
      if (keptClarity >= 1.25) break;
    }
    previous = current;
    previousRange = range;
  }
  return keptClarity >= 1.0 && keptPeriod > 0 ? static_cast<double>(rate) / keptPeriod : 0.0;
}

double frameAmplitude(const double* x, int32_t p, const double* w) {
  double sum = 0.0;
  for (int k = 0; k < kAnalysisWindow; ++k) {
    const int32_t index = p - 128 + k;
    if (index > 0) sum += x[index] * x[index] * w[k];  // index 0 is left out
  }
  return std::sqrt(sum / 512.0);
}

}  // namespace

// --- Tone table ----------------------------------------------------------------------

void setToneBase(double frequency) {
  tones().base = frequency;
  tones().fill(44100, 2048);
}

void initToneTable(int32_t sampleRate, int32_t largest) { tones().fill(sampleRate, largest); }

double getToneBase() { return tones().base; }

double getToneFrequency(int32_t index) { return tones().frequency[std::clamp(index, 0, kTones - 1)]; }

int32_t getToneLength(int32_t index) { return tones().length[std::clamp(index, 0, kTones - 1)]; }

int32_t getToneNumber(double frequency) {
  const double* table = tones().frequency;
  double distance = std::fabs(frequency - table[0]);
  for (int j = 1; j < kTones; ++j) {
    const double next = std::fabs(frequency - table[j]);
    if (next > distance) return j - 1;
    distance = next;
  }
  return 0;  // past the table: named as the lowest tone
}

char* getToneName(double frequency, char* out) {
  static const char kLetters[] = "C C#D D#E F F#G G#A A#B ";
  const int32_t index = getToneNumber(frequency);
  const int32_t t = index + 94;
  char letter[3] = {kLetters[(t / 10 % 12) * 2], kLetters[(t / 10 % 12) * 2 + 1], '\0'};
  if (letter[1] == ' ') letter[1] = '\0';
  const int32_t octave = (index + 90) / 120 + 1;  // 1..8
  char name[32];
  if (t % 10 != 4) {
    snprintf(name, sizeof name, "%s%d %+0.1f", letter, octave, (t % 10 - 4) * 0.1);
  } else {
    snprintf(name, sizeof name, "%s%d", letter, octave);
  }
  return strcpy_n(out, name, 16);
}

double num2freq(int32_t noteNumber) { return 55.0 * std::pow(2.0, (noteNumber - 33) / 12.0); }

int32_t name2num(const char* name) { return cvoiceset::name2num(name); }

double name2freq(const char* name, int32_t tenths) {
  return 55.0 * std::pow(2.0, (0.1 * tenths + name2num(name) - 33) / 12.0);
}

// --- Transform -----------------------------------------------------------------------

void calc_cossin(int32_t n, double* cosTable, double* sinTable) {
  for (int32_t k = 0; k < n; ++k) {
    if (k == 0) {
      cosTable[k] = 1.0;
      sinTable[k] = 0.0;
    } else if (4 * k == n) {
      cosTable[k] = 0.0;
      sinTable[k] = 1.0;
    } else if (2 * k == n) {
      cosTable[k] = -1.0;
      sinTable[k] = 0.0;
    } else if (4 * k == 3 * n) {
      cosTable[k] = 0.0;
      sinTable[k] = -1.0;
    } else {
      cosTable[k] = std::cos(kTwoPi * k / n);
      sinTable[k] = std::sin(kTwoPi * k / n);
    }
  }
}

namespace {

#if defined(__SSE2__)
// Two butterflies at once in registers: (a, b) with twiddle factor w, as
// the scalar one.
inline void butterflies(__m128d& ar, __m128d& ai, __m128d& br, __m128d& bi, __m128d wr, __m128d wi) {
  const __m128d tr = _mm_sub_pd(_mm_mul_pd(br, wr), _mm_mul_pd(bi, wi));
  const __m128d ti = _mm_add_pd(_mm_mul_pd(br, wi), _mm_mul_pd(bi, wr));
  br = _mm_sub_pd(ar, tr);
  bi = _mm_sub_pd(ai, ti);
  ar = _mm_add_pd(ar, tr);
  ai = _mm_add_pd(ai, ti);
}
#endif

// One butterfly: b = a - w b, a = a + w b.
inline void butterfly(double* ar, double* ai, double* br, double* bi, double wr, double wi) {
  const double tr = *br * wr - *bi * wi;
  const double ti = *br * wi + *bi * wr;
  *br = *ar - tr;
  *bi = *ai - ti;
  *ar += tr;
  *ai += ti;
}

// Bit reversal, then butterflies; `sign` is -1 for the forward transform.
// The tables hold n * tableStep points (a half-size transform reads every
// other entry of the full-size tables).
//
// Made fast without changing a bit of the results: every butterfly does
// the same operations in the same order as in the textbook loop, but the
// twiddle factors of a stage are gathered side by side first, two stages
// are done in one pass over the data (the four points a pair of stages
// combines stay in registers), and the butterflies run two at a time where
// the machine has SSE2.
void transform(double* re, double* im, int32_t n, const double* cosTable, const double* sinTable, double sign,
               int32_t tableStep = 1) {
  if (n < 2 || (n & (n - 1)) != 0) return;  // sizes are powers of two
  // The bit-reversal swaps of each size, listed once per thread.
  thread_local std::vector<std::vector<int32_t>> swapLists(32);
  int32_t bits = 0;
  while ((1 << bits) < n) ++bits;
  std::vector<int32_t>& swaps = swapLists[static_cast<size_t>(bits)];
  if (swaps.empty()) {
    for (int32_t i = 1, j = 0; i < n; ++i) {
      int32_t bit = n >> 1;
      for (; j & bit; bit >>= 1) j ^= bit;
      j ^= bit;
      if (i < j) {
        swaps.push_back(i);
        swaps.push_back(j);
      }
    }
  }
  for (size_t k = 0; k < swaps.size(); k += 2) {
    std::swap(re[swaps[k]], re[swaps[k + 1]]);
    std::swap(im[swaps[k]], im[swaps[k + 1]]);
  }
  // The first stage: one twiddle factor, cos 0 and sin 0.
  {
    const double wr = cosTable[0], wi = sign * sinTable[0];
    for (int32_t a = 0; a < n; a += 2) butterfly(re + a, im + a, re + a + 1, im + a + 1, wr, wi);
  }
  // The twiddle factors of the stage whose butterflies span `half`.
  thread_local std::vector<double> twiddles;
  if (twiddles.size() < static_cast<size_t>(2 * n)) twiddles.resize(static_cast<size_t>(2 * n));
  auto gather = [&](int32_t half, double* wr, double* wi) {
    const int32_t stride = n / (2 * half) * tableStep;
    for (int32_t k = 0; k < half; ++k) {
      wr[k] = cosTable[k * stride];
      wi[k] = sign * sinTable[k * stride];
    }
  };
  double* w1r = twiddles.data();
  double* w1i = w1r + n / 2;
  double* w2r = w1i + n / 2;
  double* w2i = w2r + n / 2;
  int32_t half = 2;
  // Stages `half` and 2 half together: for every block of 4 half points
  // and k < half, the points k, k + half, k + 2 half and k + 3 half.
  for (; 4 * half <= n; half *= 4) {
    gather(half, w1r, w1i);
    gather(2 * half, w2r, w2i);
    for (int32_t start = 0; start < n; start += 4 * half) {
      double* r0 = re + start;
      double* i0 = im + start;
      double* r1 = r0 + half;
      double* i1 = i0 + half;
      double* r2 = r1 + half;
      double* i2 = i1 + half;
      double* r3 = r2 + half;
      double* i3 = i2 + half;
#if defined(__SSE2__)
      for (int32_t k = 0; k < half; k += 2) {
        __m128d x0r = _mm_loadu_pd(r0 + k), x0i = _mm_loadu_pd(i0 + k);
        __m128d x1r = _mm_loadu_pd(r1 + k), x1i = _mm_loadu_pd(i1 + k);
        __m128d x2r = _mm_loadu_pd(r2 + k), x2i = _mm_loadu_pd(i2 + k);
        __m128d x3r = _mm_loadu_pd(r3 + k), x3i = _mm_loadu_pd(i3 + k);
        const __m128d ar = _mm_loadu_pd(w1r + k), ai = _mm_loadu_pd(w1i + k);
        butterflies(x0r, x0i, x1r, x1i, ar, ai);
        butterflies(x2r, x2i, x3r, x3i, ar, ai);
        butterflies(x0r, x0i, x2r, x2i, _mm_loadu_pd(w2r + k), _mm_loadu_pd(w2i + k));
        butterflies(x1r, x1i, x3r, x3i, _mm_loadu_pd(w2r + half + k), _mm_loadu_pd(w2i + half + k));
        _mm_storeu_pd(r0 + k, x0r);
        _mm_storeu_pd(i0 + k, x0i);
        _mm_storeu_pd(r1 + k, x1r);
        _mm_storeu_pd(i1 + k, x1i);
        _mm_storeu_pd(r2 + k, x2r);
        _mm_storeu_pd(i2 + k, x2i);
        _mm_storeu_pd(r3 + k, x3r);
        _mm_storeu_pd(i3 + k, x3i);
      }
#else
      for (int32_t k = 0; k < half; ++k) {
        butterfly(r0 + k, i0 + k, r1 + k, i1 + k, w1r[k], w1i[k]);
        butterfly(r2 + k, i2 + k, r3 + k, i3 + k, w1r[k], w1i[k]);
        butterfly(r0 + k, i0 + k, r2 + k, i2 + k, w2r[k], w2i[k]);
        butterfly(r1 + k, i1 + k, r3 + k, i3 + k, w2r[half + k], w2i[half + k]);
      }
#endif
    }
  }
  // A last stage on its own when the count of stages left is odd.
  if (2 * half <= n) {
    gather(half, w1r, w1i);
    for (int32_t start = 0; start < n; start += 2 * half) {
      double* ra = re + start;
      double* ia = im + start;
#if defined(__SSE2__)
      for (int32_t k = 0; k < half; k += 2) {
        __m128d xr = _mm_loadu_pd(ra + k), xi = _mm_loadu_pd(ia + k);
        __m128d yr = _mm_loadu_pd(ra + half + k), yi = _mm_loadu_pd(ia + half + k);
        butterflies(xr, xi, yr, yi, _mm_loadu_pd(w1r + k), _mm_loadu_pd(w1i + k));
        _mm_storeu_pd(ra + k, xr);
        _mm_storeu_pd(ia + k, xi);
        _mm_storeu_pd(ra + half + k, yr);
        _mm_storeu_pd(ia + half + k, yi);
      }
#else
      for (int32_t k = 0; k < half; ++k) butterfly(ra + k, ia + k, ra + half + k, ia + half + k, w1r[k], w1i[k]);
#endif
    }
  }
}

}  // namespace

void fft1(double* re, double* im, int32_t n, const double* cosTable, const double* sinTable) {
  transform(re, im, n, cosTable, sinTable, -1.0);
}

void fftRealForward(const double* x, int32_t n, double* re, double* im, const double* cosTable,
                    const double* sinTable) {
  // The even samples as real parts and the odd ones as imaginary parts of
  // one half-size transform, then split: X[k] = E[k] + e^(-2 pi i k / n) O[k].
  const int32_t half = n / 2;
  for (int32_t m = 0; m < half; ++m) {
    re[m] = x[2 * m];
    im[m] = x[2 * m + 1];
  }
  transform(re, im, half, cosTable, sinTable, -1.0, 2);
  re[half] = re[0];
  im[half] = im[0];
  for (int32_t k = 0; k <= half / 2; ++k) {
    const int32_t j = half - k;
    // E and O at k and at j = half - k, from Z[k] and Z[j].
    const double ekr = 0.5 * (re[k] + re[j]), eki = 0.5 * (im[k] - im[j]);
    const double okr = 0.5 * (im[k] + im[j]), oki = -0.5 * (re[k] - re[j]);
    const double ejr = ekr, eji = -eki;                // E[j] = conj(E[k])
    const double ojr = okr, oji = -oki;                // O[j] = conj(O[k])
    const double ck = cosTable[k], sk = -sinTable[k];  // e^(-2 pi i k / n)
    const double cj = cosTable[j], sj = -sinTable[j];
    re[k] = ekr + ck * okr - sk * oki;
    im[k] = eki + ck * oki + sk * okr;
    re[j] = ejr + cj * ojr - sj * oji;
    im[j] = eji + cj * oji + sj * ojr;
  }
}

void fftRealInverse(double* re, double* im, int32_t n, double* x, const double* cosTable, const double* sinTable) {
  // Back to E and O (E[k] = (X[k] + conj X[half - k]) / 2, O[k] = (X[k] -
  // conj X[half - k]) e^(2 pi i k / n) / 2), Z = E + i O, a half-size
  // inverse, and the samples interleaved again.
  const int32_t half = n / 2;
  for (int32_t k = 0; k <= half / 2; ++k) {
    const int32_t j = half - k;
    const double xkr = re[k], xki = im[k], xjr = re[j], xji = im[j];
    const double ekr = 0.5 * (xkr + xjr), eki = 0.5 * (xki - xji);
    const double dkr = 0.5 * (xkr - xjr), dki = 0.5 * (xki + xji);
    const double ck = cosTable[k], sk = sinTable[k];
    const double okr = dkr * ck - dki * sk, oki = dkr * sk + dki * ck;
    // At j: E[j] = conj E[k]; O[j] = (X[j] - conj X[k]) e^(2 pi i j / n) / 2.
    const double djr = -dkr, dji = dki;
    const double cj = cosTable[j], sj = sinTable[j];
    const double ojr = djr * cj - dji * sj, oji = djr * sj + dji * cj;
    re[k] = ekr - oki;
    im[k] = eki + okr;
    re[j] = ekr - oji;
    im[j] = -eki + ojr;
  }
  transform(re, im, half, cosTable, sinTable, 1.0, 2);
  const double scale = 1.0 / n;
  for (int32_t m = 0; m < half; ++m) {
    x[2 * m] = re[m] * scale * 2.0;
    x[2 * m + 1] = im[m] * scale * 2.0;
  }
}

void ifft1(double* re, double* im, int32_t n, const double* cosTable, const double* sinTable) {
  transform(re, im, n, cosTable, sinTable, 1.0);
  const double scale = 1.0 / n;
  for (int32_t k = 0; k < n; ++k) {
    re[k] *= scale;
    im[k] *= scale;
  }
}

// --- Analysis ----------------------------------------------------------------------

const double* analysisWindow() {
  static const std::vector<double> window = [] {
    std::vector<double> w(kAnalysisWindow);
    w[0] = 0.0;
    for (int k = 1; k < kAnalysisWindow; ++k) w[k] = 0.5 - 0.5 * std::cos(0.012271846303085117 * k);
    return w;
  }();
  return window.data();
}

int32_t bcf(double* meanSquare, double* minimum, int32_t shortest, int32_t longest, const int16_t* samples,
            int32_t channels, int32_t position, const double* window) {
  // Copy the stretch the search reads into a zero-margined line.
  const int32_t first = position - 128 - longest;
  const int32_t count = kAnalysisWindow + 2 * longest + 1;
  std::vector<double> line(static_cast<size_t>(count));
  const int32_t stride = std::max(channels, 1);
  for (int32_t i = 0; i < count; ++i) {
    const long long index = static_cast<long long>(first) + i;
    line[static_cast<size_t>(i)] = index < 0 ? 0.0 : samples[index * stride];
  }
  const Search s = differenceSearch(line.data() + longest, 0, shortest, longest, window);
  if (meanSquare != nullptr) *meanSquare = s.meanSquare;
  if (minimum != nullptr) *minimum = s.minimum;
  return s.period;
}

double* bcfGetFrequencyList(double** amplitudes, double* average, int32_t frames, int32_t n, int32_t sampleRate,
                            int32_t channels, const int16_t* samples, const char* flags) {
  if (amplitudes != nullptr) *amplitudes = nullptr;
  if (n < 0 || samples == nullptr || sampleRate <= 0 || channels < 1) return nullptr;
  const size_t size = static_cast<size_t>(n) + 2;
  double* freq = static_cast<double*>(calloc(size, sizeof(double)));
  double* amp = static_cast<double*>(calloc(size, sizeof(double)));
  if (freq == nullptr || amp == nullptr) {
    free(freq);
    free(amp);
    return nullptr;
  }
  const SampleLine line(samples, frames, channels);
  const double* x = line.origin();
  const double* w = analysisWindow();

  // First pass, with the weighted average.
  double weighted = 0.0, weights = 0.0;
  for (int32_t i = 0; i <= n; ++i) {
    const int32_t p = kAnalysisStep * i;
    amp[i] = frameAmplitude(x, p, w);
    const double f = firstPassFrequency(x, p, sampleRate, w);
    freq[i] = f;
    if (f <= 0.0) continue;
    double weight = amp[i] * amp[i] / 32768.0;
    for (int k = 1; k <= 6; ++k) {
      weight *= i - k >= 0 ? f / ((freq[i - k] - f) * (freq[i - k] - f) + f) : 1.0 / (1.0 + f);
    }
    weighted += weight * f;
    weights += weight;
  }
  if (weighted == 0.0) {
    free(freq);
    free(amp);
    return nullptr;
  }
  const double avg = weighted / weights;

  // Repair pass.
  const bool octaveCheck = flags == nullptr || strchr(flags, 'I') == nullptr;
  const double averagePeriod = sampleRate / avg;
  int32_t lastPosition = kAnalysisStep * n, lastFrame = n;  // before any onset or octave step
  for (int32_t i = 0; i < n; ++i) {
    if (freq[i] == 0.0 && freq[i + 1] > 0.0) {
      // Onset: fill unvoiced frames backwards from the pitch after them.
      for (int32_t j = i; j >= 0 && freq[j] == 0.0; --j) {
        const double period = sampleRate / freq[j + 1];
        lastPosition = kAnalysisStep * j;
        lastFrame = j;
        const Search s = aroundPeriod(x, lastPosition, period, w);
        if (!(s.clarity() >= 0.15 && strictlyInside(s, period))) break;
        freq[j] = static_cast<double>(sampleRate) / s.period;
      }
    } else if (i > 0 && freq[i] == 0.0 && freq[i - 1] > 0.0) {
      // Offset: searched at, and written to, the frame of the latest onset
      // or octave step.
      const double period = sampleRate / freq[i - 1];
      const Search s = aroundPeriod(x, lastPosition, period, w);
      if (s.clarity() >= 0.15 && strictlyInside(s, period))
        freq[lastFrame] = static_cast<double>(sampleRate) / s.period;
    } else if (octaveCheck && freq[i] > 0.0 && std::fabs(std::log(freq[i] / avg)) > 0.223143551) {
      lastPosition = kAnalysisStep * i;
      lastFrame = i;
      const Search s = aroundPeriod(x, lastPosition, averagePeriod, w);
      if (s.clarity() >= 0.75 && strictlyInside(s, averagePeriod)) {
        freq[i] = static_cast<double>(sampleRate) / s.period;
      } else {
        const Search own = aroundPeriod(x, lastPosition, sampleRate / freq[i], w);
        if (own.clarity() < 0.75) freq[i] = 0.0;
      }
    }
  }

  collectFrequency(freq, samples, frames, channels, n, sampleRate);
  freq[n + 1] = freq[n];
  amp[n + 1] = amp[n];
  if (average != nullptr) *average = avg;
  if (amplitudes != nullptr) {
    *amplitudes = amp;
  } else {
    free(amp);
  }
  return freq;
}

// --- Refinement ----------------------------------------------------------------------

void calcSplineParam(const double* values, int32_t count, double* b, double* c, double* d, int32_t) {
  if (count < 2) {
    for (int32_t k = 0; k < count; ++k) b[k] = c[k] = d[k] = 0.0;
    return;
  }
  // Natural spline (second derivative 0 at both ends), Thomas algorithm on
  // the second derivatives m: m[k-1] + 4 m[k] + m[k+1] = 6 (y[k+1] - 2 y[k] + y[k-1]).
  // The matrix is the same for every call: its elimination factors
  // 1 / (4 - factor[k-1]) come from a table.
  static const std::vector<double> factors = [] {
    std::vector<double> g(4096, 0.0);
    for (size_t k = 1; k < g.size(); ++k) g[k] = 1.0 / (4.0 - g[k - 1]);
    return g;
  }();
  std::vector<double> computed;
  const double* gamma = factors.data();
  if (static_cast<size_t>(count) > factors.size()) {
    computed.assign(static_cast<size_t>(count), 0.0);
    for (int32_t k = 1; k < count; ++k)
      computed[static_cast<size_t>(k)] = 1.0 / (4.0 - computed[static_cast<size_t>(k - 1)]);
    gamma = computed.data();
  }
  std::vector<double> m(static_cast<size_t>(count), 0.0);
  for (int32_t k = 1; k < count - 1; ++k) {
    const double rhs = 6.0 * (values[k + 1] - 2.0 * values[k] + values[k - 1]);
    m[static_cast<size_t>(k)] = (rhs - m[static_cast<size_t>(k - 1)]) * gamma[k];
  }
  for (int32_t k = count - 3; k >= 1; --k) m[static_cast<size_t>(k)] -= gamma[k] * m[static_cast<size_t>(k + 1)];
  for (int32_t k = 0; k < count - 1; ++k) {
    const double m0 = m[static_cast<size_t>(k)], m1 = m[static_cast<size_t>(k + 1)];
    b[k] = values[k + 1] - values[k] - (2.0 * m0 + m1) / 6.0;
    c[k] = m0 / 2.0;
    d[k] = (m1 - m0) / 6.0;
  }
  b[count - 1] = b[count - 2] + 2.0 * c[count - 2] + 3.0 * d[count - 2];
  c[count - 1] = d[count - 1] = 0.0;
}

void calcSplineFloat(const float* values, int32_t count, float* b, float* c, float* d, int32_t flag) {
  std::vector<double> v(values, values + std::max(count, 0)), bd(v.size()), cd(v.size()), dd(v.size());
  calcSplineParam(v.data(), count, bd.data(), cd.data(), dd.data(), flag);
  for (int32_t k = 0; k < count; ++k) {
    b[k] = static_cast<float>(bd[static_cast<size_t>(k)]);
    c[k] = static_cast<float>(cd[static_cast<size_t>(k)]);
    d[k] = static_cast<float>(dd[static_cast<size_t>(k)]);
  }
}

namespace {

constexpr int32_t kRefineLength = 2048;
constexpr int32_t kCandidates = 257;

// The refinement's work arrays, made once per call.
struct RefineWork {
  std::vector<double> y = std::vector<double>(kRefineLength);
  std::vector<double> b = std::vector<double>(kRefineLength);
  std::vector<double> c = std::vector<double>(kRefineLength);
  std::vector<double> d = std::vector<double>(kRefineLength);
  std::vector<double> score = std::vector<double>(kCandidates);
  std::vector<bool> known = std::vector<bool>(kCandidates);
};

// Spline values at start, start + 1, ... (count of them), start >= 0.
void splineStretch(const RefineWork& work, double start, int32_t count, double* out) {
  const int32_t k0 = static_cast<int32_t>(std::floor(start));
  const double t = start - k0;
  const double* y = work.y.data() + k0;
  const double* b = work.b.data() + k0;
  const double* c = work.c.data() + k0;
  const double* d = work.d.data() + k0;
  for (int32_t n = 0; n < count; ++n) out[n] = ((d[n] * t + c[n]) * t + b[n]) * t + y[n];
}

double periodScore(const RefineWork& work, double period) {
  double a[kAnalysisWindow], b[kAnalysisWindow];
  const double start = (kRefineLength - period) / 2.0 - 256.0;
  splineStretch(work, start, kAnalysisWindow, a);
  splineStretch(work, start + period, kAnalysisWindow, b);
  double product = 0.0, difference = 0.0;
  for (int n = 0; n < kAnalysisWindow; ++n) {
    product += a[n] * b[n];
    difference += std::fabs(a[n] - b[n]);
  }
  return (product / 1024.0) / (difference + 0.01);
}

}  // namespace

double* collectFrequency(double* frequencies, const int16_t* samples, int32_t frames, int32_t channels, int32_t n,
                         int32_t sampleRate) {
  if (frequencies == nullptr || samples == nullptr || channels < 1) return frequencies;
  RefineWork work;
  const SampleLine line(samples, frames, channels);
  const double* x = line.origin();
  for (int32_t i = 0; i <= n; ++i) {
    const double f = frequencies[i];
    if (!(f > 55.0)) continue;
    const double period = sampleRate / f;
    const double low = period * 0.97153194115361;
    const double high = period * 1.02930223664349;
    const double step = (high - low) / 256.0;
    // Both stretches must lie on the spline: a period this long only comes
    // from sample rates far above 44.1 kHz.
    if ((kRefineLength - high) / 2.0 - 256.0 < 0.0 ||
        (kRefineLength + high) / 2.0 - 256.0 + kAnalysisWindow + 1 > kRefineLength) {
      continue;
    }
    const int32_t first = kAnalysisStep * i - 896;
    if (first < -SampleLine::kBefore || first + kRefineLength > frames + SampleLine::kAfter) continue;
    std::copy(x + first, x + first + kRefineLength, work.y.begin());
    calcSplineParam(work.y.data(), kRefineLength, work.b.data(), work.c.data(), work.d.data(), 0);
    std::fill(work.known.begin(), work.known.end(), false);
    // Scores are computed as the walks reach them.
    auto score = [&](int32_t k) {
      if (!work.known[static_cast<size_t>(k)]) {
        work.score[static_cast<size_t>(k)] = periodScore(work, low + k * step);
        work.known[static_cast<size_t>(k)] = true;
      }
      return work.score[static_cast<size_t>(k)];
    };
    // Climb upward from the middle while the score does not fall.
    double running = -32768.0;
    int32_t k = 128;
    while (k < kCandidates && score(k) >= running) running = score(k++);
    const bool peakAbove = k < kCandidates;  // U exists
    double v = peakAbove ? running : score(kCandidates - 1);
    // Then walk downward from the middle while it does not fall below v.
    k = 128;
    while (k >= 0 && score(k) >= v) v = score(k--);
    int32_t result;
    if (k >= 0) {
      if (k == 128 && !peakAbove) {
        frequencies[i] = 0.0;
        continue;
      }
      result = k;
    } else {
      if (!peakAbove) {
        frequencies[i] = 0.0;
        continue;
      }
      result = -1;
    }
    frequencies[i] = sampleRate / (low + result * step);
  }
  return frequencies;
}

// --- Batch -------------------------------------------------------------------------

int32_t generateAnlyzeFiles(const char* samplePath, int32_t options) {
  if (samplePath == nullptr || samplePath[0] == '\0') return 0;
  const std::string path = samplePath;
  auto endsWith = [&](const char* tail) {
    const size_t n = strlen(tail);
    return path.size() >= n && path.compare(path.size() - n, n, tail) == 0;
  };
  constexpr int32_t kMargin = 512;
  WaveFormat format;
  memset(&format, 0, sizeof format);
  int32_t dataBytes = 0;
  int16_t* samples = nullptr;
  const bool aiff = endsWith(".aiff") || endsWith(".aif");
  if (aiff) {
    samples = loadAiffFile(samplePath, &format, kMargin, &dataBytes);
  } else if (endsWith(".wav")) {
    samples = loadWaveFile(samplePath, &format, kMargin, &dataBytes);
  } else {
    return 0;
  }
  if (samples == nullptr) return 0;
  // The samples are analysed as the loader gives them, whatever depth the
  // file states: only a failed load fails.
  if (format.blockAlign == 0 || format.channels < 1 || format.sampleRate == 0) {
    free(samples);
    return 0;
  }
  // Never more frames than the words loaded hold.
  const int32_t frames = std::min<int32_t>(dataBytes / format.blockAlign, dataBytes / 2 / format.channels);
  double* amplitudes = nullptr;
  double average = 0.0;
  double* frequencies =
      initFrequenciesList(&amplitudes, &average, samplePath, (options & 1) ? "G" : "-", samples, frames,
                          static_cast<int32_t>(format.sampleRate), format.channels, 2048, kAnalysisStep);
  // Bit 1: the spectrum file too, computed afresh.
  if ((options & 2) != 0 && frequencies != nullptr) {
    SpectrumTable spectrum;
    if (computeSpectrum(samples, frames, format.channels, static_cast<int32_t>(format.sampleRate), frequencies,
                        frames / kAnalysisStep + 1, average, &spectrum)) {
      writeSpectrumFile(spectrumFilePath(samplePath).c_str(), spectrum);
    }
  }
  free(frequencies);
  free(amplitudes);
  free(samples);
  return 1;
}
