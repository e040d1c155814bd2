#include "editing/noteman.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "editing/ccnoteman.h"
#include "editing/noteserial.h"
#include "editing/scaleman.h"
#include "support/multibyte.h"
#include "support/paths.h"
#include "tests/engine/notes.h"
#include "tests/voicebank/bank.h"

namespace {

struct Placed {
  const char* lyric;
  int start;  // absolute, ticks
  int length;
  int noteNum;
};

class Editing : public ::testing::Test {
 protected:
  // Appends notes at absolute starts (given in order).
  void load(std::initializer_list<Placed> placed) {
    int previous = 0;
    for (const Placed& p : placed) {
      NoteData note = makeNote(p.lyric, p.noteNum, p.start - previous, p.length);
      engine().insert_note(engine().noteCount, &note);
      previous = p.start;
    }
    man().synchronizeNotes();
  }
  ctonm2& engine() { return *man().engine(); }
  CNoteMan& man() { return *owner_.noteman(); }
  NoteData& note(int i) { return engine().notes[i]; }
  std::vector<long> starts() {
    std::vector<long> out;
    for (int i = 0; i < engine().noteCount; ++i) out.push_back(static_cast<long>(man().getPosition(i)));
    return out;
  }
  std::string lyrics() {
    std::string out;
    for (int i = 0; i < engine().noteCount; ++i) out += std::string(note(i).Lyric) + ",";
    return out;
  }
  std::string selection() {
    std::string out;
    for (int i = 0; i < engine().noteCount; ++i) out += note(i).selected ? '1' : '0';
    return out;
  }
  // Every selected note alone selected, by index.
  void select(std::initializer_list<int> indexes) {
    man().ReleaseAll();
    for (int i : indexes) man().addSelect(i, 2);
  }

  CScaleMan scale_;
  CCNoteMan owner_{&scale_};
};

std::vector<float> values(const float* list) {
  std::vector<float> out;
  for (int i = 1; i <= floatListCount(list); ++i) out.push_back(list[i]);
  return out;
}

std::string shapes(const uint8_t* list) {
  std::string out;
  for (int i = 1; i <= byteListCount(list); ++i) out += list[i] != 0 ? static_cast<char>(list[i]) : '.';
  return out;
}

}  // namespace

TEST_F(Editing, ConstructionSetsTheDefaults) {
  EXPECT_STREQ(engine().projectName, "(no title)");
  EXPECT_STREQ(engine().flags, "");
  EXPECT_STREQ(engine().voiceDir, "");
  EXPECT_EQ(man().anchor(), -1);
  EXPECT_EQ(man().getAllTicks(), 0);
  EXPECT_EQ(man().topOfSelection(), -1);
  EXPECT_STREQ(man().getLyric(0), "");
  EXPECT_EQ(man().getPreNote(0), nullptr);
}

TEST_F(Editing, SelectionModesAndQueries) {
  load({{"a", 0, 480, 60}, {"R", 480, 480, 60}, {"b", 960, 480, 60}, {"c", 1440, 480, 60}, {"d", 1920, 480, 60}});
  man().addSelect(3, 1);  // no anchor yet: a plain selection
  EXPECT_EQ(selection(), "00010");
  EXPECT_EQ(man().anchor(), 3);
  man().addSelect(1, 1);
  EXPECT_EQ(selection(), "01110");
  EXPECT_EQ(man().anchor(), 3);  // the range keeps its fixed end
  man().addSelect(4, 1);
  EXPECT_EQ(selection(), "00011");
  man().addSelect(0, 2);
  man().addSelect(3, 2);
  EXPECT_EQ(selection(), "10001");
  EXPECT_EQ(man().topOfSelection(), 0);
  EXPECT_EQ(man().lastOfSelection(), 4);
  EXPECT_EQ(man().getSelectCount(), 2);
  man().addSelect(9, 0);  // no such note: nothing changes
  EXPECT_EQ(selection(), "10001");

  man().ReleaseAll();
  note(3).layer = 1;
  note(4).layer = 1;
  man().setTargetLayer(0);
  EXPECT_EQ(man().SelectAll(), 5);
  EXPECT_EQ(selection(), "10100");  // not the rest, not layer 1
  EXPECT_EQ(man().lastNote(), 2);
  man().setTargetLayer(-1);
  EXPECT_EQ(man().firstNote(), 0);
  EXPECT_EQ(man().lastNote(), 4);
  EXPECT_EQ(man().prevNote(2), 0);  // over the rest
  EXPECT_EQ(man().nextNote(2), -1);  // the later notes are on another layer
  EXPECT_EQ(man().nextNote(3), 4);
  EXPECT_STREQ(man().getNextNote(0)->Lyric, "b");
}

