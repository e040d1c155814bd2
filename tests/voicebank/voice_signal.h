// Voice-like test signals with a known fundamental: a glottal pulse train
// through three vowel formants, optionally with vibrato and breath noise,
// between stretches of silence.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <random>
#include <vector>

#include "render/wavefile.h"

// The resonances of the generated /a/: centre and bandwidth in Hz.
constexpr double kVowelFormants[3][2] = {{700.0, 80.0}, {1220.0, 90.0}, {2600.0, 120.0}};

struct VoiceSignal {
  double f0 = 220.0;            // Hz
  double vibratoCents = 0.0;    // depth, either way
  double vibratoRate = 5.5;     // Hz
  double breath = 0.0;          // noise level relative to the voice's peak
  // A natural voice's cycle-to-cycle variation: each glottal cycle's
  // length and peak drawn anew around the contour, as relative standard
  // deviations (about 0.005 and 0.03 in a healthy sung vowel).
  double jitter = 0.0;
  double shimmer = 0.0;
  double seconds = 1.0;         // voiced part
  double silenceBefore = 0.0;   // seconds
  double silenceAfter = 0.0;
  int32_t rate = 44100;
  double peak = 12000.0;

  int32_t voicedStart() const { return static_cast<int32_t>(silenceBefore * rate); }
  int32_t voicedEnd() const { return voicedStart() + static_cast<int32_t>(seconds * rate); }
  int32_t frames() const { return voicedEnd() + static_cast<int32_t>(silenceAfter * rate); }

  // The true fundamental at sample n (0 outside the voiced part).
  double truth(int32_t n) const {
    if (n < voicedStart() || n >= voicedEnd()) return 0.0;
    const double t = static_cast<double>(n - voicedStart()) / rate;
    return f0 * std::pow(2.0, vibratoCents / 1200.0 * std::sin(2.0 * M_PI * vibratoRate * t));
  }

  std::vector<int16_t> render(uint32_t seed = 1) const {
    const int32_t total = frames();
    std::vector<double> source(static_cast<size_t>(total), 0.0);
    // Glottal flow derivative: a Rosenberg pulse, differentiated. With
    // jitter and shimmer each cycle runs at its own rate and height.
    std::mt19937 cycles(seed * 7919u + 1u);
    std::normal_distribution<double> spread(0.0, 1.0);
    auto draw = [&](double amount) { return amount > 0.0 ? 1.0 + amount * std::clamp(spread(cycles), -3.0, 3.0) : 1.0; };
    double cycleRate = draw(jitter), cycleHeight = draw(shimmer);
    double phase = 0.0, previous = 0.0;
    for (int32_t n = voicedStart(); n < voicedEnd(); ++n) {
      phase += truth(n) * cycleRate / rate;
      if (phase >= 1.0) {
        cycleRate = draw(jitter);
        cycleHeight = draw(shimmer);
      }
      phase -= std::floor(phase);
      const double open = 0.6, closing = 0.25;
      double flow = 0.0;
      if (phase < open) {
        flow = 0.5 - 0.5 * std::cos(M_PI * phase / open);
      } else if (phase < open + closing) {
        flow = std::cos(M_PI / 2.0 * (phase - open) / closing);
      }
      flow *= cycleHeight;
      source[static_cast<size_t>(n)] = flow - previous;
      previous = flow;
    }
    std::vector<double> signal = source;
    for (const auto& formant : kVowelFormants) {
      const double r = std::exp(-M_PI * formant[1] / rate);
      const double a1 = 2.0 * r * std::cos(2.0 * M_PI * formant[0] / rate), a2 = -r * r;
      double y1 = 0.0, y2 = 0.0;
      for (double& v : signal) {
        const double y = (1.0 - r) * v + a1 * y1 + a2 * y2;
        y2 = y1;
        y1 = y;
        v = y;
      }
    }
    double maximum = 1e-12;
    for (double v : signal) maximum = std::max(maximum, std::fabs(v));
    std::mt19937 random(seed);
    std::normal_distribution<double> noise(0.0, 1.0);
    std::vector<int16_t> out(static_cast<size_t>(total), 0);
    for (int32_t n = 0; n < total; ++n) {
      // Silence is silent: the formants' ring-down after the voice is cut.
      if (n < voicedStart() || n >= voicedEnd()) continue;
      const double v = signal[static_cast<size_t>(n)] / maximum * peak + breath * peak * 0.3 * noise(random);
      out[static_cast<size_t>(n)] = static_cast<int16_t>(std::lround(std::clamp(v, -32767.0, 32767.0)));
    }
    return out;
  }

  // Renders the voice into a 16-bit mono WAVE file; true when it was written.
  bool writeWave(const std::string& path, uint32_t seed = 1) const {
    const std::vector<int16_t> samples = render(seed);
    return saveWaveFile(path.c_str(), samples.data(), static_cast<int32_t>(samples.size() * 2), 16, 1, rate) == 0;
  }
};
