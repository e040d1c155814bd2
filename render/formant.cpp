#include "render/formant.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

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
// No bin is raised or lowered by more than 40 dB: spectral nulls of the
// output must not turn into noise.
constexpr double kMaxLogGain = 40.0 / 20.0 * 2.302585092994046;

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

void CorrectFormant(const FormantStage& stage, double* y, double* aperiodic, int32_t n) {
  if (stage.input == nullptr || stage.input->frames <= 0 || n <= 0 || y == nullptr) return;
  const double strength = std::max(0.0, stage.fce * (1.0 - std::clamp(stage.keep, 0.0, 1.0)));
  if (strength == 0.0 && stage.equalizer == nullptr) return;  // nothing would change
  // Without an equalizer the aperiodic buffer's gains are all 1.
  if (stage.equalizer == nullptr) aperiodic = nullptr;
  const Tables& tables = formantTables();
  const std::vector<double>& cosTable = tables.cosTable;
  const std::vector<double>& sinTable = tables.sinTable;
  const std::vector<double>& window = tables.window;
  std::vector<double> x(kSize), re(kSize + 2), im(kSize + 2), gain(kHalf + 1), equalized(kHalf + 1);
  std::vector<double> row(kSpectrumBins);
  std::vector<double> outY(static_cast<size_t>(n), 0.0), outA(static_cast<size_t>(n), 0.0);
  const double binHz = static_cast<double>(stage.rateOut) / kSize;

  // Transforms one buffer's frame, applies the gains, and adds the result
  // back windowed; sine windows at a hop of a quarter sum to 2.
  auto apply = [&](const double* in, int64_t from, const std::vector<double>& gains, std::vector<double>& out) {
    for (int32_t k = 0; k < kSize; ++k) {
      const int64_t at = from + k;
      x[static_cast<size_t>(k)] = at >= 0 && at < n ? in[at] * window[static_cast<size_t>(k)] : 0.0;
    }
    fftRealForward(x.data(), kSize, re.data(), im.data(), cosTable.data(), sinTable.data());
    for (int32_t k = 0; k <= kHalf; ++k) {
      re[static_cast<size_t>(k)] *= gains[static_cast<size_t>(k)];
      im[static_cast<size_t>(k)] *= gains[static_cast<size_t>(k)];
    }
    fftRealInverse(re.data(), im.data(), kSize, x.data(), cosTable.data(), sinTable.data());
    for (int32_t k = 0; k < kSize; ++k) {
      const int64_t at = from + k;
      if (at >= 0 && at < n) {
        out[static_cast<size_t>(at)] += x[static_cast<size_t>(k)] * window[static_cast<size_t>(k)] * 0.5;
      }
    }
  };

  for (int64_t from = -(kSize - kHop); from < n; from += kHop) {
    const double centre = static_cast<double>(from) + kHalf;
    const double inputFrame = sampleAt(stage.inputPositions, centre) / kSpectrumFrameStep;
    const double scale = std::max(sampleAt(stage.readScale, centre), 1e-3);
    const size_t at = static_cast<size_t>(std::clamp<double>(centre, 0.0, n - 1));
    double gen = stage.gen;
    if (stage.genCurve != nullptr && at < stage.genCurve->size()) gen *= (*stage.genCurve)[at];
    double eqPower = 1.0;
    if (stage.equalizerStrength != nullptr && at < stage.equalizerStrength->size()) {
      eqPower = (*stage.equalizerStrength)[at];
    }
    // The input's envelope at this frame, once; then read along it.
    stage.input->row(inputFrame, row.data());
    const double perBin = binHz / (stage.input->rate / 512.0);  // input bins per output bin
    auto envelopeAt = [&](double inputBin) {
      const double b = std::clamp(inputBin, 0.0, static_cast<double>(kSpectrumBins - 1));
      const int32_t b0 = std::min(static_cast<int32_t>(b), kSpectrumBins - 2);
      return row[static_cast<size_t>(b0)] + (row[static_cast<size_t>(b0 + 1)] - row[static_cast<size_t>(b0)]) * (b - b0);
    };
    for (int32_t k = 0; k <= kHalf; ++k) {
      double logGain = 0.0;
      if (k >= stage.lowBin && strength > 0.0) {
        const double target = envelopeAt(k * perBin / gen);
        const double own = envelopeAt(k * perBin / scale);
        // A short ramp over the first bins above the low band.
        const double ramp = std::min(1.0, (k - stage.lowBin + 1) / 4.0);
        logGain = std::clamp(strength * ramp * (target - own), -kMaxLogGain, kMaxLogGain);
      }
      const double eq = stage.equalizer != nullptr ? std::pow(stage.equalizer[std::min(k, 511)], eqPower) : 1.0;
      gain[static_cast<size_t>(k)] = std::exp(logGain) * eq;
      equalized[static_cast<size_t>(k)] = eq;
    }
    apply(y, from, gain, outY);
    if (aperiodic != nullptr) apply(aperiodic, from, equalized, outA);
  }
  std::copy(outY.begin(), outY.end(), y);
  if (aperiodic != nullptr) std::copy(outA.begin(), outA.end(), aperiodic);
}
