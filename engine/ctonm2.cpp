#include "engine/ctonm2.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "support/textcopy.h"
#include "voicebank/voiceset.h"

namespace {

char* newTextBuffer(size_t size) { return static_cast<char*>(calloc(size, 1)); }

void freeArray(void* p) { free(p); }

}  // namespace

int32_t floatListCount(const float* list) {
  if (list == nullptr || !(list[0] > 0.0f)) return 0;
  // Counts come from our own writers; anything this large is damage.
  if (list[0] >= 16777216.0f) return 16777216;
  return static_cast<int32_t>(list[0]);
}

ctonm2::ctonm2()
    : voiceDir(newTextBuffer(kVoiceDirSize)),
      projectName(newTextBuffer(kProjectNameSize)),
      projectPath(newTextBuffer(kPathSize)),
      cachedir(newTextBuffer(kPathSize)),
      outfile(newTextBuffer(kPathSize)),
      flags(newTextBuffer(kFlagsSize)),
      charset(newTextBuffer(kCharsetSize)) {
  strcpy_n(charset, "UTF-8", kCharsetSize);
  for (int16_t& enabled : layerEnabled) enabled = 1;
  pthread_mutex_init(&mixMutex, nullptr);
}

ctonm2::~ctonm2() {
  free_snt();
  free(prevBuffer);
  free(voiceDir);
  free(projectName);
  free(projectPath);
  free(cachedir);
  free(outfile);
  free(flags);
  free(charset);
  free(audioTrack);
  pthread_mutex_destroy(&mixMutex);
}

// --- Note list ---------------------------------------------------------------

NoteData* ctonm2::get_note(int32_t i) {
  if (i < 0 || i >= noteCount) return nullptr;
  return &notes[i];
}

void ctonm2::set_note(int32_t i, const NoteData* rec) {
  if (rec == nullptr || i < 0 || i >= noteCount) return;
  memmove(&notes[i], rec, sizeof(NoteData));
}

int32_t ctonm2::insert_note(int32_t i, const NoteData* rec) {
  if (rec == nullptr) return -1;
  if (i < 0) i = 0;
  if (i > noteCount) i = noteCount;
  NoteData copy;
  memcpy(&copy, rec, sizeof copy);  // rec may point into the array
  void* grown = realloc(notes, sizeof(NoteData) * (static_cast<size_t>(noteCount) + 1));
  if (grown == nullptr) return -1;
  notes = static_cast<NoteData*>(grown);
  memmove(&notes[i + 1], &notes[i], sizeof(NoteData) * static_cast<size_t>(noteCount - i));
  memcpy(&notes[i], &copy, sizeof(NoteData));
  ++noteCount;
  return i;
}

int32_t ctonm2::delete_note(int32_t i) {
  if (i < 0 || i >= noteCount) return -1;
  note_clear(&notes[i]);
  memmove(&notes[i], &notes[i + 1], sizeof(NoteData) * static_cast<size_t>(noteCount - i - 1));
  if (noteCount < 2) {
    free(notes);
    notes = nullptr;
  } else {
    void* shrunk = realloc(notes, sizeof(NoteData) * static_cast<size_t>(noteCount - 1));
    if (shrunk != nullptr) notes = static_cast<NoteData*>(shrunk);
  }
  --noteCount;
  return i;
}

void ctonm2::clear_note(int32_t i) {
  if (i >= 0 && i < noteCount) note_clear(&notes[i]);
}

void ctonm2::note_clear(NoteData* rec) {
  if (rec == nullptr) return;
  freeArray(rec->_pitch);
  freeArray(rec->PBS);
  freeArray(rec->PBW);
  freeArray(rec->PBY);
  freeArray(rec->PBM);
  freeArray(rec->Pitches);
  freeArray(rec->Exprs);
  memset(rec, 0, sizeof(NoteData));
}

void ctonm2::free_pitch() {
  for (int32_t i = 0; i < noteCount; ++i) {
    free(notes[i]._pitch);
    notes[i]._pitch = nullptr;
    notes[i]._pitchlen = 0;
  }
}

char* ctonm2::get_lyric(int32_t i) {
  NoteData* note = get_note(i);
  return note != nullptr ? note->Lyric : nullptr;
}

char* ctonm2::get_flags(int32_t i) {
  NoteData* note = get_note(i);
  return note != nullptr ? note->Flags : nullptr;
}

