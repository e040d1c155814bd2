// Note arrangement: the timing of every note before a render, and the
// placing of each rendered note into the mix.

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "engine/ctonm2.h"
#include "render/cache.h"
#include "render/resampler.h"
#include "support/log.h"
#include "voicebank/freqtable.h"
#include "voicebank/spectrum.h"
#include "voicebank/voiceset.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kMsPerSample = 0.022675738;  // one sample at 44100 Hz
constexpr double kHalfSampleMs = 0.01134;

int64_t roundHalfUp(double x) { return static_cast<int64_t>(std::trunc(x + 0.5)); }

}  // namespace

// What the cache key cannot see in the note: the length asked of the
// resampler (the two drivers ask different lengths of the same note) and
// the files that decide the sound: the sample and its frequency and
// spectrum tables (a bank made again, a table replaced, a sample edited
// with its time put back). Each file counts by its identity, size, and
// modification and change times; the change time cannot be set back. The
// key covers the serialized note, whose reserved word is otherwise always
// zero, so a digest of all this goes there on the copy that is resampled
// and cached.
void markRenderInputs(NoteData* copy, double lengthMs, const std::string& samplePath) {
  const float length = static_cast<float>(lengthMs);
  const std::string files[4] = {samplePath, frequencyTablePath(samplePath.c_str(), "frq"),
                                frequencyTablePath(samplePath.c_str(), "frt"), spectrumFilePath(samplePath.c_str())};
  uint64_t stamp[4][6] = {};
  for (int k = 0; k < 4; ++k) {
    struct stat info;
    if (stat(files[k].c_str(), &info) != 0) continue;
    stamp[k][0] = static_cast<uint64_t>(info.st_ino);
    stamp[k][1] = static_cast<uint64_t>(info.st_size);
    stamp[k][2] = static_cast<uint64_t>(info.st_mtim.tv_sec);
    stamp[k][3] = static_cast<uint64_t>(info.st_mtim.tv_nsec);
    stamp[k][4] = static_cast<uint64_t>(info.st_ctim.tv_sec);
    stamp[k][5] = static_cast<uint64_t>(info.st_ctim.tv_nsec);
  }
  uint32_t hash = 2166136261u;  // FNV-1a
  auto mix = [&hash](const void* data, size_t n) {
    for (size_t k = 0; k < n; ++k) hash = (hash ^ static_cast<const uint8_t*>(data)[k]) * 16777619u;
  };
  mix(&length, sizeof length);
  mix(stamp, sizeof stamp);
  copy->reserved = hash;
}

namespace {

// Adds a rendered note under its envelope into the mix, sample by sample,
// until done or a stop is requested.
void mixNote(int16_t* mix, int32_t mixLength, int64_t start, const double* buffer, int32_t count, const float* envelope,
             double envelopeLength, const std::atomic<int32_t>& renderState) {
  for (int32_t k = 0; k < count; ++k) {
    if (renderState.load(std::memory_order_relaxed) == 2) return;
    const int64_t at = start + k;
    if (at < 0 || at >= mixLength) continue;
    const double level = ctonm2::get_envelope_value(k * kMsPerSample, envelope, envelopeLength);
    const double value = mix[at] + buffer[k] * level;
    mix[at] = static_cast<int16_t>(std::clamp(value, -32767.0, 32767.0));
  }
}

}  // namespace

double ctonm2::calc_length(int32_t index, float noteTempo) {
  if (index < 0 || index >= noteCount) return 0.0;
  double t = noteTempo;
  if (t == 0.0) {
    t = tempo;
    for (int32_t k = 0; k <= index; ++k) {
      if (notes[k].Tempo != 0.0f) t = notes[k].Tempo;
    }
  }
  const int64_t length = notes[index].Length;
  int64_t covered = 0;
  double result = 0.0;
  for (int32_t j = index + 1; j < noteCount && covered + notes[j].Delta <= length; ++j) {
    // A run of notes on one tick without a tempo change adds nothing: passed
    // over at once (a song of 100,000 such notes was quadratic).
    if (static_cast<size_t>(j) < inertRunEnd_.size() && notes[j].Delta == 0 && notes[j].Tempo == 0.0f) {
      j = inertRunEnd_[static_cast<size_t>(j)] - 1;
      continue;
    }
    result += notes[j].Delta * 125.0 / t;
    covered += notes[j].Delta;
    if (notes[j].Tempo != 0.0f) t = notes[j].Tempo;
  }
  return result + static_cast<double>(length - covered) * 125.0 / t;
}

