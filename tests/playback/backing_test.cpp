// The backing track: files read and brought to 44100 Hz mono, laid under
// a mix at its offset and volume, and its waveform's ranges.
#include "playback/backing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "render/wavefile.h"
#include "tests/render/vowel_note.h"
#include "tests/testutil.h"

namespace {

// A sine of `hz` in `channels` channels (the same in each, but for the
// second's sign, which mixing down cancels when `opposite`).
std::string writeSine(const TempDir& dir, const std::string& name, double hz, int32_t rate, int32_t channels,
                      double seconds, bool opposite = false) {
  const int32_t frames = static_cast<int32_t>(seconds * rate);
  std::vector<int16_t> words(static_cast<size_t>(frames * channels));
  for (int32_t f = 0; f < frames; ++f) {
    const auto value = static_cast<int16_t>(std::lround(16000.0 * std::sin(2.0 * M_PI * hz * f / rate)));
    for (int32_t c = 0; c < channels; ++c) words[static_cast<size_t>(f * channels + c)] = c == 1 && opposite ? -value : value;
  }
  const std::string path = dir.file(name);
  saveWaveFile(path.c_str(), words.data(), static_cast<int32_t>(words.size() * 2), 16, channels, rate);
  return path;
}

}  // namespace

TEST(Backing, FilesAreReadMixedDownAndBroughtTo44100) {
  TempDir dir;
  BackingTrack track;
  std::string error;
  // At 44100 Hz mono the samples are the file's own.
  ASSERT_TRUE(track.load(writeSine(dir, "mono.wav", 441.0, 44100, 1, 1.0), &error)) << error;
  ASSERT_EQ(track.samples().size(), 44100u);
  EXPECT_NEAR(track.samples()[25], 16000.0 * std::sin(2.0 * M_PI * 441.0 * 25 / 44100) / 32768.0, 1e-6);
  EXPECT_EQ(track.sourceRate(), 44100);
  // Stereo at 48 kHz: as long in time, at the same pitch.
  ASSERT_TRUE(track.load(writeSine(dir, "stereo.wav", 440.0, 48000, 2, 2.0), &error)) << error;
  EXPECT_NEAR(static_cast<double>(track.samples().size()), 88200.0, 2.0);
  EXPECT_NEAR(track.lengthMs(), 2000.0, 0.1);
  EXPECT_EQ(track.sourceChannels(), 2);
  std::vector<int16_t> words(track.samples().size());
  for (size_t k = 0; k < words.size(); ++k) words[k] = static_cast<int16_t>(std::lround(track.samples()[k] * 32767.0));
  EXPECT_NEAR(averagePitch(words), 440.0, 2.0);
  // Channels are averaged: opposite ones cancel.
  ASSERT_TRUE(track.load(writeSine(dir, "opposite.wav", 440.0, 44100, 2, 0.5, true), &error)) << error;
  EXPECT_EQ(*std::max_element(track.samples().begin(), track.samples().end()), 0.0f);
  // What cannot be read leaves the track as it was.
  const std::string before = track.path();
  writeFile(dir.file("text.wav"), "not audio at all");
  EXPECT_FALSE(track.load(dir.file("text.wav"), &error));
  EXPECT_EQ(error.rfind("cannot read " + dir.file("text.wav") + ": ", 0), 0u) << error;
  EXPECT_FALSE(track.load(dir.file("missing.flac"), &error));
  EXPECT_FALSE(track.load(writeSine(dir, "empty.wav", 440.0, 44100, 1, 0.0), &error));  // a header alone
  EXPECT_EQ(error, dir.file("empty.wav") + " holds no audio");
  EXPECT_EQ(track.path(), before);
  EXPECT_EQ(track.samples().size(), 22050u);
  track.clear();
  EXPECT_TRUE(track.empty());
}

TEST(Backing, LaidAtItsOffsetAndVolumeAndNotWhenMuted) {
  TempDir dir;
  BackingTrack track;
  std::string error;
  ASSERT_TRUE(track.load(writeSine(dir, "t.wav", 441.0, 44100, 1, 0.1), &error)) << error;  // 4410 samples
  auto laid = [&](double songMs, int32_t samples) {
    std::vector<int16_t> mix(static_cast<size_t>(samples), 100);
    BackingTrack::lay(&track, mix.data(), samples, songMs);
    return mix;
  };
  const auto value = [&](size_t k, double gain) {
    return static_cast<int16_t>(std::lround(100.0 + track.samples()[k] * gain * 32767.0));
  };
  // Offset 10 ms, the mix from song time 0: the track starts at sample 441.
  track.offsetMs = 10.0;
  std::vector<int16_t> mix = laid(0.0, 10000);
  EXPECT_EQ(mix[440], 100);
  EXPECT_EQ(mix[441 + 30], value(30, 1.0));
  EXPECT_EQ(mix[441 + 4409], value(4409, 1.0));
  EXPECT_EQ(mix[441 + 4410], 100);
  // A mix from 50 ms, and a track already under way (offset -20 ms).
  mix = laid(50.0, 1000);
  EXPECT_EQ(mix[0], value(50 * 441 / 10 - 441, 1.0));
  track.offsetMs = -20.0;
  mix = laid(0.0, 5000);
  EXPECT_EQ(mix[0], value(882, 1.0));
  EXPECT_EQ(mix[4410 - 882], 100);
  // Half volume; loud enough to clip at 200 %; muted.
  track.volume = 50;
  EXPECT_EQ(laid(-20.0, 100)[30], value(30, 0.5));
  track.volume = 200;
  std::vector<int16_t> loud(4410, 30000);
  BackingTrack::lay(&track, loud.data(), 4410, -20.0);
  EXPECT_EQ(loud[25], 32767);  // the sine's crest
  track.muted = true;
  EXPECT_EQ(laid(-20.0, 100), std::vector<int16_t>(100, 100));
}

TEST(Backing, RangesAreTheSamplesLowestAndHighest) {
  TempDir dir;
  BackingTrack track;
  std::string error;
  // Noise, so that every span has its own extremes.
  std::mt19937 random(7);
  std::vector<int16_t> words(20000);
  for (int16_t& w : words) w = static_cast<int16_t>(static_cast<int32_t>(random() % 60001) - 30000);
  saveWaveFile(dir.file("noise.wav").c_str(), words.data(), 40000, 16, 1, 44100);
  ASSERT_TRUE(track.load(dir.file("noise.wav"), &error)) << error;
  const std::vector<float>& s = track.samples();
  for (int trial = 0; trial < 2000; ++trial) {
    int64_t from = static_cast<int64_t>(random() % 20600) - 300, to = from + static_cast<int64_t>(random() % 3000);
    float low = 0, high = 0;
    track.range(from, to, &low, &high);
    const int64_t a = std::clamp<int64_t>(from, 0, 20000), b = std::clamp<int64_t>(to, 0, 20000);
    if (a >= b) {
      EXPECT_EQ(low, 0.0f);
      EXPECT_EQ(high, 0.0f);
      continue;
    }
    const auto [lo, hi] = std::minmax_element(s.begin() + a, s.begin() + b);
    ASSERT_EQ(low, *lo) << from << " " << to;
    ASSERT_EQ(high, *hi) << from << " " << to;
  }
}