void ctonm2::set_lyric(const char* text, int32_t i) {
  NoteData* note = get_note(i);
  if (note != nullptr) strcpy_n(note->Lyric, text, sizeof note->Lyric);
}

void ctonm2::set_flags(const char* text, int32_t i) {
  NoteData* note = get_note(i);
  if (note != nullptr) strcpy_n(note->Flags, text, sizeof note->Flags);
}

bool ctonm2::is_r(const char* text) {
  return text == nullptr || text[0] == '\0' || strcmp(text, "R") == 0;
}

bool ctonm2::is_r(int32_t i) {
  NoteData* note = get_note(i);
  return note != nullptr && is_r(note->Lyric);
}

float ctonm2::get_tempo(int32_t i) {
  float result = tempo;
  if (i >= noteCount) return result;
  for (int32_t k = 0; k <= i; ++k) {
    if (notes[k].Tempo > 0.0f) result = notes[k].Tempo;
  }
  return result;
}

bool ctonm2::isUseLayer() {
  for (int32_t i = 0; i < noteCount; ++i) {
    if (notes[i].layer > 0) return true;
  }
  return false;
}

int32_t ctonm2::getprenote(int32_t index, int32_t layer) {
  if (index > noteCount) index = noteCount;
  for (int32_t i = index - 1; i >= 0; --i) {
    if (!is_r(notes[i].Lyric) && (layer == -1 || notes[i].layer == layer)) return i;
  }
  return -1;
}

int32_t ctonm2::getnextnote(int32_t index, int32_t layer) {
  if (index < -1) index = -1;
  for (int32_t i = index + 1; i < noteCount; ++i) {
    if (!is_r(notes[i].Lyric) && (layer == -1 || notes[i].layer == layer)) return i;
  }
  return -1;
}

int32_t ctonm2::read_voiceset() {
  return voiceset != nullptr ? voiceset->read_voiceset(voiceDir) : 0;
}

void ctonm2::printNoteData(FILE* stream, const NoteData* rec) {
  if (stream == nullptr || rec == nullptr) return;
  fprintf(stream, "--------------------------------\n");
  fprintf(stream, "Length=%d\n", rec->Length);
  fprintf(stream, "Lyric=%.32s\n", rec->Lyric);
  fprintf(stream, "NoteNum=%d\n", rec->NoteNum);
  fprintf(stream, "PreUtterance=%f\n", rec->PreUtterance);
  fprintf(stream, "VoiceOverlap=%f\n", rec->VoiceOverlap);
  fprintf(stream, "Velocity=%f\n", rec->Velocity);
  fprintf(stream, "StartPoint=%f\n", rec->StartPoint);
  fprintf(stream, "Intensity=%d\n", rec->Intensity);
  fprintf(stream, "Modulation=%d\n", rec->Modulation);
  fprintf(stream, "Flags=%.32s\n", rec->Flags);
  fprintf(stream, "_pos=%lf\n", rec->_pos);
  fprintf(stream, "_notelen=%f\n", rec->_notelen);
  fprintf(stream, "_truelen=%f\n", rec->_truelen);
  fprintf(stream, "_overlap=%f\n", rec->_overlap);
  fprintf(stream, "_preuttr=%f\n", rec->_preuttr);
  fprintf(stream, "_stp=%f\n", rec->_stp);
  fprintf(stream, "VoiceFile=%s\n", rec->VoiceFile != nullptr ? rec->VoiceFile : "(null)");
  fprintf(stream, "env=");
  for (float value : rec->Envelope) fprintf(stream, "%0.1f\t", value);
  fprintf(stream, "\n");
  if (rec->_pitch != nullptr) {
    fprintf(stream, "_pitch=");
    for (int32_t i = 0; i < rec->_pitchlen; ++i) fprintf(stream, "%f\t", rec->_pitch[i]);
    fprintf(stream, "\n");
  }
  if (rec->Pitches != nullptr) {
    fprintf(stream, "Pitch=");
    for (int32_t i = 0; i < rec->PitchCount; ++i) fprintf(stream, "%d\t", rec->Pitches[i]);
    fprintf(stream, "\n");
  }
  if (rec->Exprs != nullptr) {
    fprintf(stream, "Exprs=");
    for (int32_t i = 0; i < rec->ExprsCount; ++i) fprintf(stream, "%d\t", rec->Exprs[i]);
    fprintf(stream, "\n");
  }
  const struct {
    const char* name;
    const float* list;
  } lists[] = {{"PBS=", rec->PBS}, {"PBW=", rec->PBW}, {"PBY=", rec->PBY}};
  for (const auto& entry : lists) {
    if (entry.list == nullptr) continue;
    fprintf(stream, "%s", entry.name);
    int32_t n = floatListCount(entry.list);
    for (int32_t i = 1; i <= n; ++i) fprintf(stream, "%f\t", entry.list[i]);
    fprintf(stream, "\n");
  }
}

