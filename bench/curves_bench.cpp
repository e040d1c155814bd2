// makePitchMode2 over a generated project: every note has a three-segment
// pitch line and a vibrato, as a heavily edited song would.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>

#include "engine/ctonm2.h"

namespace {

float* floatList(int n, const float* values) {
  float* list = static_cast<float*>(malloc(sizeof(float) * (static_cast<size_t>(n) + 1)));
  list[0] = static_cast<float>(n);
  memcpy(list + 1, values, sizeof(float) * static_cast<size_t>(n));
  return list;
}

void buildProject(ctonm2& engine, int count) {
  double pos = 0.0;
  srand(7);
  for (int i = 0; i < count; ++i) {
    NoteData note;
    memset(&note, 0, sizeof note);
    strcpy(note.Lyric, i % 9 == 8 ? "R" : "ra");
    note.NoteNum = static_cast<int16_t>(55 + rand() % 14);
    note.Length = 240 + 240 * (rand() % 3);
    note.Delta = i == 0 ? 480 : engine.notes[i - 1].Length;
    note._notelen = note.Length * 125.0f / 120.0f;
    note._truelen = note._notelen + 60.0f;
    note._preuttr = 60.0f;
    note._stp = 5.0f;
    pos += note.Delta * 125.0 / 120.0;
    note._pos = pos;
    const float start[2] = {-40.0f, 0.0f};
    const float widths[3] = {40.0f, 80.0f, 60.0f};
    const float heights[2] = {3.0f, -2.0f};
    note.PBS = floatList(2, start);
    note.PBW = floatList(3, widths);
    note.PBY = floatList(2, heights);
    note.PBM = static_cast<uint8_t*>(malloc(4));
    memcpy(note.PBM, "\x03srj", 4);
    const int16_t vbr[10] = {65, 180, 35, 20, 20, 0, 0, 30, 0, 0};
    memcpy(note.VBR, vbr, sizeof vbr);
    ctonm2::default_env(note.Envelope);
    engine.insert_note(engine.noteCount, &note);
  }
}

void BM_MakePitchMode2(benchmark::State& state) {
  ctonm2 engine;
  buildProject(engine, static_cast<int>(state.range(0)));
  for (auto _ : state) {
    engine.makePitchMode2();
    benchmark::DoNotOptimize(engine.notes[0]._pitch);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_MakePitchMode2)->Arg(2000)->Unit(benchmark::kMillisecond);