double ctonm2::get_preblank(int32_t* index, int32_t layer) {
  const int32_t asked = *index;
  const int32_t previous = getprenote(asked, layer);
  *index = previous;
  if (previous < 0 || asked >= noteCount) return 0.0;
  double distance = 0.0;
  for (int32_t k = previous + 1; k <= asked; ++k) distance += notes[k]._delta;
  return distance - notes[previous]._notelen;
}

double ctonm2::preparation(int32_t previous, float, int32_t index, float noteTempo, float carriedTempo) {
  NoteData& note = notes[index];
  note._delta = note.Delta * 125.0 / carriedTempo;
  note._notelen = note._truelen = static_cast<float>(calc_length(index, noteTempo));
  if (note._notelen == 0.0f) log_printf(3, "Note length is 0.noteNo=%ld lyric=%s\n", static_cast<long>(index), note.Lyric);
  note.VoiceFile = nullptr;
  // The silence between the previous sounding note's end and this note's start.
  double gap = 0.0;
  if (previous >= 0) {
    double distance = 0.0;
    for (int32_t j = previous + 1; j <= index; ++j) distance += notes[j]._delta;
    gap = distance - notes[previous]._notelen;
  }

  double preUtterance = 0.0, overlap = 0.0;
  if (!is_r(note.Lyric)) {
    if (voiceset == nullptr) {
      log_printf(2, "No voice data '%s' noteNo=%ld\n", note.Lyric, static_cast<long>(index));
    } else {
      const char* previousLyric = previous >= 0 && gap <= 100.0 ? notes[previous].Lyric : nullptr;
      VoiceData* entry = voiceset->get_voicedata(previousLyric, note.Lyric, note.NoteNum);
      if (entry != nullptr) {
        note.VoiceFile = entry->filename;
        preUtterance = std::isnan(note.PreUtterance) ? entry->preuttr : note.PreUtterance;
        overlap = std::isnan(note.VoiceOverlap) ? entry->overlap : note.VoiceOverlap;
      } else {
        log_printf(2, "Voice data not found '%s' noteNo=%ld\n", note.Lyric, static_cast<long>(index));
      }
    }
  }

  // Consonant velocity: 100 keeps the timing, 0 doubles it, 200 halves it.
  const double k = std::isnan(note.Velocity) ? 1.0 : std::pow(2.0, 1.0 - note.Velocity / 100.0);
  note._preuttr = static_cast<float>(preUtterance * k);
  note._overlap = static_cast<float>(overlap * k);
  note._stp = static_cast<float>(note.StartPoint * k);

  // Only a note that sounds shapes the note before it: a rest or a note of
  // no length leaves it as it is.
  if (previous >= 0 && sounds(note)) {
    NoteData& prev = notes[previous];
    const double prevLength = calc_length(previous, prev._tempo);
    if (gap >= -0.001) {
      // The consonant is cut from the front rather than overrun half of
      // the previous note.
      const double limit = prevLength * 0.5 + gap;
      const double lead = static_cast<double>(note._preuttr) - note._overlap;
      if (lead > limit) {
        const double r = limit / lead;
        const double oldPreUtterance = note._preuttr;
        note._preuttr = static_cast<float>(note._preuttr * r);
        note._overlap = static_cast<float>(note._overlap * r);
        note._stp = static_cast<float>(note._stp + (1.0 - r) * oldPreUtterance);
      }
      // The previous note sounds on until this note's overlap ends.
      if (gap < 100.0) prev._truelen = static_cast<float>(gap - note._preuttr + note._overlap + prev._notelen);
    }
    float* env = note.Envelope;
    if (env[0] == 0.0f && env[3] == 0.0f && note._overlap >= 5.0f) {
      env[9] = std::max(0.0f, env[1] - note._overlap + env[9]);
      env[1] = note._overlap;
    } else if (env[3] > 0.0f && note._overlap >= 5.0f) {
      env[1] = std::max(0.0f, env[0] - note._overlap + env[1]);
      env[0] = note._overlap;
    }
    if (gap >= -0.001 && gap < 100.0) {
      float* penv = prev.Envelope;
      if (penv[6] == 0.0f && penv[8] == 0.0f && note._overlap >= 35.0f) {
        penv[2] = note._overlap;
      } else if (penv[6] > 0.0f && note._overlap >= 35.0f) {
        penv[2] = std::max(0.0f, penv[8] - note._overlap + penv[2]);
        penv[8] = note._overlap;
      }
    }
  }
  return note._delta;
}

