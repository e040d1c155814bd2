#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include "engine/ctonm2.h"
#include "tests/engine/notes.h"

namespace {

constexpr double kStep = ctonm2::kPitchStepMs;
const float kGrid = static_cast<float>(kStep);
const double kQuarterS = 0.5 - 0.5 * std::cos(M_PI / 4);  // S-type shape a quarter in

// A length in msec just under `steps` grid steps, so that the grid has
// steps + 1 values whatever the float rounding.
float justUnder(int steps) { return static_cast<float>(steps * kStep - 1e-3); }

struct Curve {
  float* values = nullptr;
  int32_t length = 0;
  ~Curve() { free(values); }
};

// A note with a three-segment line over 60 grid steps: start height 3
// (30 cents), widths of 20 steps, point heights 5 and -2 (50, -20 cents).
NoteData lineNote(const char* shapes) {
  NoteData note = makeNote("a", 60);
  note.PBS = floatList({0.0f, 3.0f});
  note.PBW = floatList({20 * kGrid, 20 * kGrid, 20 * kGrid});
  note.PBY = floatList({5.0f, -2.0f});
  if (shapes != nullptr) note.PBM = byteList(shapes);
  return note;
}

}  // namespace

TEST(PitchLine, ShapesOfEachSegmentAfterARest) {
  ctonm2 engine;
  NoteData note = lineNote("srj");
  Curve c;
  c.values = engine.genPitch(0, 0.0, 70 * kStep, nullptr, &note, nullptr, &c.length);
  ASSERT_EQ(c.length, 71);
  EXPECT_NEAR(c.values[0], 30.0, 1e-3);                                     // start level
  EXPECT_NEAR(c.values[5], 35.0, 1e-3);                                     // "s": linear
  EXPECT_NEAR(c.values[10], 40.0, 1e-3);
  EXPECT_NEAR(c.values[30], 50.0 - 70.0 * std::sin(M_PI / 4), 1e-3);       // "r"
  EXPECT_NEAR(c.values[50], -20.0 + 20.0 * (1.0 - std::cos(M_PI / 4)), 1e-3);  // "j"
  EXPECT_NEAR(c.values[60], 0.0, 1e-3);                                     // end level
  EXPECT_NEAR(c.values[70], 0.0, 1e-6);
  ctonm2::note_clear(&note);
}

TEST(PitchLine, WithoutShapesEverySegmentIsSType) {
  ctonm2 engine;
  NoteData note = lineNote(nullptr);
  Curve c;
  c.values = engine.genPitch(0, 0.0, 70 * kStep, nullptr, &note, nullptr, &c.length);
  EXPECT_NEAR(c.values[5], 30.0 + 20.0 * kQuarterS, 1e-3);
  EXPECT_NEAR(c.values[10], 40.0, 1e-3);
  EXPECT_NEAR(c.values[25], 50.0 - 70.0 * kQuarterS, 1e-3);
  ctonm2::note_clear(&note);
}

TEST(PitchLine, StartsFromThePreviousNotesPitchAndAddsToTheBuffer) {
  ctonm2 engine;
  NoteData prev = makeNote("ka", 62);
  NoteData note = lineNote("sss");
  Curve c;
  c.values = engine.genPitch(0, 0.0, 70 * kStep, &prev, &note, nullptr, &c.length);
  EXPECT_NEAR(c.values[0], 200.0, 1e-3);  // two semitones above, from the previous note
  EXPECT_NEAR(c.values[10], 125.0, 1e-3);
  // Mode 1 draws the same line in the previous note's frame, from 0 to the
  // note's own pitch, and adds it to what the buffer holds.
  c.values = engine.genPitch(1, 0.0, 70 * kStep, &prev, &note, c.values, &c.length);
  EXPECT_NEAR(c.values[0], 200.0 + 0.0, 1e-3);
  EXPECT_NEAR(c.values[70], 0.0 + -200.0, 1e-3);
  ctonm2::note_clear(&note);
}

