#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "tests/testutil.h"

namespace {

// Four notes at 0, 480, 960 and 1440, all C4, a rest at 1920.
const std::string kProject =
    "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=120\nProjectName=song\n"
    "[#0000]\nDelta=0\nDuration=480\nLyric=a\nNoteNum=60\n"
    "[#0001]\nDelta=480\nDuration=480\nLyric=b\nNoteNum=60\n"
    "[#0002]\nDelta=480\nDuration=480\nLyric=c\nNoteNum=60\n"
    "[#0003]\nDelta=480\nDuration=480\nLyric=d\nNoteNum=60\n"
    "[#0004]\nDelta=480\nDuration=480\nLyric=R\nNoteNum=60\n"
    "[#TRACKEND]\n";

class EditCommand : public ::testing::Test {
 protected:
  void SetUp() override { writeFile(input_, kProject); }

  // Runs tona edit on the project with the operations; the result's
  // notes as "lyric@start:length/note" each.
  RunResult edit(std::vector<std::string> ops) {
    std::vector<std::string> args = {"edit", input_, "-o", output_};
    args.insert(args.end(), ops.begin(), ops.end());
    return runTona(args);
  }
  std::string notes() {
    CScaleMan scale;
    CNoteMan man(&scale);
    if (man.openSnt(output_.c_str(), nullptr) < 0) return "(unreadable)";
    std::string out;
    for (int i = 0; i < man.noteCount(); ++i) {
      const NoteData& note = *man.getNote(i);
      if (ctonm2::is_r(note.Lyric)) continue;
      out += std::string(note.Lyric) + "@" + std::to_string(man.getPosition(i)) + ":" + std::to_string(note.Length) +
             "/" + std::to_string(note.NoteNum) + " ";
    }
    return out;
  }
  NoteData* find(CNoteMan& man, const char* lyric) {
    for (int i = 0; i < man.noteCount(); ++i) {
      if (strcmp(man.getLyric(i), lyric) == 0) return man.getNote(i);
    }
    return nullptr;
  }

  FakeHome home_;
  TempDir dir_;
  std::string input_ = dir_.file("song.snt");
  std::string output_ = dir_.file("out.snt");
};

}  // namespace

