#include "editing/undoman.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "editing/ccnoteman.h"
#include "editing/noteserial.h"
#include "editing/recovery.h"
#include "editing/scaleman.h"
#include "tests/engine/notes.h"
#include "support/userdirs.h"
#include "tests/testutil.h"

namespace {

// Every serialized field of every note (the selection left out: it is the
// view's state, not the project's) and the time signatures.
std::string state(CNoteMan& man) {
  std::string out;
  for (int i = 0; i < man.noteCount(); ++i) {
    NoteData note = *man.getNote(i);
    note.selected = 0;
    std::vector<uint8_t> bytes(static_cast<size_t>(CNoteSerial::serialLength(&note)));
    CNoteSerial::serialize(&note, bytes.data());
    out.append(bytes.begin(), bytes.end());
    out += '|';
  }
  std::vector<char> text(static_cast<size_t>(man.scale()->serialize2text(nullptr, 0)));
  man.scale()->serialize2text(text.data(), static_cast<int32_t>(text.size()));
  return out + text.data();
}

// Counts the callback's calls and keeps what it was told last.
struct Recorder : UndoCallback {
  void operator()(uint32_t undoCode, uint32_t redoCode, bool isModified) override {
    ++calls;
    undo = undoCode;
    redo = redoCode;
    modified = isModified;
  }
  int calls = 0;
  uint32_t undo = 0, redo = 0;
  bool modified = false;
};

class Undo : public ::testing::Test {
 protected:
  void SetUp() override {
    // Eight notes with something in every field the steps record.
    const int starts[] = {0, 480, 960, 960, 1440, 1920, 2400, 2880};
    for (int i = 0; i < 8; ++i) {
      NoteData note = makeNote(std::string(1, static_cast<char>('a' + i)).c_str(), 60 + i,
                               starts[i] - (i > 0 ? starts[i - 1] : 0), 480);
      CNoteMan::defaultPitch(&note);
      note.PBY = floatList({static_cast<float>(i)});
      note.PBM = byteList("s");
      note.VBR[0] = static_cast<int16_t>(i * 10);
      note.Intensity = 90 + i;
      strcpy(note.Flags, "g-2");
      engine().insert_note(engine().noteCount, &note);
    }
    man().synchronizeNotes();
  }
  ctonm2& engine() { return *man().engine(); }
  CNoteMan& man() { return *owner_.noteman(); }
  CUndoMan& history() { return *owner_.undoman(); }
  void select(std::initializer_list<int> indexes) {
    man().ReleaseAll();
    for (int i : indexes) man().addSelect(i, 2);
  }