TEST_F(Editing, PositionsBlanksAndPlainSetters) {
  load({{"a", 240, 480, 60}, {"b", 960, 240, 62}, {"c", 1440, 480, 64}});
  EXPECT_EQ(man().getPosition(1), 960);
  EXPECT_EQ(man().getPosition(7), 1440);
  EXPECT_EQ(man().getAllTicks(), 1920);
  // Deliberately stops one note before j: from note 0 to 2 only note 1's
  // Delta counts.
  EXPECT_EQ(man().getBlank(0, 2), 720 - 480);
  EXPECT_EQ(man().getBlank(0, 1), -480);
  EXPECT_EQ(man().getBlank(5, 6), 0);
  EXPECT_FLOAT_EQ(man().getBlankMSec(0, 2), 240 * 125.0f / 120.0f);
  man().setIntensity(1, 250);
  select({0, 2});
  man().setIntensityForSelected(-5);  // stored without clamping
  EXPECT_EQ(note(0).Intensity, -5);
  EXPECT_EQ(note(1).Intensity, 250);
  man().setTempo(1, 90.0f);
  EXPECT_EQ(man().getTempo(1), 90.0f);
  EXPECT_EQ(owner_.tempoAt(960), 90.0f);  // from its own tick on
  EXPECT_EQ(owner_.tempoAt(959), 120.0f);
}

TEST_F(Editing, InsertingKeepsOtherNotesInPlace) {
  load({{"a", 0, 480, 60}, {"b", 960, 480, 60}});
  EXPECT_EQ(man().insertNotePosition(960, 240, 65, "x"), 1);  // before the note starting there
  EXPECT_EQ(man().insertNotePosition(500, 240, 65, "y"), 1);
  EXPECT_EQ(man().insertNotePosition(5000, 240, 65, "z"), 4);  // appended
  EXPECT_EQ(lyrics(), "a,y,x,b,z,");
  EXPECT_EQ(starts(), (std::vector<long>{0, 500, 960, 960, 5000}));

  // The pen tool's note.
  const NoteData& pen = note(1);
  uint32_t bits;
  memcpy(&bits, &pen.PreUtterance, sizeof bits);
  EXPECT_EQ(bits, 0xFFC00000u);
  memcpy(&bits, &pen.VoiceOverlap, sizeof bits);
  EXPECT_EQ(bits, 0xFFC00000u);
  EXPECT_EQ(pen.Length, 240);
  EXPECT_EQ(pen.NoteNum, 65);
  EXPECT_EQ(pen.Intensity, 100);
  EXPECT_EQ(pen.Velocity, 100.0f);
  EXPECT_EQ(pen.Modulation, 0);
  EXPECT_EQ(values(pen.PBS), (std::vector<float>{-40.0f}));
  EXPECT_EQ(values(pen.PBW), (std::vector<float>{80.0f}));
  EXPECT_EQ(pen.PBY, nullptr);
  EXPECT_EQ(pen.PBM, nullptr);
  EXPECT_EQ(pen.Envelope[8], 35.0f);
  EXPECT_EQ(pen.layer, 0);
  man().setTargetLayer(3);
  man().insertNotePosition(0, 240, 60, "w");
  EXPECT_EQ(note(0).layer, 3);

  // An empty list takes the position as the Delta.
  CNoteMan empty(&scale_);
  EXPECT_EQ(empty.insertNotePosition(700, 240, 60, "q"), 0);
  EXPECT_EQ(empty.getDelta(0), 700);
}

TEST_F(Editing, DeletingKeepsTheFollowingNotesInPlace) {
  load({{"a", 100, 480, 60}, {"b", 960, 480, 60}, {"c", 1440, 480, 60}, {"d", 1900, 480, 60}});
  EXPECT_EQ(man().deleteNote(0), 0);
  EXPECT_EQ(starts(), (std::vector<long>{960, 1440, 1900}));
  EXPECT_EQ(man().deleteNote(9), -1);
  select({0, 2});
  EXPECT_EQ(man().DeleteNotes(), 2);
  EXPECT_EQ(lyrics(), "c,");
  EXPECT_EQ(starts(), (std::vector<long>{1440}));
}

TEST_F(Editing, CopyCutAndPasteKeepRelativeTiming) {
  load({{"a", 0, 480, 60}, {"b", 480, 480, 62}, {"c", 1200, 480, 64}, {"d", 2000, 480, 65}});
  note(2).PBY = floatList({5.0f});
  select({1, 2});
  int32_t size = 0;
  uint8_t* serial = man().selectToSerial(&size);
  ASSERT_NE(serial, nullptr);
  int32_t count = 0;
  memcpy(&count, serial, 4);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(size, 4 + CNoteSerial::serialLength(&note(1)) + CNoteSerial::serialLength(&note(2)));
  NoteData second;
  memset(&second, 0, sizeof second);
  CNoteSerial::unserialize(serial + 4 + CNoteSerial::serialLength(&note(1)), &second);
  EXPECT_EQ(second.Delta, 720);  // from the previous selected note
  ctonm2::note_clear(&second);
  free(serial);

  EXPECT_EQ(man().CutNotes(), 2);
  EXPECT_EQ(lyrics(), "a,d,");
  man().setTargetLayer(2);
  EXPECT_EQ(man().PasteNotes(3000), 2);
  EXPECT_EQ(lyrics(), "a,d,b,c,");
  EXPECT_EQ(starts(), (std::vector<long>{0, 2000, 3000, 3720}));
  EXPECT_EQ(selection(), "0011");  // exactly the pasted notes
  EXPECT_EQ(note(3).layer, 2);
  EXPECT_EQ(values(note(3).PBY), (std::vector<float>{5.0f}));

  // Copying nothing leaves the clipboard as it was.
  man().ReleaseAll();
  int32_t none = 0;
  EXPECT_EQ(man().selectToSerial(&none), nullptr);
  EXPECT_EQ(none, 4);
  EXPECT_EQ(man().CopyNotes(), 0);
  man().setTargetLayer(-1);
  EXPECT_EQ(man().PasteNotes(0), 2);
  EXPECT_EQ(lyrics(), "b,a,c,d,b,c,");  // b goes before a, which starts at 0 too
}