int32_t ctonm2::preparationNotes() {
  if (tempo == 0.0f) tempo = 120.0f;
  leadTime = noteCount > 0 ? notes[0].Delta * 125.0 / tempo : 0.0;
  float carried = tempo;
  int32_t voiced = 0;
  // The last sounding note of each layer so far.
  std::map<int32_t, int32_t> lastSounding;
  double position = 0.0;
  // Where each run of notes with no Delta and no tempo change ends, for
  // calc_length while the notes are prepared.
  inertRunEnd_.assign(static_cast<size_t>(std::max(noteCount, 0)), noteCount);
  for (int32_t i = noteCount - 1; i >= 0; --i) {
    const bool inert = notes[i].Delta == 0 && notes[i].Tempo == 0.0f;
    inertRunEnd_[static_cast<size_t>(i)] = !inert ? i : i + 1 < noteCount ? inertRunEnd_[static_cast<size_t>(i) + 1] : noteCount;
  }
  for (int32_t i = 0; i < noteCount; ++i) {
    NoteData& note = notes[i];
    note._tempo = note.Tempo != 0.0f ? note.Tempo : carried;
    const auto last = lastSounding.find(note.layer);
    const int32_t previous = last != lastSounding.end() ? last->second : -1;
    position += preparation(previous, previous >= 0 ? notes[previous]._tempo : tempo, i, note._tempo, carried);
    note._pos = position;
    if (note.VoiceFile != nullptr) ++voiced;
    if (sounds(note)) lastSounding[note.layer] = i;
    carried = note._tempo;
  }
  totalLength = noteCount > 0 ? notes[noteCount - 1]._pos + notes[noteCount - 1]._notelen : 0.0;
  inertRunEnd_.clear();  // the notes may change from here on
  return voiced;
}

double ctonm2::optimizeOverlap(const double* prev, int32_t prevSamples, double prevMs, const double* buffer,
                               int32_t count, double, const NoteData* note, float, int32_t rate) {
  const int64_t window = roundHalfUp(note->_overlap * 0.001 * rate);
  if (window < 2048) return 0.0;
  const double base = 55.0 * std::pow(2.0, (note->NoteNum - 33) / 12.0);
  double f1 = base, f0 = base;
  if (note->_pitch != nullptr && note->_pitchlen > 0) {
    const double x = (window / 2.0 + static_cast<double>(roundHalfUp(note->_stp * 0.001 * rate))) / 256.0;
    const int64_t j = static_cast<int64_t>(std::floor(x));
    if (j >= 0 && note->_pitchlen > j + 1) {
      const double cents = note->_pitch[j] + (note->_pitch[j + 1] - note->_pitch[j]) * (x - static_cast<double>(j));
      f1 = base * std::pow(2.0, cents / 1200.0);
    }
    f0 = base * std::pow(2.0, note->_pitch[0] / 1200.0);
  }
  const int64_t tailStart = roundHalfUp(prevMs * 0.001 * rate) - window;
  double aSin = 0.0, aCos = 0.0, bSin = 0.0, bCos = 0.0;
  for (int64_t k = 0; k < window; ++k) {
    const double h = 0.5 - 0.5 * std::cos(2.0 * kPi * static_cast<double>(k) / static_cast<double>(window));
    const double theta = 2.0 * kPi * f1 * static_cast<double>(k) / rate;
    const int64_t at = tailStart + k;
    const double a = at >= 0 && at < prevSamples ? prev[at] : 0.0;
    const double b = k < count ? buffer[k] : 0.0;
    aSin += a * std::sin(theta) * h;
    aCos += a * std::cos(theta) * h;
    bSin += b * std::sin(theta) * h;
    bCos += b * std::cos(theta) * h;
  }
  double d = (std::atan2(bSin, bCos) - std::atan2(aSin, aCos)) / (2.0 * kPi) + 0.001 * note->stptrim * f1;
  d -= std::floor(d);
  if (d > 0.5) d -= 1.0;
  return d / f0 * 1000.0;
}

