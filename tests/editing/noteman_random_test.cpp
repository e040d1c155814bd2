// Random edit sequences on random projects: after every operation the note
// list must stay consistent, and a save then read must give the same notes.

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "editing/ccnoteman.h"
#include "editing/scaleman.h"
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

// One operation, as the editor's gestures call it.
void randomOperation(CCNoteMan& owner, std::mt19937& random) {
  CNoteMan& man = *owner.noteman();
  const int count = man.noteCount();
  auto pick = [&] { return count > 0 ? static_cast<int>(random() % static_cast<unsigned>(count + 1)) - 1 : -1; };
  auto ticks = [&](int range) { return static_cast<int>(random() % (2 * range + 1)) - range; };
  const int steps[] = {1, 15, 60, 120, 240, 480};
  const int step = steps[random() % 6];
  switch (random() % 22) {
    case 0: man.addSelect(pick(), static_cast<int>(random() % 3)); break;
    case 1: man.SelectAll(); break;
    case 2: man.ReleaseAll(); break;
    case 3: man.insertNotePosition(random() % 20000, 30 + static_cast<int>(random() % 1000), 60, kLyrics[random() % 7]); man.synchronizeNotes(); break;
    case 4: man.deleteNote(pick()); man.synchronizeNotes(); break;
    case 5: man.DeleteNotes(); man.synchronizeNotes(); break;
    case 6: man.CutNotes(); man.synchronizeNotes(); break;
    case 7: man.CopyNotes(); break;
    case 8: man.PasteNotes(random() % 20000); man.synchronizeNotes(); break;
    case 9: owner.dragSelection(ticks(3000), ticks(12), step); break;
    case 10: {
      const int i = pick();
      man.synchronizeNotes();
      man.moveQuontizeNote(i, ticks(3000), ticks(5), step);
      man.normalizeNotes(std::max(i, 0));
      man.synchronizeNotes();
      break;
    }
    case 11: owner.resizeSelection(ticks(2000), step); break;
    case 12: owner.quantizeSelection(step); break;
    case 13: man.addNoteNum(ticks(30), pick()); break;
    case 14: {
      char text[64] = "\xe3\x81\x8d\xe3\x82\x83 \xe3\x81\x82\xe3\x81\x84x";
      man.assignLyric(text, sizeof text, random() % 2, random() % 4 == 0);
      break;
    }
    case 15: man.addPitchPoint(pick(), static_cast<int>(random() % 5)); break;
    case 16: man.delPitchPoint(pick(), static_cast<int>(random() % 5)); break;
    case 17: man.setPitchKind(pick(), static_cast<int>(random() % 6), "srj"[random() % 3]); break;
    case 18: random() % 2 ? man.defaultVibratoToSelected() : man.switchEnvForSelected(random() % 2); break;
    case 19: man.defaultPitch(pick()); break;
    case 20: man.setTargetLayer(static_cast<int>(random() % 4) - 1); break;
    case 21: {
      const int i = pick();
      if (i >= 0) man.setTempo(i, static_cast<float>(60 + random() % 120));
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