TEST_F(EditCommand, NotesAndSelection) {
  RunResult run = edit({"--select", "1-2", "--copy", "--paste", "3000", "--select", "3", "--delete", "--select-all",
                        "--release", "--insert", "2400:240:D4:x", "--select", "0", "--cut", "--paste", "4000"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            "--select 1-2: 2\n--copy: 2\n--paste 3000: 2\n--select 3: 1\n--delete: 1\n--select-all: 5\n"
            "--release: 5\n--insert 2400:240:D4:x: note 4\n--select 0: 1\n--cut: 1\n--paste 4000: 1\n");
  EXPECT_EQ(notes(), "b@480:480/60 c@960:480/60 x@2400:240/62 b@3000:480/60 c@3480:480/60 a@4000:480/60 ");
  EXPECT_TRUE(fileExists(output_));
}

TEST_F(EditCommand, DragsQuantizeAndTranspose) {
  RunResult run = edit({"--select", "1", "--move", "250,2@120", "--resize", "100@120", "--transpose", "50",
                        "--select", "2-3", "--move", "-2000", "--select", "3", "--quantize", "480"});
  ASSERT_EQ(run.status, 0) << run.err;
  // b: 730 + its remainder 10 = 740, later quantized to 960; c and d,
  // dragged before b, are put back in time order.
  EXPECT_EQ(notes(), "a@0:480/60 c@0:480/60 d@480:480/60 b@960:600/107 ");
  EXPECT_NE(run.out.find("--move 250,2@120: 3\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("--resize 100@120: 1\n"), std::string::npos);
  EXPECT_NE(run.out.find("--transpose 50: 1\n"), std::string::npos);
  EXPECT_NE(run.out.find("--quantize 480: 1\n"), std::string::npos);
}

TEST_F(EditCommand, LyricsExpressionAndTempo) {
  RunResult run = edit({"--select", "1", "--lyrics", "\xe3\x81\x8d\xe3\x82\x83 \xe3\x81\x84\xe3\x81\x86\xe3\x81\x88",
                        "--select-all", "--vibrato", "default", "--envelope", "on", "--pitch", "default",
                        "--select", "0", "--vibrato", "clear", "--envelope", "default", "--envelope", "correct",
                        "--envelope", "equal", "--envelope", "off", "--select", "0", "--lyrics-selected", "zq",
                        "--tempo", "960:90", "--tempo", "1000:60", "--form", "2.0"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("--lyrics \xe3\x81\x8d\xe3\x82\x83 \xe3\x81\x84\xe3\x81\x86\xe3\x81\x88: 3 (left: \"\xe3\x81\x88\")\n"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("--lyrics-selected zq: 1 (left: \"q\")\n"), std::string::npos);
  EXPECT_NE(run.out.find("--vibrato default: 4\n"), std::string::npos);
  EXPECT_NE(run.out.find("--tempo 960:90: 1\n"), std::string::npos);
  CScaleMan scale;
  CNoteMan man(&scale);
  ASSERT_GE(man.openSnt(output_.c_str(), nullptr), 0);
  const NoteData* z = find(man, "z");
  const NoteData* kya = find(man, "\xe3\x81\x8d\xe3\x82\x83");
  ASSERT_NE(z, nullptr);
  ASSERT_NE(kya, nullptr);
  EXPECT_EQ(z->VBR[0], 0);
  EXPECT_EQ(kya->VBR[1], 185);
  EXPECT_EQ(kya->Envelope[11], 1.0f);
  // 90 from tick 960 on, 60 from tick 1000 on.
  EXPECT_FLOAT_EQ(man.Ticks2MSec(1440), 500 + 500 + 40 * 125 / 90.0f + 440 * 125 / 60.0f);
  EXPECT_NE(readFile(output_).find("Tempo=60"), std::string::npos);
}

TEST_F(EditCommand, BadOperationsWriteNothing) {
  const std::vector<std::vector<std::string>> bad = {
      {"--select", "x"},        {"--select", "9"},           {"--insert", "0:480:60"},
      {"--insert", "-1:480:60:a"}, {"--insert", "0:0:60:a"},  {"--insert", "0:480:C99:a"},
      {"--paste", "-5"},        {"--move", "1@0"},           {"--move", "a,b"},
      {"--resize", "9000"},     {"--quantize", "0"},         {"--transpose", "x"},
      {"--tempo", "0:5"},       {"--tempo", "100"},          {"--vibrato", "on"},
      {"--envelope", "x"},      {"--pitch", "flat"},         {"--lyrics", "a"},
      {"--frobnicate"},         {"--select"},                {"--layer", "99", "--release"},
      {"--form", "3.0", "--release"},
  };
  for (const auto& ops : bad) {
    RunResult run = edit(ops);
    EXPECT_EQ(run.status, 2) << ops[0];
    EXPECT_FALSE(fileExists(output_)) << ops[0];
    EXPECT_NE(run.err.find("tona edit:"), std::string::npos) << ops[0];
  }
  // No output, no operation, no project.
  EXPECT_EQ(runTona({"edit", input_, "--release"}).status, 2);
  EXPECT_EQ(runTona({"edit", input_, "-o", output_}).status, 2);
  EXPECT_EQ(runTona({"edit", dir_.file("none.snt"), "-o", output_, "--release"}).status, 1);
  EXPECT_EQ(runTona({"edit", "--help"}).status, 0);
}

TEST_F(EditCommand, UndoRedoAndHistory) {
  RunResult run = edit({"--select", "1", "--move", "480", "--transpose", "2", "--undo", "--history"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("--undo: 1\nundo: 音符の移動を元に戻す\nredo: 音符の移動をやり直し\nmodified: yes\n"),
            std::string::npos)
      << run.out;
  EXPECT_EQ(notes(), "a@0:480/60 b@960:480/60 c@960:480/60 d@1440:480/60 ");  // b before c, as it was

  // Every step undone: the project as it was; nothing to undo any more.
  run = edit({"--select", "0-1", "--delete", "--insert", "100:240:62:x", "--select", "0", "--lyrics", "k",
              "--vibrato", "default", "--undo", "--undo", "--undo", "--undo", "--undo", "--history"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("--undo: 0\nundo: 元に戻す\nredo: 音符の削除をやり直し\nmodified: no\n"), std::string::npos)
      << run.out;
  EXPECT_EQ(notes(), "a@0:480/60 b@480:480/60 c@960:480/60 d@1440:480/60 ");
  run = edit({"--select", "0-1", "--delete", "--undo", "--redo"});
  EXPECT_EQ(notes(), "c@960:480/60 d@1440:480/60 ");

  // Saved: no recovery copy is left behind.
  EXPECT_FALSE(fileExists(home_.path() + "/.local/state/tona/temp/.temp.snt"));
  EXPECT_EQ(runTona({"recover"}).status, 1);
}

TEST_F(EditCommand, RecoverShowsAndCopiesTheRecoveryFile) {
  const std::string folder = home_.path() + "/.local/state/tona/temp";
  ASSERT_EQ(runTona({"recover"}).out, "no recovery file\n");
  // A failed edit leaves no recovery file: its input is untouched.
  edit({"--select", "1", "--move", "480", "--select", "99"});
  EXPECT_FALSE(fileExists(folder + "/.temp.snt"));

  runTona({"edit", input_, "-o", output_, "--release"});  // makes the folder
  writeFile(folder + "/.temp.snt", kProject);
  RunResult run = runTona({"recover"});
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("notes:         5\n"), std::string::npos) << run.out;
  run = runTona({"recover", "-o", dir_.file("back.snt")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(readFile(dir_.file("back.snt")), kProject);
  // An edit leaves another session's recovery file alone.
  run = edit({"--select", "1", "--move", "480"});
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.err.find("recovery file is waiting"), std::string::npos);
  EXPECT_EQ(readFile(folder + "/.temp.snt"), kProject);

  // An editor window's copy too, with the project's path beside it: both
  // listed, and -o needs to be told which.
  writeFile(folder + "/.temp-1-3.snt", "[#SETTING]\nProjectName=other\n[#TRACKEND]\n");
  writeFile(folder + "/.temp-1-3.snt.path", "/songs/other.snt\n");
  run = runTona({"recover"});
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("1.\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("2.\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("project:       /songs/other.snt\nname:          other\n"), std::string::npos) << run.out;
  run = runTona({"recover", "-o", dir_.file("which.snt")});
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("2 recovery files: say which"), std::string::npos) << run.err;
  EXPECT_FALSE(fileExists(dir_.file("which.snt")));
  EXPECT_EQ(runTona({"recover", "3"}).status, 2);
  std::set<std::string> copied;
  for (const char* n : {"1", "2"}) {
    run = runTona({"recover", n, "-o", dir_.file(std::string(n) + ".snt")});
    ASSERT_EQ(run.status, 0) << run.err;
    copied.insert(readFile(dir_.file(std::string(n) + ".snt")));
  }
  EXPECT_EQ(copied, (std::set<std::string>{kProject, "[#SETTING]\nProjectName=other\n[#TRACKEND]\n"}));
}