  FakeHome home_;
  CScaleMan scale_;
  CCNoteMan owner_{&scale_};
  Recorder recorder_;
};

uint32_t codeOf(const char* text) {
  return static_cast<uint32_t>(text[0]) << 24 | static_cast<uint32_t>(text[1]) << 16 |
         static_cast<uint32_t>(text[2]) << 8 | static_cast<uint32_t>(text[3]);
}

struct Edit {
  const char* code;
  std::function<void(CCNoteMan&, Recorder&)> run;  // the edit in its session
};

// One edit per command code, each as the editor brackets it.
std::vector<Edit> everyCode() {
  auto selection = [](uint32_t cmd, std::function<void(CNoteMan&)> edit) {
    return [cmd, edit](CCNoteMan& owner, Recorder& recorder) {
      owner.undoman()->beginSession(cmd);
      edit(*owner.noteman());
      ASSERT_EQ(owner.undoman()->endSession(cmd, &recorder), 1);
    };
  };
  auto single = [](uint32_t cmd, int index, std::function<int(CNoteMan&)> edit) {
    return [cmd, index, edit](CCNoteMan& owner, Recorder& recorder) {
      owner.undoman()->beginSession(index, cmd);
      const int at = edit(*owner.noteman());
      ASSERT_EQ(owner.undoman()->endSession(at, cmd, &recorder), 1);
    };
  };
  return {
      {"del ", selection(undo::kDelete, [](CNoteMan& m) { m.DeleteNotes(); })},
      {"del  (one note)", single(undo::kDelete, 3, [](CNoteMan& m) { return m.deleteNote(3); })},
      {"add  (paste)", [](CCNoteMan& owner, Recorder& recorder) {
         CNoteMan& m = *owner.noteman();
         m.CopyNotes();
         owner.undoman()->beginSession(undo::kAdd);
         m.PasteNotes(960);
         ASSERT_EQ(owner.undoman()->endSession(undo::kAdd, &recorder), 1);
       }},
      {"add  (pen)", single(undo::kAdd, -1, [](CNoteMan& m) { return m.insertNotePosition(960, 240, 70, "x"); })},
      {"move", [](CCNoteMan& owner, Recorder& recorder) {
         owner.undoman()->beginSession(undo::kMove);
         owner.dragSelection(-1000, 3, 1);
         ASSERT_EQ(owner.undoman()->endSession(undo::kMove, &recorder), 1);
       }},
      {"set ", selection(undo::kSet, [](CNoteMan& m) {
         for (int i = 0; i < m.noteCount(); ++i) {
           if (!m.isSelected(i)) continue;
           NoteData* note = m.getNote(i);
           strcpy(note->Flags, "B80");
           note->Velocity = 150.0f;
           m.addPitchPoint(i, 1);
         }
       })},
      {"lngh", [](CCNoteMan& owner, Recorder& recorder) {
         owner.undoman()->beginSession(undo::kLength);
         owner.resizeSelection(240, 1);
         ASSERT_EQ(owner.undoman()->endSession(undo::kLength, &recorder), 1);
       }},
      {"ptch", selection(undo::kPitch, [](CNoteMan& m) {
         for (int i = 0; i < m.noteCount(); ++i) {
           if (m.isSelected(i)) m.addPitchPoint(i, 0);
         }
       })},
      {"vbrt", selection(undo::kVibrato, [](CNoteMan& m) { m.clearVibratoToSelected(); })},
      {"envl", selection(undo::kEnvelope, [](CNoteMan& m) { m.switchEnvForSelected(true); })},
      {"intc", selection(undo::kIntensity, [](CNoteMan& m) { m.setIntensityForSelected(7); })},
      {"tmpo", single(undo::kTempo, 4, [](CNoteMan& m) { return m.setTempo(4, 150.0f), 4; })},
      {"lyrc", selection(undo::kLyric, [](CNoteMan& m) {
         char text[32] = "xyz";
         m.assignLyric(text, sizeof text, true, false);
       })},
      {"tmsg", single(undo::kTimeSignature, 0, [](CNoteMan& m) { return m.scale()->unserializeText("(3/4/0),(6/8/4),"), 0; })},
      {"qntz", [](CCNoteMan& owner, Recorder& recorder) {
         owner.undoman()->beginSession(undo::kQuantize);
         owner.quantizeSelection(900);  // 960 to 900, 1920 to 1800
         ASSERT_EQ(owner.undoman()->endSession(undo::kQuantize, &recorder), 1);
       }},
      {"splt", selection(undo::kSplit, [](CNoteMan& m) {
         // Note 2 in two halves, both selected (the second half goes to 4,
         // after note 3, which starts with note 2).
         m.getNote(2)->Length = 240;
         m.insertNotePosition(960 + 240, 240, 62, "y");
         m.addSelect(4, 2);
       })},
      {"join", selection(undo::kJoin, [](CNoteMan& m) {
         // The selected notes 2 and 5 joined into 2.
         m.getNote(2)->Length = 1440;
         m.deleteNote(5);
       })},
  };
}

}  // namespace

TEST_F(Undo, EveryCodeUndoesAndRedoesExactly) {
  for (const Edit& edit : everyCode()) {
    SCOPED_TRACE(edit.code);
    CScaleMan scale;
    CCNoteMan owner(&scale);
    owner.setKeepRecovery(false);
    // The same project in a fresh owner for each code.
    for (int i = 0; i < man().noteCount(); ++i) {
      uint8_t* bytes = CNoteSerial::serialize(man().getNote(i));
      NoteData note;
      memset(&note, 0, sizeof note);
      CNoteSerial::unserialize(bytes, &note);
      free(bytes);
      owner.noteman()->engine()->insert_note(i, &note);
    }
    CNoteMan& m = *owner.noteman();
    m.ReleaseAll();
    for (int i : {2, 5}) m.addSelect(i, 2);
    const std::string before = state(m);
    Recorder recorder;
    edit.run(owner, recorder);
    const std::string after = state(m);
    ASSERT_NE(after, before);
    EXPECT_EQ(recorder.calls, 1);
    EXPECT_EQ(owner.undoman()->getNextUndo(), codeOf(edit.code));
    owner.undoman()->undo(&recorder);
    EXPECT_EQ(state(m), before);
    owner.undoman()->redo(&recorder);
    EXPECT_EQ(state(m), after);
    owner.undoman()->undo(&recorder);
    EXPECT_EQ(state(m), before);
  }
}

