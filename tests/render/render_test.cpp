// Whole renders with a voice bank generated in the test.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "engine/ctonm2.h"
#include "playback/metronome.h"
#include "render/cache.h"
#include "render/renderfile.h"
#include "render/wavefile.h"
#include "support/userdirs.h"
#include "tests/engine/notes.h"
#include "tests/render/vowel_note.h"
#include "tests/testutil.h"
#include "tests/voicebank/bank.h"
#include "tests/voicebank/voice_signal.h"
#include "voicebank/pitch.h"
#include "voicebank/voiceset.h"

namespace {

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};
using Block = std::unique_ptr<uint8_t, FreeDeleter>;

// A bank of steady vowels "a" and "i" at 220 Hz (the "i" an octave higher
// in formants is not needed: pitch is what is checked), and an engine at
// 125 BPM (1 msec per tick) singing with it.
class Render : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    bank_ = new TestBank;
    writeAnalysedVowels(*bank_, {"a", "i"});
  }
  static void TearDownTestSuite() { delete bank_; }

  void SetUp() override {
    engine_.tempo = 125.0f;
    engine_.set_voiceDir(bank_->path().c_str());
    ASSERT_GT(voiceset_.read_voiceset(bank_->path().c_str()), 0);
    engine_.voiceset = &voiceset_;
  }
  void add(const char* lyric, int noteNum, int delta, int length) {
    NoteData note = makeNote(lyric, noteNum, delta, length);
    note.PreUtterance = note.VoiceOverlap = NAN;
    engine_.insert_note(engine_.noteCount, &note);
  }
  // Four notes with rests between them.
  void buildSong() {
    add("a", 57, 200, 400);
    add("R", 57, 400, 0);
    add("i", 60, 200, 400);
    add("R", 57, 400, 0);
    add("a", 64, 200, 400);
    add("zz", 64, 600, 300);  // no voice entry
  }
  void prepare() {
    engine_.preparationNotes();
    engine_.makePitchMode2();
  }
  static std::vector<int16_t> samplesOf(const uint8_t* block, int32_t size) {
    const int16_t* words = reinterpret_cast<const int16_t*>(block + 48);
    return std::vector<int16_t>(words, words + (size + 8 - 48) / 2);
  }
  static double pitchAround(const std::vector<int16_t>& mix, double fromMs, double toMs) {
    const int32_t first = static_cast<int32_t>(fromMs * 44.1), last = static_cast<int32_t>(toMs * 44.1);
    return averagePitch(std::vector<int16_t>(mix.begin() + first, mix.begin() + last));
  }

  static TestBank* bank_;
  FakeHome home_;
  ctonm2 engine_;
  cvoiceset voiceset_;
};

TestBank* Render::bank_ = nullptr;

double cents(double f, double target) { return 1200.0 * std::log2(f / target); }

}  // namespace

TEST_F(Render, MixLengthOnsetsAndPitches) {
  buildSong();
  prepare();
  // Where the notes belong, from the song itself: at 125 BPM a tick lasts
  // 1 msec, every entry's pre-utterance is 40 msec, and the first note
  // starts late enough (200 msec) to need no lead.
  const std::vector<double> positions = {200.0, 600.0, 800.0, 1200.0, 1400.0, 2000.0};
  const std::vector<double> preutterances(6, 40.0);
  const double length = 2000.0 + 300.0;  // the last note's end

  int32_t size = 0;
  Block block(engine_.render_all(&size));
  ASSERT_NE(block, nullptr);
  const int32_t samples = static_cast<int32_t>(length * 0.001 * 44100.0 + 1.0);
  EXPECT_EQ(size, samples * 2 + 48 - 8);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(block.get()), 4), "RIFF");
  const std::vector<int16_t> mix = samplesOf(block.get(), size);

  for (int32_t i : {0, 2, 4}) {
    // The note's audio starts at its position less its pre-utterance.
    const int64_t onset = static_cast<int64_t>(std::trunc((positions[i] - preutterances[i]) * 0.001 * 44100.0 + 0.5));
    int64_t firstSound = onset - 200;
    while (firstSound < static_cast<int64_t>(mix.size()) && mix[firstSound] == 0) ++firstSound;
    EXPECT_NEAR(static_cast<double>(firstSound), static_cast<double>(onset), 2.0) << "note " << i;
    EXPECT_NEAR(cents(pitchAround(mix, positions[i] + 80.0, positions[i] + 320.0), num2freq(engine_.notes[i].NoteNum)),
                0.0, 15.0)
        << "note " << i;
  }
  // The note without a voice entry leaves silence.
  const int32_t silentFrom = static_cast<int32_t>((positions[5] + 50.0) * 44.1);
  for (int32_t k = silentFrom; k < static_cast<int32_t>(mix.size()); ++k) ASSERT_EQ(mix[k], 0) << k;
}

