// Render drivers: a range of notes into one mix block, on worker threads
// or on one thread with progress, the cache and the playback hooks.

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "engine/ctonm2.h"
#include "render/resampler.h"
#include "support/log.h"

int32_t Thread_N = 4;

namespace {

// A sounding note is heard when its layer is switched on and, in a render
// that is not being played, when it is on the layer chosen (if one is).
// Every driver asks this, so that any number of threads renders the same.
bool heard(const ctonm2& engine, const NoteData& note, bool playing) {
  const bool layerOn = note.layer >= 0 && note.layer < ctonm2::kLayerCount && engine.layerEnabled[note.layer] != 0;
  const bool layerChosen = playing || engine.currentLayer == -1 || note.layer == engine.currentLayer;
  return ctonm2::sounds(note) && layerOn && layerChosen;
}

constexpr int32_t kMaxThreads = 8;
constexpr int32_t kHeadBytes = 48;

void putLittle32(uint8_t* at, uint32_t value) {
  for (int k = 0; k < 4; ++k) at[k] = static_cast<uint8_t>(value >> (8 * k));
}
void putLittle16(uint8_t* at, uint16_t value) {
  at[0] = static_cast<uint8_t>(value);
  at[1] = static_cast<uint8_t>(value >> 8);
}

// The canonical 44-byte header at the start of the block. The samples
// start 4 bytes later, so the data chunk as declared begins with those 4
// zero bytes and ends two samples short of the mix.
void writeHeader(uint8_t* block, int32_t samples) {
  const uint32_t blockSize = static_cast<uint32_t>(samples) * 2 + kHeadBytes;
  memcpy(block, "RIFF", 4);
  putLittle32(block + 4, blockSize - 8);
  memcpy(block + 8, "WAVEfmt ", 8);
  putLittle32(block + 16, 16);
  putLittle16(block + 20, 1);
  putLittle16(block + 22, 1);
  putLittle32(block + 24, 44100);
  putLittle32(block + 28, 88200);
  putLittle16(block + 32, 2);
  putLittle16(block + 34, 16);
  memcpy(block + 36, "data", 4);
  putLittle32(block + 40, static_cast<uint32_t>(samples) * 2);
}

// The render's length in msec and how many notes sound.
// Where the notes of a render go. A whole song keeps its own lead-in: a
// note sits at the lead plus the _delta of every note up to and including
// it, the lead being the room the first note's pre-utterance needs beyond
// its _delta. A range from the middle of a song starts at its first note:
// that note sits at the lead (the _delta before it is left out, `skip`),
// and the lead is the room the range's consonants need before time 0, so
// that no note's sample starts before the mix.
struct Extent {
  double lead = 0.0;
  double skip = 0.0;  // the first note's _delta, for a range from the middle
  double length = 0.0;
  int32_t sounding = 0;
  double mixStart = 0.0;  // song msec of the mix's first sample
  // The position of the first note's predecessor: every note is at this
  // plus the _delta of every note of the range up to and including it.
  double origin() const { return lead - skip; }
};

Extent extentOf(const ctonm2& engine, int32_t first, int32_t last) {
  Extent extent;
  const NoteData& head = engine.notes[first];
  if (first == 0) {
    if (head._preuttr > head._delta) extent.lead = head._preuttr - head._delta;
  } else {
    extent.skip = head._delta;
    double offset = 0.0;
    for (int32_t i = first; i <= last; ++i) {
      if (i > first) offset += engine.notes[i]._delta;
      if (ctonm2::sounds(engine.notes[i])) {
        extent.lead = std::max<double>(extent.lead, engine.notes[i]._preuttr - offset);
      }
    }
  }
  double running = 0.0;
  for (int32_t i = first; i <= last; ++i) {
    const NoteData& note = engine.notes[i];
    running += note._delta;
    extent.length = std::max(extent.length, extent.origin() + running + note._notelen);
    if (ctonm2::sounds(note)) ++extent.sounding;
  }
  // The mix's first sample is at the song time of the first note less its
  // place in the mix; the mix goes on to where the underlay ends.
  extent.mixStart = head._pos - (extent.origin() + head._delta);
  if (engine.underlay != nullptr && engine.underlayEndMs > 0.0) {
    extent.length = std::max(extent.length, engine.underlayEndMs - extent.mixStart);
  }
  return extent;
}

// A zeroed block for a render of `length` msec; its sample count in *samples.
// Marks a render as running: idle becomes 1; a running render (started
// by the background launcher) or a stop already requested stays as it is.
void markRunning(std::atomic<int32_t>& state) {
  int32_t idle = 0;
  state.compare_exchange_strong(idle, 1);
}

// The samples a render of `length` msec lasts, the first at time 0.
double samplesFor(double length) { return length * 0.001 * 44100.0 + 1.0; }

uint8_t* allocateMix(double length, int32_t* samples) {
  // The mix is one in-memory WAV image whose size is an int32.
  const double wanted = samplesFor(length);
  if (!(wanted <= static_cast<double>(ctonm2::kMaxMixSamples))) {
    *samples = 0;
    log_printf(1, "the song is longer than a render holds\n");
    return nullptr;
  }
  *samples = static_cast<int32_t>(wanted);
  uint8_t* block = static_cast<uint8_t*>(calloc(static_cast<size_t>(*samples) * 2 + kHeadBytes, 1));
  if (block == nullptr) log_printf(1, "Not enough memories(render)\n");
  return block;
}

// The engine's underlay into a fresh mix.
void layUnder(const ctonm2& engine, int16_t* mix, int32_t samples, const Extent& extent) {
  if (engine.underlay != nullptr) engine.underlay(engine.underlayContext, mix, samples, extent.mixStart);
}

float tempoBefore(const ctonm2& engine, int32_t first) {
  float t = engine.tempo;
  for (int32_t k = 0; k < first; ++k) {
    if (engine.notes[k].Tempo != 0.0f) t = engine.notes[k].Tempo;
  }
  return t;
}

// The notes of a threaded render, resampled in any order and added into
// the mix strictly in note order, so that the mix is the same bytes on any
// number of threads (additions that clip do not commute).
struct OrderedMix {
  std::vector<ctonm2::RenderedNote> notes;
  std::vector<uint8_t> done;  // by note - first; rests and others' notes set when reached
  std::vector<uint8_t> left;  // by note - first: not heard, or not sounding in this stretch
  std::vector<uint8_t> counted;  // by note - first: its progress step is taken in this stretch
  int32_t first = 0;
  int32_t next = 0;  // the next note to add, as an index from first
  int16_t* mix = nullptr;
  int32_t samples = 0;
  int64_t from = 0;  // the render's sample at mix[0]
};

struct Worker {
  ctonm2* engine;
  OrderedMix* ordered;
  int32_t number;
  std::atomic<int32_t> state{0};  // 0 created, 1 running, 2 finished, 3 joined
  int32_t first, last;
  double start;
  float tempo;
  ctonm2::Progress progress;
  std::atomic<int32_t>* done;
  int32_t total;
  pthread_t thread;
};

void* workerMain(void* argument) {
  Worker& w = *static_cast<Worker*>(argument);
  ctonm2& engine = *w.engine;
  w.state = 1;
  double position = w.start;
  float t = w.tempo;
  for (int32_t i = w.first; i <= w.last; ++i) {
    if (engine.renderState.load() == 2) break;
    const NoteData& note = engine.notes[i];
    // Every worker walks every note to keep the position: the origin plus
    // the _delta of every note up to this one, the timeline the render's
    // length is measured on (so no consonant is cut; see Extent).
    position += note._delta;
    if (note.Tempo != 0.0f) t = note.Tempo;
    if (w.ordered->left[static_cast<size_t>(i - w.first)] || i % Thread_N != w.number) continue;
    // The length the arrangement gave the note: on through a short rest
    // until the next note's overlap ends, as the single-threaded render.
    const double length = static_cast<double>(note._truelen) + note._preuttr + note._stp;
    ctonm2::RenderedNote rendered;
    if (note.VoiceFile != nullptr) {
      if (errorlevel > 3) {
        log_printf(4, "(%d/%d/%s) voice file='%s'\n", i, w.last, note.Lyric, note.VoiceFile);
      } else {
        log_printf(3, "(%d/%d/%s)\n", i, w.last, note.Lyric);
      }
      rendered = engine.resample_n(position, i, length, t);
    } else {
      log_printf(2, "(%d/%d/%s) no voice data.\n", i, w.last, note.Lyric);
    }
    // Hand the note over and add every note that is now next in line.
    OrderedMix& ordered = *w.ordered;
    pthread_mutex_lock(&engine.mixMutex);
    ordered.notes[static_cast<size_t>(i - ordered.first)] = rendered;
    ordered.done[static_cast<size_t>(i - ordered.first)] = 1;
    while (ordered.next < static_cast<int32_t>(ordered.done.size()) && ordered.done[static_cast<size_t>(ordered.next)]) {
      ctonm2::RenderedNote& ready = ordered.notes[static_cast<size_t>(ordered.next++)];
      ready.start -= ordered.from;
      engine.mix_n(ordered.mix, ordered.samples, ready);
      free(ready.buffer);
      ready.buffer = nullptr;
    }
    pthread_mutex_unlock(&engine.mixMutex);
    if (w.progress != nullptr && ordered.counted[static_cast<size_t>(i - ordered.first)]) {
      w.progress(engine.progressContext, ++*w.done, w.total);
    }
  }
  w.state = 2;
  return nullptr;
}

// The one background render: its arguments and result.
struct BackgroundRender {
  ctonm2* engine = nullptr;
  int32_t first = 0, last = 0;
  ctonm2::Progress progress = nullptr;
  double startMs = 0.0, endMs = 0.0;
  uint8_t* block = nullptr;
  int32_t size = 0;
  pthread_t thread;
  bool started = false;
};
BackgroundRender background;

void* backgroundMain(void*) {
  background.block = background.engine->render_number_with_progress(background.first, background.last, &background.size,
                                                                     background.progress, background.startMs,
                                                                     background.endMs);
  return nullptr;
}

}  // namespace

