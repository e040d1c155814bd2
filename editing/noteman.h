// CNoteMan: the editing layer over one engine and its voice set.
//
// It carries out every note-level edit the views and menus ask for:
// selection, insertion at a tick position, deletion, cut, copy and paste
// through the note clipboard, dragging (move and resize with grid
// snapping), quantizing, transposing, lyric flow-in and search, and the
// per-note envelope, vibrato and pitch-point edits. It never renders and
// records no undo steps: callers bracket each edit with the undo manager.
//
// Indexes are note indexes in the engine's list. An index that names no
// note makes an operation do nothing and return 0 (-1 where an index is
// returned, the empty string for a lyric). Counts returned are the number
// of changes made.
//
// The target layer is the engine's currentLayer: when it is 0 or more,
// only notes on that layer take part in the operations that say so; when
// it is negative, every note does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "engine/ctonm2.h"
#include "voicebank/voiceset.h"

class CScaleMan;

// The application's one time-signature list, shared by the views, the
// undo history and the project reader and writer.
CScaleMan& applicationScale();

class CNoteMan {
 public:
  static constexpr int32_t kMinLength = 30;    // ticks a resize accepts
  static constexpr int32_t kMaxLength = 7680;
  static constexpr int16_t kMinDragNote = 1;   // note numbers a drag accepts
  static constexpr int16_t kMaxDragNote = 119;
  static constexpr int16_t kMinNote = 24;      // note numbers transposing keeps to
  static constexpr int16_t kMaxNote = 107;

  // Creates the engine and its voice set; `scale` defaults to the
  // application's list.
  explicit CNoteMan(CScaleMan* scale = nullptr);
  ~CNoteMan();
  CNoteMan(const CNoteMan&) = delete;
  CNoteMan& operator=(const CNoteMan&) = delete;

  ctonm2* engine() { return engine_.get(); }
  CScaleMan* scale() { return scale_; }
  int32_t noteCount() const { return engine_->noteCount; }
  int32_t targetLayer() const { return engine_->currentLayer; }
  void setTargetLayer(int32_t layer) { engine_->currentLayer = layer; }

  // --- Project ---------------------------------------------------------------
  // Empties the engine and reads a project (time signatures into the scale,
  // texts to UTF-8, place-holders expanded, the project path kept).
  // Returns the note-section count, or -1 for an empty path or a file that
  // cannot be opened. defaultPath stands for "${DEFAULT}" (may be null).
  int32_t openSnt(const char* path, const char* defaultPath);
  // Saves in the form of the engine's sntVersion (below 200: the 1.2 form).
  // 1 on success, 0 when the file cannot be created or written.
  int32_t writeSnt(const char* path, const char* defaultPath);
  void freeSnt() { engine_->free_snt(); }
  // Projects opened from now on are read in this charset ("utf-8" or
  // "shift_jis") whatever they say; empty: as they say or by their bytes.
  void setForcedCharset(const std::string& charset) { forcedCharset_ = charset; }

  // --- Selection -------------------------------------------------------------
  // Mode 0: this note alone, and it becomes the anchor. Mode 1 (range):
  // every note between the anchor and this one, both included, and no
  // other; without an anchor, as mode 0. Mode 2: toggles this note.
  void addSelect(int32_t index, int32_t mode);
  // Selects every sounding note on the target layer; returns the note count.
  int32_t SelectAll();
  void ReleaseAll();
  bool isSelected(int32_t index);
  int32_t getSelectCount();
  int32_t topOfSelection();
  int32_t lastOfSelection();
  // First and last sounding note on the target layer; -1 when none.
  int32_t firstNote();
  int32_t lastNote();
  // The neighbouring sounding note on note i's own layer; -1 when none.
  int32_t prevNote(int32_t index);
  int32_t nextNote(int32_t index);
  NoteData* getPreNote(int32_t index);
  NoteData* getNextNote(int32_t index);
  int32_t anchor() const { return anchor_; }