// A render sings the layers switched on, and only the chosen one when a
// layer is chosen.
TEST_F(Render, OnlyTheLayersAskedForAreHeard) {
  buildSong();
  engine_.notes[2].layer = 1;  // the "i"
  auto heard = [&] {  // on each driver
    std::string out;
    for (int threads : {0, 2}) {
      prepare();
      int32_t size = 0;
      Block block(threads == 0 ? engine_.render_all(&size) : engine_.render_by_thread(&size, threads, nullptr));
      if (block == nullptr) return out + "-";
      const std::vector<int16_t> mix = samplesOf(block.get(), size);
      for (double at : {200.0, 800.0, 1400.0}) {
        const auto from = mix.begin() + static_cast<int32_t>((at + 80.0) * 44.1);
        out += std::any_of(from, from + 4410, [](int16_t s) { return std::abs(s) > 300; }) ? '1' : '0';
      }
      out += threads == 0 ? " " : "";
    }
    return out;
  };
  EXPECT_EQ(heard(), "111 111");
  engine_.layerEnabled[1] = 0;
  EXPECT_EQ(heard(), "101 101");
  engine_.layerEnabled[1] = 1;
  engine_.currentLayer = 1;
  EXPECT_EQ(heard(), "010 010");
  engine_.currentLayer = 0;
  EXPECT_EQ(heard(), "101 101");
}

// A rest under 100 msec is no hole: the note before it sounds on until
// the next note's overlap ends, the same on every driver.
TEST_F(Render, AShortRestStaysLegato) {
  add("a", 57, 200, 400);
  add("i", 57, 450, 400);  // 50 msec after the first note's end
  std::vector<int16_t> first;
  for (int threads : {0, 1, 2, 8}) {
    prepare();
    int32_t size = 0;
    Block block(threads == 0 ? engine_.render_all(&size) : engine_.render_by_thread(&size, threads, nullptr));
    ASSERT_NE(block, nullptr);
    const std::vector<int16_t> mix = samplesOf(block.get(), size);
    if (first.empty()) first = mix;
    EXPECT_EQ(mix, first) << threads << " threads";
    // No 2 msec between the notes without sound.
    int32_t quiet = 0, longest = 0;
    for (int32_t k = static_cast<int32_t>(500 * 44.1); k < static_cast<int32_t>(700 * 44.1); ++k) {
      quiet = std::abs(mix[static_cast<size_t>(k)]) < 30 ? quiet + 1 : 0;
      longest = std::max(longest, quiet);
    }
    EXPECT_LT(longest, 88) << threads << " threads";
  }
}

