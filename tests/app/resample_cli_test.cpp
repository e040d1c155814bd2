#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "render/wavefile.h"
#include "tests/testutil.h"
#include "tests/voicebank/voice_signal.h"

TEST(ResampleCommand, RendersOneNoteOrSaysWhyNot) {
  TempDir dir;
  VoiceSignal voice;
  voice.seconds = 1.0;
  const std::string sample = dir.file("a.wav");
  voice.writeWave(sample);
  const std::string out = dir.file("note.wav");

  RunResult run = runTona({"resample", sample, out, "--note", "D4", "--length", "500", "--consonant", "60",
                           "--offset", "50", "--flags", "g-5B40", "--pitch", "0,20,40,40"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("22094 samples"), std::string::npos) << run.err;  // (500 + 1) ms
  EXPECT_EQ(readFile(out).size(), 44u + 2u * 22094u);

  run = runTona({"resample", dir.file("absent.wav"), out});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "tona resample: " + dir.file("absent.wav") + ": file load error.\n");
  run = runTona({"resample", sample, dir.file("short.wav"), "--offset", "2000"});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("Parameter error. Not enough samples."), std::string::npos);
  EXPECT_FALSE(fileExists(dir.file("short.wav")));

  EXPECT_EQ(runTona({"resample", sample, out, "--velocity", "fast"}).status, 2);
  EXPECT_EQ(runTona({"resample", sample, out, "--note", "H2"}).status, 2);
  EXPECT_EQ(runTona({"resample", sample}).status, 2);
}
