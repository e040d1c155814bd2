// BackingTrack: an accompaniment heard under the voice.
//
// The file (WAV, FLAC, OGG or anything else libsndfile reads) is read
// whole, mixed down to mono and brought to 44100 Hz once, at load (SoX's
// resampler, at its high quality); it is then laid into a render's mix
// before the notes (the engine's underlay) at its offset and volume, so it
// plays in step with the voice from any position and can be mixed into a
// rendered file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class BackingTrack {
 public:
  static constexpr double kMaxMinutes = 60.0;  // longer files are refused
  static constexpr int32_t kSummaryBlock = 256;  // samples per min/max pair

  // Reads `path`. False with *error ("cannot read F: why", "F is longer
  // than 60 minutes", ...) and the track left as it was.
  bool load(const std::string& path, std::string* error);
  void clear();
  bool empty() const { return samples_.empty(); }
  const std::string& path() const { return path_; }
  // Mono, 44100 Hz, full scale 1.0.
  const std::vector<float>& samples() const { return samples_; }
  double lengthMs() const { return samples_.size() / 44.1; }
  // The source file's own rate and channels.
  int32_t sourceRate() const { return sourceRate_; }
  int32_t sourceChannels() const { return sourceChannels_; }

  // Where the track's first sample plays (song msec; negative: the track
  // is already under way when the song starts), its volume in percent
  // (0-200) and whether it is muted.
  double offsetMs = 0.0;
  int32_t volume = 100;
  bool muted = false;

  // The engine's underlay: the track's samples that fall within the mix,
  // added in at the volume and clipped to 16 bits; nothing when muted.
  // `context` is the BackingTrack.
  static void lay(void* context, int16_t* mix, int32_t samples, double songMs);

  // The lowest and highest sample in [from, to) (sample indices, clamped
  // to the track), from the per-block summary where the span is long:
  // what a waveform lane draws for one column. (0, 0) for an empty span.
  void range(int64_t from, int64_t to, float* low, float* high) const;

 private:
  std::string path_;
  std::vector<float> samples_;
  std::vector<float> lows_, highs_;  // per kSummaryBlock samples
  int32_t sourceRate_ = 0, sourceChannels_ = 0;
};