// A range from the middle of the song starts at its first note: on both
// drivers that note sits at the lead (its pre-utterance, 40 msec), so its
// consonant starts the mix, and the later notes follow at their distances.
TEST_F(Render, ARangeFromTheMiddleStartsWithItsFirstNote) {
  buildSong();
  std::vector<std::vector<int16_t>> mixes;
  for (int driver = 0; driver < 2; ++driver) {
    SCOPED_TRACE(driver);
    prepare();
    int32_t size = 0;
    Block block(driver == 0 ? engine_.render_number_by_thread(2, 5, &size, 2, nullptr)
                            : engine_.render_number_with_progress(2, 5, &size, nullptr, 0.0, 0.0));
    ASSERT_NE(block, nullptr);
    const std::vector<int16_t> mix = samplesOf(block.get(), size);
    // The range lasts from the lead to the end of its last note.
    EXPECT_NEAR(mix.size() / 44.1, 40.0 + 1200.0 + 300.0, 1.0);
    int64_t firstSound = 0;
    while (firstSound < static_cast<int64_t>(mix.size()) && mix[firstSound] == 0) ++firstSound;
    EXPECT_LE(firstSound, 2);  // the consonant at the start, nothing cut
    // "i" (note 60) in its own place, "a" (note 64) 600 msec later.
    EXPECT_NEAR(cents(pitchAround(mix, 40.0 + 80.0, 40.0 + 320.0), num2freq(60)), 0.0, 15.0);
    // After the rest, the second note's audio starts at its place less its
    // pre-utterance.
    const int64_t second = static_cast<int64_t>(std::trunc((640.0 - 40.0) * 0.001 * 44100.0 + 0.5));
    int64_t nextSound = second - 200;
    while (nextSound < static_cast<int64_t>(mix.size()) && mix[nextSound] == 0) ++nextSound;
    EXPECT_NEAR(static_cast<double>(nextSound), static_cast<double>(second), 2.0);
    EXPECT_NEAR(cents(pitchAround(mix, 640.0 + 80.0, 640.0 + 320.0), num2freq(64)), 0.0, 15.0);
    mixes.push_back(mix);
  }
  EXPECT_EQ(mixes[0], mixes[1]);
}

// Clicks laid under the notes land at their song time whether the render
// starts at the song's start or in its middle (where the mix begins 40
// msec before the "i" at 800 msec, for its consonant), on either driver;
// the notes are added on top.
TEST_F(Render, AnUnderlayLandsAtItsSongTimeUnderTheNotes) {
  buildSong();
  Metronome metronome;
  metronome.setClicks({{0.0, true}, {500.0, false}, {770.0, false}, {1300.0, true}, {1900.0, false}});
  struct Case {
    int first;
    double mixStartMs;
    int threads;  // 0: the single-threaded driver
    int clicks;
  };
  for (const Case& c : {Case{0, 0.0, 0, 5}, Case{0, 0.0, 2, 5}, Case{2, 760.0, 0, 3}, Case{2, 760.0, 2, 3}}) {
    SCOPED_TRACE(c.first * 10 + c.threads);
    std::vector<int16_t> mixes[2];
    for (int with = 0; with < 2; ++with) {
      engine_.underlay = with ? Metronome::lay : nullptr;
      engine_.underlayContext = &metronome;
      prepare();
      int32_t size = 0;
      Block block(c.threads > 0 ? engine_.render_number_by_thread(c.first, 5, &size, c.threads, nullptr)
                                : engine_.render_number_with_progress(c.first, 5, &size, nullptr, 0.0, 0.0));
      ASSERT_NE(block, nullptr);
      mixes[with] = samplesOf(block.get(), size);
    }
    engine_.underlay = nullptr;
    ASSERT_EQ(mixes[0].size(), mixes[1].size());
    std::vector<int16_t> clicks(mixes[0].size());
    Metronome::lay(&metronome, clicks.data(), static_cast<int32_t>(clicks.size()), c.mixStartMs);
    int started = 0;  // sounds after at least 200 silent samples
    size_t silent = 200;
    for (size_t k = 0; k < clicks.size(); ++k) {
      if (clicks[k] != 0 && silent >= 200) ++started;
      silent = clicks[k] == 0 ? silent + 1 : 0;
      if (std::abs(mixes[1][k]) == 32767) continue;  // clipped
      // A note added to a click truncates its sum, not its own value: 1 apart.
      ASSERT_LE(std::abs(mixes[1][k] - mixes[0][k] - clicks[k]), 1) << k;
    }
    EXPECT_EQ(started, c.clicks);
    // The click at 1300 msec starts on its sample.
    const size_t at = static_cast<size_t>(std::llround((1300.0 - c.mixStartMs) * 44.1));
    EXPECT_EQ(clicks[at], 0);
    EXPECT_NE(clicks[at + 5], 0);
  }
  // An underlay that goes on after the last note (at 2300 msec) takes the
  // mix with it, on either driver.
  metronome.setClicks({{4000.0, true}});
  engine_.underlay = Metronome::lay;
  engine_.underlayEndMs = 5000.0;
  for (int threads : {0, 2}) {
    prepare();
    int32_t size = 0;
    Block block(threads > 0 ? engine_.render_number_by_thread(2, 5, &size, threads, nullptr)
                            : engine_.render_number_with_progress(2, 5, &size, nullptr, 0.0, 0.0));
    ASSERT_NE(block, nullptr);
    const std::vector<int16_t> mix = samplesOf(block.get(), size);
    EXPECT_EQ(mix.size(), static_cast<size_t>((5000.0 - 760.0) * 44.1 + 1.0)) << threads;
    EXPECT_NE(mix[static_cast<size_t>(std::llround((4000.0 - 760.0) * 44.1)) + 5], 0) << threads;
  }
  engine_.underlay = nullptr;
  engine_.underlayEndMs = 0.0;
}