// Pasted notes go on the chosen layer, or keep their own when all are shown.
TEST_F(Editing, PastedNotesGoOnTheChosenLayer) {
  load({{"a", 0, 480, 60}, {"b", 480, 480, 62}});
  note(0).layer = note(1).layer = 2;
  select({0, 1});
  EXPECT_EQ(man().CopyNotes(), 2);
  man().setTargetLayer(0);
  EXPECT_EQ(man().PasteNotes(1920), 2);
  EXPECT_EQ(note(2).layer, 0);
  EXPECT_EQ(note(3).layer, 0);
  man().setTargetLayer(-1);
  EXPECT_EQ(man().PasteNotes(3840), 2);
  EXPECT_EQ(note(4).layer, 2);
}

TEST_F(Editing, PasteOfAnEmptyClipboardClearsTheSelection) {
  CClipMan().ToClip(nullptr, 0);
  load({{"a", 0, 480, 60}});
  select({0});
  EXPECT_EQ(man().PasteNotes(480), 0);
  EXPECT_EQ(selection(), "0");
  CNoteMan empty(&scale_);
  EXPECT_EQ(empty.CutNotes(), 0);
}

TEST_F(Editing, DragSnapsByAddingTheRemainder) {
  // Targets 250, 300, 330 and 240 on a grid of 120.
  for (auto [target, expected] : {std::pair{250, 260}, {300, 360}, {330, 300}, {240, 240}}) {
    CCNoteMan owner(&scale_);
    CNoteMan& m = *owner.noteman();
    NoteData a = makeNote("a", 60, 0, 480), b = makeNote("b", 60, 1000, 480);
    m.engine()->insert_note(0, &a);
    m.engine()->insert_note(1, &b);
    m.synchronizeNotes();
    m.addSelect(0, 0);
    EXPECT_EQ(m.moveSelectedNotes(target, 0, 120), 2);  // the Delta of both notes
    EXPECT_EQ(m.getPosition(0), expected) << "target " << target;
    EXPECT_EQ(m.getPosition(1), 1000) << "the unselected note stays";
  }
}

TEST_F(Editing, DragIsComputedFromTheSnapshot) {
  load({{"a", 480, 480, 60}, {"b", 960, 480, 60}, {"c", 1440, 480, 60}, {"d", 2400, 480, 60}});
  select({1, 2});
  // Mouse movements re-applied against one snapshot do not accumulate.
  man().moveSelectedNotes(100, 1, 1);
  man().moveSelectedNotes(200, 2, 1);
  EXPECT_EQ(starts(), (std::vector<long>{480, 1160, 1640, 2400}));
  EXPECT_EQ(note(1).NoteNum, 62);
  // Past tick 0 the whole selection's shift is clamped, not only the first.
  man().moveSelectedNotes(-5000, 0, 1);
  EXPECT_EQ(starts(), (std::vector<long>{480, 0, 480, 2400}));
  EXPECT_EQ(note(1).NoteNum, 60);
  man().synchronizeNotes();
}

TEST_F(Editing, TransposeClampsWhileDragAcceptsUpTo119) {
  load({{"a", 0, 480, 106}, {"b", 480, 480, 30}});
  select({0});
  EXPECT_EQ(man().addNoteNum(5, -1), 1);
  EXPECT_EQ(note(0).NoteNum, 107);
  note(0).NoteNum = 106;
  man().synchronizeNotes();
  EXPECT_EQ(man().moveSelectedNotes(0, 5, 1), 3);  // two Deltas written, one note number
  EXPECT_EQ(note(0).NoteNum, 111);
  EXPECT_EQ(man().moveSelectedNotes(0, 14, 1), 2);  // 120 is refused
  EXPECT_EQ(note(0).NoteNum, 111);
  EXPECT_EQ(man().moveSelectedNotes(0, 13, 1), 3);  // 119 is the top
  EXPECT_EQ(note(0).NoteNum, 119);
  select({1});
  EXPECT_EQ(man().addNoteNum(-20, -1), 1);
  EXPECT_EQ(note(1).NoteNum, 24);
  EXPECT_EQ(man().addNoteNum(1, 0), 1);  // one note, selected or not
  EXPECT_EQ(note(0).NoteNum, 107);
  EXPECT_EQ(man().addNoteNum(1, 5), 0);
}

