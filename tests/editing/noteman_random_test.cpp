// Random edit sequences on random projects: after every operation the note
// list must stay consistent, and a save then read must give the same notes;
// recorded as undo steps, they undo back to the very project they started
// from and redo forward to the edited one.

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "editing/ccnoteman.h"
#include "editing/scaleman.h"
#include "editing/undoman.h"
#include "tests/engine/notes.h"
#include "tests/testutil.h"

namespace {

const char* const kLyrics[] = {"\xe3\x81\x82", "\xe3\x81\x8b", "\xe3\x81\x95", "R", "", "la", "\xe3\x82\x93"};

struct Sounding {
  long start;
  int length;
  int noteNum;
  int layer;
  std::string lyric;
  bool operator==(const Sounding& o) const {
    return start == o.start && length == o.length && noteNum == o.noteNum && layer == o.layer && lyric == o.lyric;
  }
};

std::vector<Sounding> soundingNotes(CNoteMan& man) {
  std::vector<Sounding> out;
  const ctonm2& engine = *man.engine();
  long start = 0;
  for (int i = 0; i < engine.noteCount; ++i) {
    const NoteData& note = engine.notes[i];
    start += note.Delta;
    if (!ctonm2::is_r(note.Lyric)) out.push_back({start, note.Length, note.NoteNum, note.layer, note.Lyric});
  }
  return out;
}

// The invariants every edit keeps; the first broken one, or "".
std::string checkInvariants(CNoteMan& man) {
  const ctonm2& engine = *man.engine();
  if (engine.noteCount < 0 || (engine.noteCount > 0) != (engine.notes != nullptr)) return "count and array disagree";
  double sum = 0.0;
  for (int i = 0; i < engine.noteCount; ++i) {
    const NoteData& note = engine.notes[i];
    if (note.Delta < 0) return "negative Delta at note " + std::to_string(i);
    // Reading every element a count promises (the sanitizer build catches
    // a count larger than its array).
    for (const float* list : {note.PBS, note.PBW, note.PBY}) {
      if (list != nullptr && list[0] != static_cast<float>(floatListCount(list)) && list[0] > 0.0f) {
        return "non-integral count at note " + std::to_string(i);
      }
      for (int k = 1; k <= floatListCount(list); ++k) sum += list[k];
    }
    for (int k = 1; k <= byteListCount(note.PBM); ++k) sum += note.PBM[k];
    if (strnlen(note.Lyric, sizeof note.Lyric) == sizeof note.Lyric) return "unterminated lyric";
  }
  return sum == sum ? "" : "NaN in a pitch line";
}

void randomProject(CNoteMan& man, std::mt19937& random) {
  ctonm2& engine = *man.engine();
  const int count = std::uniform_int_distribution<int>(0, 24)(random);
  for (int i = 0; i < count; ++i) {
    NoteData note = makeNote(kLyrics[random() % 7], 40 + static_cast<int>(random() % 40),
                             static_cast<int>(random() % 961), 30 + static_cast<int>(random() % 1900));
    note.layer = static_cast<int>(random() % 3);
    if (random() % 2) CNoteMan::defaultPitch(&note);
    if (random() % 4 == 0) note.PBY = floatList({5.0f, -5.0f});
    engine.insert_note(engine.noteCount, &note);
  }
  man.synchronizeNotes();
}

// Brackets an edit in an undo session when a history is given.
class Steps {
 public:
  explicit Steps(CUndoMan* history) : history_(history) {}
  template <typename Edit>
  void selection(uint32_t cmd, Edit edit) {
    if (history_ != nullptr) history_->beginSession(cmd);
    edit();
    if (history_ != nullptr) history_->endSession(cmd, nullptr);
  }
  // One note; the edit returns where the note is afterwards.
  template <typename Edit>
  void single(uint32_t cmd, int32_t index, Edit edit) {
    if (history_ != nullptr) history_->beginSession(index, cmd);
    const int32_t after = edit();
    if (history_ != nullptr) history_->endSession(after, cmd, nullptr);
  }

