// resamp: a 1.5 s note from a generated 2 s vowel sample (220 Hz), shifted
// up 5 semitones, frequency table and spectrum file already on disk; with
// the formant stage (arg 0, default flags) and without it (arg 1, N); in
// seconds of output per CPU second ("audio_per_second"). And the spectrum
// of a 3 s sample computed.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "engine/ctonm2.h"
#include "render/resampler.h"
#include "render/wavefile.h"
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

}  // namespace

BENCHMARK(BM_ResampleNote)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

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
