// Whole renders of a generated 3-minute project of 400 notes (mixed
// lengths, pitch lines, vibratos) with a generated five-vowel bank: cold
// (empty cache, tables on disk) on 2 workers, and warm (every note from
// the cache) on the single-threaded driver. "peak_rss_mb" is the process's
// peak resident memory so far.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include <atomic>
#include <chrono>
#include <thread>

#include "editing/noteman.h"
#include "editing/scaleman.h"
#include "engine/ctonm2.h"
#include "playback/audioout.h"
#include "render/audition.h"
#include "render/cache.h"
#include "render/wavefile.h"
#include "tests/testutil.h"
#include "tests/voicebank/voice_signal.h"
#include "voicebank/pitch.h"
#include "voicebank/voiceset.h"

namespace {

const char* const kVowels[5] = {"a", "i", "u", "e", "o"};

struct Fixture {
  TempDir bank;
  FakeHome home;  // the render cache goes below a temporary home
  Fixture() {
    VoiceSignal voice;
    voice.f0 = 220.0;
    voice.seconds = 1.6;
    std::string oto;
    for (int v = 0; v < 5; ++v) {
      voice.vibratoCents = 10.0 * v;
      const std::vector<int16_t> samples = voice.render(static_cast<uint32_t>(v + 1));
      const std::string path = bank.file(std::string(kVowels[v]) + ".wav");
      saveWaveFile(path.c_str(), samples.data(), static_cast<int32_t>(samples.size() * 2), 16, 1, 44100);
      generateAnlyzeFiles(path.c_str(), 0);
      oto += std::string(kVowels[v]) + ".wav=" + kVowels[v] + ",30,60,-1500,40,15\n";
    }
    writeFile(bank.file("oto.ini"), oto);
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

// 400 notes at 120 BPM over about 3 minutes.
void buildProject(ctonm2& engine, cvoiceset& voiceset) {
  engine.free_snt();
  engine.tempo = 120.0f;
  engine.set_voiceDir(fixture().bank.path().c_str());
  voiceset.read_voiceset(engine.voiceDir);
  engine.voiceset = &voiceset;
  const int lengths[4] = {240, 360, 480, 648};  // 432 ticks on average: 3 minutes
  int previous = 480;
  for (int i = 0; i < 400; ++i) {
    NoteData note;
    memset(&note, 0, sizeof note);
    strcpy(note.Lyric, kVowels[i % 5]);
    note.NoteNum = static_cast<int16_t>(55 + (i * 7) % 12);
    note.Length = lengths[(i * 3) % 4];
    note.Delta = previous;
    previous = note.Length;
    note.Velocity = 100.0f;
    note.Intensity = 100;
    note.Modulation = 100;
    note.PreUtterance = note.VoiceOverlap = NAN;
    ctonm2::default_env(note.Envelope);
    note.PBS = static_cast<float*>(malloc(3 * sizeof(float)));
    note.PBS[0] = 2.0f;
    note.PBS[1] = -40.0f;
    note.PBS[2] = 0.0f;
    note.PBW = static_cast<float*>(malloc(2 * sizeof(float)));
    note.PBW[0] = 1.0f;
    note.PBW[1] = 60.0f;
    if (note.Length >= 480) {
      const int16_t vbr[10] = {65, 180, 35, 20, 20, 0, 0, 0, 0, 0};
      memcpy(note.VBR, vbr, sizeof vbr);
    }
    engine.insert_note(engine.noteCount, &note);
  }
  engine.preparationNotes();
  engine.makePitchMode2();
}

double* cacheGet(int32_t index, const NoteData* note, int32_t* bytes) { return CCacheSys::getCache(index, note, bytes); }
void cachePut(int32_t index, const NoteData* note, const double* data, int32_t bytes) {
  CCacheSys::putCache(index, note, data, bytes);
}

void report(benchmark::State& state, int32_t size) {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  state.counters["peak_rss_mb"] = usage.ru_maxrss / 1024.0;
  state.counters["song_seconds"] = (size + 8 - 48) / 2 / 44100.0;
}

void BM_RenderColdTwoWorkers(benchmark::State& state) {
  fixture();
  ctonm2 engine;
  cvoiceset voiceset;
  int32_t size = 0;
  for (auto _ : state) {
    state.PauseTiming();
    buildProject(engine, voiceset);
    state.ResumeTiming();
    uint8_t* block = engine.render_by_thread(&size, 2, nullptr);
    benchmark::DoNotOptimize(block);
    free(block);
  }
  report(state, size);
}

// A 10-hour song of arg 0 half-second notes spread evenly over rests,
// rendered stretch by stretch on 2 workers into a sink that keeps
// nothing: the cost should follow the sounding notes, the memory stay
// that of one stretch whatever the song's length.
void BM_RenderLongSongStreamed(benchmark::State& state) {
  fixture();
  ctonm2 engine;
  cvoiceset voiceset;
  const int notes = static_cast<int>(state.range(0));
  const int32_t songTicks = 10 * 3600 * 960;  // at 120 BPM a tick lasts 1/960 s
  int64_t handed = 0;
  for (auto _ : state) {
    state.PauseTiming();
    engine.free_snt();
    engine.tempo = 120.0f;
    engine.set_voiceDir(fixture().bank.path().c_str());
    voiceset.read_voiceset(engine.voiceDir);
    engine.voiceset = &voiceset;
    for (int i = 0; i < notes; ++i) {
      NoteData note;
      memset(&note, 0, sizeof note);
      strcpy(note.Lyric, kVowels[i % 5]);
      note.NoteNum = 57;
      note.Length = 480;
      note.Delta = i == 0 ? 480 : songTicks / notes;
      note.Velocity = 100.0f;
      note.Intensity = 100;
      note.Modulation = 100;
      note.PreUtterance = note.VoiceOverlap = NAN;
      ctonm2::default_env(note.Envelope);
      engine.insert_note(engine.noteCount, &note);
    }
    engine.preparationNotes();
    engine.makePitchMode2();
    state.ResumeTiming();
    auto discard = [](void*, const int16_t* samples, int32_t) {
      benchmark::DoNotOptimize(samples);
      return true;
    };
    handed = engine.render_number_streamed(0, notes - 1, 2, 44100 * 600, nullptr, discard, nullptr);
  }
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  state.counters["peak_rss_mb"] = usage.ru_maxrss / 1024.0;
  state.counters["song_hours"] = static_cast<double>(handed) / 44100.0 / 3600.0;
}

void BM_RenderWarmFromCache(benchmark::State& state) {
  fixture();
  ctonm2 engine;
  cvoiceset voiceset;
  engine.cacheGet = cacheGet;
  engine.cachePut = cachePut;
  buildProject(engine, voiceset);
  int32_t size = 0;
  free(engine.render_all(&size));  // fills the cache
  for (auto _ : state) {
    state.PauseTiming();
    buildProject(engine, voiceset);
    state.ResumeTiming();
    uint8_t* block = engine.render_all(&size);
    benchmark::DoNotOptimize(block);
    free(block);
  }
  report(state, size);
}

// A device that pulls 1024 frames every 23.2 ms, as a sound card does.
class PacedDevice : public AudioDevice {
 public:
  bool start() override { return true; }
  bool stop() override { return true; }
  const char* name() const override { return "paced"; }
  int32_t channels() const override { return 1; }
};

// Plays while rendering from playStart at the first note: the time until
// the device starts playing (start_ms) and until the first sound reaches
// it, and how often playback waited for the render (the render over, no
// wait can come any more, and the run ends).
void measurePlayback(benchmark::State& state, CNoteMan& man) {
  // From the start of the first note that sings: no silence of the song's own.
  int64_t fromTick = 0;
  for (int32_t i = 0; i < man.noteCount(); ++i) {
    if (ctonm2::sounds(*man.getNote(i))) {
      fromTick = man.getPosition(i);
      break;
    }
  }
  PacedDevice device;
  CAudioOut player(&device);
  double firstSoundMs = -1.0, startMs = -1.0;
  int waits = 0;
  for (auto _ : state) {
    std::atomic<bool> done{false};
    const auto began = std::chrono::steady_clock::now();
    firstSoundMs = startMs = -1.0;
    waits = 0;
    std::thread pull([&] {
      std::vector<float> buffer(1024);
      auto next = std::chrono::steady_clock::now();
      bool waiting = false;
      while (!done) {
        next += std::chrono::microseconds(23220);
        std::this_thread::sleep_until(next);
        CAudioOut::ioProc(buffer.data(), 1024, 1);
        if (startMs < 0.0 && CAudioOut::NowPlaying) {
          startMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began).count();
        }
        if (firstSoundMs < 0.0) {
          for (float value : buffer) {
            if (value == 0.0f) continue;
            firstSoundMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began).count();
            break;
          }
        }
        if (player.waiting() && !waiting) ++waits;
        waiting = player.waiting();
      }
    });
    std::string message;
    man.playStart(fromTick, 0, nullptr, CAudioOut::play_trigger, CAudioOut::set_render_pos, nullptr, &message);
    man.engine()->render_thread_join(nullptr);
    while (firstSoundMs < 0.0 && CAudioOut::NowPlaying) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    done = true;
    pull.join();
    player.play_stop();
    state.SetIterationTime(firstSoundMs / 1000.0);
  }
  state.counters["first_sound_ms"] = firstSoundMs;
  state.counters["start_ms"] = startMs;
  state.counters["waits"] = waits;
}

// The 400-note project, with an empty render cache (arg 0) or a full one (1).
void BM_PlayStart400Notes(benchmark::State& state) {
  fixture();
  TempDir cache;
  ScopedEnv cacheHome("XDG_CACHE_HOME", cache.path().c_str());
  CScaleMan scale;
  CNoteMan man(&scale);
  cvoiceset voiceset;
  buildProject(*man.engine(), voiceset);
  if (state.range(0) == 1) {  // fills the cache
    man.engine()->cacheGet = cacheGet;
    man.engine()->cachePut = cachePut;
    free(man.engine()->render_all(nullptr));
  }
  buildProject(*man.engine(), voiceset);
  measurePlayback(state, man);
}

// The bundled demo song with its bank.
void BM_PlayStartDemo(benchmark::State& state) {
  fixture();
  TempDir cache;
  ScopedEnv cacheHome("XDG_CACHE_HOME", cache.path().c_str());
  CScaleMan scale;
  CNoteMan man(&scale);
  if (man.openSnt(TONA_SOURCE_DIR "/demo/song.snt", nullptr) < 0) {
    state.SkipWithError("no demo song");
    return;
  }
  man.engine()->set_voiceDir(TONA_SOURCE_DIR "/demo/voicebank");
  man.readVoiceset();
  if (state.range(0) == 1) {
    man.engine()->cacheGet = cacheGet;
    man.engine()->cachePut = cachePut;
    man.engine()->preparationNotes();
    man.engine()->makePitchMode2();
    free(man.engine()->render_all(nullptr));
  }
  measurePlayback(state, man);
}

// A note heard alone as it is written, on a warm bank (its tables made):
// from the click (the clip asked for) to the first sound the device takes,
// with no clip kept in memory from before. Arg 0: the generated bank's
// "a" (1.6 s); 1: the demo bank's "か".
void BM_AuditionFirstSound(benchmark::State& state) {
  fixture();
  cvoiceset voices;
  const std::string folder =
      state.range(0) == 0 ? fixture().bank.path() + "/" : std::string(TONA_SOURCE_DIR "/demo/voicebank/");
  if (voices.read_voiceset(folder.c_str()) <= 0) {
    state.SkipWithError("no voice bank");
    return;
  }
  NoteData note;
  memset(&note, 0, sizeof note);
  strcpy(note.Lyric, state.range(0) == 0 ? "a" : "か");
  note.NoteNum = 64;
  note.Velocity = 100.0f;
  note.Intensity = 100;
  note.Modulation = 100;
  std::string error;
  Audition().sing(&voices, folder.c_str(), note, 500.0, &error);  // makes the tables: the bank is warm
  PacedDevice device;
  CAudioOut player(&device);
  double clipMs = 0.0, firstSoundMs = 0.0;
  for (auto _ : state) {
    Audition audition;
    std::atomic<bool> done{false};
    std::atomic<double> heardAt{-1.0};
    const auto began = std::chrono::steady_clock::now();
    std::thread pull([&] {
      std::vector<float> buffer(1024);
      auto next = std::chrono::steady_clock::now();
      while (!done && heardAt.load() < 0.0) {
        next += std::chrono::microseconds(23220);
        std::this_thread::sleep_until(next);
        CAudioOut::ioProc(buffer.data(), 1024, 1);
        for (float value : buffer) {
          if (value == 0.0f) continue;
          heardAt = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began).count();
          break;
        }
      }
    });
    const std::vector<int16_t> clip = audition.sing(&voices, folder.c_str(), note, 500.0, &error);
    clipMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began).count();
    auto* block = static_cast<int16_t*>(calloc(24 + clip.size(), sizeof(int16_t)));
    std::copy(clip.begin(), clip.end(), block + 24);
    CAudioOut::renderPos = 0;
    CAudioOut::play_trigger(nullptr, reinterpret_cast<uint8_t*>(block), 48, static_cast<int32_t>(48 + clip.size() * 2), 0);
    while (heardAt.load() < 0.0 && CAudioOut::NowPlaying) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    done = true;
    pull.join();
    player.play_stop();
    firstSoundMs = heardAt.load();
    state.SetIterationTime(firstSoundMs / 1000.0);
  }
  state.counters["clip_ms"] = clipMs;
  state.counters["first_sound_ms"] = firstSoundMs;
}

}  // namespace

BENCHMARK(BM_AuditionFirstSound)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_PlayStart400Notes)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_PlayStartDemo)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_RenderColdTwoWorkers)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_RenderWarmFromCache)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_RenderLongSongStreamed)->Arg(20)->Arg(40)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
