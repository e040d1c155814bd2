// resamp: a 1.5 s note from a generated 2 s vowel sample (220 Hz), shifted
// up 5 semitones, frequency table and spectrum file already on disk; with
// the formant stage (arg 0, default flags) and without it (arg 1, N); in
// seconds of output per CPU second ("audio_per_second"). And the spectrum
// of a 3 s sample computed.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "engine/ctonm2.h"
#include "render/resampler.h"
#include "render/wavefile.h"
#include "tests/render/vowel_note.h"
#include "tests/voicebank/voice_signal.h"
#include "voicebank/pitch.h"
#include "voicebank/spectrum.h"
#include "voicebank/voiceset.h"

namespace {

void BM_ResampleNote(benchmark::State& state) {
  VoiceSignal voice;
  voice.f0 = 220.0;
  voice.seconds = 2.0;
  const std::vector<int16_t> samples = voice.render();
  char folder[] = "/tmp/tona-bench-XXXXXX";
  const std::string dir = mkdtemp(folder);
  const std::string path = dir + "/a.wav";
  saveWaveFile(path.c_str(), samples.data(), static_cast<int32_t>(samples.size() * 2), 16, 1, voice.rate);
  init_render(44100);
  generateAnlyzeFiles(path.c_str(), 2);

  VoiceData entry;
  memset(&entry, 0, sizeof entry);
  entry.offset = 50.0f;
  entry.fixed = 60.0f;
  entry.blank = 50.0f;
  NoteData note;
  memset(&note, 0, sizeof note);
  strcpy(note.Lyric, "a");
  note.NoteNum = 62;  // 5 semitones above the sample's A3
  note.Velocity = 100.0f;
  note.Intensity = 100;
  note.Modulation = 100;
  note.VoiceFile = entry.filename;
  if (state.range(0) == 1) strcpy(note.Flags, "N");
  int32_t count = 0;
  for (auto _ : state) {
    double* out = resamp(path.c_str(), &note, 1500.0f, &count, 120.0f);
    benchmark::DoNotOptimize(out);
    free(out);
  }
  state.counters["audio_per_second"] =
      benchmark::Counter(count / 44100.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  unlink((dir + "/a_wav.frq").c_str());
  unlink((dir + "/a_wav.spef").c_str());
  unlink(path.c_str());
  rmdir(dir.c_str());
}

// How close the resampler lands to the note it is asked for: generated
// vowels at 220 Hz with a shimmer of 3 % and a jitter of arg 1 tenths of
// a percent, drifting slowly by arg 2 cents, each moved -7 to +12
// semitones (twelve tasks) and stretched from 1.4 s of usable vowel to a
// 2 s note. Every 10 ms of the middle 60 % of the note is measured against
// the note's frequency: the mean distance in cents and the worst over 50
// ms ("worst_cents"), per shift ("shiftS_mean", S = shift + 7). Arg 0:
// modulation 0 (the sample's own wavering flattened: the note should be
// flat) or 100 (kept: the figure then holds the sample's own wavering).
// Arg 3: the table's own frame-to-frame jitter in cents (as tables made
// by other programs carry), 0 for the table as analysed.
void BM_PitchAccuracy(benchmark::State& state) {
  const int shifts[12] = {-7, -5, -3, -2, -1, 0, 2, 4, 5, 7, 9, 12};
  char folder[] = "/tmp/tona-bench-XXXXXX";
  const std::string dir = mkdtemp(folder);
  init_render(44100);
  VoiceData entry;
  memset(&entry, 0, sizeof entry);
  entry.offset = 100.0f;
  entry.fixed = 60.0f;
  entry.blank = 100.0f;
  std::vector<std::string> paths;
  for (int task = 0; task < 12; ++task) {
    VoiceSignal voice;
    voice.f0 = 220.0;
    voice.seconds = 1.6;
    voice.jitter = state.range(1) / 1000.0;
    voice.shimmer = 0.03;
    voice.vibratoCents = state.range(2);  // a slow drift of the sung pitch
    voice.vibratoRate = 0.8;
    const std::string path = dir + "/v" + std::to_string(task) + ".wav";
    voice.writeWave(path, static_cast<uint32_t>(task + 1));
    generateAnlyzeFiles(path.c_str(), 2);
    if (state.range(3) > 0 && !jitterTable(path.c_str(), static_cast<double>(state.range(3)), task + 1u)) {
      state.SkipWithError("no table to jitter");
      return;
    }
    paths.push_back(path);
  }
  double mean = 0.0, worst = 0.0;
  for (auto _ : state) {
    double sum = 0.0;
    int64_t frames = 0;
    worst = 0.0;
    for (int task = 0; task < 12; ++task) {
      NoteData note;
      memset(&note, 0, sizeof note);
      strcpy(note.Lyric, "a");
      note.NoteNum = static_cast<int16_t>(57 + shifts[task]);
      note.Velocity = 100.0f;
      note.Intensity = 100;
      note.Modulation = state.range(0) == 0 ? 0 : 100;
      note.VoiceFile = entry.filename;
      int32_t count = 0;
      double* out = resamp(paths[static_cast<size_t>(task)].c_str(), &note, 2000.0f, &count, 120.0f);
      if (out == nullptr) {
        state.SkipWithError("the resampler failed");
        return;
      }
      const PitchDistance d = pitchDistance(out, count, num2freq(note.NoteNum));
      free(out);
      sum += d.mean * static_cast<double>(d.frames);
      frames += static_cast<int64_t>(d.frames);
      worst = std::max(worst, d.worst);
      state.counters["shift" + std::to_string(shifts[task] + 7) + "_mean"] = d.frames > 0 ? d.mean : -1.0;
    }
    mean = frames > 0 ? sum / static_cast<double>(frames) : -1.0;
  }
  state.counters["mean_cents"] = mean;
  state.counters["worst_cents"] = worst;
  for (const std::string& path : paths) {
    unlink(path.c_str());
    unlink((path.substr(0, path.size() - 4) + "_wav.frq").c_str());
    unlink((path.substr(0, path.size() - 4) + "_wav.spef").c_str());
  }
  rmdir(dir.c_str());
}

}  // namespace

BENCHMARK(BM_ResampleNote)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PitchAccuracy)
    ->Args({0, 5, 0, 0})
    ->Args({1, 5, 0, 0})
    ->Args({0, 10, 20, 0})
    ->Args({1, 10, 20, 0})
    ->Args({0, 5, 0, 20})
    ->Args({0, 10, 20, 20})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

void BM_SpectrumOf3s(benchmark::State& state) {
  VoiceSignal voice;
  voice.f0 = 220.0;
  voice.seconds = 3.0;
  const std::vector<int16_t> samples = voice.render();
  const int32_t frames = static_cast<int32_t>(samples.size());
  std::vector<double> f0(static_cast<size_t>(frames / 256 + 2), 220.0);
  SpectrumTable table;
  for (auto _ : state) {
    computeSpectrum(samples.data(), frames, 1, 44100, f0.data(), static_cast<int32_t>(f0.size()), 220.0, &table);
    benchmark::DoNotOptimize(table.values.data());
  }
}
BENCHMARK(BM_SpectrumOf3s)->Unit(benchmark::kMillisecond);
