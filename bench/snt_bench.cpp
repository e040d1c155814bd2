// Opening a generated 10,000-note project as the editor does, in the
// UTF-8 2.0 form and in the Shift_JIS 1.2 form (texts converted); the
// time of every note of a 100,000-note project as tona info lists it.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "editing/noteman.h"
#include "editing/scaleman.h"

namespace {

std::string writeProject(int notes, bool shiftJis) {
  char path[] = "/tmp/tona-bench-XXXXXX";
  const int fd = mkstemp(path);
  FILE* file = fdopen(fd, "w");
  fprintf(file, "[#VERSION]\nSNT Version%s\n%s[#SETTING]\nTempo=120.00\nVoiceDir=${DEFAULT}/demo\n",
          shiftJis ? "1.2" : "2.0", shiftJis ? "" : "Charset=UTF-8\n");
  const char* lyric = shiftJis ? "\x82\xa9" : "\xe3\x81\x8b";
  for (int i = 0; i < notes; ++i) {
    fprintf(file,
            "[#%04d]\nDelta=480\nDuration=480\nLength=480\nLyric=%s\nNoteNum=%d\nStartPoint=0.00\n"
            "Intensity=100\nModulation=100\nPBS=-40.0,0.0\nPBW=50.0,120.0\nPBY=3.0\nPBM=s,r\n"
            "Envelope=5.0,1.0,1.0,100.0,100.0,100.0,100.0,0.0,35.0,1.0,100.0,0.0,0.0,0.0,0.0,0.0\n"
            "VBR=65,180,35,20,20,0,0,0,0,0\n%s",
            i, lyric, 55 + i % 14, i % 50 == 0 ? "Tempo=130.00\n" : "");
  }
  fprintf(file, "[#TRACKEND]\n");
  fclose(file);
  return path;
}

void BM_OpenProject(benchmark::State& state) {
  const bool shiftJis = state.range(1) != 0;
  const std::string path = writeProject(static_cast<int>(state.range(0)), shiftJis);
  CScaleMan scale;
  CNoteMan manager(&scale);
  for (auto _ : state) {
    benchmark::DoNotOptimize(manager.openSnt(path.c_str(), "/banks"));
  }
  unlink(path.c_str());
}

// Opening a 100,000-note project (a tempo change every 50 notes) and the
// start and end time of every note, as tona info lists them.
void BM_NoteTimesOf100000Notes(benchmark::State& state) {
  const std::string path = writeProject(100000, false);
  CScaleMan scale;
  CNoteMan manager(&scale);
  for (auto _ : state) {
    manager.openSnt(path.c_str(), "/banks");
    const ctonm2& engine = *manager.engine();
    const TickTimeline timeline(engine);
    int64_t start = 0;
    double sum = 0.0;
    for (int32_t i = 0; i < engine.noteCount; ++i) {
      start += engine.notes[i].Delta;
      sum += timeline.msec(start) + timeline.msec(start + engine.notes[i].Length);
    }
    benchmark::DoNotOptimize(sum);
  }
  unlink(path.c_str());
}
BENCHMARK(BM_NoteTimesOf100000Notes)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK(BM_OpenProject)->Args({10000, 0})->Args({10000, 1})->ArgNames({"notes", "sjis"})
    ->Unit(benchmark::kMillisecond);
