// What commands say when they are given something that cannot be right.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include <string>
#include <vector>

#include "support/userdirs.h"
#include "tests/testutil.h"
#include "tests/voicebank/bank.h"
#include "tests/voicebank/voice_signal.h"

namespace {

class Errors : public ::testing::Test {
 protected:
  void SetUp() override {
    writeVowelBank(bank_, 0.5, "a.wav=a,30,60,-300,40,10\nb.wav=b,0,0,0,0,0\n");
    bank_.write("b.wav", "RIFF garbage");
  }
  std::string project(const std::string& notes) {
    const std::string path = bank_.folder() + "song.snt";
    writeFile(path, "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=120\nVoiceDir=" + bank_.path() +
                        "\n" + notes + "[#TRACKEND]\n");
    return path;
  }
  int lines(const std::string& text) { return static_cast<int>(std::count(text.begin(), text.end(), '\n')); }

  FakeHome home_;
  TestBank bank_;
};

}  // namespace

TEST_F(Errors, SomethingThatIsNotAProject) {
  bank_.write("empty.snt", "");
  bank_.write("binary.snt", std::string("\x7f" "ELF\0\0\1", 7));
  bank_.write("text.snt", "just some words\n");
  for (const std::string& path : {bank_.path(), bank_.folder() + "empty.snt", bank_.folder() + "binary.snt",
                                  bank_.folder() + "text.snt"}) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"info", path}, {"convert", path, bank_.folder() + "out.snt"}, {"render", path, "-o", bank_.folder() + "o.wav"}}) {
      RunResult run = runTona(args);
      EXPECT_EQ(run.status, 1) << args[0] << " " << path;
      EXPECT_EQ(run.err.rfind("tona " + args[0] + ": not a project: ", 0), 0u) << run.err;
      EXPECT_EQ(lines(run.err), 1) << run.err;
    }
  }
  RunResult missing = runTona({"info", bank_.folder() + "none.snt"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("No such file or directory"), std::string::npos) << missing.err;
}

TEST_F(Errors, ValuesOutsideTheirRange) {
  const std::string sample = bank_.folder() + "a.wav", out = bank_.folder() + "r.wav";
  for (const std::vector<std::string>& options : std::vector<std::vector<std::string>>{
           {"--length", "0"}, {"--length", "-5"}, {"--length", "1e12"}, {"--note", "C12"}, {"--intensity", "-1"},
           {"--intensity", "300"}, {"--tempo", "5"}, {"--velocity", "1e9"}, {"--offset", "-1e30"}}) {
    std::vector<std::string> args = {"resample", sample, out};
    args.insert(args.end(), options.begin(), options.end());
    RunResult run = runTona(args);
    EXPECT_EQ(run.status, 2) << options[0] << " " << options[1];
    EXPECT_NE(run.err.find(options[0] + " " + options[1] + ": "), std::string::npos) << run.err;
  }
  EXPECT_FALSE(fileExists(out));
  EXPECT_EQ(runTona({"resample", sample, out, "--note", "G9", "--length", "300"}).status, 0);
}

