// Long melodies through the exchange: a MIDI file and a MusicXML score of
// 10,000 notes with lyrics and 100 tempo changes imported, and a
// 10,000-note project written as a VSQ sequence and as a score.
#include <benchmark/benchmark.h>

#include <string>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "midi/midiman.h"
#include "midi/musicxml.h"
#include "tests/testutil.h"

namespace {

// 10,000 eighth notes singing "sa ka" over an octave; with `tempos`, a
// tempo change every 100 notes.
void fillSong(CNoteMan& man, bool tempos) {
  for (int i = 0; i < 10000; ++i) {
    man.insertNotePosition(static_cast<int64_t>(i) * 240, 240, 55 + i % 12, i % 2 ? "\xe3\x81\x8b" : "\xe3\x81\x95");
    if (tempos && i % 100 == 50) man.getNote(man.noteCount() - 1)->Tempo = static_cast<float>(100 + i % 40);
  }
}

void BM_ImportMidi10000Notes(benchmark::State& state) {
  TempDir dir;
  const std::string path = dir.file("long.mid");
  {
    CScaleMan scale;
    CNoteMan man(&scale);
    fillSong(man, true);
    CMIDIMan midi;
    if (!midi.writeSMFFile(path.c_str(), &man)) state.SkipWithError("cannot write the file");
  }
  for (auto _ : state) {
    CScaleMan scale;
    CNoteMan man(&scale);
    CMIDIMan midi;
    std::string signatures;
    benchmark::DoNotOptimize(midi.importMIDIFile(path.c_str(), 1, -1, &man, &signatures));
  }
}
BENCHMARK(BM_ImportMidi10000Notes)->Unit(benchmark::kMillisecond);

// A 10,000-note project written as a VSQ sequence.
void BM_ExportVsq10000Notes(benchmark::State& state) {
  TempDir dir;
  const std::string path = dir.file("long.vsq");
  CScaleMan scale;
  CNoteMan man(&scale);
  fillSong(man, false);
  CMIDIMan midi;
  for (auto _ : state) benchmark::DoNotOptimize(midi.writeVSQFile(path.c_str(), &man));
}
BENCHMARK(BM_ExportVsq10000Notes)->Unit(benchmark::kMillisecond);

// The same song as a MusicXML score (as the export writes it: 2,500
// measures), read and its one part imported.
void BM_ImportMusicXml10000Notes(benchmark::State& state) {
  TempDir dir;
  const std::string path = dir.file("long.musicxml");
  {
    CScaleMan scale;
    CNoteMan man(&scale);
    fillSong(man, true);
    std::string error;
    if (!CMusicXml::write(path.c_str(), &man, &error)) state.SkipWithError(error.c_str());
  }
  for (auto _ : state) {
    CMusicXml score;
    CScaleMan scale;
    CNoteMan man(&scale);
    std::string signatures;
    if (!score.load(path.c_str())) state.SkipWithError(score.error().c_str());
    benchmark::DoNotOptimize(score.importPart(0, 0, 1, &man, &signatures));
  }
}
BENCHMARK(BM_ImportMusicXml10000Notes)->Unit(benchmark::kMillisecond);

void BM_ExportMusicXml10000Notes(benchmark::State& state) {
  TempDir dir;
  const std::string path = dir.file("long.musicxml");
  CScaleMan scale;
  CNoteMan man(&scale);
  fillSong(man, true);
  std::string error;
  for (auto _ : state) benchmark::DoNotOptimize(CMusicXml::write(path.c_str(), &man, &error));
}
BENCHMARK(BM_ExportMusicXml10000Notes)->Unit(benchmark::kMillisecond);

}  // namespace