// A song rendered stretch by stretch (as songs longer than one mix are)
// is the whole mix, byte for byte, whatever the stretch and the threads:
// loud overlapping notes that clip, a note across every stretch's edge,
// and clicks laid under them.
TEST_F(Render, AStreamedRenderIsTheWholeMixStretchByStretch) {
  for (int i = 0; i < 16; ++i) {
    add(i % 2 ? "a" : "i", 55 + i % 7, i == 0 ? 200 : 90, 400);
    engine_.notes[engine_.noteCount - 1].Intensity = 300;
  }
  Metronome metronome;
  metronome.setClicks({{0.0, true}, {433.3, false}, {901.7, false}, {1300.0, true}});
  engine_.underlay = Metronome::lay;
  engine_.underlayContext = &metronome;
  struct Collected {
    std::vector<int16_t> samples;
    int stretches = 0;
    int refuseAt = -1;
  };
  auto collect = [](void* context, const int16_t* samples, int32_t count) {
    Collected& c = *static_cast<Collected*>(context);
    if (c.stretches++ == c.refuseAt) return false;
    c.samples.insert(c.samples.end(), samples, samples + count);
    return true;
  };
  std::vector<int16_t> whole0;
  for (int first : {0, 3}) {
    prepare();
    int32_t size = 0;
    Block block(engine_.render_number_by_thread(first, 15, &size, 2, nullptr));
    ASSERT_NE(block, nullptr);
    const std::vector<int16_t> whole = samplesOf(block.get(), size);
    ASSERT_GT(std::count(whole.begin(), whole.end(), int16_t{32767}), 0) << "the test needs clipping";
    if (first == 0) {
      whole0 = whole;
      // A range asked past the last note is the song to its end.
      prepare();
      int32_t pastSize = 0;
      Block past(engine_.render_number_by_thread(0, 1000, &pastSize, 2, nullptr));
      ASSERT_NE(past, nullptr);
      EXPECT_TRUE(samplesOf(past.get(), pastSize) == whole);
    }
    prepare();
    EXPECT_EQ(engine_.render_samples(first, 15), static_cast<int64_t>(whole.size()));
    // 7056 samples: the first note's sound starts on the second stretch's
    // first sample ((200 - 40) msec at 44.1 kHz).
    for (auto [stretch, threads] : {std::pair{4410, 1}, {7056, 2}, {7777, 8}, {10000000, 2}}) {
      SCOPED_TRACE(std::to_string(first) + " " + std::to_string(stretch) + " " + std::to_string(threads));
      prepare();
      Collected got;
      // Progress counts each note once, in the stretch where it starts.
      std::vector<int32_t> steps;
      engine_.progressContext = &steps;
      auto progress = [](void* context, int32_t done, int32_t total) {
        static_cast<std::vector<int32_t>*>(context)->push_back(done * 100 + total);
      };
      EXPECT_EQ(engine_.render_number_streamed(first, 15, threads, stretch, progress, collect, &got),
                static_cast<int64_t>(whole.size()));
      engine_.progressContext = nullptr;
      EXPECT_EQ(got.stretches, static_cast<int>((whole.size() + stretch - 1) / stretch));
      EXPECT_TRUE(got.samples == whole);
      ASSERT_EQ(steps.size(), 16u - first);
      EXPECT_EQ(steps.back(), (16 - first) * 101);
    }
  }
  // From the render cache, the same bytes again: the first round fills it,
  // the second takes every note from it.
  static std::atomic<int> hits{0};
  engine_.cacheGet = [](int32_t index, const NoteData* note, int32_t* bytes) {
    double* data = CCacheSys::getCache(index, note, bytes);
    hits += data != nullptr;
    return data;
  };
  engine_.cachePut = [](int32_t index, const NoteData* note, const double* data, int32_t bytes) {
    CCacheSys::putCache(index, note, data, bytes);
  };
  for (int round = 0; round < 2; ++round) {
    prepare();
    hits = 0;
    int32_t size = 0;
    Block block(engine_.render_number_by_thread(0, 15, &size, 2, nullptr));
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(samplesOf(block.get(), size) == whole0) << "cache round " << round;
    EXPECT_EQ(hits.load(), round * 16);
  }
  // A sink that takes no more stops the render.
  prepare();
  Collected refusing;
  refusing.refuseAt = 1;
  EXPECT_EQ(engine_.render_number_streamed(0, 15, 2, 5000, nullptr, collect, &refusing), -1);
  EXPECT_EQ(refusing.stretches, 2);
  EXPECT_EQ(refusing.samples.size(), 5000u);
  engine_.underlay = nullptr;
  // Nothing to render: no note, or a range of rests that lasts.
  EXPECT_EQ(engine_.render_samples(0, -1), 0);
  add("R", 57, 300, 400);
  prepare();
  EXPECT_EQ(engine_.render_samples(16, 16), 0);
  EXPECT_GT(engine_.render_samples(15, 16), 0);
}

