#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "render/wavefile.h"
#include "tests/testutil.h"
#include "tests/voicebank/bank.h"
#include "tests/voicebank/voice_signal.h"

namespace {

void writeVoice(const std::string& path, double f0, double seconds) {
  VoiceSignal voice;
  voice.f0 = f0;
  voice.seconds = seconds;
  voice.writeWave(path);
}

}  // namespace

TEST(AnalyzeCommand, BankFolderEachSampleOnceWithFailuresListed) {
  TestBank bank;
  bank.write("oto.ini", "a.wav=a,0,0,0,0,0\na.wav=- a,0,0,0,0,0\nquiet.wav=q,0\ngone.wav=g,0\n");
  bank.write("low/oto.ini", "i.wav=i,0,0,0,0,0\n");
  writeVoice(bank.folder() + "a.wav", 220.0, 0.3);
  writeVoice(bank.folder() + "low/i.wav", 180.0, 0.3);
  const std::vector<int16_t> silence(4410, 0);
  saveWaveFile((bank.folder() + "quiet.wav").c_str(), silence.data(), 8820, 16, 1, 44100);

  RunResult first = runTona({"analyze", bank.path(), "--jobs", "2"});
  EXPECT_EQ(first.status, 1);
  EXPECT_NE(first.err.find("analysed 2, already up to date 0, failed 2\n"), std::string::npos) << first.err;
  EXPECT_NE(first.err.find("failed: " + bank.folder() + "gone.wav: No such file"), std::string::npos) << first.err;
  EXPECT_NE(first.err.find("quiet.wav: no voiced frame"), std::string::npos);
  EXPECT_TRUE(fileExists(bank.folder() + "a_wav.frq"));
  EXPECT_TRUE(fileExists(bank.folder() + "low/i_wav.frq"));

  RunResult second = runTona({"analyze", bank.folder() + "a.wav", bank.folder() + "low/i.wav", "--text"});
  EXPECT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(second.err, "analysed 0, already up to date 2, failed 0\n");
  EXPECT_EQ(readFile(bank.folder() + "a_wav.frt").rfind("frequencies list Ver0.03\n", 0), 0u);

  RunResult forced = runTona({"analyze", bank.folder() + "a.wav", "--force"});
  EXPECT_EQ(forced.status, 0);
  EXPECT_EQ(forced.err, "analysed 1, already up to date 0, failed 0\n");

  // The spectrum files on request, for tables up to date too.
  RunResult spectrum = runTona({"analyze", bank.folder() + "a.wav", bank.folder() + "low/i.wav", "--spectrum"});
  EXPECT_EQ(spectrum.status, 0) << spectrum.err;
  EXPECT_EQ(spectrum.err, "analysed 2, already up to date 0, failed 0\n");
  EXPECT_EQ(readFile(bank.folder() + "a_wav.spef").rfind("TONASPEF", 0), 0u);
  EXPECT_TRUE(fileExists(bank.folder() + "low/i_wav.spef"));
}

TEST(AnalyzeCommand, UsageErrors) {
  EXPECT_EQ(runTona({"analyze"}).status, 2);
  EXPECT_EQ(runTona({"analyze", "x.wav", "--jobs", "0"}).status, 2);
  RunResult help = runTona({"help", "analyze"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("usage: tona analyze", 0), 0u);
}