  // --- Reading and plain setting ---------------------------------------------
  NoteData* getNote(int32_t index) { return engine_->get_note(index); }
  // Start of note i in ticks; past the end, the sum of every Delta.
  int64_t getPosition(int32_t index);
  // The end of the last note in ticks (0 for an empty list).
  int64_t getAllTicks();
  int32_t getDelta(int32_t index);
  int32_t getLength(int32_t index);
  float getTempo(int32_t index);
  void setTempo(int32_t index, float tempo);
  // Copies the record over note i, handing its heap arrays to the list;
  // the note's old arrays are not released (they are usually the
  // record's own, taken with getNote).
  void setNote(int32_t index, const NoteData* record);
  const char* getLyric(int32_t index);
  void setLyric(int32_t index, const char* text);
  void setIntensity(int32_t index, int32_t value);
  void setIntensityForSelected(int32_t value);
  // The Deltas of notes i+1 .. j-1 minus the Length of note i: the sum
  // deliberately stops one note before j. 0 when note i does not exist.
  int32_t getBlank(int32_t i, int32_t j);
  float getBlankMSec(int32_t i, int32_t j);

  // --- Inserting and deleting ----------------------------------------------
  // Inserts a copy of the record (taking over its heap arrays) so that it
  // starts at `position`, before any note starting there; the note after
  // it keeps its place. Returns the slot, or -1.
  int32_t insertNotePosition(int64_t position, const NoteData* record);
  // A new note as the pen tool makes it.
  int32_t insertNotePosition(int64_t position, int32_t length, int32_t noteNum, const char* lyric);
  // Removes note i; the notes after it keep their places.
  int32_t deleteNote(int32_t index);
  // Deletes the selected notes; returns how many.
  int32_t DeleteNotes();
  int32_t CutNotes();
  // Puts the selected notes on the note clipboard; returns how many.
  int32_t CopyNotes();
  // Inserts the clipboard's notes from `position` on, keeping their
  // relative timing, and selects exactly them; returns how many.
  int32_t PasteNotes(int64_t position);
  // The clipboard form of the selection (a malloc block the caller frees):
  // an int32 count, then each selected note serialized, its Delta the
  // distance from the previous selected note. Null when nothing is
  // selected (*size = 4) or memory ran out.
  uint8_t* selectToSerial(int32_t* size);

  // --- Dragging, quantizing, transposing -----------------------------------
  // Takes the drag snapshot (Delta, NoteNum, Length of every note); -1
  // when memory runs out, else 0. Drags compute from the snapshot, so they
  // can be re-applied for every mouse movement.
  int32_t synchronizeNotes();
  // Moves the selection by dTicks (snapped to `step`, with the remainder
  // rule) and dNote semitones from the snapshot. The caller restores time
  // order with normalizeNotes afterwards.
  int32_t moveSelectedNotes(int32_t dTicks, int32_t dNote, int32_t step);
  int32_t moveQuontizeNote(int32_t index, int32_t dTicks, int32_t dNote, int32_t step);
  // Lengths from the snapshot plus dTicks, rounded to `step`; lengths
  // outside 30..7680 ticks are refused, not clamped.
  int32_t sizeSelectedNotes(int32_t dTicks, int32_t step);
  int32_t sizeQuontizeNote(int32_t index, int32_t dTicks, int32_t step);
  int32_t quontizeSelectedNotes(int32_t step);
  // Moves the note at `index` (and those after it) until no Delta around
  // it is negative, keeping every absolute position; returns where that
  // note ends up, -1 for an index outside 0..noteCount.
  int32_t normalizeNotes(int32_t index);
  // Transposes note i, or every selected note for i < 0, clamped to 24..107.
  int32_t addNoteNum(int32_t dNote, int32_t index);

  // --- Lyrics ----------------------------------------------------------------
  // Flows `text` (UTF-8, capacity bytes) into the notes from the first
  // selected one on, one character with its small kana per sounding note;
  // a space only separates. Unless dryRun, what is left of the text is
  // written back in Shift_JIS. *assigned (optional) receives the number
  // of notes that were given a word. Returns 0.
  int32_t assignLyric(char* text, size_t capacity, bool selectedOnly, bool dryRun, int32_t* assigned = nullptr);
  // One lyric from a path-like or spaced text: mode 2 the last part
  // whole; mode 1 the text up to the end of the first word of the last
  // part; else that word alone. Returns out.
  static char* getOneWord(const char* text, char* out, int32_t maxLength, int32_t mode);
  // The first note on the target layer whose lyric holds `text`, after
  // `from` (or before it when backward); -1 when none. No wrap-around.
  int32_t searchNote(const char* text, int32_t from, bool backward);