// Rendered into a file: the whole mix after its header, or nothing at all
// when the render is stopped or the file cannot be written.
TEST_F(Render, AFileIsTheMixOrNothing) {
  TempDir folder;
  const std::string path = folder.file("song.wav");
  EXPECT_EQ(renderToWaveFile(engine_, 0, -1, 2, nullptr, path).status, RenderFileStatus::kNothingSounds);
  buildSong();
  prepare();
  int32_t size = 0;
  Block block(engine_.render_number_by_thread(0, 5, &size, 2, nullptr));
  ASSERT_NE(block, nullptr);
  const std::vector<int16_t> mix = samplesOf(block.get(), size);
  prepare();
  const RenderFileResult written = renderToWaveFile(engine_, 0, 5, 2, nullptr, path);
  ASSERT_EQ(written.status, RenderFileStatus::kWritten);
  EXPECT_EQ(written.samples, static_cast<int64_t>(mix.size()));
  const std::string bytes = readFile(path);
  EXPECT_EQ(bytes.substr(0, 44), waveHeader(written.samples * 2, 44100));
  EXPECT_EQ(bytes.substr(44), std::string(reinterpret_cast<const char*>(mix.data()), mix.size() * 2));
  // Stopped after the first note: the file is the one before, and no
  // temporary is left beside it.
  prepare();
  engine_.progressContext = &engine_;
  auto stop = [](void* context, int32_t, int32_t) { static_cast<ctonm2*>(context)->renderState = 2; };
  EXPECT_EQ(renderToWaveFile(engine_, 0, 5, 1, stop, path).status, RenderFileStatus::kStopped);
  engine_.progressContext = nullptr;
  EXPECT_EQ(readFile(path), bytes);
  const auto entries = std::filesystem::directory_iterator(folder.path());
  EXPECT_EQ(std::distance(std::filesystem::begin(entries), std::filesystem::end(entries)), 1);
  // A folder that is not there.
  prepare();
  const RenderFileResult failed = renderToWaveFile(engine_, 0, 5, 2, nullptr, folder.file("none/song.wav"));
  EXPECT_EQ(failed.status, RenderFileStatus::kWriteFailed);
  EXPECT_EQ(failed.error, ENOENT);
}