TEST_F(Editing, MoveOneNoteRoundsToNearest) {
  load({{"a", 0, 480, 60}, {"b", 480, 480, 60}, {"c", 960, 480, 60}});
  EXPECT_EQ(man().moveQuontizeNote(1, 70, 2, 120), 2);  // 550 -> 600
  EXPECT_EQ(starts(), (std::vector<long>{0, 600, 960}));
  EXPECT_EQ(note(1).NoteNum, 62);
  EXPECT_EQ(man().moveQuontizeNote(1, 60, 2, 120), 1);  // 540: exactly half rounds down
  EXPECT_EQ(starts(), (std::vector<long>{0, 480, 960}));
  EXPECT_EQ(man().moveQuontizeNote(1, -9999, 0, 1), 2);  // clamped at the song start
  EXPECT_EQ(starts(), (std::vector<long>{0, 0, 960}));
  EXPECT_EQ(man().moveQuontizeNote(7, 10, 0, 1), 0);
  // Note numbers up to 119, from the snapshot's 60.
  EXPECT_EQ(man().moveQuontizeNote(1, 0, 60, 1), 1);  // 120: only the Delta goes back
  EXPECT_EQ(note(1).NoteNum, 60);
  EXPECT_EQ(man().moveQuontizeNote(1, 0, 59, 1), 1);
  EXPECT_EQ(note(1).NoteNum, 119);
}

TEST_F(Editing, ResizeRefusesLengthsOutside30To7680) {
  load({{"a", 0, 480, 60}, {"b", 480, 480, 60}});
  select({0, 1});
  EXPECT_EQ(man().sizeSelectedNotes(-451, 1), 0);  // 29
  EXPECT_EQ(man().sizeSelectedNotes(7201, 1), 0);  // 7681
  EXPECT_EQ(note(0).Length, 480);
  EXPECT_EQ(man().sizeSelectedNotes(-450, 1), 2);
  EXPECT_EQ(note(1).Length, 30);
  EXPECT_EQ(man().sizeSelectedNotes(100, 120), 2);  // 580 rounds to 600
  EXPECT_EQ(note(0).Length, 600);
  EXPECT_EQ(man().sizeQuontizeNote(0, 7200, 1), 1);
  EXPECT_EQ(note(0).Length, 7680);
}

TEST_F(Editing, QuantizeMovesOnlyTheSelectedNotes) {
  load({{"a", 50, 480, 60}, {"b", 500, 480, 60}, {"c", 1000, 480, 60}});
  select({0, 1});
  EXPECT_EQ(man().quontizeSelectedNotes(240), 2);
  EXPECT_EQ(starts(), (std::vector<long>{0, 480, 1000}));
  EXPECT_EQ(man().quontizeSelectedNotes(240), 0);
}

TEST_F(Editing, NormalizeRestoresOrderKeepingPositions) {
  load({{"a", 0, 480, 60}, {"b", 480, 480, 61}, {"c", 960, 480, 62}, {"d", 1440, 480, 63}});
  select({3});
  man().moveSelectedNotes(-1200, 0, 1);  // d to 240: before b and c
  EXPECT_LT(note(3).Delta, 0);
  EXPECT_EQ(man().normalizeNotes(3), 1);
  EXPECT_EQ(lyrics(), "a,d,b,c,");
  EXPECT_EQ(starts(), (std::vector<long>{0, 240, 480, 960}));

  man().synchronizeNotes();
  select({0});
  man().moveSelectedNotes(700, 0, 1);  // a after d and b
  EXPECT_EQ(man().normalizeNotes(0), 2);
  EXPECT_EQ(lyrics(), "d,b,a,c,");
  EXPECT_EQ(starts(), (std::vector<long>{240, 480, 700, 960}));
  EXPECT_EQ(man().normalizeNotes(-1), -1);
  EXPECT_EQ(man().normalizeNotes(5), -1);
  EXPECT_EQ(man().normalizeNotes(4), 4);
}

