// CCNoteMan: the application-side owner of one project's editing model.
//
// It owns the note manager and keeps what the editor's tools share: the
// draw mode, the pen tool's note length, the quantize step, and the
// vibrato and pitch-line clipboards. It knows no user-interface toolkit:
// the desktop editor and the command line both drive edits through it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "editing/noteman.h"
#include "editing/undoman.h"

class CCNoteMan {
 public:
  explicit CCNoteMan(CScaleMan* scale = nullptr);
  ~CCNoteMan();
  CCNoteMan(const CCNoteMan&) = delete;
  CCNoteMan& operator=(const CCNoteMan&) = delete;

  CNoteMan* noteman() { return noteman_.get(); }
  CUndoMan* undoman() { return undoman_.get(); }
  // The callback every history change goes to (undo_callback): menu
  // titles and edited mark to the view, the recovery file kept.
  UndoCallback* undoCallback() { return &notifier_; }
  void setUndoView(UndoView* view) { notifier_.setView(view); }
  // Off: the recovery file is left alone.
  void setKeepRecovery(bool keep) { notifier_.setKeepRecovery(keep); }
  // Where the recovery copy is kept (empty: the recovery file).
  void setRecoveryPath(const std::string& path) { notifier_.setRecoveryPath(path); }
  const std::string& recoveryPath() const { return notifier_.recoveryPath(); }

  int32_t drawmode() const { return drawmode_; }
  void setDrawmode(int32_t mode) { drawmode_ = mode; }
  int32_t notelength() const { return notelength_; }
  void setNotelength(int32_t ticks) { notelength_ = ticks; }
  int32_t quontize() const { return quontize_; }
  void setQuontize(int32_t ticks) { quontize_ = ticks; }

  // The vibrato clipboard: ten values, all 0 until something is copied.
  int16_t* clipVBR() { return clipVBR_; }

  // The pitch-line clipboard: copies of a note's PBS, PBW, PBY and PBM.
  bool isClipPB() const { return clipPBS_ != nullptr && clipPBW_ != nullptr; }
  void copyPB(const NoteData* note);
  void pastePB(NoteData* note);
  // Frees *dst and puts a copy of a count-first list there (nothing when
  // src is missing).
  static void copyTo(float** dst, const float* src);
  static void copyCharTo(uint8_t** dst, const uint8_t* src);

  // Sings with the voice bank at `path`: when it differs from the
  // project's, reads it, prepares the notes and builds their pitch curves,
  // and with `modified` marks the project modified. When it is the same
  // (or null), the reload runs only without `modified`, and nothing is
  // marked. Returns the voice set's result, 0 when nothing was read.
  int32_t changeVoiceSet(const char* path, bool modified);

  // --- Gestures, applied as the editor applies them ---------------------------
  // A drag of the selection: snapshot, move, back into time order,
  // snapshot. Returns moveSelectedNotes' count.
  int32_t dragSelection(int32_t dTicks, int32_t dNote, int32_t step);
  // A resize of the selection (lengths only: one "lngh" step).
  int32_t resizeSelection(int32_t dTicks, int32_t step);
  // Quantizes the selection and restores time order.
  int32_t quantizeSelection(int32_t step);
  // A tempo change at `tick`, one undo step: on the first note starting
  // there ("tmpo"), else on a new zero-length rest record ("add "), as the
  // project reader keeps tempo changes. A tempo of 0 removes the change on
  // such a note. Returns the note's index, -1 when nothing was done.
  int32_t setTempoAt(int64_t tick, float tempo);
  // The tempo in force at `tick`: the last change at or before it, else
  // the project's.
  float tempoAt(int64_t tick);
  // Moves every note that starts before its predecessor back into time
  // order (absolute positions kept); returns the normalizeNotes passes run.
  int32_t normalizeAll();

 private:
  std::unique_ptr<CNoteMan> noteman_;
  std::unique_ptr<CUndoMan> undoman_;
  CUndoNotifier notifier_;
  int32_t drawmode_ = 0;
  int32_t notelength_ = 480;
  int32_t quontize_ = 120;
  int16_t clipVBR_[10] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  float* clipPBW_ = nullptr;
  float* clipPBS_ = nullptr;
  float* clipPBY_ = nullptr;
  uint8_t* clipPBM_ = nullptr;
};