TEST_F(Render, StopEndsEarlyAndWritesNoHeader) {
  buildSong();
  prepare();
  int32_t fullSize = 0;
  Block full(engine_.render_all(&fullSize));
  ASSERT_NE(full, nullptr);
  const std::vector<int16_t> whole = samplesOf(full.get(), fullSize);
  prepare();
  // A progress callback that asks for a stop once the first note is done.
  engine_.progressContext = &engine_;
  int32_t size = 0;
  Block block(engine_.render_number_with_progress(
      0, engine_.noteCount - 1, &size,
      [](void* context, int32_t done, int32_t) {
        if (done == 1) static_cast<ctonm2*>(context)->renderState = 2;
      },
      0.0, 0.0));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(engine_.renderState.load(), 0);
  EXPECT_NE(std::string(reinterpret_cast<const char*>(block.get()), 4), "RIFF");  // no WAV image
  const std::vector<int16_t> mix = samplesOf(block.get(), size);
  // The first note as in the full render; the later ones never came.
  EXPECT_TRUE(std::equal(mix.begin(), mix.begin() + 10000, whole.begin()));
  EXPECT_TRUE(std::all_of(mix.begin() + 40000, mix.end(), [](int16_t v) { return v == 0; }));
  EXPECT_TRUE(std::any_of(whole.begin() + 40000, whole.end(), [](int16_t v) { return v != 0; }));

  // In the background: render_stop waits until the render has ended.
  prepare();
  ASSERT_EQ(engine_.render_number_with_progress_thread(0, engine_.noteCount - 1, &size, nullptr, 0.0, 0.0), 1);
  EXPECT_EQ(engine_.render_number_with_progress_thread(0, 1, &size, nullptr, 0.0, 0.0), 0);  // one at a time
  EXPECT_EQ(engine_.render_stop(), 0);
  Block background(engine_.render_thread_join(&size));
  EXPECT_EQ(engine_.renderState.load(), 0);
  EXPECT_EQ(engine_.render_stop(), 0);  // nothing running: returns at once
}

struct PlaybackLog {
  int triggers = 0;
  int32_t offset = 0, length = 0;
  size_t positionsAtTrigger = 0;
  uint8_t* block = nullptr;
  std::vector<double> positions;
};

// Playback starts as soon as the mix is complete 150 msec past the play
// position, from where the user asked: the song's start plays its silence,
// a note's start its consonant, a point inside a note that point.
TEST_F(Render, PlaybackStartsOnceTheFirstNotesAreMixed) {
  buildSong();
  for (auto [startMs, playAtMs] : {std::pair{-200.0, 0.0}, {0.0, 160.0}, {100.0, 300.0}}) {
    SCOPED_TRACE(startMs);
    prepare();
    PlaybackLog log;
    engine_.progressContext = &log;
    engine_.playTrigger = [](void* context, uint8_t* block, int32_t offset, int32_t length, int32_t) {
      PlaybackLog& l = *static_cast<PlaybackLog*>(context);
      ++l.triggers;
      l.block = block;
      l.offset = offset;
      l.length = length;
      l.positionsAtTrigger = l.positions.size();
    };
    engine_.renderPosition = [](void* context, double msec) {
      static_cast<PlaybackLog*>(context)->positions.push_back(msec);
    };
    int32_t size = 0;
    Block block(engine_.render_number_with_progress(0, engine_.noteCount - 1, &size, nullptr, startMs, 0.0));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(log.triggers, 1);
    EXPECT_EQ(log.block, block.get());
    EXPECT_EQ(log.offset, static_cast<int32_t>(std::lround(playAtMs * 44.1)) * 2 + 44);
    EXPECT_EQ(log.length, size + 8);
    EXPECT_EQ(engine_.playTrigger, nullptr);  // removed after use
    // Handed over after the first note: the next consonant starts 560 msec later.
    EXPECT_EQ(log.positionsAtTrigger, 1u);
    // Three notes sung, each reported where its consonant starts, then 0 at the end.
    EXPECT_EQ(log.positions, (std::vector<double>{160.0, 760.0, 1360.0, 0.0}));
  }
  // Rendering first, playback waits for the end.
  engine_.earlyStartScale = HUGE_VAL;
  prepare();
  PlaybackLog log;
  engine_.progressContext = &log;
  engine_.playTrigger = [](void* context, uint8_t*, int32_t, int32_t, int32_t) {
    PlaybackLog& l = *static_cast<PlaybackLog*>(context);
    l.positionsAtTrigger = l.positions.size();
  };
  engine_.renderPosition = [](void* context, double msec) {
    static_cast<PlaybackLog*>(context)->positions.push_back(msec);
  };
  Block block(engine_.render_number_with_progress(0, engine_.noteCount - 1, nullptr, nullptr, 0.0, 0.0));
  EXPECT_EQ(log.positionsAtTrigger, 3u);
}