TEST_F(Undo, AnEditThatChangesNothingRecordsNothing) {
  select({1, 2});
  owner_.setKeepRecovery(false);
  history().beginSession(undo::kMove);
  owner_.dragSelection(0, 0, 1);  // a drag that ends where it began
  EXPECT_EQ(history().endSession(undo::kMove, &recorder_), 0);
  EXPECT_EQ(recorder_.calls, 0);
  EXPECT_FALSE(history().isCanUndo());
  // Nothing selected at either end: nothing recorded.
  man().ReleaseAll();
  history().beginSession(undo::kVibrato);
  EXPECT_EQ(history().endSession(undo::kVibrato, &recorder_), 0);
  EXPECT_EQ(history().steps(), 0);
  // A note list too short to hold its count adds nothing.
  std::vector<uint8_t> two = {1, 0};
  UndoData shortList;
  shortList.cmd = undo::kAdd;
  shortList.data = two.data();
  shortList.size = 2;
  const std::string before = state(man());
  history().processData(shortList);
  EXPECT_EQ(state(man()), before);
}

// A step keeps the notes selected when it began, whatever is selected
// when it ends.
TEST_F(Undo, ASelectionChangedWithinAStepKeepsItsFirstNotes) {
  owner_.setKeepRecovery(false);
  const std::string before = state(man());
  select({1});
  history().beginSession(undo::kIntensity);
  man().setIntensityForSelected(7);
  select({3});
  ASSERT_EQ(history().endSession(undo::kIntensity, &recorder_), 1);
  const std::string after = state(man());
  history().undo(&recorder_);
  EXPECT_EQ(state(man()), before);
  history().redo(&recorder_);
  EXPECT_EQ(state(man()), after);
}

TEST_F(Undo, DeletingTwoNotesAndUndoingRestoresBoth) {
  owner_.setKeepRecovery(false);
  const std::string before = state(man());
  select({2, 5});
  history().beginSession(undo::kDelete);
  man().DeleteNotes();
  history().endSession(undo::kDelete, &recorder_);
  EXPECT_EQ(man().noteCount(), 6);
  EXPECT_EQ(recorder_.undo, undo::kDelete);
  EXPECT_EQ(undoMenuTitle(recorder_.undo), "音符の削除を元に戻す");
  EXPECT_EQ(redoMenuTitle(recorder_.redo), "やり直し");
  history().undo(&recorder_);
  EXPECT_EQ(state(man()), before);  // note 2 back before note 3, which starts with it
  EXPECT_EQ(undoMenuTitle(recorder_.undo), "元に戻す");
  EXPECT_EQ(redoMenuTitle(recorder_.redo), "音符の削除をやり直し");
  history().redo(&recorder_);
  EXPECT_EQ(man().noteCount(), 6);
  EXPECT_STREQ(man().getLyric(2), "d");
  EXPECT_STREQ(man().getLyric(4), "g");
}

TEST_F(Undo, HistoryKeeps512Steps) {
  owner_.setKeepRecovery(false);
  select({0});
  for (int k = 1; k <= 513; ++k) {
    history().beginSession(undo::kIntensity);
    man().setIntensityForSelected(k);
    ASSERT_EQ(history().endSession(undo::kIntensity, nullptr), 1);
  }
  EXPECT_EQ(history().steps(), 512);
  EXPECT_EQ(history().position(), 512);
  int undone = 0;
  while (history().isCanUndo()) {
    history().undo(nullptr);
    ++undone;
  }
  EXPECT_EQ(undone, 512);
  EXPECT_EQ(man().getNote(0)->Intensity, 1);  // the first step's value before is gone
  // A push below the top discards the redo branch.
  history().redo(nullptr);
  history().beginSession(undo::kIntensity);
  man().setIntensityForSelected(-1);
  history().endSession(undo::kIntensity, nullptr);
  EXPECT_EQ(history().steps(), 2);
  EXPECT_FALSE(history().isCanRedo());
  const size_t bytes = history().memoryUsed();
  history().clean(nullptr);
  EXPECT_EQ(history().steps(), 0);
  EXPECT_LT(history().memoryUsed(), bytes);
}

