#include "playback/audioout.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

int starts = 0, stops = 0;
void countStart() { ++starts; }
void countStop() { ++stops; }

// The player without a device, driven by calling the IO procedure as the
// audio thread would.
class Playback : public ::testing::Test {
 protected:
  void SetUp() override {
    starts = stops = 0;
    CAudioOut::renderPos = 0;
    CAudioOut::pauseAtDelay = 0;
    CAudioOut::on_play_start = countStart;
    CAudioOut::on_play_stop = countStop;
  }
  void TearDown() override {
    CAudioOut::on_play_start = nullptr;
    CAudioOut::on_play_stop = nullptr;
  }
  // A block of n samples, sample k holding k, handed over with an odd byte
  // length and playback from sample 2.
  void trigger(uint32_t n) {
    int16_t* block = static_cast<int16_t*>(malloc(n * sizeof(int16_t) + 1));
    for (uint32_t k = 0; k < n; ++k) block[k] = static_cast<int16_t>(k);
    CAudioOut::play_trigger(nullptr, reinterpret_cast<uint8_t*>(block), 4, static_cast<int32_t>(2 * n + 1), 100);
  }
  // One IO cycle of `frames` stereo frames; the left channel back as samples.
  std::vector<int> cycle(int frames) {
    std::vector<float> out(static_cast<size_t>(frames) * 2, 99.0f);
    CAudioOut::ioProc(out.data(), frames, 2);
    std::vector<int> samples;
    for (int f = 0; f < frames; ++f) {
      EXPECT_EQ(out[2 * f], out[2 * f + 1]);
      samples.push_back(static_cast<int>(out[2 * f] * 32768.0f));
    }
    return samples;
  }

  CAudioOut player_{nullptr};
};

}  // namespace

TEST_F(Playback, TriggerPlaysFromTheOffsetAndIgnoresAnOddByte) {
  trigger(4000);
  EXPECT_EQ(CAudioOut::length, 4000u);
  EXPECT_EQ(CAudioOut::offset, 2u);
  EXPECT_EQ(CAudioOut::play_offset, 100 + 1024);
  EXPECT_EQ(CAudioOut::NowPlaying, 1);
  EXPECT_TRUE(player_.running());
  EXPECT_EQ(starts, 1);
  EXPECT_EQ(cycle(4), (std::vector<int>{2, 3, 4, 5}));
  EXPECT_EQ(CAudioOut::PlayingPos, 6u);
  CAudioOut::set_render_pos(nullptr, 0.0);  // no report: never a pause
  EXPECT_EQ(cycle(2), (std::vector<int>{6, 7}));
  EXPECT_FALSE(player_.waiting());
}

TEST_F(Playback, WaitsForTheRenderAndResumesAtTheSameSample) {
  trigger(40000);
  cycle(100);  // at 102
  // 1100 samples rendered (about 24.9 ms): fewer than 1024 ahead.
  CAudioOut::set_render_pos(nullptr, 1100 / 44.1);
  EXPECT_TRUE(player_.waiting());
  EXPECT_EQ(cycle(3), (std::vector<int>{0, 0, 0}));  // silence, standing still
  EXPECT_EQ(CAudioOut::PlayingPos, 102u);
  CAudioOut::set_render_pos(nullptr, 1125 / 44.1);  // 1023 ahead: still waiting
  EXPECT_TRUE(player_.waiting());
  CAudioOut::set_render_pos(nullptr, 1127 / 44.1);  // 1024 ahead
  EXPECT_FALSE(player_.waiting());
  EXPECT_EQ(cycle(2), (std::vector<int>{102, 103}));
  // The IO procedure notices a lag on its own.
  CAudioOut::set_render_pos(nullptr, 2000 / 44.1);
  cycle(3000);
  EXPECT_TRUE(player_.waiting());
  EXPECT_TRUE(player_.running());
  CAudioOut::set_render_pos(nullptr, 0.0);  // the render ended: play on
  EXPECT_FALSE(player_.waiting());
  EXPECT_EQ(cycle(1), (std::vector<int>{3104}));
}

TEST_F(Playback, PauseAtDelayStopsUntilStartedAgain) {
  CAudioOut::pauseAtDelay = 1;
  trigger(40000);
  CAudioOut::renderPos = 2000;
  cycle(1000);
  EXPECT_FALSE(player_.running());
  CAudioOut::set_render_pos(nullptr, 30000 / 44.1);  // no automatic resume
  EXPECT_EQ(cycle(1), (std::vector<int>{0}));
  player_.play_start();
  EXPECT_EQ(cycle(1), (std::vector<int>{1002}));
}

TEST_F(Playback, PauseResumeAndTheEnd) {
  trigger(3000);
  cycle(10);
  player_.play_pause();
  EXPECT_FALSE(player_.running());
  EXPECT_EQ(cycle(2), (std::vector<int>{0, 0}));
  player_.play_start();
  EXPECT_EQ(cycle(2), (std::vector<int>{12, 13}));
  // The end: silence past it, one stop notice, the buffer let go of.
  const std::vector<int> last = cycle(4000);
  EXPECT_EQ(last[2985], 2999);
  EXPECT_EQ(last[2986], 0);
  EXPECT_EQ(stops, 1);
  EXPECT_EQ(CAudioOut::NowPlaying, 0);
  EXPECT_EQ(CAudioOut::data, nullptr);
  EXPECT_EQ(CAudioOut::length, 0u);
  cycle(10);
  player_.play_stop();
  EXPECT_EQ(stops, 1);
  CAudioOut::reclaim();
}

TEST_F(Playback, StopInTheMiddle) {
  trigger(3000);
  cycle(10);
  player_.play_stop();
  EXPECT_EQ(stops, 1);
  EXPECT_EQ(CAudioOut::NowPlaying, 0);
  EXPECT_EQ(CAudioOut::data, nullptr);
  EXPECT_EQ(cycle(2), (std::vector<int>{0, 0}));
  // A second trigger replaces everything.
  trigger(100);
  EXPECT_EQ(cycle(1), (std::vector<int>{2}));
}
