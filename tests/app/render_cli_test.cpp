#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "render/wavefile.h"
#include "support/userdirs.h"
#include "tests/testutil.h"
#include "tests/voicebank/bank.h"
#include "tests/voicebank/voice_signal.h"

namespace {

class RenderCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    VoiceSignal voice;
    voice.seconds = 1.0;
    voice.writeWave((bank_.folder() + "a.wav"));
    bank_.write("oto.ini", "a.wav=a,30,60,-900,40,10\n");
    // The voice folder is relative: it is taken from the project's folder.
    project_ = bank_.path() + "/../" + name() + ".snt";
    writeFile(project_,
              "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=120\nVoiceDir=" + bankName() +
                  "\n[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\n"
                  "[#0001]\nDelta=480\nDuration=480\nLyric=zz\nNoteNum=57\n"
                  "[#0002]\nDelta=480\nDuration=960\nLyric=a\nNoteNum=62\n[#TRACKEND]\n");
  }
  void TearDown() override {
    remove(project_.c_str());
    remove((project_.substr(0, project_.size() - 4) + ".wav").c_str());
  }
  std::string bankName() const { return bank_.path().substr(bank_.path().rfind('/') + 1); }
  std::string name() const { return "tona-render-" + bankName(); }

  FakeHome home_;
  TestBank bank_;
  std::string project_;
};

}  // namespace

