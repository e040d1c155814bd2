// What commands do with the files they are told to write.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

#include "support/userdirs.h"
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
  ASSERT_EQ(runTona({"render", project_, "-o", target}).status, 0);
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

TEST_F(Outputs, AProjectsOutputNameIsOnlyANameBesideTheProject) {
  // Files of the user's that a stranger's project names.
  const std::string bashrc = home_.path() + "/.bashrc", notes = home_.path() + "/notes";
  writeFile(bashrc, "alias ls='ls -F'\n");
  writeFile(notes, "my notes\n");
  auto withOutFile = [&](const std::string& named) {
    std::string text = readFile(project_);
    const size_t at = text.find("VoiceDir=");
    text.insert(at, "OutFile=" + named + "\n");
    writeFile(bank_.folder() + "stranger.snt", text);
    return bank_.folder() + "stranger.snt";
  };
  const struct {
    std::string named, written;
  } cases[] = {{bashrc, ".bashrc.wav"}, {"../../../../../../" + notes, "notes.wav"},
               {"C:\\Users\\me\\song.wav", "song.wav"}, {"take two.WAV", "take two.WAV"}, {"/", "stranger.wav"}};
  for (const auto& c : cases) {
    RunResult run = runTona({"render", withOutFile(c.named)});
    ASSERT_EQ(run.status, 0) << c.named << ": " << run.err;
    EXPECT_TRUE(fileExists(bank_.folder() + c.written)) << c.named;
  }
  EXPECT_EQ(readFile(bashrc), "alias ls='ls -F'\n");
  EXPECT_EQ(readFile(notes), "my notes\n");
  // -o naming a folder: the name goes there.
  const std::string folder = bank_.folder() + "renders";
  ASSERT_TRUE(makeFolders(folder));
  ASSERT_EQ(runTona({"render", withOutFile(notes), "-o", folder}).status, 0);
  EXPECT_TRUE(fileExists(folder + "/notes.wav"));
  // A file there that is not a WAV file is never written over.
  writeFile(bank_.folder() + "keep.wav", "not audio");
  RunResult kept = runTona({"render", withOutFile("keep.wav")});
  EXPECT_EQ(kept.status, 1);
  EXPECT_EQ(kept.err, "tona render: '" + bank_.folder() + "keep.wav' exists and is not a WAV file; nothing written\n");
  EXPECT_EQ(readFile(bank_.folder() + "keep.wav"), "not audio");
}

TEST_F(Outputs, NoRenderWritesOverTheBankItSingsWith) {
  const std::string sample = bank_.folder() + "a.wav";
  ASSERT_EQ(runTona({"render", project_, "-o", bank_.folder() + "warm.wav"}).status, 0);  // the tables are made
  const std::string before = readFile(sample);
  const std::string table = bank_.folder() + "a_wav.frq", tableBefore = readFile(table);
  for (const std::string& target : {sample, table}) {
    const std::string alias = bank_.folder() + "alias.wav";
    unlink(alias.c_str());
    ASSERT_EQ(link(target.c_str(), alias.c_str()), 0);
    RunResult run = runTona({"render", project_, "-o", alias});
    EXPECT_NE(run.status, 0) << target;  // the table is no WAV file either
    if (target == sample) {
      EXPECT_NE(run.err.find("of the voice bank"), std::string::npos) << run.err;
    }
  }
  EXPECT_EQ(readFile(sample), before);
  EXPECT_EQ(readFile(table), tableBefore);
}

TEST_F(Outputs, LinksAreJudgedByWhatTheyLeadTo) {
  const std::string victim = bank_.folder() + "victim.txt", link = bank_.folder() + "out.wav";
  writeFile(victim, "precious\n");
  ASSERT_EQ(symlink("victim.txt", link.c_str()), 0);
  RunResult run = runTona({"render", project_, "-o", link});
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("leads to"), std::string::npos) << run.err;
  // A link to a device is written through as the device is.
  const std::string toNull = bank_.folder() + "null.wav";
  ASSERT_EQ(symlink("/dev/null", toNull.c_str()), 0);
  EXPECT_EQ(runTona({"render", project_, "-o", toNull}).status, 0);
  // A loop of links is refused too.
  const std::string a = bank_.folder() + "a1.wav", b = bank_.folder() + "b1.wav";
  ASSERT_EQ(symlink("b1.wav", a.c_str()), 0);
  ASSERT_EQ(symlink("a1.wav", b.c_str()), 0);
  run = runTona({"render", project_, "-o", a});
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("loop"), std::string::npos) << run.err;
  // The analysis's tables are not written through a link to another file.
  const std::string table = bank_.folder() + "a_wav.frq";
  unlink(table.c_str());
  ASSERT_EQ(symlink("victim.txt", table.c_str()), 0);
  runTona({"analyze", bank_.folder() + "a.wav", "--force"});
  EXPECT_EQ(readFile(victim), "precious\n");
  struct stat info;
  ASSERT_EQ(lstat(link.c_str(), &info), 0);
  EXPECT_TRUE(S_ISLNK(info.st_mode));
}

