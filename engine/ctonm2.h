// ctonm2: the engine, the in-memory project.
//
// It holds the project settings, the project tempo and one contiguous
// array of NoteData in song order. A note's start is never stored: it is
// the running sum of Delta over the array. Time is counted in ticks of 480
// per quarter note; one tick lasts 125 / tempo msec.
//
// No lock: the editor thread owns the engine, and render threads read the
// notes while a render runs, so the list must not change during a render.
// Out-of-range indices never fault: getters return null, setters do
// nothing, insert_note clamps, delete_note returns -1.
#pragma once

#include <pthread.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <string>
#include <vector>
#include <cstdio>

#include "engine/notedata.h"

class cvoiceset;

class ctonm2 {
 public:
  static constexpr int kVoiceDirSize = 1024;
  static constexpr int kVoiceDirCapacity = 511;  // what set_voiceDir keeps
  static constexpr int kProjectNameSize = 256;
  static constexpr int kPathSize = 1024;
  static constexpr int kOutfileCapacity = 512;
  static constexpr int kCachedirCapacity = 512;
  static constexpr int kFlagsSize = 256;
  static constexpr int kCharsetSize = 128;
  static constexpr int kLayerCount = 16;
  // The pitch grid: one value per 256 samples at 44100 Hz.
  static constexpr double kPitchStepMs = 5.804988861083984;

  ctonm2();
  ~ctonm2();
  ctonm2(const ctonm2&) = delete;
  ctonm2& operator=(const ctonm2&) = delete;

  // --- Note list -----------------------------------------------------------
  // The record stays the engine's and is invalid after an insertion or
  // deletion (the array may move).
  NoteData* get_note(int32_t i);
  // Copies rec over slot i; the slot's old heap arrays are not released
  // (the caller has cleared them or handed them on).
  void set_note(int32_t i, const NoteData* rec);
  // Inserts a copy of rec at i (clamped to 0..noteCount), taking over its
  // heap arrays. Returns the slot, or -1 for a null rec or no memory.
  int32_t insert_note(int32_t i, const NoteData* rec);
  // Clears and removes note i. Returns i, or -1 when out of range.
  int32_t delete_note(int32_t i);
  void clear_note(int32_t i);
  // Frees the record's heap arrays (not VoiceFile) and zero-fills it.
  static void note_clear(NoteData* rec);
  // Frees every note's rendered pitch curve.
  void free_pitch();

  char* get_lyric(int32_t i);
  char* get_flags(int32_t i);
  void set_lyric(const char* text, int32_t i);
  void set_flags(const char* text, int32_t i);

  // A rest: null, empty, or exactly "R".
  static bool is_r(const char* text);
  // A note that gives sound: no rest, and a length (a note of length 0
  // sings nothing and costs nothing).
  static bool sounds(const NoteData& note) { return !is_r(note.Lyric) && note.Length > 0; }
  bool is_r(int32_t i);
  // The last positive Tempo at or before note i, else the project tempo.
  float get_tempo(int32_t i);
  bool isUseLayer();
  // The nearest earlier / later note that is not a rest and whose layer is
  // `layer` (any layer for -1); -1 when there is none.
  int32_t getprenote(int32_t index, int32_t layer);
  int32_t getnextnote(int32_t index, int32_t layer);

  // Reads the voice set of voiceDir when one is attached; else 0.
  int32_t read_voiceset();
  // Debug dump of one record.
  static void printNoteData(FILE* stream, const NoteData* rec);

  // --- Settings ------------------------------------------------------------
  void set_projectName(const char* text);
  // Keeps the path and, while projectName is empty, names the project after
  // the path's last component.
  void set_projectPath(const char* text);
  // Keeps at most 511 bytes and ends a non-empty folder with "/".
  void set_voiceDir(const char* text);
  void set_outfile(const char* text);
  void set_cachedir(const char* text);
  void set_flags(const char* text);
  void set_charset(const char* text);
  void set_audioTrack(const char* text);
  // Empties the project (texts, notes); keeps the buffers and the tempo.
  void free_snt();