namespace {

constexpr double kSamplesPerMs = 44100.0 / 1000.0;

// Where a note placed at `position` msec begins to sound in the render,
// in samples: where its consonant starts, as the resampled note is placed.
int64_t soundStart(const NoteData& note, double position) {
  return static_cast<int64_t>(std::trunc((position - note._preuttr) * 0.001 * 44100.0 + 0.5));
}

// Whether a note placed at `position` msec can sound in samples [from,
// to): a resampled note lasts its length, the 35 ms the arrangement adds
// and its start point; a second more is a margin. (A length that is not a
// number sings nothing, and reaches nowhere.)
bool reaches(const NoteData& note, double position, double length, int64_t from, int64_t to) {
  const int64_t start = soundStart(note, position);
  const double lasts = length + 35.0 + std::fabs(note._stp) + std::fabs(note.stptrim) + 1000.0;
  return start < to && static_cast<double>(start) + lasts * kSamplesPerMs >= static_cast<double>(from);
}

// One stretch of a threaded render: samples [from, from + samples) of
// the render of notes first..last into `mix`, each note that can sound
// there resampled on the workers and added in note order. A note counts
// for progress in the stretch where its sound starts (the first stretch
// also counts those that start before the render).
void renderStretch(ctonm2& engine, int32_t first, int32_t last, const Extent& extent, int64_t from, int16_t* mix,
                   int32_t samples, ctonm2::Progress progress, std::atomic<int32_t>* done) {
  OrderedMix ordered;
  ordered.first = first;
  ordered.mix = mix;
  ordered.samples = samples;
  ordered.from = from;
  const size_t count = static_cast<size_t>(last - first + 1);
  ordered.notes.resize(count);
  ordered.done.resize(count, 0);
  ordered.left.resize(count, 0);
  ordered.counted.resize(count, 0);
  const int64_t to = from + samples;
  double position = extent.origin();
  for (int32_t i = first; i <= last; ++i) {
    const NoteData& note = engine.notes[i];
    position += note._delta;
    const size_t k = static_cast<size_t>(i - first);
    const double length = static_cast<double>(note._truelen) + note._preuttr + note._stp;
    // no worker takes a rest, a note not heard or one that cannot sound here
    if (!heard(engine, note, false) || !reaches(note, position, length, from, to)) {
      ordered.done[k] = ordered.left[k] = 1;
      continue;
    }
    ordered.counted[k] = from == 0 || soundStart(note, position) >= from;
  }
  std::vector<Worker> workers(static_cast<size_t>(Thread_N));
  const float startTempo = tempoBefore(engine, first);
  for (int32_t t = 0; t < Thread_N; ++t) {
    Worker& w = workers[static_cast<size_t>(t)];
    w.engine = &engine;
    w.ordered = &ordered;
    w.number = t;
    w.first = first;
    w.last = last;
    w.start = extent.origin();
    w.tempo = startTempo;
    w.progress = progress;
    w.done = done;
    w.total = extent.sounding;
    if (pthread_create(&w.thread, nullptr, workerMain, &w) != 0) {
      workerMain(&w);  // no thread to be had: do its share here
      w.state = 3;
      continue;
    }
    while (w.state.load() == 0) usleep(1000);
  }
  for (bool running = true; running;) {
    running = false;
    for (Worker& w : workers) {
      if (w.state.load() == 2) {
        pthread_join(w.thread, nullptr);
        w.state = 3;
      }
      running |= w.state.load() == 1;
    }
    if (running) usleep(1000);
  }
  for (Worker& w : workers) {
    if (w.state.load() == 2) pthread_join(w.thread, nullptr);
  }
  for (ctonm2::RenderedNote& leftOver : ordered.notes) free(leftOver.buffer);  // after a stop
}

}  // namespace