TEST_F(Editing, LyricFlowInTakesSmallKanaAndSkipsSpaces) {
  load({{"a", 0, 480, 60}, {"b", 480, 480, 60}, {"c", 960, 480, 60}, {"d", 1440, 480, 60}});
  select({0, 1, 2});
  char text[64] = "\xe3\x81\x8d\xe3\x82\x83 \xe3\x81\x8d";  // きゃ space き
  int32_t given = 0;
  EXPECT_EQ(man().assignLyric(text, sizeof text, false, false, &given), 0);
  EXPECT_EQ(given, 2);
  EXPECT_EQ(lyrics(), "\xe3\x81\x8d\xe3\x82\x83,\xe3\x81\x8d,c,d,");
  EXPECT_STREQ(text, "");
  EXPECT_EQ(selection(), "1100");

  // What is left comes back in Shift_JIS; rests take nothing.
  note(1).Lyric[0] = 'R', note(1).Lyric[1] = '\0';
  select({0});
  char more[64] = "\xe3\x81\x82\xe3\x80\x80\xe3\x81\x84\xe3\x81\x86\xe3\x81\x88\xe3\x81\x8a";  // あ　いうえお
  man().assignLyric(more, sizeof more, false, false, &given);
  EXPECT_EQ(given, 3);
  EXPECT_EQ(lyrics(), "\xe3\x81\x82,R,\xe3\x81\x84,\xe3\x81\x86,");
  EXPECT_STREQ(more, "\x82\xa6\x82\xa8");  // えお in Shift_JIS
  EXPECT_EQ(selection(), "1111");

  // Selected notes only: an unselected note still consumes a space.
  select({0, 3});
  char spaced[64] = "x yz";
  man().assignLyric(spaced, sizeof spaced, true, false, &given);
  EXPECT_EQ(lyrics(), "x,R,\xe3\x81\x84,y,");
  EXPECT_STREQ(spaced, "z");
  EXPECT_EQ(selection(), "1001");  // kept as it was

  // A dry run changes no lyric and leaves the text.
  char dry[64] = "pq";
  man().assignLyric(dry, sizeof dry, false, true, &given);
  EXPECT_EQ(given, 2);
  EXPECT_EQ(lyrics(), "x,R,\xe3\x81\x84,y,");
  EXPECT_STREQ(dry, "pq");

  // No room given: nothing read, nothing changed.
  EXPECT_EQ(man().assignLyric(dry, 0, false, false, &given), 0);
  EXPECT_EQ(given, 0);
  EXPECT_EQ(lyrics(), "x,R,\xe3\x81\x84,y,");

  // No selection: nothing assigned, the text comes back, note 0 selected.
  man().ReleaseAll();
  char unused[64] = "\xe3\x81\x8b";
  man().assignLyric(unused, sizeof unused, false, false, &given);
  EXPECT_EQ(given, 0);
  EXPECT_STREQ(unused, "\x82\xa9");
  EXPECT_EQ(selection(), "1000");
}

TEST(GetOneWord, TakesTheLastPartsFirstSyllable) {
  char out[64];
  // A file name: the part after the last "/" then "\\" then space.
  EXPECT_STREQ(CNoteMan::getOneWord("voice/a\\b \xe3\x81\x8d\xe3\x82\x83\xe3\x81\x82.wav", out, 64, 0),
               "\xe3\x81\x8d\xe3\x82\x83");
  EXPECT_STREQ(CNoteMan::getOneWord("voice/\xe3\x81\x8b\xe3\x82\x9b\xe3\x81\x87x", out, 64, 0),
               "\xe3\x81\x8b\xe3\x82\x9b\xe3\x81\x87");  // voiced mark, then small kana
  EXPECT_STREQ(CNoteMan::getOneWord("dir/kya123", out, 64, 0), "kya");
  EXPECT_STREQ(CNoteMan::getOneWord("dir/kya123", out, 64, 1), "dir/kya");
  EXPECT_STREQ(CNoteMan::getOneWord("dir/kya123", out, 64, 2), "kya123");
  EXPECT_STREQ(CNoteMan::getOneWord("dir/", out, 64, 0), "");
  EXPECT_STREQ(CNoteMan::getOneWord("abcdefgh", out, 4, 0), "abc");  // bounded by the out size
  EXPECT_STREQ(CNoteMan::getOneWord("abcdefgh", out, 1, 0), "");
}

TEST_F(Editing, SearchRunsOneWayWithoutWrapping) {
  load({{"ka", 0, 480, 60}, {"sa", 480, 480, 60}, {"aka", 960, 480, 60}, {"ka", 1440, 480, 60}});
  EXPECT_EQ(man().searchNote("ka", -1, false), 0);
  EXPECT_EQ(man().searchNote("ka", 0, false), 2);
  EXPECT_EQ(man().searchNote("ka", 3, false), -1);
  EXPECT_EQ(man().searchNote("ka", 3, true), 2);
  EXPECT_EQ(man().searchNote("ka", 99, true), 2);  // from min(from, count - 1) - 1
  EXPECT_EQ(man().searchNote("ka", 0, true), -1);
  EXPECT_EQ(man().searchNote("KA", -1, false), -1);
  note(2).layer = 1;
  man().setTargetLayer(0);
  EXPECT_EQ(man().searchNote("ka", 0, false), 3);
}