// --- Settings ------------------------------------------------------------------

void ctonm2::set_projectName(const char* text) { strcpy_n(projectName, text, kProjectNameSize); }

void ctonm2::set_projectPath(const char* text) {
  if (text == nullptr) return;
  strcpy_n(projectPath, text, kPathSize);
  if (projectName[0] != '\0') return;
  const char* slash = strrchr(projectPath, '/');
  if (slash != nullptr) strcpy_n(projectName, slash + 1, kProjectNameSize);
}

void ctonm2::set_voiceDir(const char* text) {
  if (text == nullptr) return;
  strcpy_n(voiceDir, text, kVoiceDirCapacity);
  size_t len = strlen(voiceDir);
  if (len > 0 && voiceDir[len - 1] != '/') strcat_n(voiceDir, "/", kVoiceDirSize);
}

void ctonm2::set_outfile(const char* text) { strcpy_n(outfile, text, kOutfileCapacity); }

void ctonm2::set_cachedir(const char* text) { strcpy_n(cachedir, text, kCachedirCapacity); }

void ctonm2::set_flags(const char* text) { strcpy_n(flags, text, kFlagsSize); }

void ctonm2::set_charset(const char* text) { strcpy_n(charset, text, kCharsetSize); }

void ctonm2::set_audioTrack(const char* text) {
  free(audioTrack);
  audioTrack = (text != nullptr && text[0] != '\0') ? strdup(text) : nullptr;
}

void ctonm2::free_snt() {
  voiceDir[0] = '\0';
  projectName[0] = '\0';
  projectPath[0] = '\0';
  cachedir[0] = '\0';
  outfile[0] = '\0';
  flags[0] = '\0';
  strcpy_n(charset, "UTF-8", kCharsetSize);
  set_audioTrack(nullptr);
  audioTrackOffset = 0.0;
  audioTrackVolume = 100;
  audioTrackMute = 0;
  for (int32_t i = 0; i < noteCount; ++i) note_clear(&notes[i]);
  free(notes);
  notes = nullptr;
  noteCount = 0;
}

// --- Time ----------------------------------------------------------------------

float ctonm2::ticks2msec(int32_t ticks) {
  double t = tempo;
  double elapsed = 0.0;
  double remaining = ticks;
  for (int32_t i = 0; i < noteCount; ++i) {
    const NoteData& note = notes[i];
    if (remaining <= note.Delta) return static_cast<float>(elapsed + remaining * 125.0 / t);
    elapsed += note.Delta * 125.0 / t;
    remaining -= note.Delta;
    if (note.Tempo != 0.0f) t = note.Tempo;
  }
  if (remaining < 1.0) return static_cast<float>(elapsed);
  return static_cast<float>(elapsed + remaining * 125.0 / t);
}

TickTimeline::TickTimeline(const ctonm2& engine) : tempo_(engine.tempo) {
  const size_t n = static_cast<size_t>(std::max(engine.noteCount, 0));
  starts_.resize(n);
  elapsed_.resize(n);
  tempoAfter_.resize(n);
  double t = engine.tempo, elapsed = 0.0;
  int64_t position = 0;
  for (size_t i = 0; i < n; ++i) {
    const NoteData& note = engine.notes[i];
    elapsed += note.Delta * 125.0 / t;
    position += note.Delta;
    if (note.Tempo != 0.0f) t = note.Tempo;
    starts_[i] = position;
    elapsed_[i] = elapsed;
    tempoAfter_[i] = t;
    sorted_ = sorted_ && (i == 0 || position >= starts_[i - 1]);
  }
}

