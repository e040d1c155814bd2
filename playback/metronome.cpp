#include "playback/metronome.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kRate = 44100.0;

// A decaying sine: a 0.5 ms rise, then a fall of 6 ms per 1/e.
std::vector<int16_t> click(double hz, double peak) {
  std::vector<int16_t> out(static_cast<size_t>(Metronome::kClickMs * kRate / 1000.0));
  for (size_t k = 0; k < out.size(); ++k) {
    const double t = static_cast<double>(k) / kRate;
    const double level = std::min(1.0, t / 0.0005) * std::exp(-t / 0.006);
    out[k] = static_cast<int16_t>(std::lround(peak * level * std::sin(2.0 * M_PI * hz * t)));
  }
  return out;
}

}  // namespace

Metronome::Metronome() : beat_(click(1320.0, 9000.0)), accent_(click(1760.0, 12000.0)) {}

void Metronome::lay(void* context, int16_t* mix, int32_t samples, double songMs) {
  const Metronome& self = *static_cast<const Metronome*>(context);
  const double endMs = songMs + samples * 1000.0 / kRate;
  // The first click that still sounds at the mix's start.
  auto it = std::lower_bound(self.clicks_.begin(), self.clicks_.end(), songMs - kClickMs,
                             [](const Click& c, double ms) { return c.ms < ms; });
  for (; it != self.clicks_.end() && it->ms < endMs; ++it) {
    const std::vector<int16_t>& sound = it->accent ? self.accent_ : self.beat_;
    const int64_t start = std::llround((it->ms - songMs) * kRate / 1000.0);
    for (size_t k = 0; k < sound.size(); ++k) {
      const int64_t at = start + static_cast<int64_t>(k);
      if (at < 0) continue;
      if (at >= samples) break;
      mix[at] = static_cast<int16_t>(std::clamp(mix[at] + sound[k], -32767, 32767));
    }
  }
}