  // The most samples a render's mix holds: it is one WAV image in memory
  // whose size fits an int32 (6 h 45 min at 44.1 kHz).
  static constexpr int32_t kMaxMixSamples = (INT32_MAX - 48) / 2;

  // --- Time ----------------------------------------------------------------
  // Absolute tick position to msec, across every tempo change (a negative
  // Tempo counts too).
  float ticks2msec(int32_t ticks);
  // Msec to absolute tick position, truncated toward zero.
  int32_t msec2ticks(double msec);
  // A tick offset from the start of note `note` to msec, at the tempo in
  // effect at that note throughout (later changes are not applied), in
  // single precision.
  float ticks2msec(int32_t ticks, int32_t note);
  // A msec offset from the start of note `note` to ticks; follows tempo
  // changes in both directions; single precision.
  int32_t msec2ticks(float msec, int32_t note);

  // --- Project file ----------------------------------------------------------
  // Parses a SNT project into an emptied engine (free_snt first): settings
  // and notes, no character conversion. The "TimeSignatures=" value goes to
  // tsBuffer (bounded by tsSize). Tempo changes end up on zero-length rest
  // records. Returns the number of note sections, or -1 when the file
  // cannot be opened (the settings are reset all the same).
  int32_t read_snt(const char* path, char* tsBuffer, int32_t tsSize);

  // --- Note arrangement (render/arrange.cpp) -------------------------------
  // Fixes every note's timing for a render: _delta, _pos, _tempo,
  // _notelen, _truelen, _preuttr, _overlap, _stp and the voice entry
  // (VoiceFile); reshapes neighbouring envelopes to the overlaps. Returns
  // the number of notes that received a voice entry.
  int32_t preparationNotes();
  // Prepares note `index` after `previous`, the last note before it on its
  // layer that sounds (-1 when none); returns its _delta.
  double preparation(int32_t previous, float prevTempo, int32_t index, float tempo, float carriedTempo);
  // The note's length in msec, following tempo changes inside it.
  double calc_length(int32_t index, float tempo);
  // The gap in msec between the end of the previous sounding note (same
  // layer rule as getprenote; its index goes to *index, -1 when none) and
  // the start of note *index; 0 when there is none.
  double get_preblank(int32_t* index, int32_t layer);
  // Renders note `index` (resampled, or from the cache hooks) and adds it
  // under its envelope into the 16-bit mix at posMs; with a previous note's
  // buffer, aligns the phase of the overlap (stptrim). Returns mix.
  int16_t* arrange_note(int16_t* mix, double posMs, int32_t index, double lengthMs, int32_t mixLength, int32_t layer,
                        float noteTempo, bool useCache);
  // The plain variant for render workers: no cache, no alignment, the
  // addition under mixMutex.
  int16_t* arrange_n(int16_t* mix, double posMs, int32_t index, double lengthMs, int32_t mixLength, int32_t layer,
                     float noteTempo);
  // arrange_n in two halves, so that workers can resample notes in any
  // order and still add them into the mix in note order: the resampled
  // note (from the render cache when its hooks are set) with where and
  // under which envelope it goes (buffer null when nothing could be
  // rendered), and its addition.
  struct RenderedNote {
    double* buffer = nullptr;  // malloc, count values
    int32_t count = 0;
    int64_t start = 0;  // sample in the mix
    float envelope[16] = {};
    double envelopeLength = 0.0;
  };
  RenderedNote resample_n(double posMs, int32_t index, double lengthMs, float noteTempo);
  void mix_n(int16_t* mix, int32_t mixLength, const RenderedNote& note);
  // The start-point trim in msec that aligns the fundamental's phase in
  // the overlap with the previous note's tail.
  double optimizeOverlap(const double* prevBuffer, int32_t prevCount, double prevLengthMs, const double* buffer,
                         int32_t count, double lengthMs, const NoteData* note, float noteTempo, int32_t rate);

