#include "render/formant.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "voicebank/pitch.h"

namespace {

constexpr int32_t kSize = kSpectrumFftSize;  // 1024
constexpr int32_t kHalf = kSize / 2;
// Frames every quarter frame: the gains' impulse responses are long
// where a big shift moves steep slopes, and four overlapping frames keep
// their time aliasing down (half-frame steps cost 2 dB of envelope
// distance at -7 semitones).
constexpr int32_t kHop = 256;
constexpr double kRecordStep = 256.0;  // output samples between the resampler's records
// Limits of the gains (natural log). A bin is raised by 50 dB at most:
// what a weak region of the output holds besides the voice (leakage of the
// reads) must not turn into noise, and 50 dB is what g50 needs at the top
// of the band (at 40 its resonances fell 7 % short of the factor). It is
// lowered by 40 dB at most: measured at +12 semitones, cuts of up to 60 dB
// took the output's envelope 1.6 dB further from the voice sung there.
constexpr double kMaxLogBoost = 50.0 / 20.0 * 2.302585092994046;
constexpr double kMaxLogCut = 40.0 / 20.0 * 2.302585092994046;

// A record of the resampler (one per 256 output samples) at output sample i.
double sampleAt(const std::vector<double>& perHop, double i) {
  if (perHop.empty()) return 0.0;
  const double at = std::clamp(i / kRecordStep, 0.0, static_cast<double>(perHop.size() - 1));
  const size_t k = static_cast<size_t>(at);
  if (k + 1 >= perHop.size()) return perHop.back();
  return perHop[k] + (perHop[k + 1] - perHop[k]) * (at - static_cast<double>(k));
}

// The transform's tables and the sine window, made once.
struct Tables {
  std::vector<double> cosTable = std::vector<double>(kSize), sinTable = std::vector<double>(kSize);
  std::vector<double> window = std::vector<double>(kSize);
  Tables() {
    calc_cossin(kSize, cosTable.data(), sinTable.data());
    for (int32_t k = 0; k < kSize; ++k) window[static_cast<size_t>(k)] = std::sin(M_PI * (k + 0.5) / kSize);
  }
};

const Tables& formantTables() {
  static const Tables tables;
  return tables;
}

}  // namespace

bool parseEqualizer(const char* text, double* gains512) {
  if (text == nullptr) return false;
  size_t length = 0;
  while (text[length] != '\0' && length < 512) ++length;
  if (length < 512) return false;
  auto hex = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 0;
  };
  for (int k = 0; k < 256; ++k) {
    const int v = hex(text[2 * k]) * 16 + hex(text[2 * k + 1]);
    const double gain = std::pow(10.0, (v - 128) / 100.0);
    gains512[k] = gain;
    gains512[511 - k] = gain;
  }
  return true;
}

namespace {

// e^x, for the gains, without a library call: x = (64 k + j) ln 2 / 64 + r
// with |r| <= ln 2 / 128, e^x = 2^k x 2^(j / 64) x e^r, the middle factor
// from a table and e^r by its series to r^4 (relative error under 10^-13).
class GainExp {
 public:
  GainExp() {
    for (int j = 0; j < 64; ++j) table_[j] = std::exp2(j / 64.0);
  }
  double operator()(double x) const {
    constexpr double kPerLn2 = 64.0 / 0.6931471805599453;
    constexpr double kLn2Hi = 0.6931471803691238 / 64.0, kLn2Lo = 1.9082149292705877e-10 / 64.0;
    constexpr double kRound = 6755399441055744.0;  // 1.5 x 2^52: adding it rounds to a whole number
    x = std::min(std::max(x, -700.0), 700.0);
    const double shifted = x * kPerLn2 + kRound;
    int64_t bits;
    memcpy(&bits, &shifted, sizeof bits);
    const int32_t m = static_cast<int32_t>(bits);  // the low word holds the rounded value
    const double md = shifted - kRound;
    const double r = (x - md * kLn2Hi) - md * kLn2Lo;
    const double series = 1.0 + r * (1.0 + r * (0.5 + r * (1.0 / 6.0 + r * (1.0 / 24.0))));
    const uint64_t power = static_cast<uint64_t>((m >> 6) + 1023) << 52;
    double scale;
    memcpy(&scale, &power, sizeof scale);
    return table_[m & 63] * series * scale;
  }

 private:
  double table_[64];
};

const GainExp& gainExp() {
  static const GainExp exp;
  return exp;
}

// Overlap-add in place: the frames' outputs are summed in `pending`, which
// covers the current frame; once a frame is added, its first hop of
// samples is complete (no later frame reaches back there) and is written
// over the input, which no later frame reads.
class InPlaceOverlap {
 public:
  InPlaceOverlap() : pending_(kSize, 0.0) {}
  double* frame() { return pending_.data(); }
  // Writes the complete hop of the frame starting at `from` to out, and
  // moves on by a hop.
  void advance(int64_t from, double* out, int32_t n) {
    for (int32_t k = 0; k < kHop; ++k) {
      const int64_t at = from + k;
      if (at >= 0 && at < n) out[at] = pending_[static_cast<size_t>(k)];
    }
    std::copy(pending_.begin() + kHop, pending_.end(), pending_.begin());
    std::fill(pending_.end() - kHop, pending_.end(), 0.0);
  }

 private:
  std::vector<double> pending_;
};

}  // namespace

