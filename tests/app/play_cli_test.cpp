#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "render/wavefile.h"
#include "tests/testutil.h"
#include "tests/voicebank/bank.h"
#include "tests/voicebank/voice_signal.h"

namespace {

class PlayCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    writeVowelBank(bank_, 0.8, "a.wav=a,30,60,-600,40,10\n");
    writeFile(project_,
              "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=120\nVoiceDir=" + bank_.path() +
                  "\n[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\n"
                  "[#0001]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=62\n[#TRACKEND]\n");
  }
  FakeHome home_;
  TestBank bank_;
  std::string project_ = bank_.folder() + "song.snt";
};

int firstSound(const std::vector<int>& samples) {
  for (size_t k = 0; k < samples.size(); ++k) {
    if (samples[k] != 0) return static_cast<int>(k);
  }
  return -1;
}

}  // namespace

TEST_F(PlayCommand, RefusesAsThePlaybackStartDoesInItsOrder) {
  // No notes comes first, even without a voice folder; then the folder; then the bank.
  const std::string empty = bank_.folder() + "empty.snt", nameless = bank_.folder() + "nameless.snt";
  writeFile(empty, "[#VERSION]\nSNT Version2.0\n[#SETTING]\nTempo=120\nVoiceDir=\n[#TRACKEND]\n");
  writeFile(nameless, "[#VERSION]\nSNT Version2.0\n[#SETTING]\nTempo=120\nVoiceDir=\n"
                      "[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\n[#TRACKEND]\n");
  struct Case {
    std::vector<std::string> args;
    const char* says;
  } cases[] = {{{"play", empty}, "tona play: 音符がありません"},
               {{"play", nameless}, "tona play: 原音パスを設定してください"},
               {{"play", nameless, "--voice-dir", bank_.folder() + "nowhere"}, "tona play: 原音が選択されていません"}};
  for (const Case& c : cases) {
    const RunResult run = runTona(c.args);
    EXPECT_EQ(run.status, 1) << c.says;
    EXPECT_EQ(run.err.rfind(c.says, 0), 0u) << run.err;
  }
}

TEST_F(PlayCommand, PlaysWhatRenderWrites) {
  const std::string rendered = bank_.folder() + "song.wav", played = bank_.folder() + "played.raw";
  ASSERT_EQ(runTona({"render", project_, "-o", rendered, "--jobs", "1"}).status, 0);
  {
    // SDL's disk driver writes what the device would play to a file.
    ScopedEnv driver("SDL_AUDIODRIVER", "disk"), file("SDL_DISKAUDIOFILE", played.c_str());
    RunResult run = runTona({"play", project_, "--render-first"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.err.find("playing on"), std::string::npos);
  }
  WaveFormat format = {};
  int32_t bytes = 0;
  int16_t* wave = loadWaveFile(rendered.c_str(), &format, 0, &bytes);
  ASSERT_NE(wave, nullptr);
  std::vector<int> expected(wave, wave + bytes / 2);
  free(wave);
  const std::string raw = readFile(played);
  std::vector<int> left;
  for (size_t at = 0; at + 8 <= raw.size(); at += 8) {  // stereo float frames
    float value;
    memcpy(&value, raw.data() + at, sizeof value);
    left.push_back(static_cast<int>(value * 32768.0f));
  }
  const int renderedStart = firstSound(expected), playedStart = firstSound(left);
  ASSERT_GE(renderedStart, 0);
  ASSERT_GE(playedStart, 0);
  const size_t count = expected.size() - static_cast<size_t>(renderedStart);
  ASSERT_GE(left.size() - static_cast<size_t>(playedStart), count);
  int differing = 0;
  for (size_t k = 0; k < count; ++k) differing += left[playedStart + k] != expected[renderedStart + k];
  EXPECT_EQ(differing, 0) << "of " << count << " samples";
}

TEST_F(PlayCommand, FailsCleanlyWithoutAnAudioDevice) {
  ScopedEnv driver("SDL_AUDIODRIVER", "no-such-driver");
  RunResult run = runTona({"play", project_});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err.rfind("tona play: no audio output: ", 0), 0u) << run.err;
  EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;  // one line
  EXPECT_EQ(runTona({"play", project_, "--from", "x"}).status, 2);
  EXPECT_EQ(runTona({"play"}).status, 2);
  EXPECT_EQ(runTona({"play", bank_.folder() + "none.snt"}).status, 1);
}

TEST_F(PlayCommand, ListsDevices) {
  ScopedEnv driver("SDL_AUDIODRIVER", "dummy");
  RunResult run = runTona({"play", "--list-devices"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_FALSE(run.out.empty());
}