TEST_F(Editing, EnvelopeAndVibratoEdits) {
  load({{"a", 0, 480, 60}, {"b", 480, 480, 60}});
  note(0).Envelope[4] = 80.0f;
  EXPECT_EQ(man().switchEnvelope(0, true), 1);
  EXPECT_EQ(note(0).Envelope[11], 1.0f);
  EXPECT_EQ(note(0).Envelope[13], 80.0f);
  EXPECT_EQ(note(0).Envelope[15], 80.0f);
  EXPECT_EQ(man().switchEnvelope(0, false), 1);
  EXPECT_EQ(note(0).Envelope[11], 0.0f);
  EXPECT_EQ(note(0).Envelope[13], 80.0f);
  EXPECT_EQ(man().defaultEnvelope(0), 1);
  EXPECT_EQ(note(0).Envelope[4], 100.0f);
  EXPECT_EQ(man().defaultEnvelope(5), 0);

  // Corrected to the rendered length (pre-utterance plus true length).
  note(1)._preuttr = 20.0f;
  note(1)._truelen = 21.0f;
  select({1});
  EXPECT_EQ(man().correctEnvForSelected(), 1);
  const float* env = note(1).Envelope;
  EXPECT_NEAR(env[0] + env[1] + env[9] + env[2] + env[8], 40.0f, 1e-4);
  note(1)._truelen = 81.0f;
  EXPECT_EQ(man().equalSpaceEnvForSelected(), 1);
  EXPECT_FLOAT_EQ(note(1).Envelope[1], (101.0f - note(1).Envelope[0] - note(1).Envelope[8]) / 4);

  note(1).VBR[0] = 50;
  select({0, 1});
  EXPECT_EQ(man().defaultVibratoToSelected(), 1);  // note 1 keeps its own
  EXPECT_EQ(note(0).VBR[1], 185);
  EXPECT_EQ(note(1).VBR[0], 50);
  EXPECT_TRUE(man().isEnableVibrato(1));
  EXPECT_EQ(man().clearVibratoToSelected(), 2);
  EXPECT_FALSE(man().isEnableVibrato(0));
  EXPECT_EQ(note(1).VBR[1], 0);
}

TEST_F(Editing, PitchPointsSplitAndMergeSegments) {
  load({{"a", 0, 480, 64}, {"b", 480, 480, 60}});
  EXPECT_FALSE(man().isEnablePitch(1));
  EXPECT_EQ(man().addPitchPoint(1, 0), 0);  // needs a line
  note(1).PBY = floatList({7.0f});
  EXPECT_EQ(man().defaultPitch(1), 1);
  EXPECT_EQ(values(note(1).PBS), (std::vector<float>{-40.0f}));
  EXPECT_EQ(values(note(1).PBY), (std::vector<float>{7.0f}));  // left as it was
  ctonm2::note_clear(&note(1));
  note(1) = makeNote("b", 60, 480, 480);
  man().defaultPitch(1);

  // Before the first point, after a sounding note a major third higher:
  // the new point sits halfway at (64 - 60) x 10 / 2.
  EXPECT_EQ(man().addPitchPoint(1, 0), 1);
  EXPECT_EQ(values(note(1).PBW), (std::vector<float>{40, 40}));
  EXPECT_EQ(values(note(1).PBY), (std::vector<float>{20}));
  EXPECT_EQ(shapes(note(1).PBM), "..");
  EXPECT_EQ(man().setPitchKind(1, 2, 'r'), 'r');
  EXPECT_EQ(man().getPitchKind(1, 2), 'r');
  EXPECT_EQ(man().getPitchKind(1, 3), -1);
  EXPECT_EQ(man().getPitchKind(1, 1), 0);
  EXPECT_EQ(man().getPitchKind(1, 0), -1);
  EXPECT_EQ(man().getPitchKind(0, 1), -1);  // no pitch line
  EXPECT_EQ(man().getPitchKind(9, 1), -1);  // no such note
  EXPECT_EQ(man().setPitchKind(1, 0, 'j'), 2);  // only the count
  EXPECT_EQ(man().addPitchPoint(1, 1), 1);
  EXPECT_EQ(values(note(1).PBW), (std::vector<float>{40, 20, 20}));
  EXPECT_EQ(values(note(1).PBY), (std::vector<float>{20, 10}));
  EXPECT_EQ(shapes(note(1).PBM), ".rr");
  EXPECT_EQ(man().addPitchPoint(1, 0), 1);
  EXPECT_EQ(values(note(1).PBW), (std::vector<float>{20, 20, 20, 20}));
  EXPECT_EQ(values(note(1).PBY), (std::vector<float>{30, 20, 10}));
  EXPECT_EQ(shapes(note(1).PBM), "..rr");
  EXPECT_EQ(man().addPitchPoint(1, 4), 1);  // after the last point
  EXPECT_EQ(values(note(1).PBW), (std::vector<float>{20, 20, 20, 20, 0}));
  EXPECT_EQ(values(note(1).PBY), (std::vector<float>{30, 20, 10, 0}));
  EXPECT_EQ(man().addPitchPoint(1, 6), 0);

  EXPECT_EQ(man().delPitchPoint(1, 5), 1);
  EXPECT_EQ(values(note(1).PBW), (std::vector<float>{20, 20, 20, 20}));
  EXPECT_EQ(values(note(1).PBY), (std::vector<float>{30, 20, 10}));
  EXPECT_EQ(man().delPitchPoint(1, 2), 1);  // its width joins the next
  EXPECT_EQ(values(note(1).PBW), (std::vector<float>{20, 40, 20}));
  EXPECT_EQ(values(note(1).PBY), (std::vector<float>{30, 10}));
  EXPECT_EQ(shapes(note(1).PBM), ".rr");
  EXPECT_EQ(man().delPitchPoint(1, 0), 1);  // the line starts at the first point
  EXPECT_EQ(values(note(1).PBS), (std::vector<float>{-20, 30}));
  EXPECT_EQ(values(note(1).PBW), (std::vector<float>{40, 20}));
  EXPECT_EQ(values(note(1).PBY), (std::vector<float>{10}));
  EXPECT_EQ(shapes(note(1).PBM), "rr");

  // A resize to twice the length stretches what lies after the note start.
  note(1).Length = 960;
  EXPECT_EQ(man().stretchPitchLen(1), 1);
  EXPECT_EQ(values(note(1).PBS), (std::vector<float>{-20, 30}));
  EXPECT_EQ(values(note(1).PBW), (std::vector<float>{60, 40}));
  man().delPitchPoint(1, 1);
  EXPECT_EQ(man().delPitchPoint(1, 1), 0);  // one point is the least

  // After a rest, the first point's height comes from the line's start.
  engine().set_lyric("R", 0);
  note(1).PBS[2] = 8.0f;
  man().addPitchPoint(1, 0);
  EXPECT_EQ(values(note(1).PBY), (std::vector<float>{4}));
}