 private:
  CUndoMan* history_;
};

// One operation, as the editor's gestures call it (and record it, when
// `history` is given).
void randomOperation(CCNoteMan& owner, std::mt19937& random, CUndoMan* history = nullptr) {
  CNoteMan& man = *owner.noteman();
  Steps steps(history);
  const int count = man.noteCount();
  auto pick = [&] { return count > 0 ? static_cast<int>(random() % static_cast<unsigned>(count + 1)) - 1 : -1; };
  auto ticks = [&](int range) { return static_cast<int>(random() % (2 * range + 1)) - range; };
  const int grids[] = {1, 15, 60, 120, 240, 480};
  const int step = grids[random() % 6];
  const int i = pick();
  const unsigned op = random() % 23;
  switch (op) {
    case 0: man.addSelect(i, static_cast<int>(random() % 3)); break;
    case 1: man.SelectAll(); break;
    case 2: man.ReleaseAll(); break;
    case 3: {
      const int64_t at = random() % 20000;
      const int length = 30 + static_cast<int>(random() % 1000);
      const char* lyric = kLyrics[random() % 7];
      steps.single(undo::kAdd, -1, [&] { return man.insertNotePosition(at, length, 60, lyric); });
      man.synchronizeNotes();
      break;
    }
    case 4: steps.single(undo::kDelete, i, [&] { return man.deleteNote(i); }); man.synchronizeNotes(); break;
    case 5: steps.selection(undo::kDelete, [&] { man.DeleteNotes(); }); man.synchronizeNotes(); break;
    case 6: steps.selection(undo::kDelete, [&] { man.CutNotes(); }); man.synchronizeNotes(); break;
    case 7: man.CopyNotes(); break;
    case 8: {
      const int64_t at = random() % 20000;
      steps.selection(undo::kAdd, [&] { man.PasteNotes(at); });
      man.synchronizeNotes();
      break;
    }
    case 9: {
      const int dt = ticks(3000), dn = ticks(12);
      steps.selection(undo::kMove, [&] { owner.dragSelection(dt, dn, step); });
      break;
    }
    case 10: {
      const int dt = ticks(3000), dn = ticks(5);
      man.synchronizeNotes();
      steps.single(undo::kMove, i, [&] {
        man.moveQuontizeNote(i, dt, dn, step);
        return man.normalizeNotes(std::max(i, 0));
      });
      man.synchronizeNotes();
      break;
    }
    case 11: {
      const int dt = ticks(2000);
      steps.selection(undo::kLength, [&] { owner.resizeSelection(dt, step); });
      break;
    }
    case 12: steps.selection(undo::kQuantize, [&] { owner.quantizeSelection(step); }); break;
    case 13: {
      const int dn = ticks(30);
      if (i < 0) steps.selection(undo::kMove, [&] { man.addNoteNum(dn, -1); });
      if (i >= 0) steps.single(undo::kMove, i, [&] { return man.addNoteNum(dn, i), i; });
      break;
    }
    case 14: {
      char text[64] = "\xe3\x81\x8d\xe3\x82\x83 \xe3\x81\x82\xe3\x81\x84x";
      const bool selectedOnly = random() % 2;
      if (random() % 4 == 0) {
        man.assignLyric(text, sizeof text, selectedOnly, true);
        break;
      }
      if (man.getSelectCount() == 0) break;  // the dialog needs a selection
      if (!selectedOnly) man.assignLyric(text, sizeof text, false, true);  // as the dialog does
      steps.selection(undo::kLyric, [&] { man.assignLyric(text, sizeof text, selectedOnly, false); });
      break;
    }
    case 15: {
      const int k = static_cast<int>(random() % 5);
      steps.single(undo::kPitch, i, [&] { return man.addPitchPoint(i, k), i; });
      break;
    }
    case 16: {
      const int k = static_cast<int>(random() % 5);
      steps.single(undo::kPitch, i, [&] { return man.delPitchPoint(i, k), i; });
      break;
    }
    case 17: {
      const int k = static_cast<int>(random() % 6);
      const int shape = "srj"[random() % 3];
      steps.single(undo::kPitch, i, [&] { return man.setPitchKind(i, k, shape), i; });
      break;
    }
    case 18:
      if (random() % 2) {
        steps.selection(undo::kVibrato, [&] { man.defaultVibratoToSelected(); });
      } else {
        const bool on = random() % 2;
        steps.selection(undo::kEnvelope, [&] { man.switchEnvForSelected(on); });
      }
      break;
    case 19: steps.single(undo::kPitch, i, [&] { return man.defaultPitch(i), i; }); break;
    case 20: man.setTargetLayer(static_cast<int>(random() % 4) - 1); break;
    case 21: {
      const float tempo = static_cast<float>(60 + random() % 120);
      if (i >= 0) steps.single(undo::kTempo, i, [&] { return man.setTempo(i, tempo), i; });
      break;
    }
    case 22: {
      const int value = static_cast<int>(random() % 200);
      steps.selection(undo::kIntensity, [&] { man.setIntensityForSelected(value); });
      break;
    }
  }
}

}  // namespace

TEST(RandomEdits, KeepTheNoteListConsistent) {
  FakeHome home;
  TempDir dir;
  const std::string file = dir.file("random.snt");
  for (uint32_t seed = 1; seed <= 2000; ++seed) {
    std::mt19937 random(seed);
    CScaleMan scale;
    CCNoteMan owner(&scale);
    CNoteMan& man = *owner.noteman();
    randomProject(man, random);
    const int length = 1 + static_cast<int>(random() % 30);
    for (int step = 0; step < length; ++step) {
      randomOperation(owner, random);
      const std::string broken = checkInvariants(man);
      ASSERT_EQ(broken, "") << "seed " << seed << ", operation " << step;
    }
    // A save then a read gives the same sounding notes.
    ASSERT_EQ(man.writeSnt(file.c_str(), nullptr), 1) << "seed " << seed;
    CNoteMan reread(&scale);
    ASSERT_GE(reread.openSnt(file.c_str(), nullptr), 0) << "seed " << seed;
    ASSERT_EQ(soundingNotes(reread), soundingNotes(man)) << "seed " << seed;
  }
}

TEST(RandomEdits, UndoAllAndRedoAllGiveTheProjectsBack) {
  FakeHome home;
  TempDir dir;
  const std::string file = dir.file("undo.snt");
  auto saved = [&](CNoteMan& man) {
    EXPECT_EQ(man.writeSnt(file.c_str(), nullptr), 1);
    return readFile(file);
  };
  for (uint32_t seed = 1; seed <= 1000; ++seed) {
    std::mt19937 random(seed);
    CScaleMan scale;
    CCNoteMan owner(&scale);
    owner.setKeepRecovery(false);
    CNoteMan& man = *owner.noteman();
    CUndoMan& history = *owner.undoman();
    randomProject(man, random);
    const std::string original = saved(man);
    const int length = 1 + static_cast<int>(random() % 40);
    for (int step = 0; step < length; ++step) randomOperation(owner, random, &history);
    const std::string edited = saved(man);
    while (history.isCanUndo()) {
      history.undo(nullptr);
      ASSERT_EQ(checkInvariants(man), "") << "seed " << seed << ", undo to " << history.position();
    }
    ASSERT_EQ(saved(man), original) << "seed " << seed;
    while (history.isCanRedo()) history.redo(nullptr);
    ASSERT_EQ(saved(man), edited) << "seed " << seed;
  }
}