uint8_t* ctonm2::render_number_by_thread(int32_t first, int32_t last, int32_t* size, int32_t threads, Progress progress) {
  if (size != nullptr) *size = 0;
  init_render(44100);
  Thread_N = std::clamp(threads, 1, kMaxThreads);
  log_printf(4, "threads : %ld\n", static_cast<long>(Thread_N));
  last = std::min(last, noteCount - 1);
  if (first < 0 || first > last || first > noteCount) return nullptr;
  const Extent extent = extentOf(*this, first, last);
  if (extent.sounding == 0 || extent.length <= 0.0) {
    free_pitch();
    return nullptr;
  }
  log_printf(4, "rendering length : %.3lf ms\n", extent.length);
  int32_t samples = 0;
  uint8_t* block = allocateMix(extent.length, &samples);
  if (block == nullptr) return nullptr;
  int16_t* mix = reinterpret_cast<int16_t*>(block + kHeadBytes);
  layUnder(*this, mix, samples, extent);

  markRunning(renderState);
  std::atomic<int32_t> done{0};
  renderStretch(*this, first, last, extent, 0, mix, samples, progress, &done);
  if (renderState.load() != 2) writeHeader(block, samples);  // a stopped render is no WAV image
  free_pitch();
  renderState = 0;
  if (size != nullptr) *size = samples * 2 + kHeadBytes - 8;
  return block;
}

