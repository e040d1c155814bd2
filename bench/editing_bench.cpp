// Note editing at the sizes a long song reaches: one mouse-move step of a
// drag, and a lyric flow-in of a whole verse text.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "editing/ccnoteman.h"
#include "editing/scaleman.h"
#include "editing/undoman.h"

namespace {

// `count` identical notes every 240 ticks, every 20th selected.
void buildProject(CNoteMan& man, int count) {
  ctonm2& engine = *man.engine();
  for (int i = 0; i < count; ++i) {
    NoteData note;
    memset(&note, 0, sizeof note);
    strcpy(note.Lyric, "ra");
    note.NoteNum = 60;
    note.Length = 240;
    note.Delta = 240;
    note.selected = i % 20 == 0;
    ctonm2::default_env(note.Envelope);
    CNoteMan::defaultPitch(&note);
    engine.insert_note(engine.noteCount, &note);
  }
  man.synchronizeNotes();
}

// One mouse-move step of a drag of 500 selected notes in 10,000: the move
// from the snapshot, then time order restored. Moving by 300 ticks puts
// every selected note past its neighbour, so all 500 are reordered.
void BM_DragStep(benchmark::State& state) {
  const int shift = static_cast<int>(state.range(0));
  CScaleMan scale;
  CCNoteMan owner(&scale);
  CNoteMan& man = *owner.noteman();
  buildProject(man, 10000);
  ctonm2& engine = *man.engine();
  std::vector<uint32_t> selected(10000);
  for (int i = 0; i < 10000; ++i) selected[i] = engine.notes[i].selected;
  for (auto _ : state) {
    state.PauseTiming();
    for (int i = 0; i < 10000; ++i) {  // the notes are identical: Delta and flag restore the list
      engine.notes[i].Delta = 240;
      engine.notes[i].selected = selected[i];
    }
    state.ResumeTiming();
    benchmark::DoNotOptimize(man.moveSelectedNotes(shift, 1, 1));
    benchmark::DoNotOptimize(owner.normalizeAll());
  }
}
BENCHMARK(BM_DragStep)->Arg(30)->Arg(300)->Unit(benchmark::kMicrosecond);

// 2,000 characters (hiragana with small kana and spaces) flowed into
// 2,000 notes.
void BM_AssignLyric(benchmark::State& state) {
  CScaleMan scale;
  CNoteMan man(&scale);
  buildProject(man, 2000);
  man.ReleaseAll();
  man.addSelect(0, 0);
  std::string text;
  const char* const syllables[] = {"\xe3\x81\x8b", "\xe3\x81\x8d\xe3\x82\x83", " ", "\xe3\x81\x95"};
  for (int i = 0; text.size() < 6000; ++i) text += syllables[i % 4];
  std::vector<char> buffer(text.size() + 1);
  for (auto _ : state) {
    memcpy(buffer.data(), text.c_str(), text.size() + 1);
    benchmark::DoNotOptimize(man.assignLyric(buffer.data(), buffer.size(), false, false));
  }
}
BENCHMARK(BM_AssignLyric)->Unit(benchmark::kMicrosecond);

}  // namespace

namespace {

// A "set " session over 10,000 selected notes (the whole notes recorded
// before and after), then its undo and its redo.
void BM_SetSession(benchmark::State& state) {
  CScaleMan scale;
  CCNoteMan owner(&scale);
  owner.setKeepRecovery(false);
  CNoteMan& man = *owner.noteman();
  buildProject(man, 10000);
  man.SelectAll();
  CUndoMan& history = *owner.undoman();
  const int phase = static_cast<int>(state.range(0));
  int32_t intensity = 0;
  for (auto _ : state) {
    if (phase == 0) {
      history.beginSession(undo::kSet);
      man.setIntensityForSelected(++intensity);
      history.endSession(undo::kSet, nullptr);
    } else {
      state.PauseTiming();
      history.clean(nullptr);
      history.beginSession(undo::kSet);
      man.setIntensityForSelected(++intensity);
      history.endSession(undo::kSet, nullptr);
      state.ResumeTiming();
      history.undo(nullptr);
      if (phase == 2) history.redo(nullptr);
    }
  }
  state.SetLabel(phase == 0 ? "session" : phase == 1 ? "undo" : "undo + redo");
}
BENCHMARK(BM_SetSession)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

// The memory 512 steps of a 100-note move hold.
void BM_History512Moves(benchmark::State& state) {
  size_t bytes = 0;
  for (auto _ : state) {
    CScaleMan scale;
    CCNoteMan owner(&scale);
    owner.setKeepRecovery(false);
    CNoteMan& man = *owner.noteman();
    buildProject(man, 1000);
    man.ReleaseAll();
    for (int i = 0; i < 100; ++i) man.addSelect(i * 10, 2);
    CUndoMan& history = *owner.undoman();
    for (int k = 0; k < 512; ++k) {
      history.beginSession(undo::kMove);
      owner.dragSelection(k % 2 ? -5 : 5, 0, 1);
      history.endSession(undo::kMove, nullptr);
    }
    bytes = history.memoryUsed();
  }
  state.counters["history_MB"] = static_cast<double>(bytes) / 1e6;
}
BENCHMARK(BM_History512Moves)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