void CorrectFormant(const FormantStage& stage, double* y, double* aperiodic, int32_t n) {
  if (stage.input == nullptr || stage.input->frames <= 0 || n <= 0 || y == nullptr) return;
  const double strength = std::max(0.0, stage.fce * (1.0 - std::clamp(stage.keep, 0.0, 1.0)));
  if (strength == 0.0 && stage.equalizer == nullptr) return;  // nothing would change
  // Without an equalizer the aperiodic buffer's gains are all 1.
  if (stage.equalizer == nullptr) aperiodic = nullptr;
  const Tables& tables = formantTables();
  const GainExp& exp = gainExp();
  const double* cosTable = tables.cosTable.data();
  const double* sinTable = tables.sinTable.data();
  const double* window = tables.window.data();
  std::vector<double> x(kSize), re(kSize + 2), im(kSize + 2), gain(kHalf + 1), equalized(kHalf + 1);
  std::vector<double> row(kSpectrumBins), pairs(2 * kSpectrumBins), logEqualizer(kHalf + 1, 0.0);
  if (stage.equalizer != nullptr) {
    for (int32_t k = 0; k <= kHalf; ++k)
      logEqualizer[static_cast<size_t>(k)] = std::log(stage.equalizer[std::min(k, 511)]);
  }
  InPlaceOverlap outY, outA;
  const double binHz = static_cast<double>(stage.rateOut) / kSize;
  const double perBin = binHz / (stage.input->rate / 512.0);  // input bins per output bin
  const int32_t lowBin = std::clamp(stage.lowBin, 0, kHalf + 1);

  // Transforms one buffer's frame, applies the gains, and adds the result
  // into the pending output windowed; sine windows at a hop of a quarter
  // sum to 2.
  auto apply = [&](const double* in, int64_t from, const double* gains, double* pending) {
    if (from >= 0 && from + kSize <= n) {
      for (int32_t k = 0; k < kSize; ++k) x[static_cast<size_t>(k)] = in[from + k] * window[k];
    } else {
      for (int32_t k = 0; k < kSize; ++k) {
        const int64_t at = from + k;
        x[static_cast<size_t>(k)] = at >= 0 && at < n ? in[at] * window[k] : 0.0;
      }
    }
    fftRealForward(x.data(), kSize, re.data(), im.data(), cosTable, sinTable);
    for (int32_t k = 0; k <= kHalf; ++k) {
      re[static_cast<size_t>(k)] *= gains[k];
      im[static_cast<size_t>(k)] *= gains[k];
    }
    fftRealInverse(re.data(), im.data(), kSize, x.data(), cosTable, sinTable);
    for (int32_t k = 0; k < kSize; ++k) pending[k] += x[static_cast<size_t>(k)] * window[k] * 0.5;
  };

  for (int64_t from = -(kSize - kHop); from < n; from += kHop) {
    const double centre = static_cast<double>(from) + kHalf;
    const double inputFrame = sampleAt(stage.inputPositions, centre) / kSpectrumFrameStep;
    double scale = sampleAt(stage.readScale, centre);
    if (!(scale >= 1e-3)) scale = 1e-3;  // also when it is not a number
    const size_t at = static_cast<size_t>(std::clamp<double>(centre, 0.0, n - 1));
    double gen = stage.gen;
    if (stage.genCurve != nullptr && at < stage.genCurve->size()) gen *= (*stage.genCurve)[at];
    double eqPower = 1.0;
    if (stage.equalizerStrength != nullptr && at < stage.equalizerStrength->size()) {
      eqPower = (*stage.equalizerStrength)[at];
    }
    // The log gains: below the low band the equalizer's alone; above it
    // the target envelope (the input's at this frame, read at k / gen)
    // less the output's own (read at k / scale), ramped in over four bins.
    for (int32_t k = 0; k <= kHalf; ++k) {
      gain[static_cast<size_t>(k)] = eqPower * logEqualizer[static_cast<size_t>(k)];
    }
    if (strength > 0.0 && lowBin <= kHalf) {
      stage.input->row(inputFrame, row.data());
      // Each input bin's value and slope side by side, for the reads below.
      for (int32_t b = 0; b + 1 < kSpectrumBins; ++b) {
        pairs[static_cast<size_t>(2 * b)] = row[static_cast<size_t>(b)];
        pairs[static_cast<size_t>(2 * b + 1)] = row[static_cast<size_t>(b + 1)] - row[static_cast<size_t>(b)];
      }
      const double targetStep = perBin / gen, ownStep = perBin / scale;
      static constexpr double kLastBin = kSpectrumBins - 1;
      const double* values = pairs.data();
      auto envelopeAt = [values](double inputBin) {
        const double b = std::min(inputBin, kLastBin);
        const int32_t b0 = std::min(static_cast<int32_t>(b), kSpectrumBins - 2);
        return values[2 * b0] + values[2 * b0 + 1] * (b - b0);
      };
      for (int32_t k = lowBin; k <= kHalf; ++k) {
        const double difference = envelopeAt(k * targetStep) - envelopeAt(k * ownStep);
        const double ramp = k - lowBin < 3 ? (k - lowBin + 1) * 0.25 : 1.0;
        const double logGain = std::min(std::max(strength * ramp * difference, -kMaxLogCut), kMaxLogBoost);
        gain[static_cast<size_t>(k)] += logGain;
      }
    }
    for (int32_t k = 0; k <= kHalf; ++k) gain[static_cast<size_t>(k)] = exp(gain[static_cast<size_t>(k)]);
    apply(y, from, gain.data(), outY.frame());
    if (aperiodic != nullptr) {
      for (int32_t k = 0; k <= kHalf; ++k) {
        equalized[static_cast<size_t>(k)] = exp(eqPower * logEqualizer[static_cast<size_t>(k)]);
      }
      apply(aperiodic, from, equalized.data(), outA.frame());
      outA.advance(from, aperiodic, n);
    }
    outY.advance(from, y, n);
  }
}