TEST(PitchLine, ZeroWidthOnlyInTheFirstSegmentBecomesTiny) {
  ctonm2 engine;
  NoteData note = makeNote("a", 60);
  note.PBS = floatList({0.0f, 10.0f});  // starts at 100 cents, on grid point 2
  note.PBW = floatList({0.0f, 10 * kGrid});
  note.PBY = floatList({-10.0f});
  note.PBM = byteList("ss");
  Curve c;
  c.values = engine.genPitch(0, 2 * kStep, 14 * kStep, nullptr, &note, nullptr, &c.length);
  EXPECT_NEAR(c.values[0], 100.0, 1e-3);
  EXPECT_NEAR(c.values[2], 100.0, 1e-3);  // u = 0 in a 0.001 msec segment, not 0 / 0
  EXPECT_NEAR(c.values[3], -90.0, 1e-2);  // on into the second segment
  EXPECT_NEAR(c.values[13], 0.0, 1e-6);

  // A later zero width is used as it is; the curve stays finite around it.
  NoteData later = makeNote("a", 60);
  later.PBS = floatList({0.0f, 10.0f});
  later.PBW = floatList({5 * kGrid + 0.5f, 0.0f, 5 * kGrid});
  Curve d;
  d.values = engine.genPitch(0, 0.0, 14 * kStep, nullptr, &later, nullptr, &d.length);
  for (int j = 0; j < d.length; ++j) EXPECT_TRUE(std::isfinite(d.values[j])) << j;
  ctonm2::note_clear(&note);
  ctonm2::note_clear(&later);
}

// A line whose last segment ends exactly at the note's start still gives
// that start its last point's height; only segments wholly before it are
// skipped.
TEST(PitchLine, ALineEndingAtTheStartGivesItsLastHeight) {
  ctonm2 engine;
  NoteData note = makeNote("a", 60);
  note.PBS = floatList({-2 * kGrid});
  note.PBW = floatList({kGrid, kGrid});
  note.PBY = floatList({5.0f, 8.0f});
  Curve c;
  c.values = engine.genPitch(0, 0.0, 4 * kStep, nullptr, &note, nullptr, &c.length);
  EXPECT_NEAR(c.values[0], 80.0, 1e-3);
  EXPECT_NEAR(c.values[1], 0.0, 1e-6);
  ctonm2::note_clear(&note);
}

TEST(PitchLine, StartHeightStaysAfterARestAndGoesAfterASoundingNote) {
  // After a rest there is no previous note (the search skips rests), so
  // the start height stays, even with a consonant (60) longer than the
  // line's lead (50).
  ctonm2 engine;
  NoteData rest = makeNote("R");
  NoteData note = makeNote("a");
  note.PBS = floatList({-50.0f, 3.0f});
  note.PBW = floatList({100.0f});
  note._preuttr = 60.0f;
  note._truelen = 200.0f;
  engine.insert_note(0, &rest);
  engine.insert_note(1, &note);
  engine.makePitchMode2();
  const NoteData& made = engine.notes[1];
  ASSERT_NE(made._pitch, nullptr);
  EXPECT_FLOAT_EQ(made.PBS[2], 3.0f);
  // The grid's first point comes 10 msec (60 - 50) before the line
  // starts: it holds the start height, 30 cents.
  EXPECT_NEAR(made._pitch[0], 30.0, 1e-3);
  EXPECT_EQ(engine.notes[0]._pitch, nullptr);  // rests keep their curves
  // After a sounding note, the height goes.
  engine.set_lyric("i", 0);
  engine.makePitchMode2();
  EXPECT_FLOAT_EQ(engine.notes[1].PBS[2], 0.0f);
}

// Two sounding notes: the first gets the head of the second's line at its
// tail, the second starts in the middle of its own rise.
TEST(PitchLine, TwoNeighbouringNotes) {
  ctonm2 engine;
  NoteData first = makeNote("a", 60);
  first._truelen = justUnder(100);
  NoteData second = makeNote("i", 64);
  second._pos = 70 * kStep;
  second._truelen = justUnder(40);
  second.PBS = floatList({-7 * kGrid});
  second.PBW = floatList({14 * kGrid});
  engine.insert_note(0, &first);
  engine.insert_note(1, &second);
  engine.makePitchMode2();

  const NoteData& a = engine.notes[0];
  ASSERT_EQ(a._pitchlen, 101);
  EXPECT_NEAR(a._pitch[0], 0.0, 1e-3);
  EXPECT_NEAR(a._pitch[70], 200.0, 1e-2);  // halfway up to the second note
  EXPECT_NEAR(a._pitch[100], 400.0, 1e-3);
  const NoteData& b = engine.notes[1];
  ASSERT_EQ(b._pitchlen, 41);
  EXPECT_NEAR(b._pitch[0], -200.0, 1e-2);
  EXPECT_NEAR(b._pitch[40], 0.0, 1e-3);
  EXPECT_EQ(b.Exprs, nullptr);  // no vibrato ran
}

