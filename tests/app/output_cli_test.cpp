// What commands do with the files they are told to write.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

#include "tests/testutil.h"
#include "tests/voicebank/bank.h"
#include "tests/voicebank/voice_signal.h"

namespace {

class Outputs : public ::testing::Test {
 protected:
  void SetUp() override {
    writeVowelBank(bank_, 0.5, "a.wav=a,30,60,-300,40,10\n");
    writeFile(project_, "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=120\nVoiceDir=" + bank_.path() +
                            "\n[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\n[#TRACKEND]\n");
  }
  FakeHome home_;
  TestBank bank_;
  std::string project_ = bank_.folder() + "song.snt";
};

uint32_t little32(const std::string& bytes, size_t at) {
  uint32_t value = 0;
  memcpy(&value, bytes.data() + at, 4);
  return value;
}

// A clean RIFF file: the RIFF size is 36 + the data size, nothing follows the data.
void expectCleanWave(const std::string& bytes) {
  ASSERT_GE(bytes.size(), 44u);
  EXPECT_EQ(bytes.substr(0, 4), "RIFF");
  EXPECT_EQ(bytes.substr(36, 4), "data");
  const uint32_t data = little32(bytes, 40);
  EXPECT_EQ(little32(bytes, 4), 36 + data);
  EXPECT_EQ(bytes.size(), 44u + data);
}

}  // namespace

TEST_F(Outputs, RenderWritesACleanRiffFile) {
  const std::string out = bank_.folder() + "out.wav";
  ASSERT_EQ(runTona({"render", project_, "-o", out}).status, 0);
  expectCleanWave(readFile(out));
}

TEST_F(Outputs, LinksDevicesAndStandardOutputAreWrittenThrough) {
  // A symbolic link stays a link; its target gets the audio.
  const std::string target = bank_.folder() + "real.wav", link = bank_.folder() + "link.wav";
  writeFile(target, "old");
  ASSERT_EQ(symlink("real.wav", link.c_str()), 0);
  ASSERT_EQ(runTona({"render", project_, "-o", link}).status, 0);
  struct stat info;
  ASSERT_EQ(lstat(link.c_str(), &info), 0);
  EXPECT_TRUE(S_ISLNK(info.st_mode));
  expectCleanWave(readFile(target));

  // "-" is standard output.
  RunResult piped = runTona({"render", project_, "-o", "-"});
  ASSERT_EQ(piped.status, 0) << piped.err;
  expectCleanWave(piped.out);
  EXPECT_EQ(piped.out, readFile(target));

  // A FIFO is opened and written, never renamed over.
  const std::string fifo = bank_.folder() + "pipe.wav";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::string received;
  std::thread reader([&] { received = readFile(fifo); });
  EXPECT_EQ(runTona({"render", project_, "-o", fifo}).status, 0);
  reader.join();
  EXPECT_EQ(received, piped.out);
  ASSERT_EQ(lstat(fifo.c_str(), &info), 0);
  EXPECT_TRUE(S_ISFIFO(info.st_mode));
}

TEST_F(Outputs, NoCommandWritesOverItsInputOrInTheWrongFormat) {
  const std::string before = readFile(project_);
  const std::string alias = bank_.folder() + "same.snt";
  ASSERT_EQ(link(project_.c_str(), alias.c_str()), 0);  // the same file by another name
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"render", project_, "-o", project_},
           {"render", project_, "-o", alias},
           {"convert", project_, alias},
           {"edit", project_, "-o", project_, "--select-all"},
           {"resample", bank_.folder() + "a.wav", bank_.folder() + "a.wav"}}) {
    RunResult run = runTona(args);
    EXPECT_EQ(run.status, 2) << args[0];
    EXPECT_NE(run.err.find("is the input"), std::string::npos) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }
  EXPECT_EQ(readFile(project_), before);

  RunResult mp3 = runTona({"render", project_, "-o", bank_.folder() + "out.mp3"});
  EXPECT_EQ(mp3.status, 2);
  EXPECT_NE(mp3.err.find(".wav"), std::string::npos) << mp3.err;
  EXPECT_FALSE(fileExists(bank_.folder() + "out.mp3"));
  EXPECT_EQ(runTona({"convert", project_, bank_.folder() + "out.wav"}).status, 2);
  EXPECT_EQ(runTona({"convert", project_, bank_.folder() + "out.SNT"}).status, 0);  // case does not matter
}
