#include <gtest/gtest.h>

#include <string>

#include "tests/testutil.h"
#include "tests/voicebank/bank.h"

namespace {
// A Shift_JIS bank: か and さ after a vowel, in the top folder and a subfolder.
void writeBank(const TestBank& bank) {
  bank.write("oto.ini",
             "ka.wav=\x82\xa9,10,20,30,40,5\n"
             "a_sa.wav=a \x82\xb3,1,2,3,4,5\n"
             "gone.wav=gone,1,1,1,1,1\n");
  bank.write("ka.wav", "x");
  bank.write("a_sa.wav", "x");
  bank.write("low/oto.ini", "sa.wav=\x82\xb3,1,1,1,1,1\n");
  bank.write("low/sa.wav", "x");
  bank.write("prefix.map", "C5\t\t_H\n");
  bank.write("character.txt", "name=demo\nimage=face.png\n");
}
}  // namespace

TEST(VoicebankCommand, InfoShowsProfileCountsAndMissingSamples) {
  TestBank bank;
  writeBank(bank);
  RunResult run = runTona({"voicebank", "info", bank.path()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("name:     demo\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("image:    " + bank.folder() + "face.png\n"), std::string::npos);
  EXPECT_NE(run.out.find("entries:  4\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("(top)                3\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("low                  1\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("C5\t\"\"\t\"_H\""), std::string::npos) << run.out;
  EXPECT_NE(run.err.find("gone.wav (gone)"), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find("ka.wav"), std::string::npos);
}

TEST(VoicebankCommand, LookupFollowsTheConnectiveRules) {
  TestBank bank;
  writeBank(bank);
  RunResult run = runTona({"voicebank", "lookup", bank.path(), "\xe3\x81\x95", "--prev", "\xe3\x81\x8b"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out.rfind("file:        a_sa.wav\nalias:       a \xe3\x81\x95\n", 0), 0u) << run.out;

  run = runTona({"voicebank", "lookup", bank.path(), "\xe3\x81\x95"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out.rfind("file:        low/sa.wav\n", 0), 0u) << run.out;

  run = runTona({"voicebank", "lookup", bank.path(), "\xe3\x81\x8b", "--note", "A4"});
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("offset:      10.0\nconsonant:   20.0\nblank:       30.0\npreutter:    40.0\n"
                         "overlap:     5.0\n"),
            std::string::npos)
      << run.out;
}

TEST(VoicebankCommand, FailuresExplainThemselves) {
  TestBank bank;
  writeBank(bank);
  RunResult run = runTona({"voicebank", "lookup", bank.path(), "nu"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find("not found: 'nu'"), std::string::npos);

  run = runTona({"voicebank", "info", bank.path() + "/absent"});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("cannot open folder"), std::string::npos);
  EXPECT_EQ(run.err.find('\n'), run.err.size() - 1);  // one line

  run = runTona({"voicebank", "lookup", bank.path(), "ka", "--note", "Q9"});
  EXPECT_EQ(run.status, 2);
  run = runTona({"voicebank", "frob", bank.path()});
  EXPECT_EQ(run.status, 2);
  run = runTona({"voicebank", "info", bank.path(), "--bogus"});
  EXPECT_EQ(run.status, 2);
  run = runTona({"voicebank", "--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out.rfind("usage: tona voicebank", 0), 0u);
}
