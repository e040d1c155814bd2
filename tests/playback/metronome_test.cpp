// The metronome's clicks: where they fall in a mix and how they add.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "playback/metronome.h"

// A click begun before the mix starts is laid from where the mix starts;
// clicks add to what is there and clip.
TEST(Metronome, ClicksAreCutAtTheMixsEdgesAndClip) {
  Metronome metronome;
  metronome.setClicks({{0.0, true}, {20.0, false}});
  std::vector<int16_t> whole(4410), late(4410 - 441, 0);
  Metronome::lay(&metronome, whole.data(), 4410, 0.0);
  Metronome::lay(&metronome, late.data(), static_cast<int32_t>(late.size()), 10.0);
  EXPECT_TRUE(std::equal(late.begin(), late.end(), whole.begin() + 441));
  // The beat's click is lower than the measure's: fewer zero crossings.
  auto crossings = [&](size_t from) {
    int n = 0;
    for (size_t k = from + 1; k < from + 441; ++k) n += (whole[k - 1] < 0) != (whole[k] < 0);
    return n;
  };
  EXPECT_EQ(crossings(0), 2 * 18 - 1);  // 1760 Hz over 10 msec
  std::vector<int16_t> loud(4410, 30000);
  Metronome::lay(&metronome, loud.data(), 4410, 0.0);
  for (size_t k = 0; k < loud.size(); ++k) ASSERT_EQ(loud[k], std::clamp(30000 + whole[k], -32767, 32767)) << k;
}
