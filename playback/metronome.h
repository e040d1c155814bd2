// The metronome: a click on every beat, heard in playback only.
//
// The clicks are laid into the render's mix before the notes (the
// engine's underlay), so they play in step with the voice from any play
// position and the notes are added on top. A measure's first beat is
// higher and louder.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

class Metronome {
 public:
  struct Click {
    double ms;  // song time
    bool accent;
  };
  static constexpr double kClickMs = 30.0;

  Metronome();
  // The clicks to lay, in time order.
  void setClicks(std::vector<Click> clicks) { clicks_ = std::move(clicks); }
  const std::vector<Click>& clicks() const { return clicks_; }

  // The engine's underlay: the clicks that sound within the mix, added in
  // (clipped to 16 bits). `context` is the Metronome.
  static void lay(void* context, int16_t* mix, int32_t samples, double songMs);

 private:
  std::vector<Click> clicks_;
  std::vector<int16_t> beat_, accent_;  // one click's samples each
};