TEST_F(Outputs, CacheCleanRemovesItsOwnFilesOnly) {
  ASSERT_EQ(runTona({"render", project_, "-o", bank_.folder() + "one.wav"}).status, 0);
  const std::string cache = home_.path() + "/.cache/tona/cache";
  RunResult info = runTona({"cache", "info"});
  ASSERT_NE(info.out.find("files:  1\n"), std::string::npos) << info.out;
  // A document of the user's, and a link out of the folder in the cache's own name form.
  writeFile(cache + "/report.doc", "mine");
  const std::string outside = home_.path() + "/elsewhere.raw";
  writeFile(outside, std::string(16, 'x'));
  ASSERT_EQ(symlink(outside.c_str(), (cache + "/7_a_0123456789ABCDEFGHIJKL.raw").c_str()), 0);
  RunResult clean = runTona({"cache", "clean"});
  EXPECT_EQ(clean.status, 0) << clean.err;
  EXPECT_EQ(clean.out.rfind("removed 1 files", 0), 0u) << clean.out;
  EXPECT_EQ(readFile(cache + "/report.doc"), "mine");
  EXPECT_EQ(readFile(outside), std::string(16, 'x'));
}

TEST_F(Outputs, KilledWritesLeaveNothingAndASizeLimitIsReported) {
  // What a killed render left: removed by the next write of the same file,
  // while a temporary another writer holds stays.
  const std::string out = bank_.folder() + "out.wav", stale = out + ".tmp-AbC123";
  writeFile(stale, "half a song");
  ASSERT_EQ(runTona({"render", project_, "-o", out}).status, 0);
  EXPECT_FALSE(fileExists(stale));
  // Past the file size limit: a message and a failure, not a silent death.
  RunResult limited = runTona({"render", project_, "-o", bank_.folder() + "big.wav"}, 4096);
  EXPECT_EQ(limited.status, 1);
  EXPECT_NE(limited.err.find("File too large"), std::string::npos) << limited.err;
  EXPECT_FALSE(fileExists(bank_.folder() + "big.wav"));
}

TEST_F(Outputs, AFifoWhereAFileBelongsIsNeverOpened) {
  // A sample that is a FIFO: the render goes on without it; the analysis
  // names it; the recovery file as a FIFO is no recovery file.
  ASSERT_EQ(mkfifo((bank_.folder() + "pipe.wav").c_str(), 0600), 0);
  bank_.write("oto.ini", "a.wav=a,30,60,-300,40,10\npipe.wav=i,30,60,-300,40,10\n");
  std::string text = readFile(project_);
  text.insert(text.find("[#TRACKEND]"), "[#0001]\nDelta=480\nDuration=480\nLyric=i\nNoteNum=57\n");
  writeFile(project_, text);
  RunResult render = runTona({"render", project_, "-o", bank_.folder() + "out.wav"});
  EXPECT_EQ(render.status, 0) << render.err;
  EXPECT_NE(render.err.find("pipe.wav"), std::string::npos) << render.err;
  RunResult analyze = runTona({"analyze", bank_.path()});
  EXPECT_NE(analyze.status, -1);
  EXPECT_NE((analyze.out + analyze.err).find("pipe.wav"), std::string::npos) << analyze.out << analyze.err;
  const std::string recovery = home_.path() + "/.local/state/tona/temp";
  ASSERT_TRUE(makeFolders(recovery));
  ASSERT_EQ(mkfifo((recovery + "/.temp.snt").c_str(), 0600), 0);
  EXPECT_EQ(runTona({"recover"}).out, "no recovery file\n");
  RunResult project = runTona({"render", bank_.folder() + "pipe.wav"});
  EXPECT_NE(project.status, 0);
}

TEST_F(Outputs, TheCacheKnowsWhenTheSampleOrItsTablesChange) {
  // Each change in turn: a warm render (from the cache where it still
  // holds) must equal a render without the cache.
  VoiceSignal other;
  other.f0 = 330.0;
  other.seconds = 0.5;
  other.writeWave(bank_.folder() + "b.wav");
  ASSERT_EQ(runTona({"analyze", bank_.folder() + "b.wav", "--spectrum"}).status, 0);
  const std::string warm = bank_.folder() + "warm.wav", cold = bank_.folder() + "cold.wav";
  ASSERT_EQ(runTona({"render", project_, "-o", warm}).status, 0);
  ASSERT_EQ(runTona({"render", project_, "-o", warm}).status, 0);  // the tables are there: from the cache now
  std::string previous = readFile(warm);
  auto check = [&](const char* what) {
    SCOPED_TRACE(what);
    ASSERT_EQ(runTona({"render", project_, "-o", warm}).status, 0);
    ASSERT_EQ(runTona({"render", project_, "-o", cold, "--no-cache"}).status, 0);
    EXPECT_EQ(readFile(warm), readFile(cold));
    EXPECT_NE(readFile(warm), previous);
    previous = readFile(warm);
  };
  auto copy = [&](const std::string& from, const std::string& to) { writeFile(bank_.folder() + to, readFile(bank_.folder() + from)); };
  copy("b_wav.frq", "a_wav.frq");
  check("another frequency table");
  // The sample changed to the same size, its time put back.
  const std::string sample = bank_.folder() + "a.wav";
  struct stat before;
  ASSERT_EQ(stat(sample.c_str(), &before), 0);
  std::string bytes = readFile(sample);
  for (size_t k = 44; k + 1 < bytes.size(); k += 2) std::swap(bytes[k], bytes[k + 1]);  // other words, same size
  writeFile(sample, bytes);
  const struct timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(utimensat(AT_FDCWD, sample.c_str(), times, 0), 0);
  check("the sample edited, its time put back");
}