TEST_F(Editing, ALineHoldsAtMost255Points) {
  load({{"a", 0, 480, 60}});
  man().defaultPitch(0);
  int added = 0;
  while (added < 300 && man().addPitchPoint(0, 0) == 1) ++added;
  EXPECT_EQ(floatListCount(note(0).PBW), 255);
  EXPECT_EQ(byteListCount(note(0).PBM), 255);
}

TEST_F(Editing, TheAnchorFollowsItsNoteThroughDeletions) {
  load({{"a", 0, 480, 60}, {"b", 480, 480, 60}, {"c", 960, 480, 60}, {"d", 1440, 480, 60}});
  man().addSelect(2, 1);
  man().deleteNote(3);
  EXPECT_EQ(man().anchor(), 2);
  man().deleteNote(0);
  EXPECT_EQ(man().anchor(), 1);
  man().deleteNote(1);
  EXPECT_EQ(man().anchor(), -1);
}

TEST(PitchClipboard, CopiesAndPastesTheWholeLine) {
  CCNoteMan owner;
  EXPECT_FALSE(owner.isClipPB());
  NoteData from = makeNote("a"), to = makeNote("b");
  from.PBS = floatList({-30, 5});
  from.PBW = floatList({10, 20});
  from.PBM = byteList("sr");
  to.PBY = floatList({1, 2, 3});
  owner.copyPB(&from);
  EXPECT_TRUE(owner.isClipPB());
  owner.pastePB(&to);
  EXPECT_EQ(values(to.PBS), (std::vector<float>{-30, 5}));
  EXPECT_EQ(values(to.PBW), (std::vector<float>{10, 20}));
  EXPECT_EQ(to.PBY, nullptr);  // absent in the source, absent here
  EXPECT_EQ(shapes(to.PBM), "sr");
  ctonm2::note_clear(&from);
  EXPECT_EQ(values(to.PBW), (std::vector<float>{10, 20}));  // copies, not shared
  ctonm2::note_clear(&to);
  owner.clipVBR()[2] = 40;
  EXPECT_EQ(owner.clipVBR()[2], 40);
}

TEST_F(Editing, TimeConversionsBasedUseOneTempo) {
  load({{"a", 0, 480, 60}, {"b", 480, 480, 60}, {"c", 960, 480, 60}});
  note(1).Tempo = 60.0f;
  EXPECT_FLOAT_EQ(man().Ticks2MSec(960), 500.0f + 1000.0f);
  EXPECT_EQ(man().MSec2Ticks(1500.0), 960);
  EXPECT_EQ(man().MSec2Ticks(2500.0), 1440);
  // From note 0, one tempo (120) throughout, although note 1 changes it.
  EXPECT_FLOAT_EQ(man().Ticks2MSec(960, 0), 1000.0f);
  EXPECT_EQ(man().MSec2Ticks(1000.0, 0), 960);
  EXPECT_EQ(man().MSec2Ticks(1000.0, 1), 480);
  EXPECT_EQ(man().MSec2Ticks(-999.9, 1), -479);  // truncated toward zero
}