TEST_F(Undo, ModifiedStateFollowsTheSavePoint) {
  owner_.setKeepRecovery(false);
  select({0});
  EXPECT_FALSE(history().getModified());
  EXPECT_FALSE(history().getModify2());
  history().beginSession(undo::kVibrato);
  man().defaultVibratoToSelected();
  history().endSession(undo::kVibrato, &recorder_);
  EXPECT_TRUE(recorder_.modified);
  EXPECT_TRUE(history().getModify2());
  EXPECT_FALSE(history().getModify2());  // once per change
  EXPECT_TRUE(history().getModify3());   // an observer of its own
  history().setSavePoint(&recorder_);
  EXPECT_FALSE(recorder_.modified);
  history().undo(&recorder_);
  EXPECT_TRUE(recorder_.modified);
  history().redo(&recorder_);
  EXPECT_FALSE(recorder_.modified);  // back at the save point
  history().setOtherModified(&recorder_);
  EXPECT_TRUE(recorder_.modified);
  EXPECT_TRUE(history().getModified());  // even at the save point
  history().setSavePoint(&recorder_);
  EXPECT_FALSE(history().getModified());
}

TEST_F(Undo, ModifiedIsTrueExactlyWhenTheNotesDifferFromTheSavedFile) {
  // Random edits, saves, undos and redos (an edit that replaces undone
  // steps past the save point makes the saved state unreachable: the
  // first such case comes at step 12). Every edit writes a lyric never
  // used before, so no two history positions hold the same notes, and
  // "modified" must say exactly whether the file written now would differ
  // from the one saved last.
  owner_.setKeepRecovery(false);
  TempDir dir;
  const std::string saved = dir.file("saved.snt"), now = dir.file("now.snt");
  ASSERT_EQ(man().writeSnt(saved.c_str(), nullptr), 1);
  const uint32_t seed = 20261125;
  std::mt19937 random(seed);
  int token = 0;
  for (int step = 0; step < 1200; ++step) {
    const int roll = static_cast<int>(random() % 100);
    std::string what;
    if (roll < 45) {
      const std::string lyric = "w" + std::to_string(++token);
      if (random() % 2 == 0) {
        what = "add";
        history().beginSession(-1, undo::kAdd);
        const int at = man().insertNotePosition(static_cast<int64_t>(random() % 4000), 240, 60, lyric.c_str());
        history().endSession(at, undo::kAdd, &recorder_);
      } else {
        what = "lyric";
        const int index = static_cast<int>(random() % static_cast<uint32_t>(man().noteCount()));
        history().beginSession(index, undo::kLyric);
        man().setLyric(index, lyric.c_str());
        history().endSession(index, undo::kLyric, &recorder_);
      }
    } else if (roll < 70) {
      what = "undo";
      history().undo(&recorder_);
    } else if (roll < 88) {
      what = "redo";
      history().redo(&recorder_);
    } else {
      what = "save";
      ASSERT_EQ(man().writeSnt(saved.c_str(), nullptr), 1);
      history().setSavePoint(&recorder_);
    }
    ASSERT_EQ(man().writeSnt(now.c_str(), nullptr), 1);
    const bool differs = readFile(now) != readFile(saved);
    ASSERT_EQ(history().getModified(), differs) << "seed " << seed << ", step " << step << " (" << what << ")";
  }
}

TEST_F(Undo, BrokenSessionProtocolAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  select({0});
  EXPECT_DEATH(
      {
        history().beginSession(undo::kMove);
        history().endSession(undo::kLength, nullptr);
      },
      "scmd == cmd");
  UndoData bad;
  int32_t indexes[3] = {2, 0, 1};
  int32_t count = 1;
  bad.cmd = undo::kIntensity;
  bad.indexes = indexes;
  bad.data = reinterpret_cast<uint8_t*>(&count);
  bad.size = sizeof count;
  EXPECT_DEATH(history().processData(bad), "n == cnt");
}

TEST_F(Undo, RecoveryFileFollowsTheModifiedState) {
  struct View : UndoView {
    void setMenuTitles(const std::string& undo, const std::string& redo) override { titles = undo + "/" + redo; }
    void setEdited(bool modified) override { edited = modified; }
    std::string titles;
    bool edited = false;
  } view;
  owner_.setUndoView(&view);
  const std::string path = recoveryFilePath();
  ASSERT_EQ(path.rfind(home_.path(), 0), 0u);
  ASSERT_EQ(path.substr(path.size() - 20), "/tona/temp/.temp.snt");
  select({1});
  for (int step = 0; step < 3; ++step) {
    history().beginSession(undo::kMove);
    owner_.dragSelection(100, 1, 1);
    history().endSession(undo::kMove, owner_.undoCallback());
    EXPECT_EQ(view.titles, "音符の移動を元に戻す/やり直し");
    EXPECT_TRUE(view.edited);
    CScaleMan scale;
    CNoteMan reread(&scale);
    ASSERT_GE(reread.openSnt(path.c_str(), nullptr), 0);
    EXPECT_EQ(state(reread), state(man()));
  }
  history().setSavePoint(owner_.undoCallback());
  EXPECT_FALSE(view.edited);
  EXPECT_FALSE(fileExists(path));
  history().undo(owner_.undoCallback());
  EXPECT_TRUE(fileExists(path));
  history().redo(owner_.undoCallback());
  EXPECT_FALSE(fileExists(path));
}

