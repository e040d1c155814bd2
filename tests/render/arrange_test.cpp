// The timing the note arrangement gives each note before a render.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "engine/ctonm2.h"
#include "tests/engine/notes.h"
#include "voicebank/voiceset.h"

namespace {

// An engine at 125 BPM (1 msec per tick) with a voice set whose entries
// have pre-utterance 60 and overlap 20 ("a", "i") or 200 and 20 ("long").
class Arrangement : public ::testing::Test {
 protected:
  void SetUp() override {
    engine_.tempo = 125.0f;
    engine_.voiceset = &voiceset_;
    addEntry("a.wav", "a", 60.0f, 20.0f);
    addEntry("i.wav", "i", 60.0f, 20.0f);
    addEntry("a_i.wav", "a i", 60.0f, 20.0f);
    addEntry("long.wav", "long", 200.0f, 20.0f);
  }
  void addEntry(const char* file, const char* alias, float preuttr, float overlap) {
    VoiceData entry;
    memset(&entry, 0, sizeof entry);
    strcpy(entry.filename, file);
    strcpy(entry.alias, alias);
    entry.preuttr = preuttr;
    entry.overlap = overlap;
    voiceset_.add_item(&entry);
  }
  NoteData& add(const char* lyric, int delta, int length) {
    NoteData note = makeNote(lyric, 60, delta, length);
    note.PreUtterance = note.VoiceOverlap = NAN;
    engine_.insert_note(engine_.noteCount, &note);
    return engine_.notes[engine_.noteCount - 1];
  }
  ctonm2 engine_;
  cvoiceset voiceset_;
};

}  // namespace

TEST_F(Arrangement, PositionsLengthsAndEntries) {
  add("a", 100, 400);
  add("R", 400, 0);
  add("i", 100, 300);
  add("zz", 300, 200);
  EXPECT_EQ(engine_.preparationNotes(), 2);
  EXPECT_DOUBLE_EQ(engine_.leadTime, 100.0);
  EXPECT_DOUBLE_EQ(engine_.notes[0]._pos, 100.0);
  EXPECT_DOUBLE_EQ(engine_.notes[2]._pos, 600.0);
  EXPECT_FLOAT_EQ(engine_.notes[0]._notelen, 400.0f);
  EXPECT_STREQ(engine_.notes[0].VoiceFile, "a.wav");
  EXPECT_EQ(engine_.notes[1].VoiceFile, nullptr);  // a rest
  EXPECT_EQ(engine_.notes[3].VoiceFile, nullptr);  // no such entry
  EXPECT_FLOAT_EQ(engine_.notes[2]._preuttr, 60.0f);
  EXPECT_DOUBLE_EQ(engine_.totalLength, 900.0 + 200.0);
}

TEST_F(Arrangement, PreviousLyricOnlyAcrossShortGaps) {
  const char* prefixes[] = {"a "};
  const char* endings[] = {"a|"};
  voiceset_.setVCCMParams("- ", "* ", prefixes, endings, 1);
  add("a", 0, 400);
  add("i", 450, 300);  // 50 msec after "a": "a i", and "a" sounds on
  add("a", 400, 300);
  add("i", 400, 300);  // exactly 100 msec after "a": still "a i", but "a" no longer sounds on
  add("i", 500, 300);  // 200 msec after "i": plain "i"
  engine_.preparationNotes();
  EXPECT_STREQ(engine_.notes[1].VoiceFile, "a_i.wav");
  EXPECT_STREQ(engine_.notes[3].VoiceFile, "a_i.wav");
  EXPECT_STREQ(engine_.notes[4].VoiceFile, "i.wav");
  EXPECT_FLOAT_EQ(engine_.notes[0]._truelen, 50.0f - 60.0f + 20.0f + 400.0f);
  EXPECT_FLOAT_EQ(engine_.notes[2]._truelen, 300.0f);
  // Without both lists no previous lyric is looked for.
  voiceset_.setVCCMParams("- ", "* ", nullptr, endings, 1);
  engine_.preparationNotes();
  EXPECT_STREQ(engine_.notes[1].VoiceFile, "i.wav");
}

TEST_F(Arrangement, LongConsonantIsCutFromTheFront) {
  add("a", 0, 100);
  NoteData& late = add("long", 120, 400);  // 20 msec rest
  late.StartPoint = 10.0f;
  engine_.preparationNotes();
  const NoteData& note = engine_.notes[1];
  // 200 - 20 exceeds half the previous note plus the rest (50 + 20): scaled.
  const double r = 70.0 / 180.0;
  EXPECT_NEAR(note._preuttr, 200.0 * r, 1e-3);
  EXPECT_NEAR(note._overlap, 20.0 * r, 1e-3);
  EXPECT_NEAR(note._stp, 10.0 + (1.0 - r) * 200.0, 1e-3);
}