TEST_F(Editing, VoiceSetReloadAndPrefixMap) {
  TestBank bank;
  bank.write("oto.ini", "a.wav=\xe3\x81\x82,10,20,30,40,5\n");
  bank.write("prefix.map", "Charset:UTF-8\nC4\t\xe5\xbc\xb1\t_C4\n");  // 弱 as the prefix of C4
  load({{"\xe3\x81\x82", 0, 480, 60}});
  man().defaultPitch(0);
  owner_.setKeepRecovery(false);

  // A new bank is read and the notes prepared; with the flag, marked.
  EXPECT_GT(owner_.changeVoiceSet(bank.path().c_str(), true), 0);
  EXPECT_STREQ(engine().voiceDir, bank.folder().c_str());
  EXPECT_NE(note(0).VoiceFile, nullptr);
  EXPECT_NE(note(0)._pitch, nullptr);
  EXPECT_TRUE(owner_.undoman()->getModified());
  owner_.undoman()->setSavePoint(nullptr);
  // The same bank reloads only without the flag, and never marks.
  EXPECT_EQ(owner_.changeVoiceSet(bank.folder().c_str(), true), 0);
  EXPECT_GT(owner_.changeVoiceSet(bank.folder().c_str(), false), 0);
  EXPECT_FALSE(owner_.undoman()->getModified());
  man().releaseVoice();
  EXPECT_EQ(note(0).VoiceFile, nullptr);
  EXPECT_GT(man().readVoiceset(), 0);

  // Written twice: "prefixmap" in UTF-8, "prefix.map" in Shift_JIS; the map
  // in memory keeps the Shift_JIS text.
  EXPECT_EQ(man().wrtiePrefixMap(), 1);
  const std::string utf8 = readFile(bank.folder() + "prefixmap");
  const std::string sjis = readFile(bank.folder() + "prefix.map");
  EXPECT_EQ(utf8.rfind("Charset:UTF-8\n", 0), 0u);
  EXPECT_NE(utf8.find("C4\t\xe5\xbc\xb1\t_C4\n"), std::string::npos);
  EXPECT_NE(sjis.find("C4\t\x8e\xe3\t_C4\n"), std::string::npos);
  EXPECT_EQ(sjis.find("Charset"), std::string::npos);
  EXPECT_STREQ(engine().voiceset->prefixMap[60].prefix, "\x8e\xe3");
}

// A backing track is kept relative to the project file in the 2.0 form
// (where it is, how far it is moved, its volume and mute), read back as an
// absolute path, left out of the 1.2 form, and held to sane values.
TEST(ProjectBackingTrack, KeptRelativeToTheProjectIn20AndLeftOutOf12) {
  TempDir dir;
  for (const char* folder : {"songs", "music", "other", "other/deeper"}) mkdir(dir.file(folder).c_str(), 0777);
  writeFile(dir.file("songs/a.snt"),
            "[#VERSION]\nSNT Version2.0\nCharset=UTF-8\n[#SETTING]\nTempo=120.00\nBackingTrack=../music/t.wav\n"
            "BackingTrackOffset=-250.5\nBackingTrackVolume=80\nBackingTrackMute=1\n"
            "[#0000]\nDelta=480\nDuration=480\nLyric=a\nNoteNum=60\n[#TRACKEND]\n");
  CScaleMan scale;
  CNoteMan man(&scale);
  ASSERT_GE(man.openSnt(dir.file("songs/a.snt").c_str(), nullptr), 0);
  ctonm2& engine = *man.engine();
  ASSERT_NE(engine.audioTrack, nullptr);
  EXPECT_EQ(std::string(engine.audioTrack), absolutePath(dir.file("music/t.wav")));
  EXPECT_EQ(engine.audioTrackOffset, -250.5);
  EXPECT_EQ(engine.audioTrackVolume, 80);
  EXPECT_EQ(engine.audioTrackMute, 1);

  ASSERT_EQ(man.writeSnt(dir.file("other/deeper/b.snt").c_str(), nullptr), 1);
  const std::string saved = readFile(dir.file("other/deeper/b.snt"));
  for (const char* line : {"\nBackingTrack=../../music/t.wav\n", "\nBackingTrackOffset=-250.5\n",
                           "\nBackingTrackVolume=80\n", "\nBackingTrackMute=1\n"}) {
    EXPECT_NE(saved.find(line), std::string::npos) << line;
  }
  CNoteMan again(&scale);
  ASSERT_GE(again.openSnt(dir.file("other/deeper/b.snt").c_str(), nullptr), 0);
  EXPECT_EQ(std::string(again.engine()->audioTrack), absolutePath(dir.file("music/t.wav")));
  EXPECT_EQ(again.engine()->audioTrackOffset, -250.5);

  engine.sntVersion = 120;
  ASSERT_EQ(man.writeSnt(dir.file("old.snt").c_str(), nullptr), 1);
  EXPECT_EQ(readFile(dir.file("old.snt")).find("Backing"), std::string::npos);

  writeFile(dir.file("songs/odd.snt"),
            "[#VERSION]\nSNT Version2.0\n[#SETTING]\nBackingTrack=/t.wav\nBackingTrackOffset=nan\n"
            "BackingTrackVolume=999\nBackingTrackMute=7\n[#TRACKEND]\n");
  ASSERT_GE(man.openSnt(dir.file("songs/odd.snt").c_str(), nullptr), 0);
  EXPECT_EQ(std::string(engine.audioTrack), "/t.wav");
  EXPECT_EQ(engine.audioTrackOffset, 0.0);
  EXPECT_EQ(engine.audioTrackVolume, 200);
  EXPECT_EQ(engine.audioTrackMute, 1);
  engine.free_snt();
  EXPECT_EQ(engine.audioTrack, nullptr);
  EXPECT_EQ(engine.audioTrackVolume, 100);
  EXPECT_EQ(engine.audioTrackMute, 0);
}