TEST_F(RenderCommand, WritesTheSongNextToTheProject) {
  RunResult run = runTona({"render", project_, "--jobs", "2"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("note 1 'zz'"), std::string::npos) << run.err;  // listed once
  EXPECT_EQ(run.err.find("note 0"), std::string::npos);
  const std::string output = project_.substr(0, project_.size() - 4) + ".wav";
  WaveFormat format = {};
  int32_t bytes = 0;
  int16_t* samples = loadWaveFile(output.c_str(), &format, 0, &bytes);
  ASSERT_NE(samples, nullptr);
  free(samples);
  EXPECT_EQ(format.sampleRate, 44100u);
  EXPECT_EQ(format.bitsPerSample, 16);
  EXPECT_GT(bytes, 44100 * 2 * 2);  // more than two seconds
}

TEST_F(RenderCommand, EveryJobCountUsesTheCacheAndGivesTheSameBytes) {
  const std::string first = bank_.folder() + "first.wav", second = bank_.folder() + "second.wav";
  ASSERT_EQ(runTona({"render", project_, "-o", first, "--jobs", "2"}).status, 0);
  for (const char* jobs : {"1", "2", "8"}) {
    RunResult warm = runTona({"render", project_, "-o", second, "--jobs", jobs, "--log-level", "5"});
    ASSERT_EQ(warm.status, 0);
    size_t hits = 0;
    for (size_t at = warm.err.find("get:"); at != std::string::npos; at = warm.err.find("get:", at + 1)) ++hits;
    EXPECT_EQ(hits, 2u) << jobs << " jobs";
    EXPECT_EQ(readFile(first), readFile(second)) << jobs << " jobs";
  }
  EXPECT_EQ(runTona({"render", project_, "-o", second, "--no-cache", "--jobs", "8"}).status, 0);
  EXPECT_EQ(readFile(first), readFile(second));
  EXPECT_EQ(runTona({"render", project_, "-o", second, "--jobs", "1", "--no-cache", "--from", "960"}).status, 0);
  EXPECT_LT(readFile(second).size(), readFile(first).size());
}

TEST_F(RenderCommand, ASampleMadeAgainIsNotTakenFromTheCache) {
  const std::string out = bank_.folder() + "o.wav", fresh = bank_.folder() + "fresh.wav";
  ASSERT_EQ(runTona({"render", project_, "-o", out}).status, 0);
  VoiceSignal higher;
  higher.f0 = 330.0;
  higher.seconds = 1.0;
  higher.writeWave(bank_.folder() + "a.wav");  // the same name, another voice
  ASSERT_EQ(runTona({"render", project_, "-o", out}).status, 0);
  ASSERT_EQ(runTona({"render", project_, "-o", fresh, "--no-cache"}).status, 0);
  EXPECT_EQ(readFile(out), readFile(fresh));
}

TEST_F(RenderCommand, TheCacheIsBoundedAndCanBeEmptied) {
  ASSERT_EQ(runTona({"render", project_, "-o", bank_.folder() + "o.wav"}).status, 0);
  RunResult info = runTona({"cache", "info"});
  ASSERT_EQ(info.status, 0);
  EXPECT_NE(info.out.find("files:  2\n"), std::string::npos) << info.out;
  // A limit below one note's file keeps nothing.
  ASSERT_EQ(runTona({"render", project_, "-o", bank_.folder() + "o.wav", "--cache-limit", "1K"}).status, 0);
  EXPECT_NE(runTona({"cache", "info"}).out.find("files:  0\n"), std::string::npos);
  ASSERT_EQ(runTona({"render", project_, "-o", bank_.folder() + "o.wav"}).status, 0);
  RunResult clean = runTona({"cache", "clean"});
  EXPECT_EQ(clean.status, 0);
  EXPECT_NE(clean.out.find("removed 2 files"), std::string::npos) << clean.out;
  EXPECT_NE(runTona({"cache", "info"}).out.find("files:  0\n"), std::string::npos);
  EXPECT_EQ(runTona({"render", project_, "--cache-limit", "lots"}).status, 2);
  EXPECT_EQ(runTona({"cache", "sweep"}).status, 2);
}

// A song longer than the stretch a render is made in (10 minutes) is
// written whole, a note on each side of the stretch's edge in its place;
// the absurd length of the rest between them is brought to its bound.
TEST_F(RenderCommand, ASongLongerThanAStretchIsWrittenWhole) {
  writeFile(project_, "[#VERSION]\nSNT Version2.0\n[#SETTING]\nTempo=120\nVoiceDir=" + bankName() +
                          "\n[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\n"
                          "[#0001]\nDelta=480\nDuration=1000000\nLyric=R\nNoteNum=57\n"
                          "[#0002]\nDelta=192000\nDuration=192000\nLyric=R\nNoteNum=57\n"
                          "[#0003]\nDelta=192000\nDuration=192000\nLyric=R\nNoteNum=57\n"
                          "[#0004]\nDelta=192000\nDuration=480\nLyric=a\nNoteNum=57\n[#TRACKEND]\n");
  const std::string output = bank_.folder() + "long.wav";
  RunResult run = runTona({"render", project_, "-o", output, "--no-cache"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("note [#0001]: Duration=1e+06 is outside 0..192000: read as 192000\n"), std::string::npos)
      << run.err;
  const std::string bytes = readFile(output);
  ASSERT_GT(bytes.size(), 44u);
  // The header's sizes are the file's; the song runs to the last note's
  // end, 601.5 s in (1 ms of ticks is 0.5 ms at 120 BPM).
  EXPECT_EQ(bytes.substr(0, 4), "RIFF");
  auto word32 = [&](size_t at) {
    uint32_t value = 0;
    memcpy(&value, bytes.data() + at, 4);
    return value;
  };
  const uint32_t riff = word32(4), data = word32(40);
  EXPECT_EQ(riff, bytes.size() - 8);
  EXPECT_EQ(data, bytes.size() - 44);
  EXPECT_NEAR(data / 2 / 44100.0, 601.5, 0.1);
  auto loudest = [&](double fromSeconds, double toSeconds) {
    int peak = 0;
    for (size_t k = static_cast<size_t>(fromSeconds * 44100); k < static_cast<size_t>(toSeconds * 44100); ++k) {
      int16_t sample = 0;
      memcpy(&sample, bytes.data() + 44 + 2 * k, 2);
      peak = std::max(peak, std::abs(static_cast<int>(sample)));
    }
    return peak;
  };
  EXPECT_GT(loudest(0.5, 1.0), 1000);
  EXPECT_EQ(loudest(2.0, 598.0), 0);
  EXPECT_GT(loudest(601.0, 601.4), 1000);
}

TEST_F(RenderCommand, FailuresSayWhy) {
  RunResult missing = runTona({"render", bank_.folder() + "absent.snt"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("cannot open"), std::string::npos);
  RunResult noBank = runTona({"render", project_, "--voice-dir", "/nonexistent/bank"});
  EXPECT_EQ(noBank.status, 1);
  EXPECT_NE(noBank.err.find("no voice bank"), std::string::npos);
  RunResult range = runTona({"render", project_, "--from", "100000"});
  EXPECT_EQ(range.status, 1);
  EXPECT_EQ(runTona({"render", project_, "--jobs", "0"}).status, 2);
  EXPECT_EQ(runTona({"render", project_, "--from", "50", "--to", "10"}).status, 2);
}

TEST(RenderPaths, BareBankNamesAndRelativeOutputs) {
  FakeHome home;
  // A bank of the user's, named by its folder's name alone.
  const std::string banks = home.path() + "/voices";
  ScopedEnv data("XDG_DATA_HOME", banks.c_str());
  const std::string alto = banks + "/tona/voice/alto";
  ASSERT_TRUE(makeFolders(alto));
  VoiceSignal voice;
  voice.seconds = 0.5;
  voice.writeWave(alto + "/a.wav");
  writeFile(alto + "/oto.ini", "a.wav=a,30,60,-300,40,10\n");
  writeFile(alto + "/character.txt", "name=Alto Test\n");
  TempDir project;
  writeFile(project.file("song.snt"), "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=120\n"
                                      "VoiceDir=alto\nOutFile=song-out.wav\n"
                                      "[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\n[#TRACKEND]\n");
  RunResult run = runTona({"render", project.file("song.snt")});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(fileExists(project.file("song-out.wav")));  // beside the project, wherever tona runs
  RunResult list = runTona({"voicebank", "list"});
  EXPECT_EQ(list.status, 0);
  EXPECT_NE(list.out.find("alto"), std::string::npos) << list.out;
  EXPECT_NE(list.out.find("Alto Test"), std::string::npos) << list.out;
  // As other tools name it: the user's voice folder, or a Windows path.
  for (const std::string& named : {std::string("%VOICE%alto/"), std::string("C:\\Users\\me\\voice\\alto")}) {
    writeFile(project.file("other.snt"), "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=120\nVoiceDir=" +
                                             named + "\n[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\n[#TRACKEND]\n");
    RunResult other = runTona({"render", project.file("other.snt"), "-o", project.file("other.wav")});
    EXPECT_EQ(other.status, 0) << named << ": " << other.err;
    if (named[0] == 'C') {
      EXPECT_NE(other.err.find("is taken from '" + alto + "/'"), std::string::npos) << other.err;
    }
  }
  // A bank beside the project comes first.
  ASSERT_TRUE(makeFolders(project.file("alto")));
  EXPECT_EQ(runTona({"render", project.file("song.snt")}).status, 1);  // that one holds nothing
}

TEST(RenderPaths, ALyricThatBeginsWithADashIsALyric) {
  FakeHome home;
  TestBank bank;
  writeVowelBank(bank, 0.5, "a.wav=- a,30,60,-300,40,10\n");
  EXPECT_EQ(runTona({"voicebank", "lookup", bank.path(), "- a"}).status, 0);
  EXPECT_EQ(runTona({"voicebank", "lookup", bank.path(), "--", "- a"}).status, 0);
}

TEST(RenderPaths, KanaProjectWithoutCharsetOnARomajiBankSingsEveryNote) {
  FakeHome home;
  TestBank bank;
  VoiceSignal voice;
  voice.seconds = 0.5;
  for (const char* name : {"ka", "shi"}) voice.writeWave(bank.folder() + name + ".wav");
  bank.write("oto.ini", "ka.wav=ka,30,60,-300,40,10\nshi.wav=shi,30,60,-300,40,10\n");
  // UTF-8 with no charset line, as scripts write it.
  bank.write("song.snt", "[#VERSION]\nSNT Version2.0\n[#SETTING]\nTempo=120\nVoiceDir=" + bank.path() +
                             "\n[#0000]\nDelta=480\nDuration=480\nLyric=\xe3\x81\x8b\nNoteNum=57\n"
                             "[#0001]\nDelta=480\nDuration=480\nLyric=\xe3\x82\xb7\nNoteNum=59\n[#TRACKEND]\n");
  RunResult run = runTona({"render", bank.folder() + "song.snt", "-o", bank.folder() + "song.wav"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err.find("without a voice entry"), std::string::npos) << run.err;
  RunResult lookup = runTona({"voicebank", "lookup", bank.path(), "\xe3\x81\x8b"});
  EXPECT_NE(lookup.out.find("found as:    ka\n"), std::string::npos) << lookup.out;
}

TEST(RenderPaths, BanksMixingStereoAndOtherRates) {
  FakeHome home;
  TestBank bank;
  VoiceSignal voice;
  voice.seconds = 0.8;
  voice.writeWave(bank.folder() + "a.wav");  // mono, 44.1 kHz
  voice.rate = 48000;
  const std::vector<int16_t> mono = voice.render(1);
  std::vector<int16_t> stereo;
  for (int16_t v : mono) stereo.insert(stereo.end(), {v, v});
  ASSERT_EQ(saveWaveFile((bank.folder() + "i.wav").c_str(), stereo.data(), static_cast<int32_t>(stereo.size() * 2), 16,
                         2, 48000),
            0);
  bank.write("oto.ini", "a.wav=a,30,60,-500,40,10\ni.wav=i,30,60,-500,40,10\n");
  RunResult analysed = runTona({"analyze", bank.path()});
  ASSERT_EQ(analysed.status, 0) << analysed.err;
  EXPECT_NE(analysed.err.find("analysed 2,"), std::string::npos) << analysed.err;
  bank.write("song.snt", "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=120\nVoiceDir=" + bank.path() +
                             "\n[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\n"
                             "[#0001]\nDelta=480\nDuration=480\nLyric=i\nNoteNum=57\n[#TRACKEND]\n");
  RunResult run = runTona({"render", bank.folder() + "song.snt", "-o", bank.folder() + "song.wav"});
  ASSERT_EQ(run.status, 0) << run.err;
  WaveFormat format = {};
  int32_t bytes = 0;
  int16_t* samples = loadWaveFile((bank.folder() + "song.wav").c_str(), &format, 0, &bytes);
  ASSERT_NE(samples, nullptr);
  // Both notes sound over their middle, each taken in its own format.
  for (double at : {0.75, 1.25}) {
    double energy = 0.0;
    for (int k = 0; k < 2205; ++k) energy += std::abs(samples[static_cast<int>(at * 44100) + k]);
    EXPECT_GT(energy / 2205, 500.0) << at << " s";
  }
  free(samples);
}