TEST_F(Render, NothingToSing) {
  add("R", 60, 100, 0);
  add("", 60, 100, 0);
  // Nothing rendered, on any driver: the size says 0. Rests of some length
  // are still nothing.
  for (int length : {0, 480}) {
    if (length > 0) add("R", 60, 100, length);
    for (int driver = 0; driver < 4; ++driver) {
      prepare();
      int32_t size = 7;
      uint8_t* block = driver == 0   ? engine_.render_all(&size)
                       : driver == 1 ? engine_.render_by_thread(&size, 2, nullptr)
                       : driver == 2 ? engine_.render_number_by_thread(5, 2, &size, 2, nullptr)
                                     : engine_.render_number_with_progress(3, 1, &size, nullptr, 0.0, 0.0);
      EXPECT_EQ(block, nullptr) << driver;
      EXPECT_EQ(size, 0) << driver;
    }
  }
  EXPECT_EQ(engine_.renderState.load(), 0);
}

TEST_F(Render, ANoteStartingBeforeTheMixIsClippedAtItsStart) {
  // The same note added at 100 msec and at 10 msec, with 40 msec of
  // pre-utterance: the second starts 30 msec before the mix, loses those
  // samples and is the same sound from there on.
  add("a", 57, 0, 300);
  prepare();
  const int32_t length = 44100;
  std::vector<int16_t> early(length, 0), late(length, 0);
  const double noteMs = 300.0 + engine_.notes[0]._preuttr + engine_.notes[0]._stp;
  ASSERT_FLOAT_EQ(engine_.notes[0]._preuttr, 40.0f);
  engine_.arrange_n(late.data(), 100.0, 0, noteMs, length, 0, 125.0f);
  engine_.arrange_n(early.data(), 10.0, 0, noteMs, length, 0, 125.0f);
  // Start samples as the arrangement rounds them: trunc(x + 0.5).
  const int32_t lateStart = static_cast<int32_t>(std::trunc((100.0 - 40.0) * 0.001 * 44100.0 + 0.5));
  const int32_t cut = -static_cast<int32_t>(std::trunc((10.0 - 40.0) * 0.001 * 44100.0 + 0.5));  // before the mix
  for (int32_t j = 0; j < 10000; ++j) ASSERT_EQ(early[j], late[lateStart + cut + j]) << j;
  EXPECT_NE(late[lateStart + cut / 2], 0);  // what was cut held sound
}