  // --- Render drivers (render/drivers.cpp) -----------------------------------
  // The result of both drivers is a mix block: a 48-byte head (a canonical
  // 44-byte WAVE header and 4 zero bytes) and 16-bit mono samples at 44100
  // Hz; *size receives its RIFF size (the block is size + 8 bytes). Null
  // when nothing sounds or memory ran out. Both free the pitch curves.
  // Both place the notes alike: a whole song (first 0) with its lead-in, a
  // range from the middle with its first note at the lead, which leaves
  // room for the range's consonants (render/drivers.cpp, Extent).
  typedef void (*Progress)(void* context, int32_t done, int32_t total);
  // Notes first..last on min(threads, 8) workers, dealt round-robin.
  uint8_t* render_number_by_thread(int32_t first, int32_t last, int32_t* size, int32_t threads, Progress progress);
  uint8_t* render_by_thread(int32_t* size, int32_t threads, Progress progress);
  // The samples a render of notes first..last lasts (0: nothing sounds).
  int64_t render_samples(int32_t first, int32_t last);
  // The threaded render of notes first..last for songs longer than one mix
  // holds: made in consecutive stretches of at most `stretch` samples, each
  // handed to `sink` as soon as it is complete (16-bit mono at 44100 Hz,
  // no header); together they are the samples of render_number_by_thread's
  // mix, byte for byte. A note whose sound crosses a stretch's edge is
  // resampled for each stretch it reaches. Returns the samples handed, 0
  // when nothing sounds, -1 when stopped or refused by the sink (which
  // returns false to stop), -2 when a stretch's memory cannot be had.
  typedef bool (*StretchSink)(void* context, const int16_t* samples, int32_t count);
  int64_t render_number_streamed(int32_t first, int32_t last, int32_t threads, int32_t stretch, Progress progress,
                                 StretchSink sink, void* sinkContext);
  // One thread, with the cache hooks, the playback hooks and progress.
  // startMs: where playback starts, in msec from the first note's start
  // (less than 0: in the silence before it); a consonant that begins before
  // a note at or after that point is played whole. endMs: unused.
  uint8_t* render_number_with_progress(int32_t first, int32_t last, int32_t* size, Progress progress, double startMs,
                                       double endMs);
  uint8_t* render_with_progress(int32_t* size, Progress progress);
  uint8_t* render_all(int32_t* size);
  // render_number_with_progress on a background thread; 0 (nothing
  // started) when a render is running. render_thread_join waits for it and
  // returns its block.
  int32_t render_number_with_progress_thread(int32_t first, int32_t last, int32_t* size, Progress progress,
                                             double startMs, double endMs);
  uint8_t* render_thread_join(int32_t* size);
  // Asks a running render to stop and waits (20 msec steps) until it has.
  int32_t render_stop();

  // --- Curves --------------------------------------------------------------
  // Builds _pitch/_pitchlen and Exprs/ExprsCount of every sounding note;
  // needs _pos, _preuttr, _stp and _truelen from the note preparation.
  void makePitchMode2();
  // The same for notes first..last only (clamped to the list): after an
  // edit of one note's pitch line or vibrato, that note and its sounding
  // neighbours are all that change.
  void makePitchMode2(int32_t first, int32_t last);
  // Adds one note's mode-2 pitch line over [0, end] msec of the grid into
  // buffer (allocated or grown as needed; *length is its value count).
  // Mode 0 draws the line from the previous note's pitch to 0, mode 1 from
  // 0 to the note's pitch relative to prevNote.
  float* genPitch(int mode, double start, double end, const NoteData* prevNote, const NoteData* note,
                  float* buffer, int32_t* length);
  // Adds one note's vibrato into buffer and its effect on expression into
  // *exprs (*exprsCount values, grown alongside).
  float* genVibrato(double start, double end, const NoteData* note, float* buffer, int32_t* length,
                    int16_t** exprs, int32_t* exprsCount);
  // The envelope's level at time t msec of a note lasting len msec, as a
  // factor (percent x 0.01).
  static double get_envelope_value(double t, const float* env, double len);
  // Clamps negative slots to 0 and scales the durations to fit len - 1.
  static void correctEnvelope(float* env, double len);
  // Spreads the inner points evenly over the note.
  static void equalSpaceEnv(float* env, double len);
  static void default_env(float* env);

