#include <dirent.h>
#include <gtest/gtest.h>

#include <string>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "tests/testutil.h"

namespace {

const std::string kProject =
    "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=120\nProjectName=song\n"
    "TimeSignatures=(3/4/4),(4/4/0),\nVoiceDir=/banks/alto\n"
    "[#0000]\nDelta=480\nDuration=480\nLyric=\xe3\x81\x8b\nNoteNum=60\nLabel=intro\n"
    "[#0001]\nDelta=480\nDuration=960\nLyric=\xe3\x81\x95\nNoteNum=62\nTempo=140\nlayer=1\n"
    "[#0002]\nDelta=480\nDuration=480\nLyric=R\nNoteNum=62\n"
    "[#TRACKEND]\n";

int countFiles(const std::string& folder) {
  int count = 0;
  DIR* dir = opendir(folder.c_str());
  while (struct dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count;
}

class ProjectCommands : public ::testing::Test {
 protected:
  void SetUp() override { writeFile(input_, kProject); }
  FakeHome home_;
  TempDir dir_;
  std::string input_ = dir_.file("song.snt");
};

}  // namespace

TEST_F(ProjectCommands, InfoShowsSettingsAndNotes) {
  RunResult run = runTona({"info", input_});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("form:            2.0\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("project name:    song\n"), std::string::npos);
  EXPECT_NE(run.out.find("voice folder:    /banks/alto/\n"), std::string::npos);
  EXPECT_NE(run.out.find("time signatures: (3/4/4),(4/4/0),\n"), std::string::npos);
  // Three sections in the file: the tempo change shows on its note, the
  // rest with its length, times at 120 and then 140 BPM.
  EXPECT_NE(run.out.find("notes:           3\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("[#0000]       480    0:00.5     480    0.50  \xe3\x81\x8b               60  C4    \n"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("[#0001]       960    0:01.0     960    0.86  \xe3\x81\x95               62  D4    140.00\n"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("[#0002]      1440    0:01.4       0    0.00  R                62        \n"), std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("length:          0:01.9\n"), std::string::npos) << run.out;  // where さ ends

  RunResult dump = runTona({"info", "--dump", input_});
  EXPECT_EQ(dump.status, 0);
  EXPECT_NE(dump.out.find("Lyric=\xe3\x81\x8b\nNoteNum=60\n"), std::string::npos);
  EXPECT_EQ(dump.out.find("form:"), std::string::npos);
}

TEST_F(ProjectCommands, ConvertToTheOldFormWarnsWhatItDrops) {
  const std::string output = dir_.file("old.snt");
  RunResult run = runTona({"convert", input_, output, "--form", "1.2"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("drops the time signatures"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("drops the note labels"), std::string::npos);
  EXPECT_NE(run.err.find("drops the layers"), std::string::npos);
  EXPECT_NE(run.err.find("shortens 1 overlapping"), std::string::npos);
  const std::string text = readFile(output);
  EXPECT_EQ(text.rfind("[#VERSION]\r\nSNT Version1.2\r\n", 0), 0u);
  EXPECT_NE(text.find("Lyric=\x82\xa9\r\n"), std::string::npos);  // Shift_JIS

  RunResult back = runTona({"info", output});
  EXPECT_NE(back.out.find("form:            1.2\n"), std::string::npos) << back.out;

  // And back to 2.0 in UTF-8: nothing more to warn about.
  const std::string again = dir_.file("again.snt");
  RunResult forward = runTona({"convert", output, again, "--form", "2.0", "--charset", "UTF-8"});
  EXPECT_EQ(forward.status, 0);
  EXPECT_EQ(forward.err, "");
  EXPECT_NE(readFile(again).find("Charset=UTF-8\n"), std::string::npos);
}

TEST_F(ProjectCommands, FailuresLeaveTheTargetAlone) {
  const std::string target = dir_.file("target.snt");
  writeFile(target, "precious");
  RunResult missing = runTona({"convert", dir_.file("absent.snt"), target});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("cannot open"), std::string::npos);
  EXPECT_EQ(missing.err.find('\n'), missing.err.size() - 1);

  // A disk that fills up half way: the write fails, the old file stays whole
  // and no temporary file is left behind.
  const int before = countFiles(dir_.path());
  RunResult full = runTona({"convert", input_, target}, 200);
  EXPECT_EQ(full.status, 1);
  EXPECT_NE(full.err.find("cannot write"), std::string::npos) << full.err;
  EXPECT_EQ(readFile(target), "precious");
  EXPECT_EQ(countFiles(dir_.path()), before);

  EXPECT_EQ(runTona({"info", dir_.file("absent.snt")}).status, 1);
  EXPECT_EQ(runTona({"convert", input_, target, "--form", "3.0"}).status, 2);
  EXPECT_EQ(runTona({"convert", input_}).status, 2);
}

TEST_F(ProjectCommands, ConvertKeepsTheDemosTimingBothWays) {
  // The song's length as a render lays it out, without a voice bank (the
  // notes' own timing: lengths and tempo changes).
  auto songLength = [](const std::string& path) {
    CScaleMan scale;
    CNoteMan man(&scale);
    if (man.openSnt(path.c_str(), nullptr) < 0) return -1.0;
    man.engine()->preparationNotes();
    return man.engine()->totalLength;
  };
  const std::string demo = TONA_SOURCE_DIR "/demo/song.snt";
  const std::string old = dir_.file("old.snt"), back = dir_.file("back.snt");
  ASSERT_EQ(runTona({"convert", demo, old, "--form", "1.2"}).status, 0);
  ASSERT_EQ(runTona({"convert", old, back, "--form", "2.0"}).status, 0);
  const double length = songLength(demo);
  EXPECT_GT(length, 40000.0);
  EXPECT_NEAR(songLength(old), length, 1.0);
  EXPECT_NEAR(songLength(back), length, 1.0);
  EXPECT_NE(readFile(old).find("Tempo="), readFile(old).rfind("Tempo="));  // the changes are there
}

TEST_F(ProjectCommands, CharsetByTheBytesOrForced) {
  const std::string plain = dir_.file("plain.snt");
  writeFile(plain, "[#VERSION]\nSNT Version2.0\n[#SETTING]\nTempo=120\n"
                   "[#0000]\nDelta=0\nDuration=480\nLyric=\xe3\x81\x8b\nNoteNum=60\n[#TRACKEND]\n");
  RunResult read = runTona({"info", plain});
  ASSERT_EQ(read.status, 0) << read.err;
  EXPECT_NE(read.out.find("charset:         utf-8\n"), std::string::npos) << read.out;
  EXPECT_NE(read.out.find("\xe3\x81\x8b "), std::string::npos) << read.out;
  RunResult forced = runTona({"info", plain, "--charset", "shift_jis"});
  EXPECT_EQ(forced.out.find("\xe3\x81\x8b "), std::string::npos) << forced.out;
  EXPECT_EQ(runTona({"info", plain, "--charset", "latin1"}).status, 2);
  EXPECT_EQ(runTona({"edit", plain, "-o", dir_.file("e.snt"), "--charset", "utf-8", "--select-all"}).status, 0);
  EXPECT_EQ(runTona({"convert", plain, dir_.file("c.snt"), "--from-charset", "sjis"}).status, 0);
}