TEST_F(Render, TheLeadMakesRoomForTheFirstConsonant) {
  add("a", 57, 0, 300);  // pre-utterance 40 before a note at 0: 40 msec of lead
  prepare();
  int32_t size = 0;
  Block block(engine_.render_all(&size));
  ASSERT_NE(block, nullptr);
  const std::vector<int16_t> mix = samplesOf(block.get(), size);
  // The consonant starts on the mix's first samples, rising from silence
  // under the envelope (5 msec): nothing of it is cut.
  const auto onset = std::find_if(mix.begin(), mix.end(), [](int16_t v) { return v != 0; });
  ASSERT_NE(onset, mix.end());
  EXPECT_LT(onset - mix.begin(), 10);
  const auto peakOf = [&](int from, int to) {
    int peak = 0;
    for (int k = from; k < to; ++k) peak = std::max(peak, std::abs(static_cast<int>(mix[static_cast<size_t>(k)])));
    return peak;
  };
  EXPECT_LT(peakOf(0, 44), peakOf(441, 882) / 2);
}

TEST_F(Render, CacheNamesFollowTheNote) {
  buildSong();
  prepare();
  NoteData& note = engine_.notes[0];
  free(note._pitch);
  note._pitch = static_cast<float*>(calloc(8, sizeof(float)));
  note._pitchlen = 8;
  const std::string name = CCacheSys::getCacheName(0, &note);
  EXPECT_EQ(name.rfind("0_a_", 0), 0u);
  EXPECT_EQ(name.size(), std::string("0_a_").size() + 22 + 4);
  note.Intensity = 90;
  const std::string louder = CCacheSys::getCacheName(0, &note);
  EXPECT_NE(louder, name);
  note._pitch[3] += 1.0f;
  EXPECT_NE(CCacheSys::getCacheName(0, &note), louder);
  note._truelen += 10.0f;  // a longer rendered stretch is other audio
  const std::string longer = CCacheSys::getCacheName(0, &note);
  EXPECT_NE(longer, louder);

  const double data[3] = {1.0, 2.0, 3.0};
  ASSERT_EQ(CCacheSys::putCache(0, &note, data, sizeof data), 0);
  EXPECT_TRUE(CCacheSys::isCached(0, &note));
  note.Intensity = 80;
  ASSERT_EQ(CCacheSys::putCache(0, &note, data, sizeof data), 0);
  note.Intensity = 90;
  EXPECT_FALSE(CCacheSys::isCached(0, &note));  // replaced: one file per index
  int32_t bytes = 0;
  EXPECT_EQ(CCacheSys::getCache(0, &note, &bytes), nullptr);
  note.Intensity = 80;
  double* back = CCacheSys::getCache(0, &note, &bytes);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(bytes, static_cast<int32_t>(sizeof data));
  EXPECT_EQ(back[2], 3.0);
  free(back);
  CCacheSys::deleteCacheAll();
  EXPECT_FALSE(CCacheSys::isCached(0, &note));
}

// Trimming removes the cache's own files, oldest first, down to the limit,
// and counts what it removed; files not of its form or size stay.
TEST(CacheFiles, TrimRemovesTheOldestOwnFilesDownToTheLimit) {
  FakeHome home;
  const std::string dir = userFolder(UserFolder::kCache, true);
  const char* names[] = {"1_a_0123456789ABCDEFGHIJKL.raw", "2_i_0123456789ABCDEFGHIJKL.raw",
                         "3_u_0123456789ABCDEFGHIJKL.raw", "4_e_0123456789ABCDEFGHIJKL.raw", "notes.raw"};
  for (int k = 0; k < 5; ++k) {
    writeFile(dir + "/" + names[k], std::string(k == 3 ? 17 : 16, 'x'));  // 17: no cache file's size
    const struct timespec times[2] = {{1000 + k, 0}, {1000 + k, 0}};
    utimensat(AT_FDCWD, (dir + "/" + names[k]).c_str(), times, 0);
  }
  EXPECT_EQ(CCacheSys::trim(48), 0);
  EXPECT_EQ(CCacheSys::trim(20), 32);
  EXPECT_FALSE(fileExists(dir + "/" + names[0]));
  EXPECT_FALSE(fileExists(dir + "/" + names[1]));
  for (int k = 2; k < 5; ++k) EXPECT_TRUE(fileExists(dir + "/" + names[k])) << names[k];
}