int16_t* ctonm2::arrange_note(int16_t* mix, double posMs, int32_t index, double lengthMs, int32_t mixLength, int32_t,
                              float noteTempo, bool useCache) {
  NoteData* note = get_note(index);
  if (note == nullptr || note->VoiceFile == nullptr) return mix;
  const std::string path = std::string(voiceDir) + note->VoiceFile;
  NoteData copy = *note;  // shares the note's arrays; nothing here frees them
  markRenderInputs(&copy, lengthMs, path);

  auto resample = [&]() {
    int32_t count = 0;
    double* buffer = resamp(path.c_str(), &copy, static_cast<float>(lengthMs + 35.0), &count, noteTempo);
    if (buffer != nullptr && useCache && cachePut != nullptr) {
      log_printf(5, "put:\n");
      markRenderInputs(&copy, lengthMs, path);  // the resampler may have made the tables
      cachePut(index, &copy, buffer, count * static_cast<int32_t>(sizeof(double)));
    }
    return std::make_pair(buffer, count);
  };
  double* buffer = nullptr;
  int32_t count = 0;
  if (useCache && cacheGet != nullptr) {
    int32_t bytes = 0;
    buffer = cacheGet(index, &copy, &bytes);
    count = bytes / static_cast<int32_t>(sizeof(double));
    if (buffer != nullptr) log_printf(5, "get:\n");
  }
  if (buffer == nullptr) std::tie(buffer, count) = resample();

  if (buffer != nullptr) {
    if (prevBuffer != nullptr) {
      if (optimizeRounds == 0) {
        const double trim = optimizeOverlap(prevBuffer, prevCount, prevLengthMs, buffer, count, lengthMs, &copy,
                                            noteTempo, SampleRateOut);
        if (std::fabs(note->stptrim - trim) > kHalfSampleMs) {
          note->stptrim = static_cast<float>(trim);
          log_printf(5, "trim=%f\n", trim);
        }
      } else {
        for (int32_t round = 0; round < optimizeRounds; ++round) {
          const double trim = optimizeOverlap(prevBuffer, prevCount, prevLengthMs, buffer, count, lengthMs, &copy,
                                              noteTempo, SampleRateOut);
          log_printf(5, "trim=%f\n", trim);
          if (std::fabs(copy.stptrim - trim) <= kHalfSampleMs) break;
          free(buffer);
          note->stptrim = copy.stptrim = static_cast<float>(trim);
          std::tie(buffer, count) = resample();
          log_printf(5, "opt%d:%f\n", round, trim);
          if (buffer == nullptr) break;
        }
      }
    }
    if (buffer != nullptr) {
      free(prevBuffer);
      prevBuffer = buffer;
      prevLengthMs = lengthMs;
      prevCount = count;
    }
  }
  if (buffer == nullptr) return mix;

  const int64_t start = roundHalfUp((posMs - copy._preuttr) * 0.001 * 44100.0);
  correctEnvelope(copy.Envelope, lengthMs - copy._stp);
  mixNote(mix, mixLength, start, buffer, count, copy.Envelope, lengthMs - copy._stp, renderState);
  return mix;
}

int16_t* ctonm2::arrange_n(int16_t* mix, double posMs, int32_t index, double lengthMs, int32_t mixLength, int32_t,
                           float noteTempo) {
  const RenderedNote rendered = resample_n(posMs, index, lengthMs, noteTempo);
  if (rendered.buffer == nullptr) return mix;
  pthread_mutex_lock(&mixMutex);
  mix_n(mix, mixLength, rendered);
  pthread_mutex_unlock(&mixMutex);
  free(rendered.buffer);
  return mix;
}

ctonm2::RenderedNote ctonm2::resample_n(double posMs, int32_t index, double lengthMs, float noteTempo) {
  RenderedNote rendered;
  NoteData* note = get_note(index);
  if (note == nullptr || note->VoiceFile == nullptr) return rendered;
  const std::string path = std::string(voiceDir) + note->VoiceFile;
  NoteData copy = *note;
  markRenderInputs(&copy, lengthMs, path);
  if (cacheGet != nullptr) {
    int32_t bytes = 0;
    rendered.buffer = cacheGet(index, &copy, &bytes);
    rendered.count = bytes / static_cast<int32_t>(sizeof(double));
    if (rendered.buffer != nullptr) log_printf(5, "get:\n");
  }
  if (rendered.buffer == nullptr) {
    rendered.buffer = resamp(path.c_str(), &copy, static_cast<float>(lengthMs + 35.0), &rendered.count, noteTempo);
    if (rendered.buffer != nullptr && cachePut != nullptr) {
      log_printf(5, "put:\n");
      markRenderInputs(&copy, lengthMs, path);  // the resampler may have made the tables
      cachePut(index, &copy, rendered.buffer, rendered.count * static_cast<int32_t>(sizeof(double)));
    }
  }
  if (rendered.buffer == nullptr) return rendered;
  rendered.start = roundHalfUp((posMs - copy._preuttr) * 0.001 * 44100.0);
  correctEnvelope(copy.Envelope, lengthMs - copy._stp);
  memcpy(rendered.envelope, copy.Envelope, sizeof rendered.envelope);
  rendered.envelopeLength = lengthMs - copy._stp;
  return rendered;
}

void ctonm2::mix_n(int16_t* mix, int32_t mixLength, const RenderedNote& note) {
  if (note.buffer == nullptr) return;
  mixNote(mix, mixLength, note.start, note.buffer, note.count, note.envelope, note.envelopeLength, renderState);
}