  // --- Project ------------------------------------------------------------
  NoteData* notes = nullptr;
  int32_t noteCount = 0;
  float tempo = 120.0f;
  char* voiceDir;      // kVoiceDirSize bytes, ends in "/" when non-empty
  char* projectName;   // kProjectNameSize bytes
  char* projectPath;   // kPathSize bytes
  char* cachedir;      // kPathSize bytes
  char* outfile;       // kPathSize bytes
  int16_t mode2 = 1;
  char* flags;         // kFlagsSize bytes, project-wide resampler flags
  char* charset;       // kCharsetSize bytes
  int32_t sntVersion = 200;  // format version x 100

  // --- Render state --------------------------------------------------------
  // 0 idle, 1 rendering, 2 stop requested. Only render_stop writes 2; the
  // driver writes 1 and 0.
  std::atomic<int32_t> renderState{0};
  double leadTime = 0.0;     // msec, the first note's Delta
  double totalLength = 0.0;  // msec, the last note's end
  std::vector<int32_t> inertRunEnd_;  // while preparing: where each run of inert notes ends
  double* prevBuffer = nullptr;  // previous note's rendered samples (owned)
  double prevLengthMs = 0.0;
  int32_t prevCount = 0;
  int32_t optimizeRounds = 0;  // overlap-optimisation rounds, 0 = one check
  int32_t currentLayer = -1;   // the layer rendered alone; -1 = all
  int16_t layerEnabled[kLayerCount];
  // When playback starts: as soon as the mix is complete to
  // kPlayAheadMs + earlyStartOffset msec past the play position (notes are
  // rendered in time order from there), or, with an infinite
  // earlyStartScale, once the whole range is rendered.
  static constexpr double kPlayAheadMs = 150.0;
  double earlyStartScale = 1.0;
  double earlyStartOffset = 0.0;
  pthread_mutex_t mixMutex;
  void* progressContext = nullptr;  // handed to every callback below
  // Playback: hands the block over and starts playing; reports how far
  // the render has got; progress of the render. Null when not playing.
  void (*playTrigger)(void* context, uint8_t* block, int32_t offsetBytes, int32_t lengthBytes,
                      int32_t playOffset) = nullptr;
  void (*renderPosition)(void* context, double msec) = nullptr;
  Progress progressHook = nullptr;
  // Sound laid into a render's mix before any note (a click track): called
  // once the mix is made, with the mix, its length in samples and the song
  // time in msec of its first sample (negative when the mix starts before
  // the song, to make room for the first consonant). Null: none.
  void (*underlay)(void* context, int16_t* mix, int32_t samples, double songMs) = nullptr;
  void* underlayContext = nullptr;
  // The song msec the underlay sounds to: the mix reaches at least there
  // (an accompaniment that goes on after the last note). 0: the notes' end.
  double underlayEndMs = 0.0;
  // The render cache (null: none): a note's resampled buffer by index and
  // contents; get returns a malloc block of *bytes, put stores bytes.
  double* (*cacheGet)(int32_t index, const NoteData* note, int32_t* bytes) = nullptr;
  void (*cachePut)(int32_t index, const NoteData* note, const double* data, int32_t bytes) = nullptr;

  // What the last read_snt brought into range, one line a value moved.
  std::vector<std::string> readNotices;
  char* audioTrack = nullptr;     // owned
  // The audio track's place under the song: the song time (msec) where its
  // first sample plays, its volume in percent (0-200), muted when not 0.
  double audioTrackOffset = 0.0;
  int32_t audioTrackVolume = 100;
  int32_t audioTrackMute = 0;
  cvoiceset* voiceset = nullptr;  // not owned
};

// ticks2msec for many positions of one song: the note starts, the time at
// each and the tempo after it, taken once (linear), then each position in
// logarithmic time with the very same arithmetic, so the results are
// those of ticks2msec to the bit. It is a snapshot: a later edit needs a new one.
class TickTimeline {
 public:
  explicit TickTimeline(const ctonm2& engine);
  float msec(int64_t ticks) const;

 private:
  std::vector<int64_t> starts_;   // note i's start
  std::vector<double> elapsed_;   // msec at note i's start
  std::vector<double> tempoAfter_;  // the tempo from note i's start on
  double tempo_;
  bool sorted_ = true;
};