namespace {

// The samples a render of notes first..last lasts, 0 when nothing sounds;
// *extent is where its notes go.
int64_t renderSamples(const ctonm2& engine, int32_t first, int32_t last, Extent* extent) {
  if (first < 0 || first > last || last >= engine.noteCount) return 0;
  *extent = extentOf(engine, first, last);
  if (extent->sounding == 0 || !(extent->length > 0.0)) return 0;
  return static_cast<int64_t>(samplesFor(extent->length));
}

}  // namespace

int64_t ctonm2::render_samples(int32_t first, int32_t last) {
  Extent extent;
  return renderSamples(*this, first, std::min(last, noteCount - 1), &extent);
}

int64_t ctonm2::render_number_streamed(int32_t first, int32_t last, int32_t threads, int32_t stretch,
                                       Progress progress, StretchSink sink, void* sinkContext) {
  init_render(44100);
  Thread_N = std::clamp(threads, 1, kMaxThreads);
  last = std::min(last, noteCount - 1);
  Extent extent;
  const int64_t total = renderSamples(*this, first, last, &extent);
  if (total <= 0 || stretch <= 0) {
    free_pitch();
    return 0;
  }
  const int32_t largest = static_cast<int32_t>(std::min<int64_t>(stretch, total));
  int16_t* mix = static_cast<int16_t*>(malloc(static_cast<size_t>(largest) * 2));
  if (mix == nullptr) {
    log_printf(1, "Not enough memories(render)\n");
    free_pitch();
    return -2;
  }
  markRunning(renderState);
  std::atomic<int32_t> done{0};
  int64_t handed = 0;
  for (int64_t from = 0; from < total && renderState.load() != 2; from += largest) {
    const int32_t samples = static_cast<int32_t>(std::min<int64_t>(largest, total - from));
    memset(mix, 0, static_cast<size_t>(samples) * 2);
    Extent shifted = extent;
    shifted.mixStart += static_cast<double>(from) / kSamplesPerMs;
    layUnder(*this, mix, samples, shifted);
    renderStretch(*this, first, last, extent, from, mix, samples, progress, &done);
    if (renderState.load() == 2) break;
    if (!sink(sinkContext, mix, samples)) {
      handed = -1;
      break;
    }
    handed += samples;
  }
  free(mix);
  const bool stopped = renderState.load() == 2;
  free_pitch();
  renderState = 0;
  return stopped ? -1 : handed;
}