TEST_F(Undo, RecoveryFileIsNeverTorn) {
  // A child writes the recovery file over and over, alternately a short and
  // a long project; it is killed at random moments. What is left is
  // always one of the two, whole.
  const std::string path = recoveryFilePath();
  ASSERT_TRUE(makeFolders(path.substr(0, path.rfind('/'))));
  for (int i = 0; i < 400; ++i) {
    NoteData note = makeNote("la", 60, 240, 240);
    engine().insert_note(engine().noteCount, &note);
  }
  std::mt19937 random(11);
  for (int round = 0; round < 40; ++round) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      CScaleMan scale;
      CNoteMan small(&scale);
      NoteData note = makeNote("a");
      small.engine()->insert_note(0, &note);
      for (int k = 0;; ++k) writeRecoveryFile(k % 2 ? small : man(), path);
    }
    usleep(1000 + random() % 20000);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    if (!fileExists(path)) continue;  // killed before the first rename
    const std::string text = readFile(path);
    const size_t end = text.rfind("[#TRACKEND]");
    ASSERT_NE(end, std::string::npos) << "round " << round;
    EXPECT_EQ(text.find_first_not_of("\r\n", end + 11), std::string::npos) << "round " << round;
    CScaleMan scale;
    CNoteMan reread(&scale);
    const int sections = reread.openSnt(path.c_str(), nullptr);
    EXPECT_TRUE(sections == 1 || sections == 408) << "round " << round << ": " << sections;
  }
}

TEST_F(Undo, EachWindowKeepsItsOwnCopyListedOnceItsProcessHasEnded) {
  // A child process is an editor with two windows: their copies, each with
  // the project's path beside it, are not offered while it runs, and are
  // once it has been killed.
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    CScaleMan scale;
    CCNoteMan first(&scale), second(&scale);
    NoteData note = makeNote("ka");
    first.noteman()->engine()->insert_note(0, &note);
    first.noteman()->engine()->set_projectName("song one");
    first.setRecoveryPath(newRecoveryCopyPath());
    second.setRecoveryPath(newRecoveryCopyPath());
    first.noteman()->engine()->set_projectPath("/music/one.snt");
    first.undoman()->setOtherModified(first.undoCallback());
    second.undoman()->setOtherModified(second.undoCallback());
    const char byte = 1;
    if (write(ready[1], &byte, 1) != 1) _exit(1);
    pause();
    _exit(0);
  }
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);
  EXPECT_TRUE(findRecoveryCopies().empty());  // still running
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);

  const std::string folder = home_.path() + "/.local/state/tona/temp";
  ASSERT_EQ(mkfifo((folder + "/.temp-1-1.snt").c_str(), 0600), 0);  // not a file: never opened
  const std::vector<RecoveryCopy> copies = findRecoveryCopies();
  ASSERT_EQ(copies.size(), 2u);
  const std::string prefix = folder + "/.temp-" + std::to_string(child) + "-";
  EXPECT_TRUE(copies[0].file.rfind(prefix, 0) == 0 && copies[1].file.rfind(prefix, 0) == 0);
  const RecoveryCopy& one = copies[0].projectPath.empty() ? copies[1] : copies[0];
  const RecoveryCopy& two = copies[0].projectPath.empty() ? copies[0] : copies[1];
  EXPECT_EQ(one.projectPath, "/music/one.snt");
  EXPECT_EQ(one.projectName, "song one");
  EXPECT_EQ(one.noteCount, 1);
  EXPECT_EQ(two.projectPath, "");
  EXPECT_EQ(two.projectName, "");  // none of its own
  EXPECT_EQ(two.noteCount, 0);
  EXPECT_EQ(recoveryCopyProjectPath(one.file), "/music/one.snt");

  // Taken back: the copy, what is beside it, and the ended process's lock go.
  removeRecoveryCopy(one.file);
  removeRecoveryCopy(two.file);
  EXPECT_FALSE(fileExists(one.file + ".path"));
  EXPECT_TRUE(findRecoveryCopies().empty());
  EXPECT_FALSE(fileExists(folder + "/.temp-" + std::to_string(child) + ".lock"));
}