// Three notes around a rest: the middle one adds the previous note's tail
// and the next note's head to its own line.
TEST(PitchLine, ThreeNeighboursWithARestBetween) {
  ctonm2 engine;
  NoteData a = makeNote("a", 60);
  a._truelen = justUnder(50);
  a.PBS = floatList({-7 * kGrid, 5.0f});
  a.PBW = floatList({14 * kGrid, 126 * kGrid});  // ends 63 steps into b's grid
  NoteData rest = makeNote("R", 60);
  rest._pos = 30 * kStep;
  NoteData b = makeNote("u", 64);
  b._pos = 70 * kStep;
  b._truelen = justUnder(100);
  b.PBS = floatList({-7 * kGrid});
  b.PBW = floatList({14 * kGrid});
  NoteData c = makeNote("e", 62);
  c._pos = 150 * kStep;
  c._truelen = justUnder(40);
  c.PBS = floatList({-4 * kGrid});
  c.PBW = floatList({8 * kGrid});
  for (NoteData* note : {&a, &rest, &b, &c}) engine.insert_note(engine.noteCount, note);
  engine.makePitchMode2();

  const NoteData& mid = engine.notes[2];
  ASSERT_EQ(mid._pitchlen, 101);
  // Own line halfway from -400 (a 4 semitones below), plus a's tail
  // halfway from 50 down to 0.
  EXPECT_NEAR(mid._pitch[0], -200.0 + 25.0, 1e-2);
  EXPECT_NEAR(mid._pitch[80], -100.0, 1e-2);  // halfway down to c
  EXPECT_NEAR(mid._pitch[100], -200.0, 1e-3);
  EXPECT_FLOAT_EQ(engine.notes[0].PBS[2], 5.0f);  // no previous note: height kept
}

namespace {

// A note whose vibrato spans the second half of 1000 msec, beginning
// exactly on grid point 100: depth 100 cents, cycle 200 msec, 20% fades.
NoteData vibratoNote(int16_t cycle) {
  NoteData note = makeNote("a");
  note._notelen = 1000.0f;
  const int16_t vbr[10] = {50, cycle, 100, 20, 20, 0, 0, 50, 0, 0};
  memcpy(note.VBR, vbr, sizeof vbr);
  return note;
}

// The vibrato begins a hair before grid point 100.
const double kVibratoStart = 100 * kStep - 500.0 - 1e-9;

}  // namespace

TEST(Vibrato, FadesInAndOutAroundAFullDepthMiddle) {
  ctonm2 engine;
  NoteData note = vibratoNote(200);
  Curve c;
  int16_t* exprs = nullptr;
  int32_t exprsCount = 0;
  const double end = kVibratoStart + 1100.0;
  c.values = engine.genVibrato(kVibratoStart, end, &note, nullptr, &c.length, &exprs, &exprsCount);
  ASSERT_EQ(exprsCount, c.length);
  const double begin = 100 * kStep, stop = begin + 500.0;
  EXPECT_EQ(c.values[99], 0.0f);                // before the vibrato: nothing
  EXPECT_NEAR(c.values[100], 0.5, 1e-6);        // fade-in starts at 0, plus the 0.5 bias
  for (int j = 101; j < c.length; ++j) {
    const double t = j * kStep;
    if (t >= stop) {
      EXPECT_EQ(c.values[j], 0.0f) << j;
      continue;
    }
    double gain = 1.0;
    if (t < begin + 100.0) gain = (t - begin) / 100.0;
    if (t >= stop - 100.0) gain *= (stop - t) / 100.0;
    const double v = std::sin(2 * M_PI / 200.0 * (t - begin)) * 100.0 * gain;
    EXPECT_NEAR(c.values[j], 0.5 + v, 1e-3) << j;
    EXPECT_NEAR(exprs[j], std::trunc(v * 0.5), 1.0) << j;
  }
  free(exprs);
}