uint8_t* ctonm2::render_by_thread(int32_t* size, int32_t threads, Progress progress) {
  return render_number_by_thread(0, noteCount - 1, size, threads, progress);
}

uint8_t* ctonm2::render_number_with_progress(int32_t first, int32_t last, int32_t* size, Progress progress,
                                             double startMs, double) {
  if (size != nullptr) *size = 0;
  last = std::min(last, noteCount - 1);
  if (first < 0 || first > last) {
    free_pitch();
    renderState = 0;
    return nullptr;
  }
  markRunning(renderState);
  free(prevBuffer);
  prevBuffer = nullptr;
  prevCount = 0;
  prevLengthMs = 0.0;

  init_render(44100);
  const Extent extent = extentOf(*this, first, last);
  log_printf(4, "rendering length : %lf ms\n", extent.length);
  int32_t samples = 0;
  // Rests alone are nothing to render, as for the threaded driver.
  uint8_t* block = extent.length > 0.0 && extent.sounding > 0 ? allocateMix(extent.length, &samples) : nullptr;
  if (block == nullptr) {
    free_pitch();
    renderState = 0;
    return nullptr;
  }
  int16_t* mix = reinterpret_cast<int16_t*>(block + kHeadBytes);
  layUnder(*this, mix, samples, extent);
  const int32_t total = last - first + 1;
  if (progress != nullptr) progress(progressContext, 0, total);
  if (progressHook != nullptr) progressHook(progressContext, 0, total);
  const bool playing = playTrigger != nullptr;
  const bool useCache = cacheGet != nullptr || cachePut != nullptr;

  double position = extent.origin();
  // Where playback starts in the mix: at the play position, or where the
  // consonant of the note there begins when that is earlier.
  const NoteData& head = notes[first];
  const double headAt = position + head._delta;
  double playAt = headAt + startMs;
  if (startMs <= 0.0 && heard(*this, head, true)) playAt = std::min(playAt, headAt - head._preuttr);
  playAt = std::clamp(playAt, 0.0, extent.length);
  float t = tempoBefore(*this, first);
  int32_t done = 0;
  for (int32_t i = first; i <= last && renderState.load() != 2; ++i) {
    NoteData& note = notes[i];
    position += note._delta;  // the same timeline as the render's length
    if (note.Tempo != 0.0f) t = note.Tempo;
    if (heard(*this, note, playing)) {
      const double length = static_cast<double>(note._truelen) + note._preuttr + note._stp;
      if (note.VoiceFile != nullptr) {
        if (errorlevel > 3) {
          log_printf(4, "(%d/%d/%s) voice file='%s' ql=%f tl=%f\n", i, last, note.Lyric, note.VoiceFile, length,
                     note._truelen);
        } else {
          log_printf(3, "(%d/%d/%s)\n", i, last, note.Lyric);
        }
        // The mix is complete up to where this note's consonant begins.
        if (renderPosition != nullptr) renderPosition(progressContext, std::max(position - note._preuttr, 0.001));
        arrange_note(mix, position, i, length, samples, note.layer, t, useCache);
      } else {
        log_printf(2, "(%d/%d/%s) no voice data.\n", i, last, note.Lyric);
      }
    }
    ++done;
    if (progress != nullptr) progress(progressContext, done, total);
    if (progressHook != nullptr) progressHook(progressContext, done, total);

    // Playback starts once the mix is complete a little past the play
    // position: up to where the next note to render begins its consonant.
    if (playTrigger != nullptr && (done == total || std::isfinite(earlyStartScale))) {
      double complete = extent.length;
      double next = position;
      for (int32_t j = i + 1; j <= last; ++j) {
        next += notes[j]._delta;
        if (heard(*this, notes[j], true) && notes[j].VoiceFile != nullptr) {
          complete = next - notes[j]._preuttr;
          break;
        }
      }
      const bool ahead = std::isfinite(earlyStartScale) && complete >= playAt + kPlayAheadMs + earlyStartOffset;
      if (done == total || ahead) {
        const int32_t offset = static_cast<int32_t>(std::lround(playAt * 0.001 * 44100.0)) * 2 + 44;
        writeHeader(block, samples);
        playTrigger(progressContext, block, offset, samples * 2 + kHeadBytes, static_cast<int32_t>(playAt));
        playTrigger = nullptr;
        if (progress != nullptr) progress(progressContext, 0, 0);
        progress = nullptr;
      }
    }
  }
  if (renderPosition != nullptr) renderPosition(progressContext, 0.0);
  free(prevBuffer);
  prevBuffer = nullptr;
  // A stopped render writes no header: its block is no WAV image.
  if (!playing && renderState.load() != 2) writeHeader(block, samples);
  free_pitch();
  renderState = 0;
  if (size != nullptr) *size = samples * 2 + kHeadBytes - 8;
  return block;
}