TEST_F(Errors, ImpossibleNotesAreLeftOutWithOneLineEach) {
  const std::string path = project(
      "[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\n"
      "[#0001]\nDelta=480\nDuration=-20\nLyric=a\nNoteNum=57\nTempo=100\n"
      "[#0002]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=300\n"
      "[#0003]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=60\n"
      "[#0004]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=65596\n");
  RunResult run = runTona({"render", path, "-o", bank_.folder() + "o.wav"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("warning: note [#0001] 'a': length -20 is negative; left out\n"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("warning: note [#0002] 'a': note number 300 is outside 0..127; left out\n"),
            std::string::npos);
  // Past the type's range: held, not wrapped to a note that would sing (60).
  EXPECT_NE(run.err.find("warning: note [#0004] 'a': note number 32767 is outside 0..127; left out\n"),
            std::string::npos) << run.err;
}

// Values no render can take, from the project and from the bank: each is
// brought to its bound where it is read and named on stderr, and the song
// renders at once.
TEST_F(Errors, AbsurdValuesAreBroughtIntoRangeAndNamed) {
  bank_.write("oto.ini", "a.wav=a,30,60,-300,40,10\nb.wav=b,-1e30,0,0,0,0\n");
  const std::string path = project(
      "[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\nModulation=1000000000\nStartPoint=1e12\n"
      "[#0001]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\nVelocity=-1e9\nPreUtterance=1e30\n"
      "PBS=-40;-20\nPBW=1e9\nVBR=65,99999,35,20,20,0,0\n"
      "[#0002]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\nTempo=1e-30\nEnvelope=0,5,1e9,0,100,100,0\n");
  RunResult run = runTona({"render", path, "-o", bank_.folder() + "o.wav"});
  ASSERT_EQ(run.status, 0) << run.err;
  for (const char* said : {"note [#0000]: Modulation=1e+09 is outside -200..200: read as 200",
                           "note [#0000]: StartPoint=1e+12 is outside -1000..5000: read as 5000",
                           "note [#0001]: Velocity=-1e+09 is outside 0..200: read as 0",
                           "note [#0001]: PreUtterance=1e+30 is outside -1000..5000: read as 5000",
                           "note [#0001]: PBW[1]=1e+09 is outside 0..10000: read as 10000",
                           "note [#0001]: VBR[1]=32767 is outside 0..2000: read as 2000",
                           "note [#0002]: Tempo=1e-30 is outside 10..512: read as 10",
                           "note [#0002]: Envelope[2]=1e+09 is outside 0..10000: read as 10000",
                           "b.wav: offset=-1e+30 is outside -600000..600000: read as -600000"}) {
    EXPECT_NE(run.err.find(said), std::string::npos) << said << "\n" << run.err;
  }
  EXPECT_EQ(run.err.rfind("tona render: '", 0), 0u) << run.err;
}

TEST_F(Errors, OneClearLinePerProblemWithTheSystemsReason) {
  const std::string path = project("[#0000]\nDelta=480\nDuration=480\nLyric=b\nNoteNum=57\n"
                                   "[#0001]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\n");
  RunResult run = runTona({"render", path, "-o", bank_.folder() + "o.wav"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("warning: sample '" + bank_.folder() + "b.wav' is not a readable WAV (PCM or floating point) or 16-bit AIFF file; 1 "
                         "notes stay silent\n"),
            std::string::npos)
      << run.err;
  EXPECT_EQ(run.err.find("[ERR]"), std::string::npos) << run.err;  // no library log lines
  RunResult unwritable = runTona({"render", path, "-o", bank_.folder() + "no/such/folder/o.wav"});
  EXPECT_EQ(unwritable.status, 1);
  EXPECT_NE(unwritable.err.find(": No such file or directory\n"), std::string::npos) << unwritable.err;
  RunResult noBank = runTona({"render", path, "--voice-dir", bank_.folder() + "nothing"});
  EXPECT_EQ(noBank.err.find("opendir"), std::string::npos) << noBank.err;
  EXPECT_EQ(lines(noBank.err), 1) << noBank.err;
}

TEST_F(Errors, SamplesOfOtherDepthsSingAsTheir16BitSelves) {
  // The bank's sample as 32-bit floats (exact: every 16-bit word is a
  // float) and as 24-bit words renders the same song as the 16-bit one.
  const std::string path = project("[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\n");
  const std::string reference = bank_.folder() + "16.wav";
  ASSERT_EQ(runTona({"render", path, "-o", reference, "--no-cache"}).status, 0);
  const std::string original = readFile(bank_.folder() + "a.wav");
  ASSERT_EQ(original.substr(36, 4), "data");
  const std::string words = original.substr(44);
  auto wave = [&](uint16_t tag, uint16_t bits, const std::string& data) {
    auto le = [](uint32_t v, int n) { return std::string(reinterpret_cast<const char*>(&v), static_cast<size_t>(n)); };
    const std::string fmt = le(tag, 2) + le(1, 2) + le(44100, 4) + le(44100u * bits / 8, 4) + le(bits / 8, 2) + le(bits, 2);
    return "RIFF" + le(static_cast<uint32_t>(4 + 24 + 8 + data.size()), 4) + "WAVE" + "fmt " + le(16, 4) + fmt + "data" +
           le(static_cast<uint32_t>(data.size()), 4) + data;
  };
  std::string asFloats, as24;
  for (size_t k = 0; k + 1 < words.size(); k += 2) {
    int16_t word;
    memcpy(&word, words.data() + k, 2);
    const float value = word / 32768.0f;
    asFloats += std::string(reinterpret_cast<const char*>(&value), 4);
    as24 += std::string(1, '\x5a') + words.substr(k, 2);  // a low byte that rounds away
  }
  for (const auto& [what, bytes] : {std::make_pair("float", wave(3, 32, asFloats)), std::make_pair("24-bit", wave(1, 24, as24))}) {
    SCOPED_TRACE(what);
    writeFile(bank_.folder() + "a.wav", bytes);
    unlink((bank_.folder() + "a_wav.frq").c_str());
    unlink((bank_.folder() + "a_wav.spef").c_str());
    const std::string out = bank_.folder() + std::string(what) + ".wav";
    RunResult run = runTona({"render", path, "-o", out, "--no-cache"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err.find("warning"), std::string::npos) << run.err;
    EXPECT_EQ(readFile(out), readFile(reference));
  }
}

TEST_F(Errors, NotesOfNoLengthSingNothing) {
  // A thousand notes of length 0 on the first note's tick: the song as
  // without them (they cost nothing either).
  std::string crowd;
  for (int k = 0; k < 1000; ++k) {
    char section[96];
    snprintf(section, sizeof section, "[#%04d]\nDelta=0\nDuration=0\nLyric=a\nNoteNum=60\n", k + 1);
    crowd += section;
  }
  const std::string two = "[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\n";
  const std::string last = "[#1001]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=62\n";
  const std::string plain = project(two + last), plainOut = bank_.folder() + "plain.wav";
  ASSERT_EQ(runTona({"render", plain, "-o", plainOut, "--no-cache"}).status, 0);
  const std::string crowded = project(two + crowd + last), crowdedOut = bank_.folder() + "crowded.wav";
  RunResult run = runTona({"render", crowded, "-o", crowdedOut, "--no-cache", "--jobs", "2"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(readFile(crowdedOut), readFile(plainOut));
  RunResult single = runTona({"render", crowded, "-o", crowdedOut, "--no-cache", "--jobs", "1"});
  ASSERT_EQ(single.status, 0) << single.err;
  EXPECT_EQ(readFile(crowdedOut), readFile(plainOut));
}

TEST_F(Errors, EachFailureGetsItsTrueReasonAndAFailingStatus) {
  const std::string path = project("[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=57\n");
  const std::string tona = TONA_BINARY, err = bank_.folder() + "err.txt";
  auto shell = [&](const std::string& command) {
    const int status = system((command + " 2>" + err).c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  // Standard output that takes nothing, or is not there at all.
  EXPECT_EQ(shell(tona + " info " + path + " >/dev/full"), 1);
  EXPECT_NE(readFile(err).find("cannot write standard output: No space left on device"), std::string::npos)
      << readFile(err);
  EXPECT_EQ(shell(tona + " render " + path + " -o - >&-"), 1);
  EXPECT_NE(readFile(err).find("Bad file descriptor"), std::string::npos) << readFile(err);
  // A recovery file of random bytes is no project to offer.
  const std::string folder = home_.path() + "/.local/state/tona/temp";
  ASSERT_TRUE(makeFolders(folder));
  std::string noise;
  for (int k = 0; k < 4096; ++k) noise += static_cast<char>((k * 7919) % 251);
  writeFile(folder + "/.temp.snt", noise);
  RunResult recover = runTona({"recover"});
  EXPECT_EQ(recover.status, 1);
  EXPECT_NE(recover.err.find("is no project"), std::string::npos) << recover.err;
}

TEST_F(Errors, AnalyzeReportsTablesItCannotWrite) {
  // A folder where the table goes: it cannot be written, even by root.
  mkdir((bank_.folder() + "a_wav.frq").c_str(), 0755);
  RunResult run = runTona({"analyze", bank_.path()});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("failed: " + bank_.folder() + "a.wav: cannot write '" + bank_.folder() +
                         "a_wav.frq': Is a directory\n"),
            std::string::npos)
      << run.err;
  TempDir empty;
  RunResult none = runTona({"analyze", empty.path()});
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.err.find("no oto.ini or oto_ini.txt entries"), std::string::npos) << none.err;
}
