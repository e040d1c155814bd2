// Pitch analysis of a generated 3 s voice-like sample (220 Hz with 5.5 Hz
// vibrato of 60 cents and a little breath), in seconds of audio analysed
// per CPU second ("audio_per_second").
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "render/wavefile.h"
#include "tests/voicebank/voice_signal.h"
#include "voicebank/pitch.h"

namespace {

VoiceSignal benchVoice() {
  VoiceSignal voice;
  voice.f0 = 220.0;
  voice.vibratoCents = 60.0;
  voice.breath = 0.05;
  voice.seconds = 3.0;
  return voice;
}

void reportAudio(benchmark::State& state, double seconds) {
  state.counters["audio_per_second"] =
      benchmark::Counter(seconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_FrequencyList(benchmark::State& state) {
  const VoiceSignal voice = benchVoice();
  const std::vector<int16_t> samples = voice.render();
  for (auto _ : state) {
    double* amplitudes = nullptr;
    double average = 0.0;
    double* freq = bcfGetFrequencyList(&amplitudes, &average, voice.frames(), voice.frames() / 256, voice.rate, 1,
                                       samples.data(), "");
    benchmark::DoNotOptimize(freq);
    free(freq);
    free(amplitudes);
  }
  reportAudio(state, voice.seconds);
}

void BM_GenerateAnalysisFiles(benchmark::State& state) {
  const VoiceSignal voice = benchVoice();
  const std::vector<int16_t> samples = voice.render();
  char folder[] = "/tmp/tona-bench-XXXXXX";
  const std::string dir = mkdtemp(folder);
  const std::string path = dir + "/a.wav";
  saveWaveFile(path.c_str(), samples.data(), static_cast<int32_t>(samples.size() * 2), 16, 1, voice.rate);
  for (auto _ : state) benchmark::DoNotOptimize(generateAnlyzeFiles(path.c_str(), 1));
  reportAudio(state, voice.seconds);
  unlink((dir + "/a_wav.frq").c_str());
  unlink(path.c_str());
  rmdir(dir.c_str());
}

}  // namespace

BENCHMARK(BM_FrequencyList)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GenerateAnalysisFiles)->Unit(benchmark::kMillisecond);