float TickTimeline::msec(int64_t ticks) const {
  // As ticks2msec walks: the first note whose start is at or past `ticks`,
  // counted from the note before it. Notes out of time order (a negative
  // Delta) are searched one by one, as the walk meets them.
  const int32_t clamped = static_cast<int32_t>(std::clamp<int64_t>(ticks, INT32_MIN, INT32_MAX));
  const auto first = sorted_ ? std::lower_bound(starts_.begin(), starts_.end(), clamped)
                             : std::find_if(starts_.begin(), starts_.end(), [&](int64_t s) { return s >= clamped; });
  const size_t i = static_cast<size_t>(first - starts_.begin());
  const double before = i == 0 ? 0.0 : elapsed_[i - 1];
  const double t = i == 0 ? tempo_ : tempoAfter_[i - 1];
  const double remaining = static_cast<double>(clamped) - static_cast<double>(i == 0 ? 0 : starts_[i - 1]);
  if (i == starts_.size() && remaining < 1.0) return static_cast<float>(before);
  return static_cast<float>(before + remaining * 125.0 / t);
}

int32_t ctonm2::msec2ticks(double msec) {
  double t = tempo;
  int64_t ticks = 0;
  for (int32_t i = 0; i < noteCount; ++i) {
    const NoteData& note = notes[i];
    double d = note.Delta * 125.0 / t;
    if (msec <= d) return static_cast<int32_t>(ticks + static_cast<int64_t>(msec * t / 125.0));
    if (note.Tempo != 0.0f) t = note.Tempo;
    ticks += note.Delta;
    msec -= d;
  }
  if (msec <= 0.0) return static_cast<int32_t>(ticks);
  return static_cast<int32_t>(ticks + static_cast<int64_t>(t * msec / 125.0));
}

float ctonm2::ticks2msec(int32_t ticks, int32_t note) {
  const float msPerTick = 125.0f / get_tempo(note);
  int64_t remaining = ticks;
  float result = 0.0f;
  if (remaining >= 0) {
    for (int32_t k = note < -1 ? 0 : note + 1; k < noteCount && remaining > notes[k].Delta; ++k) {
      result += static_cast<float>(notes[k].Delta) * msPerTick;
      remaining -= notes[k].Delta;
    }
  } else {
    for (int32_t k = note < noteCount ? note : noteCount - 1; k >= 0 && remaining + notes[k].Delta < 0; --k) {
      result -= static_cast<float>(notes[k].Delta) * msPerTick;
      remaining += notes[k].Delta;
    }
  }
  return result + static_cast<float>(remaining) * msPerTick;
}

int32_t ctonm2::msec2ticks(float msec, int32_t note) {
  int64_t ticks = 0;
  if (msec >= 0.0f) {
    // t is the tempo in effect at note k - 1.
    float t = get_tempo(note < noteCount ? note : noteCount - 1);
    float rate = t * 480.0f / 60000.0f;
    for (int32_t k = note < -1 ? 0 : note + 1; k < noteCount; ++k) {
      if (k >= 1 && k - 1 > note && notes[k - 1].Tempo > 0.0f) t = notes[k - 1].Tempo;
      rate = t * 480.0f / 60000.0f;
      float d = static_cast<float>(notes[k].Delta) / rate;
      if (msec - d <= 0.0f) return static_cast<int32_t>(ticks + static_cast<int64_t>(rate * msec));
      msec -= d;
      ticks += notes[k].Delta;
    }
    if (msec <= 0.0f) return static_cast<int32_t>(ticks);
    if (noteCount > 0 && notes[noteCount - 1].Tempo > 0.0f) t = notes[noteCount - 1].Tempo;
    rate = t * 480.0f / 60000.0f;
    return static_cast<int32_t>(ticks + static_cast<int64_t>(rate * msec));
  }
  // Backward: p is the last note before k with a positive Tempo (-1: none),
  // so the tempo before k is found without walking from the start each time.
  int32_t k = note < noteCount ? note : noteCount - 1;
  int32_t p = k - 1;
  while (p >= 0 && !(notes[p].Tempo > 0.0f)) --p;
  float rate = (p >= 0 ? notes[p].Tempo : tempo) / 125.0f;
  for (; k >= 0; --k) {
    while (p > k - 1) {
      --p;
      while (p >= 0 && !(notes[p].Tempo > 0.0f)) --p;
    }
    rate = (p >= 0 ? notes[p].Tempo : tempo) / 125.0f;
    float x = static_cast<float>(notes[k].Delta) / rate + msec;
    if (x >= 0.0f) return static_cast<int32_t>(ticks + static_cast<int64_t>(rate * msec));
    msec = x;
    ticks -= notes[k].Delta;
  }
  if (msec >= 0.0f) return static_cast<int32_t>(ticks);
  return static_cast<int32_t>(ticks + static_cast<int64_t>(rate * msec));
}