  // --- Envelope --------------------------------------------------------------
  int32_t defaultEnvelope(int32_t index);
  int32_t correctEnvelope(int32_t index);
  int32_t equalSpaceEnv(int32_t index);
  int32_t switchEnvelope(int32_t index, bool on);
  int32_t defaultEnvForSelected();
  int32_t correctEnvForSelected();
  int32_t equalSpaceEnvForSelected();
  int32_t switchEnvForSelected(bool on);

  // --- Vibrato ---------------------------------------------------------------
  static const int16_t kDefaultVibrato[10];
  int32_t defaultVibrato(int32_t index);
  int32_t clearVibrato(int32_t index);
  bool isEnableVibrato(int32_t index);
  // The default vibrato to every selected note that has none.
  int32_t defaultVibratoToSelected();
  int32_t clearVibratoToSelected();

  // --- Pitch line ------------------------------------------------------------
  bool isEnablePitch(int32_t index);
  int32_t defaultPitch(int32_t index);
  static void defaultPitch(NoteData* note);
  // Shape code of point k (1-based), -1 when there is none.
  int32_t getPitchKind(int32_t index, int32_t k);
  int32_t setPitchKind(int32_t index, int32_t k, int32_t code);
  // Inserts a point after point k (k = 0: before the first); 1 when done.
  int32_t addPitchPoint(int32_t index, int32_t k);
  int32_t delPitchPoint(int32_t index, int32_t k);
  // Stretches the part of the pitch line after the note start by the
  // ratio of the note's length to its snapshot length.
  int32_t stretchPitchLen(int32_t index);

  // --- Time ------------------------------------------------------------------
  // From the song start, across tempo changes.
  float Ticks2MSec(int64_t ticks);
  int32_t MSec2Ticks(double msec);
  // From the start of note `base`, deliberately at the one tempo in force
  // there.
  float Ticks2MSec(int64_t ticks, int32_t base);
  int32_t MSec2Ticks(double msec, int32_t base);

  // --- Voice set -------------------------------------------------------------
  // Drops the notes' voice references and reads the engine's voice folder;
  // returns the voice set's result.
  int32_t readVoiceset();
  void releaseVoice();
  // Writes the prefix map as "prefixmap" (UTF-8) and "prefix.map"
  // (Shift_JIS) in the voice folder. The in-memory map is left holding
  // Shift_JIS text afterwards, as it always has. 1 when both were written.
  int32_t wrtiePrefixMap();

  // --- Playback -------------------------------------------------------------
  typedef void (*PlayTrigger)(void* context, uint8_t* block, int32_t offsetBytes, int32_t lengthBytes,
                              int32_t playOffset);
  typedef void (*RenderPosition)(void* context, double msec);
  // Prepares the notes and starts the background render of the stretch
  // fromTick..toTick (toTick <= fromTick: to the end) with the playback
  // hooks and the render cache; the trigger hands the growing mix to the
  // player. With dumpPath, the notes rendered are dumped there as text.
  // Returns the render start's result; -1 or 0 with *message when nothing
  // can be played.
  int32_t playStart(int64_t fromTick, int64_t toTick, ctonm2::Progress progress, PlayTrigger playTrigger,
                    RenderPosition setRenderPos, const char* dumpPath, std::string* message);

  // The "${DEFAULT}" folder given to openSnt.
  const std::string& defaultPath() const { return defaultPath_; }

 private:
  struct Snapshot {
    int32_t delta;
    int32_t noteNum;
    int32_t length;
  };
  bool onTargetLayer(const NoteData& note) const;
  // The snapshot, taken anew when the list no longer matches it.
  Snapshot* snapshot();
  // Swaps notes k-1 and k, keeping both absolute positions and the next one's.
  void swapDown(int32_t k);
  template <typename Op>
  int32_t forSelected(Op op);

  Snapshot* snapshot_ = nullptr;  // one entry per note
  int32_t snapshotCount_ = 0;
  std::unique_ptr<cvoiceset> voiceset_;
  std::unique_ptr<ctonm2> engine_;
  int32_t renderWords_[2] = {0, 0};  // kept for the render side
  int32_t anchor_ = -1;              // fixed end of a range selection
  CScaleMan* scale_;
  std::string defaultPath_;
  std::string forcedCharset_;
};