TEST_F(Arrangement, VelocityScalesTheConsonant) {
  add("a", 0, 400).Velocity = 200.0f;
  add("a", 400, 400).Velocity = 0.0f;
  engine_.notes[0].StartPoint = 8.0f;
  engine_.preparationNotes();
  EXPECT_FLOAT_EQ(engine_.notes[0]._preuttr, 30.0f);
  EXPECT_FLOAT_EQ(engine_.notes[0]._stp, 4.0f);
  EXPECT_FLOAT_EQ(engine_.notes[1]._preuttr, 120.0f);
}

TEST_F(Arrangement, EnvelopesFollowTheOverlap) {
  add("a", 0, 400);
  NoteData& second = add("a", 400, 400);
  second.VoiceOverlap = 40.0f;
  NoteData& third = add("a", 400, 400);
  third.VoiceOverlap = 4.0f;  // under 5 msec: its envelope stays
  engine_.preparationNotes();
  EXPECT_FLOAT_EQ(engine_.notes[1].Envelope[0], 40.0f);  // the rise takes the overlap
  EXPECT_FLOAT_EQ(engine_.notes[1].Envelope[1], 0.0f);   // max(0, 5 - 40 + 1)
  EXPECT_FLOAT_EQ(engine_.notes[0].Envelope[8], 40.0f);  // the previous fall too (35 or more)
  EXPECT_FLOAT_EQ(engine_.notes[2].Envelope[0], 5.0f);
  EXPECT_FLOAT_EQ(engine_.notes[1].Envelope[8], 35.0f);  // 4 msec: the previous one's stays too
}

TEST_F(Arrangement, LengthsFollowTempoChangesInsideTheNote) {
  add("a", 0, 960);
  add("R", 480, 0).Tempo = 62.5f;  // half speed from tick 480
  add("i", 480, 480);
  EXPECT_DOUBLE_EQ(engine_.calc_length(0, 125.0f), 480.0 + 960.0);
  EXPECT_DOUBLE_EQ(engine_.calc_length(0, 0.0f), 1440.0);  // 0: the tempo in effect
  EXPECT_DOUBLE_EQ(engine_.calc_length(2, 0.0f), 960.0);
  int32_t index = 2;
  engine_.preparationNotes();
  EXPECT_DOUBLE_EQ(engine_.get_preblank(&index, -1), 480.0 + 960.0 - 1440.0);
  EXPECT_EQ(index, 0);
  index = 0;
  EXPECT_EQ(engine_.get_preblank(&index, -1), 0.0);
  EXPECT_EQ(index, -1);
}

TEST_F(Arrangement, OverlapAlignmentFindsThePhase) {
  NoteData note = makeNote("a");
  note.NoteNum = 57;  // 220 Hz: a period of 4.545 msec
  std::vector<double> tail(44100), head(44100);
  for (size_t k = 0; k < tail.size(); ++k) tail[k] = std::sin(2.0 * M_PI * 220.0 * k / 44100.0);
  const int32_t window = 4410;  // 100 msec of overlap
  // A head that goes on from the tail (shift 0), or runs a quarter period
  // (about 50 samples) ahead of it.
  auto headFrom = [&](double shift) {
    for (size_t k = 0; k < head.size(); ++k) {
      head[k] = std::sin(2.0 * M_PI * 220.0 * (static_cast<double>(k) + 44100 - window + shift) / 44100.0);
    }
  };
  note._overlap = 100.0f;
  headFrom(0.0);
  EXPECT_NEAR(engine_.optimizeOverlap(tail.data(), 44100, 1000.0, head.data(), 44100, 1000.0, &note, 120.0f, 44100),
              0.0, 0.05);
  headFrom(44100.0 / 220.0 / 4.0);
  EXPECT_NEAR(engine_.optimizeOverlap(tail.data(), 44100, 1000.0, head.data(), 44100, 1000.0, &note, 120.0f, 44100),
              -1.14, 0.05);
  // A short overlap (40 msec, 1764 samples, under 2048) is left alone, out
  // of phase or not.
  note._overlap = 40.0f;
  EXPECT_EQ(engine_.optimizeOverlap(tail.data(), 44100, 1000.0, head.data(), 44100, 1000.0, &note, 120.0f, 44100), 0.0);
}