TEST(Vibrato, CycleZeroIsTwoHundredMsecAndLengthZeroAddsNothing) {
  ctonm2 engine;
  NoteData zeroCycle = vibratoNote(0), cycle200 = vibratoNote(200);
  Curve a, b;
  a.values = engine.genVibrato(kVibratoStart, 1200.0, &zeroCycle, nullptr, &a.length, nullptr, nullptr);
  b.values = engine.genVibrato(kVibratoStart, 1200.0, &cycle200, nullptr, &b.length, nullptr, nullptr);
  ASSERT_EQ(a.length, b.length);
  for (int j = 0; j < a.length; ++j) EXPECT_EQ(a.values[j], b.values[j]) << j;

  NoteData none = vibratoNote(200);
  none.VBR[0] = 0;
  Curve c;
  c.values = engine.genVibrato(kVibratoStart, 1200.0, &none, nullptr, &c.length, nullptr, nullptr);
  for (int j = 0; j < c.length; ++j) EXPECT_EQ(c.values[j], 0.0f) << j;
}

TEST(Vibrato, MakePitchFillsExpressionsOnlyWhenAVibratoRan) {
  ctonm2 engine;
  NoteData note = vibratoNote(200);
  note._truelen = 1000.0f;
  engine.insert_note(0, &note);
  engine.makePitchMode2();
  const NoteData& made = engine.notes[0];
  ASSERT_NE(made.Exprs, nullptr);
  EXPECT_EQ(made.ExprsCount, made._pitchlen);
  EXPECT_EQ(made._pitchlen, static_cast<int32_t>(std::ceil(1000.0 / kStep)) + 1);
}

TEST(Envelope, DefaultShapeAtListedPoints) {
  float env[16];
  ctonm2::default_env(env);
  EXPECT_DOUBLE_EQ(ctonm2::get_envelope_value(0.0, env, 100.0), 0.0);
  EXPECT_DOUBLE_EQ(ctonm2::get_envelope_value(2.5, env, 100.0), 0.5);
  EXPECT_DOUBLE_EQ(ctonm2::get_envelope_value(5.0, env, 100.0), 1.0);
  EXPECT_DOUBLE_EQ(ctonm2::get_envelope_value(50.0, env, 100.0), 1.0);
  EXPECT_DOUBLE_EQ(ctonm2::get_envelope_value(82.5, env, 100.0), 0.5);
  EXPECT_DOUBLE_EQ(ctonm2::get_envelope_value(100.0, env, 100.0), 0.0);
  EXPECT_DOUBLE_EQ(ctonm2::get_envelope_value(150.0, env, 100.0), 0.0);
}

TEST(Envelope, ExtendedPointsAndTheMiddleRamp) {
  //                 p1    p2    p3    v1    v2     v3    v4    -    p4    p5    v5    ext  p6    v6    p7    v7
  float env[16] = {10.0f, 10.0f, 10.0f, 50.0f, 100.0f, 20.0f, 10.0f, 0.0f, 10.0f, 10.0f, 80.0f, 1.0f,
                   10.0f, 60.0f, 10.0f, 40.0f};
  EXPECT_NEAR(ctonm2::get_envelope_value(5.0, env, 200.0), 0.25, 1e-12);
  EXPECT_NEAR(ctonm2::get_envelope_value(25.0, env, 200.0), 0.90, 1e-12);
  EXPECT_NEAR(ctonm2::get_envelope_value(45.0, env, 200.0), 0.50, 1e-12);
  EXPECT_NEAR(ctonm2::get_envelope_value(115.0, env, 200.0), 0.30, 1e-12);
  EXPECT_NEAR(ctonm2::get_envelope_value(185.0, env, 200.0), 0.15, 1e-12);
  EXPECT_NEAR(ctonm2::get_envelope_value(195.0, env, 200.0), 0.05, 1e-12);
  env[11] = NAN;  // a NaN switch counts as on
  EXPECT_NEAR(ctonm2::get_envelope_value(45.0, env, 200.0), 0.50, 1e-12);
  env[11] = 0.0f;  // off: the middle ramps from v5 after p5
  EXPECT_NEAR(ctonm2::get_envelope_value(45.0, env, 200.0), (80.0 + (20.0 - 80.0) * 15.0 / 150.0) * 0.01,
              1e-12);
}