uint8_t* ctonm2::render_with_progress(int32_t* size, Progress progress) {
  return render_number_with_progress(0, noteCount - 1, size, progress, 0.0, 0.0);
}

uint8_t* ctonm2::render_all(int32_t* size) { return render_with_progress(size, nullptr); }

int32_t ctonm2::render_number_with_progress_thread(int32_t first, int32_t last, int32_t* size, Progress progress,
                                                   double startMs, double endMs) {
  if (renderState.load() != 0 || background.started) return 0;
  renderState = 1;
  background.engine = this;
  background.first = first;
  background.last = last;
  background.progress = progress;
  background.startMs = startMs;
  background.endMs = endMs;
  background.block = nullptr;
  background.size = 0;
  if (pthread_create(&background.thread, nullptr, backgroundMain, nullptr) != 0) {
    renderState = 0;
    return 0;
  }
  background.started = true;
  if (size != nullptr) *size = 0;
  return 1;
}

uint8_t* ctonm2::render_thread_join(int32_t* size) {
  if (!background.started) return nullptr;
  pthread_join(background.thread, nullptr);
  background.started = false;
  if (size != nullptr) *size = background.size;
  return background.block;
}

int32_t ctonm2::render_stop() {
  // From running to stop requested in one step: a render that ends between
  // a read and a write of the state would leave the request standing, and
  // the wait below would never end.
  int32_t state = 1;
  if (!renderState.compare_exchange_strong(state, 2) && state != 2) return state;
  while ((state = renderState.load()) == 2) usleep(20000);
  return state;
}
