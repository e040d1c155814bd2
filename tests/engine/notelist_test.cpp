#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "engine/ctonm2.h"
#include "tests/engine/notes.h"
#include "tests/testutil.h"
#include "voicebank/voiceset.h"

namespace {
std::string lyrics(ctonm2& engine) {
  std::string joined;
  for (int i = 0; i < engine.noteCount; ++i) joined += std::string(engine.get_lyric(i)) + ",";
  return joined;
}
}  // namespace

TEST(NoteList, InsertClampsAndKeepsOrder) {
  ctonm2 engine;
  NoteData a = makeNote("a"), b = makeNote("b"), c = makeNote("c"), d = makeNote("d");
  EXPECT_EQ(engine.insert_note(0, &b), 0);
  EXPECT_EQ(engine.insert_note(-5, &a), 0);
  EXPECT_EQ(engine.insert_note(engine.noteCount + 10, &d), 2);
  EXPECT_EQ(engine.insert_note(2, &c), 2);
  EXPECT_EQ(lyrics(engine), "a,b,c,d,");
  EXPECT_EQ(engine.insert_note(0, nullptr), -1);
  EXPECT_EQ(engine.noteCount, 4);

  // Inserting a copy of a record that lives in the array itself.
  EXPECT_EQ(engine.insert_note(0, engine.get_note(3)), 0);
  EXPECT_EQ(lyrics(engine), "d,a,b,c,d,");
}

TEST(NoteList, DeleteShrinksAndFreesTheLastNote) {
  ctonm2 engine;
  for (const char* lyric : {"a", "b", "c"}) {
    NoteData note = makeNote(lyric);
    note.PBS = floatList({-10.0f, 0.0f});  // owned arrays go with the record
    note.Pitches = static_cast<int16_t*>(calloc(4, sizeof(int16_t)));
    engine.insert_note(engine.noteCount, &note);
  }
  EXPECT_EQ(engine.delete_note(3), -1);
  EXPECT_EQ(engine.delete_note(-1), -1);
  EXPECT_EQ(engine.delete_note(1), 1);
  EXPECT_EQ(lyrics(engine), "a,c,");
  EXPECT_EQ(engine.delete_note(0), 0);
  EXPECT_EQ(engine.delete_note(0), 0);
  EXPECT_EQ(engine.notes, nullptr);
  EXPECT_EQ(engine.noteCount, 0);
  EXPECT_EQ(engine.get_note(0), nullptr);
}

TEST(NoteList, OutOfRangeIndicesDoNothing) {
  ctonm2 engine;
  NoteData note = makeNote("ka");
  engine.insert_note(0, &note);
  EXPECT_EQ(engine.get_lyric(1), nullptr);
  EXPECT_EQ(engine.get_flags(-1), nullptr);
  engine.set_lyric("x", 5);
  engine.set_note(1, &note);
  engine.clear_note(-2);
  EXPECT_FALSE(engine.is_r(7));
  EXPECT_STREQ(engine.get_lyric(0), "ka");

  engine.set_lyric("a lyric longer than thirty-one bytes", 0);
  EXPECT_EQ(std::string(engine.get_lyric(0)), "a lyric longer than thirty-one ");
  engine.clear_note(0);
  EXPECT_STREQ(engine.get_lyric(0), "");
}

TEST(NoteList, RestsAreEmptyOrExactlyCapitalR) {
  EXPECT_TRUE(ctonm2::is_r(nullptr));
  EXPECT_TRUE(ctonm2::is_r(""));
  EXPECT_TRUE(ctonm2::is_r("R"));
  EXPECT_FALSE(ctonm2::is_r("r"));
  EXPECT_FALSE(ctonm2::is_r("R "));
  EXPECT_FALSE(ctonm2::is_r(" R"));
  EXPECT_FALSE(ctonm2::is_r("Ra"));
}

TEST(NoteList, NeighboursSkipRestsAndOtherLayers) {
  ctonm2 engine;
  const struct {
    const char* lyric;
    int layer;
  } layout[] = {{"a", 0}, {"R", 0}, {"i", 1}, {"u", 0}, {"", 0}, {"e", 1}};
  for (const auto& item : layout) {
    NoteData note = makeNote(item.lyric);
    note.layer = item.layer;
    engine.insert_note(engine.noteCount, &note);
  }
  EXPECT_EQ(engine.getprenote(3, 0), 0);
  EXPECT_EQ(engine.getprenote(3, -1), 2);
  EXPECT_EQ(engine.getprenote(0, -1), -1);
  EXPECT_EQ(engine.getnextnote(0, 0), 3);
  EXPECT_EQ(engine.getnextnote(3, 0), -1);
  EXPECT_EQ(engine.getnextnote(3, -1), 5);
  EXPECT_TRUE(engine.isUseLayer());
  engine.notes[2].layer = engine.notes[5].layer = 0;
  EXPECT_FALSE(engine.isUseLayer());
}