TEST(Envelope, CorrectScalesDurationsIntoTheNote) {
  float env[16];
  ctonm2::default_env(env);
  env[6] = -5.0f;
  ctonm2::correctEnvelope(env, 20.0);
  EXPECT_EQ(env[6], 0.0f);
  const float scale = 19.0f / 43.0f;  // (len - 1) / (5 + 1 + 1 + 1 + 35)
  EXPECT_NEAR(env[0], 5.0f * scale, 1e-5);
  EXPECT_NEAR(env[8], 35.0f * scale, 1e-5);
  EXPECT_NEAR(env[0] + env[1] + env[2] + env[8] + env[9], 19.0f, 1e-4);
  EXPECT_EQ(env[3], 100.0f);  // levels untouched

  float extended[16];
  ctonm2::default_env(extended);
  extended[11] = 1.0f;
  extended[12] = extended[14] = 28.5f;
  ctonm2::correctEnvelope(extended, 51.0);  // 100 msec of durations into 50
  EXPECT_NEAR(extended[12], 14.25f, 1e-4);
  EXPECT_NEAR(extended[8], 17.5f, 1e-4);

  float untouched[16];
  ctonm2::default_env(untouched);
  ctonm2::correctEnvelope(untouched, 1000.0);
  EXPECT_EQ(untouched[8], 35.0f);
}

TEST(Envelope, EqualSpacingOfTheInnerPoints) {
  float env[16];
  ctonm2::default_env(env);
  ctonm2::equalSpaceEnv(env, 100.0);
  EXPECT_EQ(env[1], 15.0f);
  EXPECT_EQ(env[2], 15.0f);
  EXPECT_EQ(env[9], 15.0f);

  // A silent first point takes over the second, a silent last the one before.
  float shifted[16];
  ctonm2::default_env(shifted);
  shifted[0] = 0.0f;
  shifted[3] = 0.0f;
  shifted[11] = 1.0f;
  ctonm2::equalSpaceEnv(shifted, 100.0);
  EXPECT_EQ(shifted[0], 1.0f);
  EXPECT_EQ(shifted[3], 100.0f);
  const float share = (100.0f - 1.0f - 35.0f) / 6.0f;
  for (int slot : {1, 2, 9, 12, 14}) EXPECT_FLOAT_EQ(shifted[slot], share) << slot;

  float tight[16];
  ctonm2::default_env(tight);
  ctonm2::equalSpaceEnv(tight, 30.0);  // no room left: falls back to correction
  EXPECT_NEAR(tight[0] + tight[1] + tight[2] + tight[8] + tight[9], 29.0f, 1e-4);
}

// After one note's line changes, rebuilding that note and its neighbours
// gives what a whole rebuild gives, and leaves the other notes alone.
TEST(PitchLine, ARangeRebuildMatchesTheWholeRebuild) {
  ctonm2 engine;
  for (int i = 0; i < 4; ++i) {
    NoteData note = makeNote("a", 60 + 2 * i);
    note._pos = i * 60 * kStep;
    note._truelen = justUnder(60);
    note.PBS = floatList({-7 * kGrid});
    note.PBW = floatList({14 * kGrid});
    engine.insert_note(i, &note);
  }
  engine.makePitchMode2();
  const float* untouched = engine.notes[0]._pitch;
  engine.notes[2].PBW[1] = 30 * kGrid;
  engine.makePitchMode2(1, 3);
  EXPECT_EQ(engine.notes[0]._pitch, untouched);
  std::vector<std::vector<float>> ranged;
  for (int i = 1; i < 4; ++i) ranged.emplace_back(engine.notes[i]._pitch, engine.notes[i]._pitch + engine.notes[i]._pitchlen);
  engine.makePitchMode2();
  for (int i = 1; i < 4; ++i) {
    EXPECT_EQ(ranged[static_cast<size_t>(i - 1)],
              std::vector<float>(engine.notes[i]._pitch, engine.notes[i]._pitch + engine.notes[i]._pitchlen))
        << i;
  }
  engine.makePitchMode2(-5, 99);  // clamped to the list
  EXPECT_NE(engine.notes[3]._pitch, nullptr);
}
