// Tick and millisecond conversions across tempo changes. Tempos of 125 and
// 62.5 give exactly 1 and 2 msec per tick, so results are exact in floats.
#include <gtest/gtest.h>

#include <random>

#include "engine/ctonm2.h"
#include "tests/engine/notes.h"

namespace {

// Three notes starting at ticks 480, 960 and 1440; the second sets `change`.
void buildSong(ctonm2& engine, float change) {
  engine.tempo = 125.0f;
  for (int i = 0; i < 3; ++i) {
    NoteData note = makeNote("a", 60, 480, 480);
    if (i == 1) note.Tempo = change;
    engine.insert_note(engine.noteCount, &note);
  }
}

}  // namespace

TEST(Tempo, LastPositiveTempoAtOrBeforeTheNote) {
  ctonm2 engine;
  buildSong(engine, 62.5f);
  EXPECT_FLOAT_EQ(engine.get_tempo(0), 125.0f);
  EXPECT_FLOAT_EQ(engine.get_tempo(1), 62.5f);
  EXPECT_FLOAT_EQ(engine.get_tempo(2), 62.5f);
  EXPECT_FLOAT_EQ(engine.get_tempo(3), 125.0f);  // past the end: project tempo
  EXPECT_FLOAT_EQ(engine.get_tempo(-1), 125.0f);
  engine.notes[1].Tempo = -62.5f;
  EXPECT_FLOAT_EQ(engine.get_tempo(2), 125.0f);
}

TEST(TimeConversion, EmptySongAtTempo120) {
  ctonm2 engine;
  EXPECT_FLOAT_EQ(engine.ticks2msec(480), 500.0f);
  EXPECT_EQ(engine.msec2ticks(500.0), 480);
  EXPECT_FLOAT_EQ(engine.ticks2msec(480, 0), 500.0f);
  EXPECT_EQ(engine.msec2ticks(500.0f, 0), 480);
}

TEST(TimeConversion, AbsoluteFormsFollowEveryTempoChange) {
  ctonm2 engine;
  buildSong(engine, 62.5f);
  // A note's own Delta runs at the tempo before it; its tempo from its start.
  EXPECT_FLOAT_EQ(engine.ticks2msec(480), 480.0f);
  EXPECT_FLOAT_EQ(engine.ticks2msec(960), 960.0f);
  EXPECT_FLOAT_EQ(engine.ticks2msec(1440), 1920.0f);
  EXPECT_FLOAT_EQ(engine.ticks2msec(1920), 2880.0f);  // past the last note
  EXPECT_EQ(engine.msec2ticks(960.0), 960);
  EXPECT_EQ(engine.msec2ticks(1920.0), 1440);
  EXPECT_EQ(engine.msec2ticks(2880.0), 1920);
  EXPECT_EQ(engine.msec2ticks(1921.0), 1440);  // truncated
  for (int ticks : {0, 100, 700, 1000, 1500, 2500}) {
    EXPECT_EQ(engine.msec2ticks(engine.ticks2msec(ticks)), ticks) << ticks;
  }
}

TEST(TimeConversion, AbsoluteFormsHonourANegativeTempo) {
  ctonm2 engine;
  buildSong(engine, -62.5f);
  EXPECT_FLOAT_EQ(engine.ticks2msec(1920), 480.0f + 480.0f - 960.0f - 960.0f);
  EXPECT_EQ(engine.msec2ticks(1000.0), 1440 - 500);
}

TEST(TimeConversion, NoteRelativeTicksKeepTheBaseNotesTempo) {
  ctonm2 engine;
  buildSong(engine, 62.5f);
  // 960 ticks from note 0 cross the change at note 1, which is not applied.
  EXPECT_FLOAT_EQ(engine.ticks2msec(960, 0), 960.0f);
  EXPECT_FLOAT_EQ(engine.ticks2msec(480, 2), 960.0f);
  EXPECT_FLOAT_EQ(engine.ticks2msec(-960, 2), -1920.0f);
  EXPECT_FLOAT_EQ(engine.ticks2msec(-960, 1), -1920.0f);
  EXPECT_FLOAT_EQ(engine.ticks2msec(-5000, 2), -10000.0f);  // past the first note
  EXPECT_FLOAT_EQ(engine.ticks2msec(-960, 3), -960.0f);  // past the end: back from the last note, at the project tempo
}

TEST(TimeConversion, NoteRelativeMsecFollowTempoChangesBothWays) {
  ctonm2 engine;
  buildSong(engine, 62.5f);
  EXPECT_EQ(engine.msec2ticks(1440.0f, 0), 960);   // 480 ms at 125, 960 ms at 62.5
  EXPECT_EQ(engine.msec2ticks(2400.0f, 0), 1440);  // past the last note, at 62.5
  EXPECT_EQ(engine.msec2ticks(400.0f, 0), 400);
  EXPECT_EQ(engine.msec2ticks(500.0f, 2), 250);
  EXPECT_EQ(engine.msec2ticks(-1440.0f, 2), -960);  // back over the change
  EXPECT_EQ(engine.msec2ticks(-100.0f, 1), -100);   // note 1's Delta runs at 125
  EXPECT_EQ(engine.msec2ticks(-5000.0f, 2), -1440 - 3080);
  EXPECT_EQ(engine.msec2ticks(-100.0f, 7), -50);  // from past the end: from the last note
  EXPECT_EQ(engine.msec2ticks(-100.0f, 3), -50);
  // Past the end the last note's own change holds.
  engine.notes[2].Tempo = 250.0f;
  EXPECT_EQ(engine.msec2ticks(1000.0f, 1), 480 + 80);  // 960 ms at 62.5, 40 at 250
  engine.notes[2].Tempo = 0.0f;
  // A negative tempo is ignored here, as in get_tempo.
  engine.notes[1].Tempo = -62.5f;
  EXPECT_EQ(engine.msec2ticks(1440.0f, 0), 1440);
}

TEST(TimeConversion, TheTimelineGivesTicks2MsecToTheBit) {
  // Random songs: notes on one tick, rests, tempo changes (some negative),
  // a negative Delta now and then (the walk then decides); every position
  // from before the first note to past the last.
  std::mt19937 random(7);
  for (int song = 0; song < 40; ++song) {
    ctonm2 engine;
    engine.tempo = 60.0f + static_cast<float>(random() % 140);
    const int notes = static_cast<int>(random() % 30);
    for (int i = 0; i < notes; ++i) {
      const int delta = song % 10 == 9 && i == 3 ? -100 : static_cast<int>(random() % 4) * 120;
      NoteData note = makeNote("a", 60, delta, 240);
      if (random() % 5 == 0) note.Tempo = (random() % 7 == 0 ? -1.0f : 1.0f) * (40.0f + static_cast<float>(random() % 200));
      engine.insert_note(engine.noteCount, &note);
    }
    const TickTimeline timeline(engine);
    for (int64_t tick = -200; tick < 4000; tick += 7) {
      ASSERT_EQ(timeline.msec(tick), engine.ticks2msec(static_cast<int32_t>(tick))) << "song " << song << ", tick " << tick;
    }
  }
}