TEST(EngineSettings, CapacitiesAndDerivedValues) {
  ctonm2 engine;
  EXPECT_STREQ(engine.charset, "UTF-8");
  EXPECT_EQ(engine.sntVersion, 200);
  EXPECT_EQ(engine.mode2, 1);
  EXPECT_FLOAT_EQ(engine.tempo, 120.0f);
  EXPECT_EQ(engine.currentLayer, -1);
  EXPECT_EQ(engine.layerEnabled[15], 1);

  engine.set_voiceDir("");
  EXPECT_STREQ(engine.voiceDir, "");
  engine.set_voiceDir("/banks/alto");
  EXPECT_STREQ(engine.voiceDir, "/banks/alto/");
  engine.set_voiceDir("/banks/alto/");
  EXPECT_STREQ(engine.voiceDir, "/banks/alto/");
  std::string longDir(600, 'v');
  engine.set_voiceDir(longDir.c_str());
  EXPECT_EQ(strlen(engine.voiceDir), 511u);  // 510 bytes kept, then "/"
  EXPECT_EQ(engine.voiceDir[510], '/');

  engine.set_projectPath("/songs/furusato.snt");
  EXPECT_STREQ(engine.projectName, "furusato.snt");
  engine.set_projectPath("/songs/other.snt");
  EXPECT_STREQ(engine.projectName, "furusato.snt");  // kept once set
  ctonm2 bare;
  bare.set_projectPath("noslash.snt");
  EXPECT_STREQ(bare.projectName, "");

  engine.set_outfile(std::string(600, 'o').c_str());
  EXPECT_EQ(strlen(engine.outfile), 511u);
  engine.set_audioTrack("");
  EXPECT_EQ(engine.audioTrack, nullptr);
  engine.set_audioTrack("/music/track.wav");
  EXPECT_STREQ(engine.audioTrack, "/music/track.wav");

  NoteData note = makeNote("a");
  note.PBW = floatList({10.0f});
  engine.insert_note(0, &note);
  engine.tempo = 90.0f;
  engine.set_charset("Shift_JIS");
  engine.free_snt();
  EXPECT_EQ(engine.noteCount, 0);
  EXPECT_STREQ(engine.charset, "UTF-8");
  EXPECT_STREQ(engine.voiceDir, "");
  EXPECT_STREQ(engine.projectName, "");
  EXPECT_FLOAT_EQ(engine.tempo, 90.0f);
}

TEST(EngineSettings, ReadsTheAttachedVoiceSetFromVoiceDir) {
  ctonm2 engine;
  EXPECT_EQ(engine.read_voiceset(), 0);  // nothing attached
  TempDir bank;
  writeFile(bank.file("oto.ini"), "ka.wav=ka,1,2,3,4,5\n");
  cvoiceset voiceset;
  engine.voiceset = &voiceset;
  engine.set_voiceDir(bank.path().c_str());
  EXPECT_GT(engine.read_voiceset(), 0);
  EXPECT_EQ(voiceset.count(), 1);
}

TEST(EngineDump, PrintsEveryFieldInOrder) {
  NoteData note = makeNote("ka", 62, 0, 240);
  note.PreUtterance = NAN;
  strcpy_n(note.Flags, "g-5", sizeof note.Flags);
  note._pos = 1.5;
  note.PBS = floatList({-20.0f});
  note.Pitches = static_cast<int16_t*>(malloc(2 * sizeof(int16_t)));
  note.Pitches[0] = -3;
  note.Pitches[1] = 4;
  note.PitchCount = 2;

  char* text = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&text, &size);
  ctonm2::printNoteData(stream, &note);
  fclose(stream);
  EXPECT_EQ(std::string(text),
            "--------------------------------\n"
            "Length=240\nLyric=ka\nNoteNum=62\nPreUtterance=nan\nVoiceOverlap=0.000000\n"
            "Velocity=100.000000\nStartPoint=0.000000\nIntensity=100\nModulation=100\nFlags=g-5\n"
            "_pos=1.500000\n_notelen=0.000000\n_truelen=0.000000\n_overlap=0.000000\n"
            "_preuttr=0.000000\n_stp=0.000000\nVoiceFile=(null)\n"
            "env=5.0\t1.0\t1.0\t100.0\t100.0\t100.0\t100.0\t0.0\t35.0\t1.0\t100.0\t0.0\t0.0\t0.0\t0.0\t0.0\t\n"
            "Pitch=-3\t4\t\n"
            "PBS=-20.000000\t\n");
  free(text);
  ctonm2::note_clear(&note);
}
